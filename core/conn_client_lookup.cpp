// The client engine and its rendezvous servers: looking the host up, punching towards it, binding a relay, and the
// paths that come of it. The engine's lock is held.
//
//   server_lookup  not asked --lookup sent--> asked --good reply, right key--> found
//                  found --a reply with a new allocation--> found, punching anew
//                  found --binding refused--> not asked
//                  any --address changed--> not asked; not found --connect or pair--> not asked
#include "conn_client_internal.h"

#include <string.h>

// Is this the host that was asked for? A server can point to a host, but can't choose its key.
bool code_matches(const tarn_client *c, const uint8_t key[32]) {
    if (c->host_key_known) return memcmp(key, c->host_key, 32) == 0;
    if (!c->code_known) return true;
    uint8_t id[16];
    tarn_key_id(id, key);
    return memcmp(id, c->code_bits, TARN_KEY_CODE_BYTES) == 0;
}

static void reset_lookup(server_lookup *lookup, uint64_t now) {
    *lookup = server_lookup{};
    lookup->tag = conn_random_u32();
    lookup->next_lookup_us = now;
}

void reset_lookups(tarn_client *c, uint64_t now) {
    for (int i = 0; i < c->base.server_count; i++) {
        if (c->lookups[i].state != LOOKUP_FOUND) reset_lookup(&c->lookups[i], now);
    }
}

void tarn_client_server_resolved(tarn_client *c, const char *name, uint16_t port, const tarn_addr *addr) {
    const conn_guard held(&c->base.lock);
    const uint32_t changed = conn_server_resolved(&c->base, name, port, addr);
    for (int i = 0; i < c->base.server_count; i++) {
        if (changed >> i & 1) reset_lookup(&c->lookups[i], conn_now());
    }
}

// ---- What a server has due

// A host that was found is asked for again only while no session is up.
static bool wants_lookup(tarn_client *c, const server_lookup *lookup) {
    return lookup->tries < lookup_tries_max && !(lookup->state == LOOKUP_FOUND && first_established(c));
}

static void send_lookup(tarn_client *c, int server, uint64_t now) {
    server_lookup *lookup = &c->lookups[server];
    tarn_rv_msg m = {};
    m.type = TARN_RV_LOOKUP;
    m.tag = lookup->tag;
    if (c->host_key_known) {
        m.id_len = TARN_KEY_ID_SIZE;
        tarn_key_id(m.lookup_id, c->host_key);
    } else {
        m.id_len = TARN_KEY_CODE_BYTES;
        memcpy(m.lookup_id, c->code_bits, TARN_KEY_CODE_BYTES);
    }
    m.count = static_cast<uint8_t>(c->base.lan_count);
    for (int i = 0; i < c->base.lan_count; i++)
        m.endpoints[i] = c->base.lan[i];
    conn_send_server(&c->base, server, &m);
    if (lookup->state == LOOKUP_IDLE) lookup->state = LOOKUP_ASKED;
    lookup->tries++;
    lookup->sent_us = now;
    lookup->next_lookup_us = now + lookup_retry_us;
}

static void send_punches(tarn_client *c, server_lookup *lookup, uint64_t now) {
    tarn_rv_msg m = {};
    m.type = TARN_RV_PUNCH;
    memcpy(m.punch_token, lookup->punch_token, sizeof m.punch_token);
    m.tag = ++c->punch_counter;
    m.side = CONN_SIDE_CLIENT;
    for (int i = 0; i < lookup->candidate_count; i++)
        conn_send_rv(&c->base, &lookup->candidates[i], &m, nullptr);
    lookup->next_punch_us = now + conn_punch_us;
}

static bool punches(const tarn_client *c) { return c->route_mode != TARN_ROUTE_RELAY_ONLY; }
static bool binds(const tarn_client *c) { return c->route_mode != TARN_ROUTE_NO_RELAY; }

static void server_work(tarn_client *c, int server, uint64_t now) {
    server_lookup *lookup = &c->lookups[server];
    if (now >= lookup->next_lookup_us && wants_lookup(c, lookup)) send_lookup(c, server, now);
    if (lookup->state != LOOKUP_FOUND) return;
    if (punches(c) && now < lookup->punch_until_us && now >= lookup->next_punch_us)
        send_punches(c, lookup, now);
    if (!binds(c) || now < lookup->next_bind_us) return;
    conn_send_bind(&c->base, server, lookup->allocation, lookup->relay_token, CONN_SIDE_CLIENT);
    lookup->next_bind_us = now + (lookup->bound ? conn_bind_keep_us : conn_bind_retry_us);
}

bool servers_tick(tarn_client *c, uint64_t now, conn_wake *wake) {
    if (c->mode == CLIENT_IDLE || c->route_mode == TARN_ROUTE_LOCAL_ONLY) return false;
    if (!c->host_key_known && !c->code_known) return false;
    bool hurry = false;
    for (int i = 0; i < c->base.server_count; i++) {
        if (c->base.servers[i].addr.family == 0) continue;
        server_work(c, i, now);
        const server_lookup *lookup = &c->lookups[i];
        if (wants_lookup(c, lookup)) wake->follow(lookup->next_lookup_us);
        if (lookup->state != LOOKUP_FOUND) continue;
        if (punches(c) && now < lookup->punch_until_us) {
            wake->follow(lookup->next_punch_us);
            hurry = true;
        }
        if (binds(c)) wake->follow(lookup->next_bind_us);
    }
    return hurry;
}

