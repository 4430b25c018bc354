// Threads and condition variables on POSIX threads; time-outs run on the monotonic clock.
#include "threads_internal.h"

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>

#include <new>

static_assert(sizeof(pthread_cond_t) <= sizeof(conn_cond) && sizeof(pthread_t) <= sizeof(conn_thread));

static pthread_cond_t *cond_of(conn_cond *cond) { return reinterpret_cast<pthread_cond_t *>(cond->storage); }

void conn_cond_init(conn_cond *cond) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(new (cond->storage) pthread_cond_t, &attr);
    pthread_condattr_destroy(&attr);
}

void conn_cond_wake(conn_cond *cond) { pthread_cond_signal(cond_of(cond)); }

void conn_cond_wait(conn_cond *cond, conn_lock *lock, uint32_t timeout_ms) {
    auto *mutex = reinterpret_cast<pthread_mutex_t *>(lock->storage);
    if (timeout_ms == conn_wait_forever) {
        pthread_cond_wait(cond_of(cond), mutex);
        return;
    }
    timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += static_cast<time_t>(timeout_ms / 1000);
    until.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000;
    if (until.tv_nsec >= 1000000000) {
        until.tv_sec++;
        until.tv_nsec -= 1000000000;
    }
    pthread_cond_timedwait(cond_of(cond), mutex, &until);
}

namespace {
struct start {
    void (*body)(void *);
    void *arg;
};
} // namespace

static void *run(void *arg) {
    const start job = *static_cast<start *>(arg);
    free(arg);
    job.body(job.arg);
    return nullptr;
}

bool conn_thread_start(conn_thread *thread, void (*body)(void *), void *arg) {
    auto *job = static_cast<start *>(malloc(sizeof(start)));
    if (!job) return false;
    *job = {body, arg};
    // The new thread inherits the mask: signals go to the program's own threads.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t made;
    const bool started = pthread_create(&made, nullptr, run, job) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (!started) {
        free(job);
    } else if (thread) {
        new (thread->storage) pthread_t(made);
    } else {
        pthread_detach(made);
    }
    return started;
}

void conn_thread_join(conn_thread *thread) {
    pthread_join(*reinterpret_cast<pthread_t *>(thread->storage), nullptr);
}
