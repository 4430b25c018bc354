// The client engine's face: create and destroy, candidates and sessions, the dispatch of received datagrams, sealing,
// status, and the order of work in a tick. Paths are in conn_client_paths.cpp, handshakes and sealed packets in
// conn_client_sessions.cpp. Every exported call holds the engine's lock.
#include "conn_client_internal.h"

#include <stdlib.h>
#include <string.h>

static uint64_t or_default(uint64_t value, uint64_t standard) { return value != 0 ? value : standard; }

tarn_client *tarn_client_create(const tarn_client_config *config) {
    if (!config || !config->send) return nullptr;
    tarn_client *c = static_cast<tarn_client *>(calloc(1, sizeof *c));
    if (!c) return nullptr;
    conn_base_init(&c->base, &config->identity, config->name, &config->relays, config->lan, config->lan_count,
                   config->send, config->log, config->user);
    c->host_key_known = config->host_key_known != 0;
    if (c->host_key_known) memcpy(c->host_key, config->host_key, sizeof c->host_key);
    if (config->host_code && config->host_code[0] != '\0') {
        c->code_known = tarn_key_code_parse(c->code_bits, config->host_code) == 0;
    }
    c->route_mode = config->route_mode;
    c->settle_us = or_default(config->settle_ms, 2000) * conn_ms_us;
    c->silence_us = or_default(config->silence_ms, 1200) * conn_ms_us;
    c->stable_us = or_default(config->stable_ms, 3000) * conn_ms_us;
    c->rekey_packets = or_default(config->rekey_packets, uint64_t{1} << 40);
    const uint64_t rekey_seconds = or_default(config->rekey_seconds, 3600);
    const bool never = rekey_seconds > UINT64_MAX / conn_second_us;
    c->rekey_us = never ? UINT64_MAX : rekey_seconds * conn_second_us;
    c->active_path = -1;
    return c;
}

void tarn_client_destroy(tarn_client *c) {
    if (!c) return;
    tarn_secure_wipe(c, sizeof *c);
    free(c);
}

int tarn_client_add_candidate(tarn_client *c, const tarn_addr *addr, int path) {
    if (!addr || (addr->family != 4 && addr->family != 6) || addr->port == 0) return -1;
    if (path != TARN_PATH_DIRECT) path = tarn_addr_path_class(addr);
    const conn_guard held(&c->base.lock);
    const bool known = path_find(c, addr) >= 0;
    const int index = path_add(c, addr, path, -1);
    if (index < 0) return -1;
    if (!known && c->mode != CLIENT_IDLE) path_kick(c, index, conn_now());
    return 0;
}

static void start_session(client_session *s, uint64_t now) {
    *s = client_session{};
    s->state = SESSION_CONNECTING;
    s->next_hs_us = now;
}

void start_connect(tarn_client *c, uint64_t now) {
    c->mode = CLIENT_CONNECT;
    if (c->sessions[0].state == SESSION_FREE) start_session(&c->sessions[0], now);
    reset_lookups(c, now);
}

int tarn_client_connect(tarn_client *c) {
    const conn_guard held(&c->base.lock);
    if (!c->host_key_known) return -1;
    start_connect(c, conn_now());
    return 0;
}

int tarn_client_open_session(tarn_client *c) {
    const conn_guard held(&c->base.lock);
    if (!c->host_key_known) return -1;
    for (client_session &s : c->sessions) {
        if (s.state != SESSION_FREE) continue;
        const uint64_t now = conn_now();
        start_session(&s, now);
        if (c->mode == CLIENT_IDLE) {
            c->mode = CLIENT_CONNECT;
            reset_lookups(c, now);
        }
        return 0;
    }
    return -1;
}

void tarn_client_session_close(tarn_client *c, uint32_t session) {
    const conn_guard held(&c->base.lock);
    bool any_left = false;
    for (client_session &s : c->sessions) {
        if (s.state == SESSION_FREE) continue;
        const bool meant = session == 0 || (s.state == SESSION_ESTABLISHED && s.session == session);
        if (meant) {
            tarn_secure_wipe(&s, sizeof s);
        } else {
            any_left = true;
        }
    }
    if (any_left) return;
    if (c->mode == CLIENT_PAIR) end_pairing(c);
    c->mode = CLIENT_IDLE;
    c->first_up_us = 0;
    c->active_path = -1;
}

