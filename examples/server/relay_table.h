// The relay: allocations, the two endpoints bound to each, and the way of a datagram from one to the other.
//
//   allocation  made by a lookup; holds while it is looked up, bound or used
//   end         an endpoint that is bound to allocations, as host's side or as client's
//
// A host speaks to all its clients from one endpoint, and a client may have a second allocation while the first still
// lives. A datagram's way is found so:
//   a client's goes to the host of its newest live binding, and teaches which crypto session uses that allocation
//   a host's sealed packet goes to the allocation that uses its session
//   a host's plain packet answers the client that sent the last plain one
//   what remains goes to the host's newest live binding
// A binding is live while both ends have been heard of lately. One thread.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include <tarnglider/conn_addr.h>
#include <tarnglider/rendezvous.h>

#include "server/host_registry.h"
#include "server/slab.h"
#include "server/sources.h"

namespace app {

// A bound side is quiet after four missed binds of 15 s; an allocation that nobody binds ends after two and a half
// times the 12 s for which a client looks up.
constexpr uint64_t bind_life_us = 60000000;
constexpr uint64_t unbound_life_us = 30000000;

// An endpoint and what is bound to it, oldest first, by side.
struct relay_end {
    tarn_addr addr;
    uint32_t source;
    std::vector<uint32_t> bound[2];
    uint32_t asker = no_record; // allocation whose client sent the host's end the last plain packet
    uint64_t asked_us = 0;
};

struct allocation {
    uint32_t number = 0; // on the wire; low bits are the record's number, high ones count its uses
    uint32_t due_s = 0;
    uint32_t host = no_record; // no_record: the record is free
    uint32_t next_of_host = no_record;
    uint32_t source = 0; // of the client
    uint32_t tag = 0;
    // By side. Each side has a token of its own: who binds shows that the server's datagram reached that address, so
    // that the relay can't be aimed at one that didn't ask.
    uint8_t tokens[2][16] = {};
    tarn_addr given_to[2] = {}; // the addresses to which the tokens went
    relay_end *ends[2] = {};
    uint64_t heard_us[2] = {}; // last bind or datagram of a bound side
    uint8_t punch_token[16] = {};
    uint64_t looked_up_us = 0;
    struct {
        uint32_t id;
        uint64_t used_us;
    } sessions[4] = {}; // a client has at most three crypto sessions at a time
};

// What a bind comes to.
enum class bind_result { bound, other_address, full };

class relay_table {
public:
    relay_table(const server_limits &limits, host_registry &hosts, source_table &sources, uint64_t seed,
                bool by_session);

    // The running allocation of a repeated lookup, or null.
    allocation *find_repeat(uint32_t host, const tarn_addr &client, uint32_t tag, uint64_t now_us);
    // A fresh one with fresh tokens. Null if a table or share is full or there is no randomness.
    allocation *add(uint32_t host, const tarn_addr &client, uint32_t tag, uint64_t now_us);

    // The allocation of a number and of this side's token, or null.
    allocation *find(uint32_t number, int side, const uint8_t token[16], uint64_t now_us);
    // Whether the host is registered but no longer reached through this allocation.
    bool host_gone(const allocation &a, uint64_t now_us) const;
    bind_result bind(allocation *a, int side, const tarn_addr &from, uint64_t now_us);

    struct way {
        const tarn_addr *to = nullptr; // null: none
        uint32_t source = 0;           // of the sender
    };
    way route(const tarn_addr &from, const uint8_t *data, size_t len, uint64_t now_us);

    void expire(uint64_t now_us);
    uint32_t count() const { return allocations_.used(); }

private:
    using end_map = std::unordered_map<tarn_addr, relay_end, addr_hash, addr_equal>;

    uint32_t index_of(const allocation &a) const { return a.number & (allocations_max - 1); }
    uint64_t deadline(const allocation &a) const;
    bool both_live(const allocation &a, uint64_t now_us) const;
    bool make_room(uint32_t host, const tarn_addr &client);
    void release(uint32_t index);
    void attach(allocation *a, int side, const tarn_addr &from);
    void detach(allocation *a, int side);
    allocation *newest(const relay_end &end, int side, uint64_t now_us);
    allocation *of_session(const relay_end &end, uint32_t session, uint64_t now_us);
    allocation *of_question(const relay_end &end, uint64_t now_us);
    void learn(allocation *a, uint32_t session, uint64_t now_us);

    static constexpr uint32_t allocations_max = 1U << 20;

    const server_limits &limits_;
    host_registry &hosts_;
    source_table &sources_;
    bool by_session_;
    uint32_t first_use_; // high bits of a record's first number
    slab<allocation> allocations_;
    end_map ends_;
    expiry_wheel wheel_;
};

} // namespace app
