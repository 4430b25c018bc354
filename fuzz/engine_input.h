// The input of the engines' fuzzers, read as a list of steps; each step is an operation byte and what it needs. A step
// that the input is too short for reads zeros.
//   bits 0-2  what to do, listed in the fuzzers    bits 3-4  which of four endpoints it comes from
#ifndef FUZZ_ENGINE_INPUT_H
#define FUZZ_ENGINE_INPUT_H

#include <algorithm>
#include <cstdlib>

#include <tarnglider/clock.h>

#include "support/engine_rig.h"
#include "support/seeded_random.h"
#include "support/virtual_clock.h"

struct engine_input {
    const uint8_t *at;
    size_t left;

    uint8_t u8() {
        if (left == 0) return 0;
        left--;
        return *at++;
    }
    bytes take(size_t n) {
        n = std::min(n, left);
        bytes b(at, at + n);
        at += n;
        left -= n;
        return b;
    }
    // Type, flags, length and body of a plain packet.
    bytes packet() {
        const uint8_t type = u8(), flags = u8();
        return plain(type, take(u8()), flags);
    }
    // A packet with one byte changed.
    bytes damaged(bytes p) {
        if (!p.empty()) p[u8() % p.size()] ^= static_cast<uint8_t>(u8() | 1);
        return p;
    }
};

inline const tarn_addr &fuzz_endpoint(uint8_t op) {
    static const tarn_addr all[4] = {ep("203.0.113.5:9000"), ep("192.168.1.10:9000"), ep("[2001:db8::1]:5"),
                                     ep("203.0.113.99:9877")};
    return all[op >> 3 & 3];
}
inline void must(bool holds) {
    if (!holds) abort();
}

// An engine in a known state, made once and put back for each input: a record is flat, so its bytes are its state.
template <class Rig, class Engine>
struct known_state {
    Rig &rig;
    Engine *engine;
    bytes record;
    int64_t now = tarn_now_us();
    known_state(Rig &r, Engine *e)
        : rig(r), engine(e),
          record(reinterpret_cast<uint8_t *>(e), reinterpret_cast<uint8_t *>(e) + sizeof *e) {}
    void restore() {
        virtual_clock::set(now);
        seeded_random::reset(1);
        memcpy(static_cast<void *>(engine), record.data(), record.size());
        rig.take();
        rig.take_log();
    }
};

#endif