static int receive_plain(tarn_client *c, const conn_packet &p) {
    const uint8_t type = p.data[2];
    if (type >= 96 && type <= 111) {
        client_rendezvous(c, p);
        return TARN_RECV_NONE;
    }
    switch (type) {
    case TARN_PKT_PAIR_RESP:
    case TARN_PKT_PAIR_DONE:
    case TARN_PKT_PAIR_FAIL:
    case TARN_PKT_HOST_INFO:
        client_pairing_message(c, p);
        return TARN_RECV_NONE;
    case TARN_PKT_DISCOVER_REPLY:
        return TARN_RECV_PLAIN;
    case TARN_PKT_HS_RESP:
        handshake_response(c, p);
        return TARN_RECV_NONE;
    case TARN_PKT_HS_REJECT:
        handshake_reject(c, p);
        return TARN_RECV_NONE;
    default:
        return TARN_RECV_NONE;
    }
}

int tarn_client_receive(tarn_client *c, const uint8_t *pkt, size_t len, const tarn_addr *from, uint8_t *out,
                        size_t out_cap, size_t *out_len, tarn_recv_info *info) {
    if (!conn_receive_begins(pkt, len, out_len, info)) return TARN_RECV_NONE;
    const conn_packet p = {pkt, len, from, conn_now(), out, out_cap, out_len, info};
    const conn_guard held(&c->base.lock);
    switch (pkt[1]) {
    case TARN_VERSION_PLAIN:
        return receive_plain(c, p);
    case TARN_VERSION_SEALED:
        return client_sealed(c, p);
    default:
        return TARN_RECV_NONE;
    }
}

client_session *first_established(tarn_client *c) {
    for (client_session &s : c->sessions) {
        if (s.state == SESSION_ESTABLISHED) return &s;
    }
    return nullptr;
}

size_t tarn_client_seal(tarn_client *c, uint32_t session, const uint8_t *plain, size_t len, uint8_t *out,
                        size_t out_cap, tarn_addr *to) {
    const conn_guard held(&c->base.lock);
    if (c->active_path < 0) return 0;
    for (client_session &s : c->sessions) {
        if (s.state != SESSION_ESTABLISHED || (session != 0 && s.session != session)) continue;
        if (to) *to = c->paths[c->active_path].addr;
        return tarn_seal(&s.current, plain, len, out, out_cap);
    }
    return 0;
}

int tarn_client_tick(tarn_client *c) {
    const conn_guard held(&c->base.lock);
    const uint64_t now = conn_now();
    conn_wake wake(now);
    bool hurry = false;
    if (c->mode == CLIENT_PAIR) {
        client_pairing_tick(c, now, &wake);
        hurry = true;
    }
    if (c->mode != CLIENT_IDLE && c->host_key_known) {
        for (client_session &s : c->sessions) {
            if (session_work(c, &s, now, &wake)) hurry = true;
        }
    }
    if (servers_tick(c, now, &wake)) hurry = true;
    if (first_established(c)) {
        probe_paths(c, now, &wake);
        choose_path(c, now);
        if (now - c->first_up_us < c->settle_us) hurry = true;
    }
    return wake.result(hurry ? hurry_us : conn_tick_max_us);
}

void tarn_client_rekey(tarn_client *c) {
    const conn_guard held(&c->base.lock);
    for (client_session &s : c->sessions) {
        if (s.state != SESSION_ESTABLISHED || s.hs_pending || s.have_next) continue;
        s.last_rekey_us = conn_now() - c->rekey_us; // due now; the arithmetic is modulo 2^64 on both sides
    }
}

int tarn_client_poll_event(tarn_client *c, conn_event *out) { return conn_poll_event(&c->base, out); }

void tarn_client_status_get(tarn_client *c, tarn_client_status *out) {
    *out = tarn_client_status{};
    const conn_guard held(&c->base.lock);
    const uint64_t now = conn_now();
    if (const client_session *s = first_established(c)) {
        out->session = s->session;
        out->connected = c->active_path >= 0;
    }
    if (c->active_path >= 0) {
        const client_path &active = c->paths[c->active_path];
        out->path = active.path;
        out->rtt_us = active.rtt_us;
        out->addr = active.addr;
    }
    out->max_datagram = tarn_path_max_datagram(out->path);
    out->payload = tarn_path_payload(out->path);
    for (int i = 0; i < TARN_PATHS_MAX; i++) {
        const client_path &p = c->paths[i];
        if (!p.active) continue;
        out->paths[out->path_count++] = {p.path, path_alive(c, i, now), p.server, p.rtt_us, p.addr};
    }
}
