// The library's seam to threads: start and join one, and wait on a condition with a time-out. Locks are those of
// seams_internal.h. Every wait of a library thread goes through here, so that the tests' form of this seam
// (tests/support/virtual_threads.cpp) can let its time pass on a clock of their own.
#ifndef TARN_THREADS_INTERNAL_H
#define TARN_THREADS_INTERNAL_H

#include "seams_internal.h"

// A condition variable that needs no release of resources.
struct conn_cond {
    alignas(8) unsigned char storage[48];
};
void conn_cond_init(conn_cond *cond);
// Ends the wait of one thread, if one waits. Call it with the lock held: the waiter may free the record once it has it.
void conn_cond_wake(conn_cond *cond);
// Releases the held lock, waits for a wake-up or the time-out, and takes the lock again. May return early.
constexpr uint32_t conn_wait_forever = UINT32_MAX;
void conn_cond_wait(conn_cond *cond, conn_lock *lock, uint32_t timeout_ms);

// A joinable thread; storage zeroed by its owner.
struct conn_thread {
    alignas(8) unsigned char storage[8];
};
// Runs body(arg) on a new thread, which takes none of the program's signals. A null `thread` starts one that nobody
// joins. False if memory or the system fails; then nothing runs.
bool conn_thread_start(conn_thread *thread, void (*body)(void *), void *arg);
void conn_thread_join(conn_thread *thread);

#endif
