#include "support/virtual_threads.h"

#include <string.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <tarnglider/clock.h>

#include "support/virtual_clock.h"
#include "threads_internal.h"

namespace {

struct waiter {
    const conn_cond *cond;
    int64_t due;
    bool woken;
    bool ready() const { return woken || due <= tarn_now_us(); }
};

std::mutex state; // guards all of this, and every move of the clock
std::condition_variable changed;
std::vector<waiter *> waiters;
int threads = 0;
bool failing = false;

bool settled() {
    return static_cast<int>(waiters.size()) == threads &&
           std::none_of(waiters.begin(), waiters.end(), [](const waiter *w) { return w->ready(); });
}
int64_t earliest() {
    int64_t due = INT64_MAX;
    for (const waiter *w : waiters)
        due = std::min(due, w->due);
    return due;
}

} // namespace

void conn_cond_init(conn_cond *) {}

void conn_cond_wake(conn_cond *cond) {
    const std::lock_guard held(state);
    for (waiter *w : waiters) {
        if (w->cond != cond || w->woken) continue;
        w->woken = true;
        changed.notify_all();
        return;
    }
}

void conn_cond_wait(conn_cond *cond, conn_lock *lock, uint32_t timeout_ms) {
    std::unique_lock held(state);
    waiter self = {cond, INT64_MAX, false};
    if (timeout_ms != conn_wait_forever) self.due = tarn_now_us() + int64_t{timeout_ms} * 1000;
    waiters.push_back(&self);
    changed.notify_all();
    conn_lock_release(lock);
    changed.wait(held, [&] { return self.ready(); });
    waiters.erase(std::find(waiters.begin(), waiters.end(), &self));
    held.unlock();
    conn_lock_acquire(lock);
}

bool conn_thread_start(conn_thread *thread, void (*body)(void *), void *arg) {
    const std::lock_guard held(state);
    if (failing) return false;
    threads++;
    auto *made = new std::thread([body, arg] {
        body(arg);
        const std::lock_guard ending(state);
        threads--;
        changed.notify_all();
    });
    if (thread) {
        memcpy(thread->storage, &made, sizeof made);
    } else {
        made->detach();
        delete made;
    }
    return true;
}

void conn_thread_join(conn_thread *thread) {
    std::thread *made;
    memcpy(&made, thread->storage, sizeof made);
    made->join();
    delete made;
}

namespace virtual_threads {

void settle() {
    std::unique_lock held(state);
    changed.wait(held, settled);
}

void advance(int64_t us) {
    std::unique_lock held(state);
    const int64_t target = tarn_now_us() + us;
    for (;;) {
        changed.wait(held, settled);
        if (tarn_now_us() == target) return;
        virtual_clock::set(std::min(target, earliest()));
        changed.notify_all();
    }
}

void spend(int64_t us) {
    const std::lock_guard held(state);
    virtual_clock::advance(us);
    changed.notify_all();
}

int64_t next_due() {
    std::unique_lock held(state);
    changed.wait(held, settled);
    return earliest();
}

int running() {
    const std::lock_guard held(state);
    return threads;
}

void fail_starts(bool on) {
    const std::lock_guard held(state);
    failing = on;
}

} // namespace virtual_threads
