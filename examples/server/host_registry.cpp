// The registered hosts.
#include "server/host_registry.h"

#include <cstring>

#include <tarnglider/secure.h>

namespace app {
namespace {

// Every lookup has these bytes, so they are the key of the one index.
uint64_t code_of(const uint8_t *id) {
    uint64_t code = 0;
    std::memcpy(&code, id, TARN_RV_ID_MIN);
    return code;
}

} // namespace

host_registry::host_registry(uint32_t capacity, uint64_t seed)
    : hosts_(capacity), by_code_(0, seeded_hash{seed}) {}

host_registry::~host_registry() {
    for (uint32_t i = 0; i < hosts_.reach(); i++)
        tarn_secure_wipe(hosts_[i].proof_key, sizeof hosts_[i].proof_key);
}

uint32_t host_registry::find(const uint8_t id[16], const uint8_t key[32]) const {
    const auto [first, last] = by_code_.equal_range(code_of(id));
    for (auto at = first; at != last; ++at) {
        if (std::memcmp(hosts_[at->second].key, key, 32) == 0) return at->second;
    }
    return no_record;
}

uint32_t host_registry::find_prefix(const uint8_t *prefix, size_t len, uint64_t now_us, bool *several) const {
    uint32_t found = no_record;
    *several = false;
    const auto [first, last] = by_code_.equal_range(code_of(prefix));
    for (auto at = first; at != last; ++at) {
        const host_record &host = hosts_[at->second];
        if (!live(host, now_us) || std::memcmp(host.id, prefix, len) != 0) continue;
        if (found != no_record) {
            *several = true;
            return no_record;
        }
        found = at->second;
    }
    return found;
}

uint32_t host_registry::add(const uint8_t id[16]) {
    const uint32_t index = hosts_.take();
    if (index == no_record) return no_record;
    hosts_[index] = host_record{};
    std::memcpy(hosts_[index].id, id, 16);
    hosts_[index].first_allocation = no_record;
    by_code_.emplace(code_of(id), index);
    return index;
}

void host_registry::remove(uint32_t index) {
    const auto [first, last] = by_code_.equal_range(code_of(hosts_[index].id));
    for (auto at = first; at != last; ++at) {
        if (at->second != index) continue;
        by_code_.erase(at);
        break;
    }
    tarn_secure_wipe(&hosts_[index], sizeof hosts_[index]);
    hosts_.give_back(index);
}

void host_registry::expire(uint64_t now_us, const std::function<void(const host_record &)> &leaving) {
    wheel_.advance(now_us, hosts_, [&](uint32_t index) {
        const host_record &host = hosts_[index];
        if (live(host, now_us)) {
            schedule(index);
        } else if (host.first_allocation != no_record) {
            wheel_.add(index, hosts_[index], now_us);
        } else {
            leaving(host);
            remove(index);
        }
    });
}

} // namespace app
