// Monotonic and wall clock on POSIX.
#include <tarnglider/clock.h>

#include <time.h>

#include "seams_internal.h"

static int64_t read_us(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int64_t tarn_now_us(void) { return read_us(CLOCK_MONOTONIC); }

uint64_t conn_wall_us() { return static_cast<uint64_t>(read_us(CLOCK_REALTIME)); }
