// The relay.
#include "server/relay_table.h"

#include <algorithm>
#include <cstring>

#include <tarnglider/protocol.h>
#include <tarnglider/secure.h>

namespace app {
namespace {

constexpr int host_side = TARN_RV_SIDE_HOST;
constexpr int client_side = TARN_RV_SIDE_CLIENT;

// A client probes every path twice a second. One that was silent for so long has left its session to another
// allocation; until then nobody else can claim it.
constexpr uint64_t claim_us = 3000000;
// A host answers a plain packet at once; the rest is the way there and back.
constexpr uint64_t answer_us = 2000000;

constexpr size_t sealed_min = 32;
constexpr uint8_t version_sealed = 2;

// The crypto session of a sealed packet, or 0.
uint32_t session_of(const uint8_t *data, size_t len) {
    if (len < sealed_min || data[0] != TARN_MAGIC || data[1] != version_sealed) return 0;
    return uint32_t{data[4]} | uint32_t{data[5]} << 8 | uint32_t{data[6]} << 16 | uint32_t{data[7]} << 24;
}

struct fresh_tokens {
    uint8_t relay[2][16];
    uint8_t punch[16];
    ~fresh_tokens() { tarn_secure_wipe(this, sizeof *this); }
};

} // namespace

relay_table::relay_table(const server_limits &limits, host_registry &hosts, source_table &sources,
                         uint64_t seed, bool by_session)
    : limits_(limits), hosts_(hosts), sources_(sources), by_session_(by_session),
      first_use_(static_cast<uint32_t>(mix64(seed)) & ~(allocations_max - 1)),
      allocations_(std::min(limits.allocations, allocations_max)), ends_(0, addr_hash{seed}) {}

uint64_t relay_table::deadline(const allocation &a) const {
    uint64_t end_us = a.looked_up_us + unbound_life_us;
    for (int side = 0; side < 2; side++) {
        if (a.ends[side] != nullptr) end_us = std::max(end_us, a.heard_us[side] + bind_life_us);
    }
    return end_us;
}

bool relay_table::both_live(const allocation &a, uint64_t now_us) const {
    for (int side = 0; side < 2; side++) {
        if (a.ends[side] == nullptr || now_us > a.heard_us[side] + bind_life_us) return false;
    }
    return true;
}

// ---- Making and ending

allocation *relay_table::find_repeat(uint32_t host, const tarn_addr &client, uint32_t tag, uint64_t now_us) {
    const tarn_addr &host_at = hosts_[host].seen;
    for (uint32_t i = hosts_[host].first_allocation; i != no_record; i = allocations_[i].next_of_host) {
        allocation &a = allocations_[i];
        // A host that moved since needs a fresh one, and so does a client that was just told so.
        if (a.tag == tag && now_us <= deadline(a) && !host_gone(a, now_us) &&
            tarn_rv_endpoint_equal(&a.given_to[client_side], &client) &&
            tarn_rv_endpoint_equal(&a.given_to[host_side], &host_at))
            return &a;
    }
    return nullptr;
}

// Keeps the shares of a host and of one client at it: where one is used up, the oldest that isn't in use gives way.
bool relay_table::make_room(uint32_t host, const tarn_addr &client) {
    struct share {
        uint32_t limit;
        uint32_t used = 0;
        uint32_t oldest = no_record;
    };
    share all = {limits_.allocations_per_host}, own = {limits_.allocations_per_host_and_client};
    for (uint32_t i = hosts_[host].first_allocation; i != no_record; i = allocations_[i].next_of_host) {
        const allocation &a = allocations_[i];
        const bool in_use = a.ends[host_side] != nullptr && a.ends[client_side] != nullptr;
        const auto count = [&](share &s) {
            s.used++;
            if (!in_use && (s.oldest == no_record || a.looked_up_us < allocations_[s.oldest].looked_up_us))
                s.oldest = i;
        };
        count(all);
        if (same_ip(a.given_to[client_side], client)) count(own);
    }
    for (const share &s : {own, all}) {
        if (s.used < s.limit) continue;
        if (s.oldest == no_record) return false;
        release(s.oldest);
        return true; // one is enough for both
    }
    return true;
}

allocation *relay_table::add(uint32_t host, const tarn_addr &client, uint32_t tag, uint64_t now_us) {
    const uint32_t source = sources_.index(client);
    if (sources_[source].allocations >= limits_.allocations_per_source) return nullptr;
    fresh_tokens fresh;
    if (tarn_random_bytes(&fresh, sizeof fresh) != TARN_OK || !make_room(host, client)) return nullptr;
    const uint32_t index = allocations_.take();
    if (index == no_record) return nullptr;
    allocation &a = allocations_[index];
    // Each use of a record has a number of its own, and no number is 0.
    uint32_t uses = (a.number != 0 ? a.number : first_use_) & ~(allocations_max - 1);
    uses += allocations_max;
    if (uses == 0) uses = allocations_max;
    a = allocation{};
    a.number = uses | index;
    a.host = host;
    a.source = source;
    a.tag = tag;
    std::memcpy(a.tokens, fresh.relay, sizeof a.tokens);
    std::memcpy(a.punch_token, fresh.punch, sizeof a.punch_token);
    a.given_to[host_side] = hosts_[host].seen;
    a.given_to[client_side] = client;
    a.looked_up_us = now_us;
    a.next_of_host = hosts_[host].first_allocation;
    hosts_[host].first_allocation = index;
    sources_[source].allocations++;
    wheel_.add(index, a, deadline(a));
    return &a;
}

void relay_table::release(uint32_t index) {
    allocation &a = allocations_[index];
    uint32_t *link = &hosts_[a.host].first_allocation;
    while (*link != index)
        link = &allocations_[*link].next_of_host;
    *link = a.next_of_host;
    detach(&a, host_side);
    detach(&a, client_side);
    sources_[a.source].allocations--;
    a.host = no_record;
    tarn_secure_wipe(a.tokens, sizeof a.tokens);
    allocations_.give_back(index);
}

void relay_table::expire(uint64_t now_us) {
    wheel_.advance(now_us, allocations_, [&](uint32_t index) {
        allocation &a = allocations_[index];
        if (a.host == no_record) return;
        if (now_us <= deadline(a)) {
            wheel_.add(index, a, deadline(a));
        } else {
            release(index);
        }
    });
}

// ---- Binding

allocation *relay_table::find(uint32_t number, int side, const uint8_t token[16], uint64_t now_us) {
    const uint32_t index = number & (allocations_max - 1);
    if (index >= allocations_.reach()) return nullptr;
    allocation &a = allocations_[index];
    if (a.host == no_record || a.number != number || now_us > deadline(a)) return nullptr;
    uint8_t difference = 0; // all bytes are looked at, wherever the first difference is
    for (size_t i = 0; i < sizeof a.tokens[side]; i++)
        difference = static_cast<uint8_t>(difference | (a.tokens[side][i] ^ token[i]));
    return difference == 0 ? &a : nullptr;
}

bool relay_table::host_gone(const allocation &a, uint64_t now_us) const {
    const host_record &host = hosts_[a.host];
    if (!live(host, now_us)) return false; // it may come back; until then there is nothing better to offer
    const relay_end *end = a.ends[host_side];
    const tarn_addr &at = end != nullptr ? end->addr : a.given_to[host_side];
    const uint64_t heard_us = end != nullptr ? a.heard_us[host_side] : a.looked_up_us;
    // Of two addresses the one that was heard of last is the host's.
    const bool moved = !tarn_rv_endpoint_equal(&at, &host.seen) && host.proved_us > heard_us;
    return moved || now_us > heard_us + bind_life_us;
}

bind_result relay_table::bind(allocation *a, int side, const tarn_addr &from, uint64_t now_us) {
    // The port may change with a NAT's mapping. A host that registered from a new address has proved it, too.
    const bool at_home =
        same_ip(from, a->given_to[side]) ||
        (side == host_side && live(hosts_[a->host], now_us) && same_ip(from, hosts_[a->host].seen));
    if (!at_home) return bind_result::other_address;
    const relay_end *old = a->ends[side];
    if (old == nullptr || !tarn_rv_endpoint_equal(&old->addr, &from)) {
        std::vector<uint32_t> moving = {index_of(*a)};
        if (side == host_side && old != nullptr) { // a host has one socket: where it binds one it is with all
            moving = old->bound[host_side];
            std::erase_if(moving, [&](uint32_t index) { return allocations_[index].host != a->host; });
        }
        const auto found = ends_.find(from);
        const size_t there = found != ends_.end() ? found->second.bound[side].size() : 0;
        if (there + moving.size() > limits_.allocations_per_end) return bind_result::full;
        for (const uint32_t index : moving) {
            detach(&allocations_[index], side);
            attach(&allocations_[index], side, from);
        }
    }
    a->heard_us[side] = now_us;
    return bind_result::bound;
}

void relay_table::attach(allocation *a, int side, const tarn_addr &from) {
    relay_end &end = ends_.try_emplace(from).first->second;
    end.addr = from;
    end.source = sources_.index(from);
    end.bound[side].push_back(index_of(*a));
    a->ends[side] = &end;
}

void relay_table::detach(allocation *a, int side) {
    relay_end *end = a->ends[side];
    if (end == nullptr) return;
    a->ends[side] = nullptr;
    std::erase(end->bound[side], index_of(*a));
    if (end->asker == index_of(*a)) end->asker = no_record;
    if (end->bound[host_side].empty() && end->bound[client_side].empty()) ends_.erase(tarn_addr{end->addr});
}

// ---- Forwarding

allocation *relay_table::newest(const relay_end &end, int side, uint64_t now_us) {
    for (auto at = end.bound[side].rbegin(); at != end.bound[side].rend(); ++at) {
        if (both_live(allocations_[*at], now_us)) return &allocations_[*at];
    }
    return nullptr;
}

allocation *relay_table::of_session(const relay_end &end, uint32_t session, uint64_t now_us) {
    if (session == 0) return nullptr;
    for (const uint32_t index : end.bound[host_side]) {
        for (const auto &known : allocations_[index].sessions) {
            if (known.id == session && both_live(allocations_[index], now_us)) return &allocations_[index];
        }
    }
    return nullptr;
}

allocation *relay_table::of_question(const relay_end &end, uint64_t now_us) {
    if (end.asker == no_record || now_us > end.asked_us + answer_us) return nullptr;
    allocation &a = allocations_[end.asker];
    return both_live(a, now_us) ? &a : nullptr;
}

// Notes that a client of this allocation uses a session. Another client that only says so takes nothing away.
void relay_table::learn(allocation *a, uint32_t session, uint64_t now_us) {
    auto *place = &a->sessions[0];
    for (auto &known : a->sessions) {
        if (known.id == session) {
            known.used_us = now_us;
            return;
        }
        if (known.used_us < place->used_us) place = &known;
    }
    for (const uint32_t index : a->ends[host_side]->bound[host_side]) {
        allocation &other = allocations_[index];
        for (auto &known : other.sessions) {
            if (known.id != session) continue;
            const bool same_client = other.ends[client_side] == a->ends[client_side];
            if (!same_client && now_us <= known.used_us + claim_us) return;
            known = {};
        }
    }
    *place = {session, now_us};
}

relay_table::way relay_table::route(const tarn_addr &from, const uint8_t *data, size_t len, uint64_t now_us) {
    const auto found = ends_.find(from);
    if (found == ends_.end()) return {};
    const relay_end &end = found->second;
    const uint32_t session = session_of(data, len);
    int side = host_side;
    allocation *a = by_session_ ? of_session(end, session, now_us) : nullptr;
    if (a == nullptr) {
        a = newest(end, client_side, now_us);
        if (a != nullptr) side = client_side;
    }
    if (a == nullptr && by_session_ && session == 0) a = of_question(end, now_us);
    if (a == nullptr) a = newest(end, host_side, now_us);
    if (a == nullptr || a->ends[host_side] == a->ends[client_side]) return {};

    relay_end *other = a->ends[1 - side];
    if (side == client_side && session != 0) {
        learn(a, session, now_us);
    } else if (side == client_side) {
        other->asker = index_of(*a);
        other->asked_us = now_us;
    }
    a->heard_us[side] = now_us;
    return {&other->addr, end.source};
}

} // namespace app
