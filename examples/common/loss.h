// Drops datagrams on purpose, the same ones for the same seed on every machine.
#pragma once

#include <cstdint>
#include <random>

namespace app {

class loss_injector {
public:
    // `percent` from 0 to 100.
    loss_injector(double percent, uint64_t seed)
        : random_(seed), threshold_(static_cast<uint64_t>(percent / 100.0 * 4294967296.0)) {}

    // One draw for each datagram, also when nothing is ever dropped.
    bool drop() {
        const bool lost = (random_() >> 32) < threshold_;
        dropped_ += lost ? 1 : 0;
        return lost;
    }
    uint64_t dropped() const { return dropped_; }

private:
    std::mt19937_64 random_; // its sequence is part of the C++ standard
    uint64_t threshold_;     // of 2^32
    uint64_t dropped_ = 0;
};

} // namespace app
