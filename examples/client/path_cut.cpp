// Cuts every path but those through a server for a while.
#include "client/path_cut.h"

#include <algorithm>
#include <cstdio>

#include <tarnglider/rendezvous.h>

#include "common/text.h"

namespace app {

cut_window parse_cut(const std::string &text) {
    cut_window window;
    char rest = 0;
    if (std::sscanf(text.c_str(), "%lf:%lf%c", &window.at_s, &window.for_s, &rest) != 2 ||
        !(window.at_s >= 0) || !(window.for_s > 0))
        throw usage_error("--cut-direct takes AT:SECONDS, as in 2:3, and not \"" + text + "\"");
    return window;
}

void path_cut::update(double session_s, const tarn_client_status &status) {
    const std::lock_guard held(lock_);
    active_ = session_s >= window_.at_s && session_s < window_.at_s + window_.for_s;
    spared_.clear();
    for (int i = 0; i < status.path_count; i++) {
        if (status.paths[i].path == TARN_PATH_RELAY) spared_.push_back(status.paths[i].addr);
    }
}

bool path_cut::drops(const tarn_addr &addr) const {
    const std::lock_guard held(lock_);
    return active_ && std::none_of(spared_.begin(), spared_.end(), [&](const tarn_addr &spared) {
               return tarn_rv_endpoint_equal(&spared, &addr) != 0;
           });
}

} // namespace app
