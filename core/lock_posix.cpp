// Lock and run-once on POSIX threads.
#include "seams_internal.h"

#include <pthread.h>

#include <new>

static_assert(sizeof(pthread_mutex_t) <= sizeof(conn_lock));
static_assert(sizeof(pthread_once_t) <= sizeof(conn_once_flag) && PTHREAD_ONCE_INIT == 0);

static pthread_mutex_t *mutex_of(conn_lock *lock) {
    return reinterpret_cast<pthread_mutex_t *>(lock->storage);
}

void conn_lock_init(conn_lock *lock) { pthread_mutex_init(new (lock->storage) pthread_mutex_t, nullptr); }
void conn_lock_acquire(conn_lock *lock) { pthread_mutex_lock(mutex_of(lock)); }
void conn_lock_release(conn_lock *lock) { pthread_mutex_unlock(mutex_of(lock)); }

void conn_once(conn_once_flag *flag, void (*fn)()) {
    pthread_once(reinterpret_cast<pthread_once_t *>(flag->storage), fn);
}
