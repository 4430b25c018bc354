// The library's seams to the platform: wall clock, lock, run-once. The monotonic clock is tarn_now_us of
// <tarnglider/clock.h>, the random source tarn_random_bytes of <tarnglider/secure.h>. Each seam is one small source
// file for POSIX and one for Windows; tests put their own clock and random source in place of both at link time.
#ifndef TARN_SEAMS_INTERNAL_H
#define TARN_SEAMS_INTERNAL_H

#include <stdint.h>

// Microseconds since the Unix epoch by the wall clock; used for handshake timestamps and dates in lists only.
uint64_t conn_wall_us();

// A plain exclusive lock that needs no release of resources: a slim reader/writer lock, a default mutex.
// Zeroed memory is a valid unlocked lock on both platforms, but conn_lock_init says it by name.
struct conn_lock {
    alignas(8) unsigned char storage[40];
};
void conn_lock_init(conn_lock *lock);
void conn_lock_acquire(conn_lock *lock);
void conn_lock_release(conn_lock *lock);

// Runs `fn` exactly once for a zero-initialised flag, whoever calls first; later callers see all that it wrote.
struct conn_once_flag {
    alignas(8) unsigned char storage[8];
};
void conn_once(conn_once_flag *flag, void (*fn)());

// Holds a lock for a scope.
class conn_guard {
public:
    explicit conn_guard(conn_lock *lock) : lock_(lock) { conn_lock_acquire(lock_); }
    ~conn_guard() { conn_lock_release(lock_); }
    conn_guard(const conn_guard &) = delete;
    conn_guard &operator=(const conn_guard &) = delete;

private:
    conn_lock *lock_;
};

#endif
