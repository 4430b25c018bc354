// The head that both engines share: server table, event ring, send paths, name resolutions, small packets.
// The caller holds the engine's lock, but for what conn_internal.h names.
#include "conn_internal.h"

#include <monocypher.h>

#include <stdarg.h>
#include <stdio.h>

#include <atomic>

#include "bytes_internal.h"

// The records below cross the library's border; their layout is part of the interface.
static_assert(sizeof(conn_event) == 160 && sizeof(tarn_addr) == 20);
static_assert(sizeof(tarn_keypair) == 64 && sizeof(tarn_recv_info) == 12);

uint64_t conn_hs_timestamp() {
    static std::atomic<uint64_t> last_given{0};
    const uint64_t wall = conn_wall_us();
    uint64_t last = last_given.load();
    uint64_t next;
    do {
        next = wall > last ? wall : last + 1;
    } while (!last_given.compare_exchange_weak(last, next));
    return next;
}

uint32_t conn_random_u32() {
    uint8_t bytes[4];
    return tarn_random_bytes(bytes, sizeof bytes) == TARN_OK ? get_u32(bytes) : 0;
}

void conn_blake2b16(uint8_t out[16], const uint8_t *data, size_t len) { crypto_blake2b(out, 16, data, len); }

// Loads one entry of a relay configuration through the same check as a new link, so that the table holds only
// normalised servers.
static bool load_server(conn_server *out, const tarn_relay_server *entry) {
    tarn_relay_server good;
    const bool valid =
        tarn_relay_server_set(&good, entry->host, entry->port, entry->key, entry->key_len) == 0;
    if (valid) {
        memcpy(out->host, good.host, sizeof out->host);
        out->port = good.port;
        tarn_rv_net_key(out->net_key, good.key, good.key_len);
        out->addr = good.addr.family != 0 ? good.addr : entry->addr;
        out->addr.port = good.port;
        if (out->addr.family == 0) out->addr = tarn_addr{};
    }
    tarn_secure_wipe(&good, sizeof good);
    return valid;
}

int conn_servers_load(conn_server out[conn_servers_max], const tarn_relay_config *relays) {
    memset(out, 0, sizeof(conn_server) * conn_servers_max);
    int count = 0;
    for (int i = 0; relays && i < relays->count && i < conn_servers_max; i++) {
        if (load_server(&out[count], &relays->servers[i])) count++;
    }
    return count;
}

void conn_base_init(conn_base *b, const tarn_keypair *id, const char *name, const tarn_relay_config *relays,
                    const tarn_addr *lan, int lan_count, tarn_send_fn send, tarn_log_fn log, void *user) {
    conn_lock_init(&b->lock);
    b->identity = *id;
    conn_clean_name(b->name, name);
    b->send = send;
    b->log = log;
    b->user = user;
    b->server_count = conn_servers_load(b->servers, relays);
    conn_set_lan(b, lan, lan_count);
}

void conn_set_lan(conn_base *b, const tarn_addr *lan, int count) {
    b->lan_count = count < 0 ? 0 : count > TARN_LAN_MAX ? TARN_LAN_MAX : count;
    for (int i = 0; i < b->lan_count; i++)
        b->lan[i] = lan[i];
}

conn_event *conn_ev_push(conn_base *b, int kind) {
    if (b->event_count == TARN_EVENTS_MAX) {
        b->event_head = (b->event_head + 1) % TARN_EVENTS_MAX;
        b->event_count--;
    }
    conn_event *event = &b->events[(b->event_head + b->event_count) % TARN_EVENTS_MAX];
    b->event_count++;
    *event = conn_event{};
    event->kind = kind;
    event->server = -1;
    return event;
}

conn_event *conn_ev_push_peer(conn_base *b, int kind, const uint8_t key[32]) {
    conn_event *event = conn_ev_push(b, kind);
    memcpy(event->key, key, sizeof event->key);
    tarn_key_id(event->key_id, key);
    return event;
}

int conn_ev_pop(conn_base *b, conn_event *out) {
    if (b->event_count == 0) return 0;
    *out = b->events[b->event_head];
    b->event_head = (b->event_head + 1) % TARN_EVENTS_MAX;
    b->event_count--;
    return 1;
}

int conn_poll_event(conn_base *b, conn_event *out) {
    const conn_guard held(&b->lock);
    return conn_ev_pop(b, out);
}

void conn_log(conn_base *b, const char *format, ...) {
    if (!b->log) return;
    char line[512];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    b->log(b->user, line);
}

void conn_send(conn_base *b, const tarn_addr *to, const uint8_t *data, size_t len) {
    if (len == 0 || to->family == 0) return;
    b->send(b->user, to, data, len);
}

void conn_send_rv(conn_base *b, const tarn_addr *to, const tarn_rv_msg *m, const uint8_t *key) {
    uint8_t packet[256]; // the largest message, with four endpoints, has 212 bytes
    conn_send(b, to, packet, tarn_rv_encode(packet, sizeof packet, key, m));
}

