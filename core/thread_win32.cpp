// Threads and condition variables on Windows; the lock under a wait is the slim one of lock_win32.cpp.
#include "threads_internal.h"

#include <stdlib.h>
#include <windows.h>

#include <new>

static_assert(sizeof(CONDITION_VARIABLE) <= sizeof(conn_cond) && sizeof(HANDLE) <= sizeof(conn_thread));
static_assert(conn_wait_forever == INFINITE);

static CONDITION_VARIABLE *cond_of(conn_cond *cond) {
    return reinterpret_cast<CONDITION_VARIABLE *>(cond->storage);
}

void conn_cond_init(conn_cond *cond) { InitializeConditionVariable(new (cond->storage) CONDITION_VARIABLE); }
void conn_cond_wake(conn_cond *cond) { WakeConditionVariable(cond_of(cond)); }

void conn_cond_wait(conn_cond *cond, conn_lock *lock, uint32_t timeout_ms) {
    SleepConditionVariableSRW(cond_of(cond), reinterpret_cast<SRWLOCK *>(lock->storage), timeout_ms, 0);
}

namespace {
struct start {
    void (*body)(void *);
    void *arg;
};
} // namespace

static DWORD WINAPI run(LPVOID arg) {
    const start job = *static_cast<start *>(arg);
    free(arg);
    job.body(job.arg);
    return 0;
}

bool conn_thread_start(conn_thread *thread, void (*body)(void *), void *arg) {
    auto *job = static_cast<start *>(malloc(sizeof(start)));
    if (!job) return false;
    *job = {body, arg};
    const HANDLE made = CreateThread(nullptr, 0, run, job, 0, nullptr);
    if (!made) {
        free(job);
    } else if (thread) {
        new (thread->storage) HANDLE(made);
    } else {
        CloseHandle(made);
    }
    return made != nullptr;
}

void conn_thread_join(conn_thread *thread) {
    const HANDLE made = *reinterpret_cast<HANDLE *>(thread->storage);
    WaitForSingleObject(made, INFINITE);
    CloseHandle(made);
}
