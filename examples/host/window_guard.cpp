// When a pairing window has to close.
#include "host/window_guard.h"

#include <algorithm>

#include <tarnglider/rendezvous.h>

#include "common/text.h"

namespace app {

void window_guard::opened() { *this = window_guard(); }

void window_guard::failed(const tarn_addr &from) {
    tarn_addr addr = from;
    addr.port = 0;
    const auto known = std::find_if(sources_.begin(), sources_.end(), [&](const source &s) {
        return tarn_rv_endpoint_equal(&s.addr, &addr) != 0;
    });
    if (known != sources_.end()) {
        known->attempts++;
    } else if (sources_.size() < sources_max) {
        sources_.push_back({addr, 1});
    } else {
        others_++;
    }
}

bool window_guard::pin_replaced() { return ++replaced_ >= replaced_pins_max; }

std::string window_guard::sources() const {
    std::vector<source> sorted = sources_;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const source &a, const source &b) { return a.attempts > b.attempts; });
    std::string text;
    for (const source &s : sorted) {
        if (!text.empty()) text += ", ";
        std::string addr = addr_text(s.addr);
        addr.resize(addr.rfind(':')); // the port
        text += format("%s (%llu)", addr.c_str(), static_cast<unsigned long long>(s.attempts));
    }
    if (others_ > 0) text += format(", others (%llu)", static_cast<unsigned long long>(others_));
    return text;
}

} // namespace app