void conn_send_server(conn_base *b, int server, const tarn_rv_msg *m) {
    if (server < 0 || server >= b->server_count) return;
    const conn_server *to = &b->servers[server];
    if (to->addr.family == 0) return;
    conn_send_rv(b, &to->addr, m, to->net_key);
}

void conn_send_bind(conn_base *b, int server, uint32_t allocation, const uint8_t token[16], uint8_t side) {
    tarn_rv_msg m = {};
    m.type = TARN_RV_BIND;
    m.allocation = allocation;
    memcpy(m.token, token, sizeof m.token);
    m.side = side;
    conn_send_server(b, server, &m);
}

void conn_send_sealed(conn_base *b, const tarn_addr *to, tarn_session *keys, const uint8_t *plain,
                      size_t len) {
    uint8_t packet[64 + TARN_SEAL_OVERHEAD];
    conn_send(b, to, packet, tarn_seal(keys, plain, len, packet, sizeof packet));
}

int conn_candidates(tarn_addr out[conn_candidates_max], const tarn_rv_msg *m) {
    int count = 0;
    if (m->peer.family != 0) out[count++] = m->peer;
    for (int i = 0; i < m->count && i < TARN_LAN_MAX; i++) {
        const tarn_addr *endpoint = &m->endpoints[i];
        bool listed = false;
        for (int k = 0; k < count; k++) {
            if (tarn_rv_endpoint_equal(&out[k], endpoint)) listed = true;
        }
        if (endpoint->family != 0 && !listed) out[count++] = *endpoint;
    }
    return count;
}

int conn_server_index(const conn_base *b, const tarn_addr *from) {
    for (int i = 0; i < b->server_count; i++) {
        const tarn_addr *addr = &b->servers[i].addr;
        if (addr->family != 0 && tarn_rv_endpoint_equal(addr, from)) return i;
    }
    return -1;
}

const char *conn_addr_str(const tarn_addr *a, char *buf, size_t cap) {
    tarn_addr_format(buf, cap, a);
    return buf;
}

const char *conn_server_str(const conn_base *b, int server, char *buf, size_t cap) {
    const conn_server *s = &b->servers[server];
    const bool literal6 = strchr(s->host, ':') != nullptr;
    snprintf(buf, cap, "%s%s%s:%u", literal6 ? "[" : "", s->host, literal6 ? "]" : "", unsigned{s->port});
    return buf;
}

// One server's part of a finished resolution; true when its address changed.
static bool take_resolution(conn_base *b, conn_server *s, const tarn_addr *addr) {
    if (!addr) {
        if (!s->resolve_failed) conn_log(b, "server %s:%u: name did not resolve", s->host, unsigned{s->port});
        s->resolve_failed = 1;
        return false;
    }
    s->resolve_failed = 0;
    tarn_addr found = *addr;
    found.port = s->port;
    if (s->addr.family != 0 && tarn_rv_endpoint_equal(&s->addr, &found)) return false;
    char text[conn_addr_text];
    conn_log(b, "server %s:%u is at %s", s->host, unsigned{s->port},
             conn_addr_str(&found, text, sizeof text));
    s->addr = found;
    return true;
}

uint32_t conn_server_resolved(conn_base *b, const char *name, uint16_t port, const tarn_addr *addr) {
    if (!name) return 0;
    if (addr && addr->family == 0) addr = nullptr;
    uint32_t changed = 0;
    for (int i = 0; i < b->server_count; i++) {
        conn_server *s = &b->servers[i];
        if (s->port != port || !conn_strieq(s->host, name)) continue;
        if (take_resolution(b, s, addr)) changed |= 1u << i;
    }
    return changed;
}

bool conn_receive_begins(const uint8_t *pkt, size_t len, size_t *out_len, tarn_recv_info *info) {
    *out_len = 0;
    if (info) *info = tarn_recv_info{};
    return len >= TARN_HEADER_SIZE && pkt[0] == TARN_MAGIC;
}

int conn_strieq(const char *a, const char *b) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    while (*a && lower(*a) == lower(*b)) {
        a++;
        b++;
    }
    return lower(*a) == lower(*b);
}

size_t conn_make_probe(uint8_t out[conn_probe_size], uint8_t type, uint8_t flags, uint32_t seq,
                       uint64_t time_us) {
    const tarn_header header = {type, flags, 0};
    tarn_encode_header(out, conn_probe_size, &header);
    put_u32(out + 8, seq);
    put_u64(out + 12, time_us);
    return conn_probe_size;
}

size_t conn_make_rekey(uint8_t out[conn_rekey_size], uint8_t type, uint32_t session) {
    const tarn_header header = {type, 0, 0};
    tarn_encode_header(out, conn_rekey_size, &header);
    put_u32(out + 8, session);
    return conn_rekey_size;
}
