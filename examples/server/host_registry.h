// The registered hosts, found by key or by the beginning of their key id.
//
// A record lives until its registration lapses and its last allocation is gone: relays outlive a few lost refreshes.
// A lapsed record is found by its key alone, for its proof key. One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <unordered_map>

#include <tarnglider/conn_addr.h>
#include <tarnglider/rendezvous.h>

#include "server/slab.h"
#include "server/sources.h"

namespace app {

struct host_record {
    uint8_t id[16];
    uint8_t key[32];
    uint8_t proof_key[32]; // secret; kept, so that a refresh costs hashes only
    uint8_t cookie[16];    // with which it proved itself; good as long as the registration lives
    tarn_addr seen;
    uint8_t endpoint_count;
    tarn_addr endpoints[TARN_RV_ENDPOINTS_MAX];
    rate_meter introductions;
    uint64_t proved_us;        // when it last registered or refreshed
    uint64_t expires_us;       // the registration's end
    uint64_t sent_home_us;     // when it was last told to register again; 0: never
    uint32_t cookie_slot;      // when the cookie was made
    uint32_t source;           // of `seen`
    uint32_t first_allocation; // of the list through allocation.next_of_host, or no_record
    uint32_t due_s = 0;
};

class host_registry {
public:
    host_registry(uint32_t capacity, uint64_t seed);
    ~host_registry();
    host_registry(const host_registry &) = delete;
    host_registry &operator=(const host_registry &) = delete;

    // The record of a key, live or lapsed, or no_record.
    uint32_t find(const uint8_t id[16], const uint8_t key[32]) const;
    // The live host whose id begins with these 5 to 16 bytes; `several` is set, and nothing found, if there is more
    // than one.
    uint32_t find_prefix(const uint8_t *prefix, size_t len, uint64_t now_us, bool *several) const;
    // A zeroed record under an id, or no_record if there is no room.
    uint32_t add(const uint8_t id[16]);
    // Puts a new record on the wheel.
    void schedule(uint32_t index) { wheel_.add(index, hosts_[index], hosts_[index].expires_us); }
    // Drops what is over; `leaving` sees each record before.
    void expire(uint64_t now_us, const std::function<void(const host_record &)> &leaving);

    host_record &operator[](uint32_t index) { return hosts_[index]; }
    const host_record &operator[](uint32_t index) const { return hosts_[index]; }
    uint32_t count() const { return hosts_.used(); }

private:
    struct seeded_hash {
        uint64_t seed;
        size_t operator()(uint64_t value) const noexcept { return static_cast<size_t>(mix64(value ^ seed)); }
    };
    void remove(uint32_t index);

    slab<host_record> hosts_;
    std::unordered_multimap<uint64_t, uint32_t, seeded_hash> by_code_; // by the id's first 5 bytes
    expiry_wheel wheel_;
};

inline bool live(const host_record &host, uint64_t now_us) { return now_us <= host.expires_us; }

} // namespace app
