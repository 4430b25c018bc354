// Lock and run-once on Windows: slim reader/writer lock, taken exclusively, and one-time initialisation.
#include "seams_internal.h"

#include <windows.h>

#include <new>

static_assert(sizeof(SRWLOCK) <= sizeof(conn_lock));
static_assert(sizeof(INIT_ONCE) <= sizeof(conn_once_flag));

static SRWLOCK *srw_of(conn_lock *lock) { return reinterpret_cast<SRWLOCK *>(lock->storage); }

void conn_lock_init(conn_lock *lock) { InitializeSRWLock(new (lock->storage) SRWLOCK); }
void conn_lock_acquire(conn_lock *lock) { AcquireSRWLockExclusive(srw_of(lock)); }
void conn_lock_release(conn_lock *lock) { ReleaseSRWLockExclusive(srw_of(lock)); }

static BOOL CALLBACK run_once(PINIT_ONCE, PVOID parameter, PVOID *) {
    (*static_cast<void (**)()>(parameter))();
    return TRUE;
}

void conn_once(conn_once_flag *flag, void (*fn)()) {
    InitOnceExecuteOnce(reinterpret_cast<INIT_ONCE *>(flag->storage), run_once, &fn, nullptr);
}
