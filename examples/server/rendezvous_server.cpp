// The rendezvous and relay server without its socket: the messages.
#include "server/rendezvous_server.h"

#include <algorithm>
#include <cstring>
#include <monocypher.h>
#include <stdexcept>
#include <utility>

#include <tarnglider/conn_relay.h>
#include <tarnglider/protocol.h>
#include <tarnglider/secure.h>

#include "common/text.h"

namespace app {
namespace {

// Everything of the secure channel fits in far less; what is longer comes from no peer.
constexpr size_t forward_max = 1500;
constexpr uint64_t second_us = 1000000;
// Cookies of this and of the last slot are good: 30 to 60 seconds for an answer that takes one round trip.
constexpr uint64_t cookie_slot_us = 30 * second_us;
constexpr uint64_t register_again_us = 10 * second_us; // between two orders to one host
constexpr unsigned lost_refreshes_max = 3;

bool rendezvous_message(const uint8_t *data, size_t len) {
    return len >= TARN_HEADER_SIZE && data[0] == TARN_MAGIC && data[1] == TARN_VERSION_PLAIN &&
           data[2] >= 96 && data[2] <= 111;
}

} // namespace

// One message with a valid trailer, and where it came from.
struct rendezvous_server::request {
    const tarn_addr &from;
    const uint8_t *data;
    size_t len;
    uint64_t now_us;
    uint32_t source;
    tarn_rv_msg m;
};

// ---- Life

rendezvous_server::secrets rendezvous_server::draw_secrets(const server_config &config) {
    const server_limits &limits = config.limits;
    if (config.link_key.empty() || config.link_key.size() > TARN_RELAY_KEY_MAX)
        throw std::runtime_error("the key of the link has 1 to 128 bytes");
    if (config.interval_s == 0 || limits.source_meters == 0)
        throw std::runtime_error("interval and number of source meters begin at 1");
    secrets s{};
    if (tarn_random_bytes(s.cookie_key, sizeof s.cookie_key) != TARN_OK ||
        tarn_random_bytes(&s.seed, sizeof s.seed) != TARN_OK)
        throw std::runtime_error("the system gives no random numbers");
    tarn_rv_net_key(s.net_key, config.link_key.data(), config.link_key.size());
    std::memcpy(s.identity, config.identity.secret, sizeof s.identity);
    return s;
}

rendezvous_server::rendezvous_server(const server_config &config, send_hook send)
    : limits_(config.limits), interval_s_(config.interval_s), send_(std::move(send)),
      secrets_(draw_secrets(config)), public_key_(), sources_(limits_.source_meters, secrets_.seed),
      hosts_(limits_.hosts, secrets_.seed),
      relay_(limits_, hosts_, sources_, secrets_.seed, config.route_by_session) {
    std::memcpy(public_key_, config.identity.public_key, sizeof public_key_);
}

rendezvous_server::~rendezvous_server() { tarn_secure_wipe(&secrets_, sizeof secrets_); }

void rendezvous_server::receive(const tarn_addr &from, const uint8_t *data, size_t len, uint64_t now_us) {
    if ((from.family != 4 && from.family != 6) || from.port == 0 || len == 0 || len > forward_max) {
        counters_.garbage++;
        return;
    }
    if (!rendezvous_message(data, len)) {
        forward(from, data, len, now_us);
        return;
    }
    request q = {from, data, len, now_us, sources_.index(from), {}};
    if (tarn_rv_decode(data, len, secrets_.net_key, &q.m) != 0) {
        counters_.garbage++;
        return;
    }
    switch (q.m.type) {
    case TARN_RV_REGISTER:
        on_register(q);
        break;
    case TARN_RV_LOOKUP:
        on_lookup(q);
        break;
    case TARN_RV_BIND:
        on_bind(q);
        break;
    default:
        counters_.garbage++;
        break;
    }
}

void rendezvous_server::tick(uint64_t now_us) {
    relay_.expire(now_us);
    hosts_.expire(now_us, [this](const host_record &host) {
        sources_[host.source].hosts--;
        counters_.lapsed++;
    });
}

// ---- What all requests share

bool rendezvous_server::take(budget_kind kind, uint32_t source, uint64_t now_us, uint64_t cost) {
    const budget &b = limits_.budgets[kind];
    // First the source's own: what it may not have doesn't count against all.
    if (sources_[source].meters[kind].take(b.source, now_us, cost) &&
        totals_[kind].take(b.total, now_us, cost))
        return true;
    counters_.limited++;
    return false;
}

void rendezvous_server::answer(const tarn_addr &to, const tarn_rv_msg &m) {
    uint8_t packet[TARN_RV_MAX_SIZE];
    const size_t len = tarn_rv_encode(packet, sizeof packet, secrets_.net_key, &m);
    send_(to, packet, len);
}

void rendezvous_server::refuse(const request &q, server_status status) {
    tarn_rv_msg m{};
    m.type = TARN_RV_ERROR;
    m.tag = q.m.tag;
    m.status = status;
    answer(q.from, m);
}

// ---- Registration

// The cookie: a keyed hash of slot and source, so that nothing is kept for a host that hasn't answered yet.
void rendezvous_server::make_cookie(uint8_t cookie[16], const tarn_addr &from, uint32_t slot) const {
    const uint8_t head[7] = {static_cast<uint8_t>(slot),
                             static_cast<uint8_t>(slot >> 8),
                             static_cast<uint8_t>(slot >> 16),
                             static_cast<uint8_t>(slot >> 24),
                             from.family,
                             static_cast<uint8_t>(from.port),
                             static_cast<uint8_t>(from.port >> 8)};
    crypto_blake2b_ctx hash;
    crypto_blake2b_keyed_init(&hash, 16, secrets_.cookie_key, sizeof secrets_.cookie_key);
    crypto_blake2b_update(&hash, head, sizeof head);
    crypto_blake2b_update(&hash, from.ip, from.family == 4 ? 4 : sizeof from.ip);
    crypto_blake2b_final(&hash, cookie);
}

bool rendezvous_server::own_cookie(const request &q, uint32_t *slot) const {
    const uint32_t now_slot = static_cast<uint32_t>(q.now_us / cookie_slot_us);
    for (uint32_t age = 0; age < 2; age++) {
        uint8_t cookie[16];
        make_cookie(cookie, q.from, now_slot - age);
        if (crypto_verify16(cookie, q.m.token) != 0) continue;
        *slot = now_slot - age;
        return true;
    }
    return false;
}

// The other half of tarn_rv_register_proof, kept apart so that its costly part is done once for a host. False for a
// public key of low order.
bool rendezvous_server::derive_proof_key(uint8_t key[32], const uint8_t host_public[32]) const {
    static constexpr char label[] = "tarnglider-rv-proof-v1";
    static constexpr uint8_t zero[32] = {};
    uint8_t dh[32];
    crypto_x25519(dh, secrets_.identity, host_public);
    const bool good = crypto_verify32(dh, zero) != 0;
    crypto_blake2b_ctx hash;
    crypto_blake2b_init(&hash, 32);
    crypto_blake2b_update(&hash, reinterpret_cast<const uint8_t *>(label), sizeof label - 1);
    crypto_blake2b_update(&hash, dh, sizeof dh);
    crypto_blake2b_final(&hash, key);
    crypto_wipe(dh, sizeof dh);
    return good;
}

bool rendezvous_server::proof_fits(const request &q, const uint8_t proof_key[32]) {
    // The endpoints are proved as they stand in the message: their number and list, up to the trailer.
    constexpr size_t list_at = TARN_HEADER_SIZE + 32 + 16 + 16;
    uint8_t proof[16];
    crypto_blake2b_ctx hash;
    crypto_blake2b_keyed_init(&hash, sizeof proof, proof_key, 32);
    crypto_blake2b_update(&hash, q.m.token, sizeof q.m.token);
    crypto_blake2b_update(&hash, q.m.key, sizeof q.m.key);
    crypto_blake2b_update(&hash, q.data + list_at, q.len - list_at - TARN_RV_TRAILER_SIZE);
    crypto_blake2b_final(&hash, proof);
    return crypto_verify16(proof, q.m.proof) == 0;
}

// What every good proof brings.
void rendezvous_server::renew(const request &q, host_record &host) const {
    host.endpoint_count = q.m.count;
    std::copy(std::begin(q.m.endpoints), std::end(q.m.endpoints), std::begin(host.endpoints));
    host.proved_us = q.now_us;
    host.sent_home_us = 0;
    host.expires_us = q.now_us + lost_refreshes_max * interval_s_ * second_us;
}

void rendezvous_server::on_register(const request &q) {
    uint8_t id[16];
    tarn_key_id(id, q.m.key);
    const uint32_t index = hosts_.find(id, q.m.key);
    if (index != no_record) {
        host_record &host = hosts_[index];
        if (live(host, q.now_us) && tarn_rv_endpoint_equal(&host.seen, &q.from) &&
            crypto_verify16(host.cookie, q.m.token) == 0) {
            refresh(q, host);
            return;
        }
    }
    uint32_t slot = 0;
    if (own_cookie(q, &slot)) {
        prove(q, id, index, slot);
    } else {
        challenge(q);
    }
}

void rendezvous_server::challenge(const request &q) {
    if (!take(budget_challenge, q.source, q.now_us)) return;
    tarn_rv_msg m{};
    m.type = TARN_RV_CHALLENGE;
    make_cookie(m.token, q.from, static_cast<uint32_t>(q.now_us / cookie_slot_us));
    std::memcpy(m.key, public_key_, sizeof m.key);
    m.seen = q.from;
    answer(q.from, m);
    counters_.challenged++;
}

void rendezvous_server::confirm(const request &q) {
    tarn_rv_msg m{};
    m.type = TARN_RV_REGISTERED;
    m.seen = q.from;
    m.interval = interval_s_;
    answer(q.from, m);
}

// A live registration goes on under its cookie. Only a fitting proof costs its budget, so that nobody can use it up in
// a host's name.
void rendezvous_server::refresh(const request &q, host_record &host) {
    if (!proof_fits(q, host.proof_key)) {
        counters_.proofs_refused++;
        if (take(budget_challenge, q.source, q.now_us)) refuse(q, status_bad_proof);
        return;
    }
    if (!take(budget_refresh, q.source, q.now_us)) return;
    renew(q, host);
    confirm(q);
    counters_.refreshed++;
}

void rendezvous_server::prove(const request &q, const uint8_t id[16], uint32_t index, uint32_t slot) {
    if (!take(budget_proof, q.source, q.now_us)) return;
    struct proof_key {
        uint8_t bytes[32];
        ~proof_key() { crypto_wipe(bytes, sizeof bytes); }
    } key;
    if (index != no_record) {
        std::memcpy(key.bytes, hosts_[index].proof_key, sizeof key.bytes);
    } else if (!derive_proof_key(key.bytes, q.m.key)) {
        counters_.proofs_refused++;
        refuse(q, status_bad_key);
        return;
    }
    if (!proof_fits(q, key.bytes)) {
        counters_.proofs_refused++;
        refuse(q, status_bad_proof);
        return;
    }
    // A late repeat of an older registration is answered, but doesn't displace the newer one.
    const bool late = index != no_record && live(hosts_[index], q.now_us) && slot < hosts_[index].cookie_slot;
    if (!late) {
        const uint8_t status = settle(q, id, &index);
        if (status != status_ok) {
            counters_.full++;
            refuse(q, static_cast<server_status>(status));
            return;
        }
        host_record &host = hosts_[index];
        std::memcpy(host.proof_key, key.bytes, sizeof host.proof_key);
        std::memcpy(host.cookie, q.m.token, sizeof host.cookie);
        host.cookie_slot = slot;
    }
    confirm(q);
}

// Gives a proved host its place: a new one, or its old one with its new address.
uint8_t rendezvous_server::settle(const request &q, const uint8_t id[16], uint32_t *index) {
    const bool known = *index != no_record;
    const bool other_source = !known || hosts_[*index].source != q.source;
    if (other_source && sources_[q.source].hosts >= limits_.hosts_per_source) return status_full;
    if (!known) *index = hosts_.add(id);
    if (*index == no_record) return status_full;
    host_record &host = hosts_[*index];
    if (other_source) {
        if (known) sources_[host.source].hosts--;
        sources_[q.source].hosts++;
    }
    if (!known || !live(host, q.now_us)) {
        counters_.registered++;
    } else if (!tarn_rv_endpoint_equal(&host.seen, &q.from)) {
        counters_.moved++;
    } else {
        counters_.refreshed++;
    }
    std::memcpy(host.key, q.m.key, sizeof host.key);
    host.seen = q.from;
    host.source = q.source;
    renew(q, host);
    if (!known) hosts_.schedule(*index);
    return status_ok;
}

// ---- Lookup

void rendezvous_server::on_lookup(const request &q) {
    if (!take(budget_lookup, q.source, q.now_us)) return;
    bool several = false;
    const uint32_t index = hosts_.find_prefix(q.m.lookup_id, q.m.id_len, q.now_us, &several);
    if (index == no_record) {
        (several ? counters_.ambiguous : counters_.unknown)++;
        refuse(q, several ? status_ambiguous : status_unknown_host);
        return;
    }
    host_record &host = hosts_[index];
    // An introduction makes a host send hundreds of punches, so each host has only so many.
    if (!host.introductions.take(limits_.introductions, q.now_us)) {
        counters_.limited++;
        return;
    }
    allocation *a = relay_.find_repeat(index, q.from, q.m.tag, q.now_us);
    if (a == nullptr) a = relay_.add(index, q.from, q.m.tag, q.now_us);
    if (a == nullptr) {
        counters_.full++;
        refuse(q, status_full);
        return;
    }
    a->looked_up_us = q.now_us;
    introduce(q, host, *a);
    counters_.lookups++;
}

// Tells each side of the other. A repeated lookup repeats both: either may have been lost.
void rendezvous_server::introduce(const request &q, const host_record &host, const allocation &a) {
    tarn_rv_msg m{};
    m.type = TARN_RV_INTRODUCE;
    m.tag = q.m.tag;
    m.allocation = a.number;
    std::memcpy(m.punch_token, a.punch_token, sizeof m.punch_token);
    std::memcpy(m.token, a.tokens[TARN_RV_SIDE_HOST], sizeof m.token);
    m.peer = q.from;
    m.count = q.m.count;
    std::copy(std::begin(q.m.endpoints), std::end(q.m.endpoints), std::begin(m.endpoints));
    answer(host.seen, m);

    m.type = TARN_RV_LOOKUP_REPLY;
    m.status = status_ok;
    std::memcpy(m.key, host.key, sizeof m.key);
    std::memcpy(m.token, a.tokens[TARN_RV_SIDE_CLIENT], sizeof m.token);
    m.seen = q.from;
    m.peer = host.seen;
    m.count = host.endpoint_count;
    std::copy(std::begin(host.endpoints), std::end(host.endpoints), std::begin(m.endpoints));
    answer(q.from, m);
    tarn_secure_wipe(&m, sizeof m);
}

// ---- Relay

void rendezvous_server::on_bind(const request &q) {
    const int side = q.m.side;
    if (side != TARN_RV_SIDE_HOST && side != TARN_RV_SIDE_CLIENT) {
        counters_.garbage++;
        return;
    }
    if (!take(budget_bind, q.source, q.now_us)) return;
    server_status status = status_no_allocation;
    allocation *a = relay_.find(q.m.allocation, side, q.m.token, q.now_us);
    if (a != nullptr && side == TARN_RV_SIDE_CLIENT && relay_.host_gone(*a, q.now_us)) {
        status = status_host_moved;
    } else if (a != nullptr) {
        switch (relay_.bind(a, side, q.from, q.now_us)) {
        case bind_result::bound:
            status = status_ok;
            break;
        case bind_result::other_address:
            // A host keeps its job and proves its new address first; a client gets a fresh allocation for it.
            status = side == TARN_RV_SIDE_HOST ? status_register_again : status_other_address;
            break;
        case bind_result::full:
            status = status_full;
            counters_.full++;
            break;
        }
    }
    (status == status_ok ? counters_.bound : counters_.binds_refused)++;
    if (status == status_register_again) {
        // The host obeys after 5 seconds, counted anew from each such answer, and binds every second meanwhile.
        uint64_t &told_us = hosts_[a->host].sent_home_us;
        if (told_us == 0 || q.now_us - told_us >= register_again_us) {
            told_us = q.now_us;
            refuse(q, status);
        }
        return;
    }
    tarn_rv_msg m{};
    m.type = TARN_RV_BIND_REPLY;
    m.allocation = q.m.allocation;
    m.status = status;
    m.seen = q.from;
    answer(q.from, m);
}

void rendezvous_server::forward(const tarn_addr &from, const uint8_t *data, size_t len, uint64_t now_us) {
    const relay_table::way way = relay_.route(from, data, len, now_us);
    if (way.to == nullptr) {
        counters_.unroutable++;
        return;
    }
    if (!take(budget_bytes, way.source, now_us, len)) return;
    send_(*way.to, data, len);
    counters_.forwarded++;
    counters_.forwarded_bytes += len;
}

// ---- Words

std::string report_line(const rendezvous_server &server, const server_counters &before) {
    std::string line = format("hosts %u, allocations %u;", server.hosts(), server.allocations());
    const size_t head = line.size();
    for (const server_counter_name &counter : server_counter_names) {
        const uint64_t since = server.counters().*counter.value - before.*counter.value;
        if (since == 0) continue;
        line += format("%s %s %llu", line.size() > head ? "," : "", counter.name,
                       static_cast<unsigned long long>(since));
    }
    if (line.size() == head) line += " nothing happened";
    return line;
}

} // namespace app
