// Linked in place of random_posix.cpp or random_win32.cpp.
#include "support/seeded_random.h"

#include <tarnglider/secure.h>

#include <deque>

namespace {

test_random generator(1);
std::deque<uint8_t> pushed;
int failing = 0;
int count = 0;

} // namespace

int tarn_random_bytes(void *buffer, size_t size) {
    if (size == 0) return TARN_OK;
    count++;
    if (failing > 0 && --failing == 0) return TARN_ERR_RANDOM;
    for (size_t i = 0; i < size; i++) {
        uint8_t *to = static_cast<uint8_t *>(buffer) + i;
        if (pushed.empty()) {
            *to = static_cast<uint8_t>(generator.next());
        } else {
            *to = pushed.front();
            pushed.pop_front();
        }
    }
    return TARN_OK;
}

namespace seeded_random {

void reset(uint64_t seed) {
    generator = test_random(seed);
    pushed.clear();
    failing = 0;
    count = 0;
}
void push(const void *bytes, size_t size) {
    const uint8_t *from = static_cast<const uint8_t *>(bytes);
    pushed.insert(pushed.end(), from, from + size);
}
void fail_at(int n) { failing = n; }
int draws() { return count; }

} // namespace seeded_random