// ---- Messages

// A punch from the host is a path, and earns an answer.
static void on_punch(tarn_client *c, const conn_packet &p) {
    tarn_rv_msg m;
    if (tarn_rv_decode(p.data, p.len, nullptr, &m) != 0) return;
    int server = 0;
    while (server < c->base.server_count && !(c->lookups[server].state == LOOKUP_FOUND &&
                                              memcmp(c->lookups[server].punch_token, m.punch_token, 16) == 0))
        server++;
    if (server == c->base.server_count || !punches(c)) return;
    if (m.type == TARN_RV_PUNCH) {
        m.type = TARN_RV_PUNCH_ACK;
        m.side = CONN_SIDE_CLIENT;
        conn_send_rv(&c->base, p.from, &m, nullptr);
    }
    const bool lan = tarn_addr_path_class(p.from) == TARN_PATH_LAN;
    const bool known = path_find(c, p.from) >= 0;
    const int path = path_add(c, p.from, lan ? TARN_PATH_LAN : TARN_PATH_P2P, server);
    if (!known && path >= 0) path_kick(c, path, p.now);
}

static void lookup_failed(tarn_client *c, int server, int status, uint64_t now) {
    server_lookup *lookup = &c->lookups[server];
    lookup->next_lookup_us = now + lookup_failed_us;
    if (lookup->failure_logged) return;
    lookup->failure_logged = 1;
    char text[conn_server_text];
    conn_log(&c->base, "lookup on %s failed (status %d)",
             conn_server_str(&c->base, server, text, sizeof text), status);
    conn_event *event = conn_ev_push(&c->base, TARN_EV_LOOKUP_FAILED);
    event->server = server;
    event->detail = status;
}

static void lookup_succeeded(tarn_client *c, int server, const tarn_rv_msg *m, uint64_t now) {
    server_lookup *lookup = &c->lookups[server];
    char name[conn_server_text];
    conn_server_str(&c->base, server, name, sizeof name);
    if (!code_matches(c, m->key)) {
        conn_log(&c->base, "lookup on %s returned another host key: ignored", name);
        return;
    }
    if (lookup->state == LOOKUP_FOUND && lookup->allocation == m->allocation) return;
    if (lookup->state != LOOKUP_FOUND) {
        lookup->state = LOOKUP_FOUND;
        lookup->rtt_us = static_cast<uint32_t>(now - lookup->sent_us);
    }
    lookup->allocation = m->allocation;
    memcpy(lookup->relay_token, m->token, sizeof lookup->relay_token);
    memcpy(lookup->punch_token, m->punch_token, sizeof lookup->punch_token);
    lookup->candidate_count = conn_candidates(lookup->candidates, m);
    lookup->bound = 0;
    lookup->punch_until_us = now + conn_punch_for_us;
    lookup->next_punch_us = now;
    lookup->next_bind_us = now;
    char peer[conn_addr_text];
    conn_log(&c->base, "lookup on %s: host at %s (+%d LAN), allocation %08x, rtt %.1f ms", name,
             conn_addr_str(&m->peer, peer, sizeof peer), int{m->count}, m->allocation,
             lookup->rtt_us / 1000.0);
    server_work(c, server, now);
}

static void on_lookup_answer(tarn_client *c, int server, const tarn_rv_msg *m, uint64_t now) {
    const server_lookup *lookup = &c->lookups[server];
    if (lookup->state == LOOKUP_IDLE || m->tag != lookup->tag) return;
    if (m->type == TARN_RV_ERROR || m->status != 0) {
        lookup_failed(c, server, m->status, now);
    } else {
        lookup_succeeded(c, server, m, now);
    }
}

// The confirmed binding makes the server itself a path.
static void on_bind_reply(tarn_client *c, int server, const tarn_rv_msg *m, uint64_t now) {
    server_lookup *lookup = &c->lookups[server];
    if (lookup->state != LOOKUP_FOUND || lookup->allocation != m->allocation) return;
    if (m->status != 0) {
        lookup->state = LOOKUP_IDLE;
        lookup->bound = 0;
        lookup->tries = 0;
        lookup->next_lookup_us = now;
        return;
    }
    lookup->next_bind_us = now + conn_bind_keep_us;
    if (lookup->bound) return;
    lookup->bound = 1;
    const int path = path_add(c, &c->base.servers[server].addr, TARN_PATH_RELAY, server);
    if (path < 0) return;
    c->paths[path].server = server;
    path_kick(c, path, now);
}

void client_rendezvous(tarn_client *c, const conn_packet &p) {
    if (p.data[2] == TARN_RV_PUNCH || p.data[2] == TARN_RV_PUNCH_ACK) {
        on_punch(c, p);
        return;
    }
    const int server = conn_server_index(&c->base, p.from);
    tarn_rv_msg m;
    if (server < 0 || tarn_rv_decode(p.data, p.len, c->base.servers[server].net_key, &m) != 0) return;
    if (m.type == TARN_RV_LOOKUP_REPLY || m.type == TARN_RV_ERROR) on_lookup_answer(c, server, &m, p.now);
    if (m.type == TARN_RV_BIND_REPLY) on_bind_reply(c, server, &m, p.now);
}
