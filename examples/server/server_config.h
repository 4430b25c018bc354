// What a rendezvous server is told: its keys, its limits; and what it tells: status numbers and counts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <tarnglider/secure.h>

#include "server/rate_limit.h"

namespace app {

// `status` of the server's answers. 0 and 2 mean something to hosts and clients, the others are for the person who
// reads them.
//
//   number  in               meaning                                             what helps
//   0       bind reply,      done
//           lookup reply
//   1       error (lookup)   no registered host has this id                      start the host; check the code
//   2       error (bind)     a host binds from an address that it isn't          the host registers again by itself
//                            registered at
//   3       error (lookup)   several hosts begin with these bytes                look up by the whole key id
//   4       error (any),     a table or a share of it is full                    try again later; raise the limit
//           bind reply
//   5       error (register) the proof doesn't fit key, cookie and endpoints     the host's implementation is wrong
//   6       error (register) no proof can be made for this public key            the host needs another key
//   7       bind reply       no such allocation, or another token                look up again
//   8       bind reply       the host moved or no longer binds this allocation   look up again
//   9       bind reply       the allocation was given to another address         look up again
enum server_status : uint8_t {
    status_ok = 0,
    status_unknown_host = 1,
    status_register_again = 2,
    status_ambiguous = 3,
    status_full = 4,
    status_bad_proof = 5,
    status_bad_key = 6,
    status_no_allocation = 7,
    status_host_moved = 8,
    status_other_address = 9
};

// What is limited, each by source and in total. A source is an IPv4 address or an IPv6 /56.
enum budget_kind {
    budget_challenge, // registrations that earn a challenge or a refusal
    budget_proof,     // registrations with a new proof, which may cost an X25519
    budget_refresh,   // proved repeats of a live registration
    budget_lookup,
    budget_bind,
    budget_bytes, // forwarded
    budget_kinds
};

struct budget {
    rate source;
    rate total;
};

struct server_limits {
    // Tables. One that is full refuses what is new; what lives stays.
    uint32_t hosts = 200000;
    uint32_t hosts_per_source = 1000;
    uint32_t allocations = 65536; // at most 2 to the power 20
    uint32_t allocations_per_source = 256;
    // Of these two shares the oldest that isn't bound at both ends gives way.
    uint32_t allocations_per_host = 32;
    uint32_t allocations_per_host_and_client = 8;
    uint32_t allocations_per_end = 64; // bound to one endpoint
    uint32_t source_meters = 65536;    // sources beyond that share a meter with others

    budget budgets[budget_kinds] = {
        {{50, 200}, {10000, 10000}},  {{50, 200}, {4000, 4000}},
        {{100, 400}, {50000, 50000}}, {{10, 40}, {5000, 5000}},
        {{20, 100}, {20000, 20000}},  {{25000000, 6250000}, {125000000, 31250000}},
    };
    rate introductions = {10, 20}; // to one host
};

struct server_config {
    std::vector<uint8_t> link_key; // 1 to 128 bytes, as in the relay link
    tarn_keypair identity{};       // the server's, for the proofs
    uint16_t interval_s = 20;      // between two registrations of a host; 1 to 65535
    // Send a host's packets where its client's came from. Off only to show what happens without.
    bool route_by_session = true;
    server_limits limits;
};

// Counts since the start.
struct server_counters {
    uint64_t registered = 0; // new registrations, those of hosts that had lapsed among them
    uint64_t moved = 0;      // hosts that came back from another address
    uint64_t refreshed = 0;
    uint64_t lapsed = 0;
    uint64_t challenged = 0;
    uint64_t proofs_refused = 0;
    uint64_t lookups = 0; // answered with a host
    uint64_t unknown = 0;
    uint64_t ambiguous = 0;
    uint64_t bound = 0; // binds confirmed, repeats among them
    uint64_t binds_refused = 0;
    uint64_t forwarded = 0;
    uint64_t forwarded_bytes = 0;
    uint64_t unroutable = 0; // packets that no binding knows a way for
    uint64_t limited = 0;    // dropped by a rate
    uint64_t full = 0;       // refused by a table
    uint64_t garbage = 0;    // no valid trailer, not for a server, or no packet at all
};

struct server_counter_name {
    const char *name;
    uint64_t server_counters::*value;
};
inline constexpr server_counter_name server_counter_names[] = {
    {"registered", &server_counters::registered},
    {"moved", &server_counters::moved},
    {"refreshed", &server_counters::refreshed},
    {"lapsed", &server_counters::lapsed},
    {"challenged", &server_counters::challenged},
    {"proofs_refused", &server_counters::proofs_refused},
    {"lookups", &server_counters::lookups},
    {"unknown", &server_counters::unknown},
    {"ambiguous", &server_counters::ambiguous},
    {"bound", &server_counters::bound},
    {"binds_refused", &server_counters::binds_refused},
    {"forwarded", &server_counters::forwarded},
    {"forwarded_bytes", &server_counters::forwarded_bytes},
    {"unroutable", &server_counters::unroutable},
    {"limited", &server_counters::limited},
    {"full", &server_counters::full},
    {"garbage", &server_counters::garbage},
};

} // namespace app
