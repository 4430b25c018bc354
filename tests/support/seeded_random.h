// The seeded random source of the tests: it stands in for the library's random seam, so that a run replays exactly,
// and fails on demand.
#ifndef TEST_SEEDED_RANDOM_H
#define TEST_SEEDED_RANDOM_H

#include <stddef.h>
#include <stdint.h>

// SplitMix64: a small generator for test data, good enough and the same everywhere.
struct test_random {
    uint64_t state;
    explicit test_random(uint64_t seed) : state(seed) {}
    uint64_t next() {
        uint64_t z = state += 0x9E3779B97F4A7C15u;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        return z ^ (z >> 31);
    }
    // A number from 0 to bound - 1.
    uint64_t below(uint64_t bound) { return next() % bound; }
    void fill(void *to, size_t size) {
        for (size_t i = 0; i < size; i++)
            static_cast<uint8_t *>(to)[i] = static_cast<uint8_t>(next());
    }
};

namespace seeded_random {

void reset(uint64_t seed);
// The next draws hand out exactly these bytes, before the generator goes on.
void push(const void *bytes, size_t size);
// The n-th draw from now fails (1 is the next one), and the draws behind it succeed again; 0 switches this off.
void fail_at(int n);
// Draws made since reset.
int draws();

} // namespace seeded_random

#endif
