// Monotonic and wall clock on Windows. The counter's frequency is read once; the race of first callers is harmless,
// since all store the same value.
#include <tarnglider/clock.h>

#include <windows.h>

#include <atomic>

#include "seams_internal.h"

int64_t tarn_now_us(void) {
    static std::atomic<int64_t> cached{0};
    int64_t frequency = cached.load(std::memory_order_relaxed);
    if (frequency == 0) {
        LARGE_INTEGER value;
        QueryPerformanceFrequency(&value);
        frequency = value.QuadPart;
        cached.store(frequency, std::memory_order_relaxed);
    }
    LARGE_INTEGER count;
    QueryPerformanceCounter(&count);
    // Split, so that the product stays small however long the machine has been up.
    return count.QuadPart % frequency * 1000000 / frequency + count.QuadPart / frequency * 1000000;
}

uint64_t conn_wall_us() {
    FILETIME time;
    GetSystemTimeAsFileTime(&time);
    const uint64_t ticks = static_cast<uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
    return ticks / 10 - 11644473600000000u; // 100 ns since 1601 to microseconds since 1970
}
