// Rates: so many a second on average, so many at once. A meter is one number, so that a table of sources stays small.
#pragma once

#include <algorithm>
#include <cstdint>

namespace app {

struct rate {
    uint64_t per_second = 0; // 0: without limit
    uint64_t burst = 0;      // how many may come at once after a pause
};

// The leaky bucket as one time: that at which everything taken so far would have been earned. A fresh meter is a full
// bucket.
class rate_meter {
public:
    // Takes `cost` units. False if they aren't there; then nothing is taken.
    bool take(const rate &limit, uint64_t now_us, uint64_t cost = 1) {
        if (limit.per_second == 0) return true;
        constexpr uint64_t second_ns = 1000000000;
        const uint64_t now_ns = now_us * 1000;
        const uint64_t earned_ns = std::max(earned_ns_, now_ns) + cost * second_ns / limit.per_second;
        if (earned_ns - now_ns > limit.burst * second_ns / limit.per_second) return false;
        earned_ns_ = earned_ns;
        return true;
    }

private:
    uint64_t earned_ns_ = 0;
};

} // namespace app
