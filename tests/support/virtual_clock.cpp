// Linked in place of clock_posix.cpp or clock_win32.cpp.
#include "support/virtual_clock.h"

#include <tarnglider/clock.h>

#include "seams_internal.h"

namespace {

constexpr int64_t start_us = 1000 * 1000000LL;
constexpr int64_t start_wall_us = 1790000000 * 1000000LL;
int64_t now_us = start_us;
int64_t wall_us = start_wall_us;

} // namespace

int64_t tarn_now_us(void) { return now_us; }
uint64_t conn_wall_us() { return static_cast<uint64_t>(wall_us); }

namespace virtual_clock {

void reset() {
    now_us = start_us;
    wall_us = start_wall_us;
}
void advance(int64_t us) {
    now_us += us;
    wall_us += us;
}
void set(int64_t us) { advance(us - now_us); }
void step_wall(int64_t us) { wall_us += us; }

} // namespace virtual_clock
