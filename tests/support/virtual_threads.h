// Threads on the settable clock: linked in place of thread_posix.cpp or thread_win32.cpp, together with
// virtual_clock.cpp. The threads are real, but their timed waits end only when the test moves the clock, and the test
// can wait until they have nothing left to do. So a test is as exact as one without threads, and never waits for time.
#ifndef TEST_VIRTUAL_THREADS_H
#define TEST_VIRTUAL_THREADS_H

#include <stdint.h>

namespace virtual_threads {

// Returns once every thread of the library has ended or waits for something that hasn't come. The calls below settle
// first; while threads run, the clock is moved by them alone.
void settle();
// Moves the clock forward, stopping at the end of each wait on the way until the threads have settled again.
void advance(int64_t us);
// Moves the clock from inside a thread of the library, as if it had been busy for so long.
void spend(int64_t us);
// The end of the earliest timed wait by tarn_now_us; INT64_MAX if there is none.
int64_t next_due();
// Threads that have begun and not ended.
int running();
// While on, no thread can be started.
void fail_starts(bool on);

} // namespace virtual_threads

#endif
