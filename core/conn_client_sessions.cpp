// The client engine's sessions: the handshake over all paths at once, sealed packets, and the change of keys. The
// states stand in conn_client_internal.h. The engine's lock is held.
#include "conn_client_internal.h"

#include <atomic>

#include "bytes_internal.h"

// ---- Handshake

// Sends a new handshake init and waits for its response; an older one can no longer finish.
void hs_send(tarn_client *c, client_session *s, uint64_t now) {
    tarn_noise_ik fresh;
    uint8_t msg[TARN_HS_INIT_SIZE];
    size_t len;
    const int result = tarn_hs_client_start(&fresh, &c->base.identity, c->host_key, conn_hs_timestamp(), msg,
                                            sizeof msg, &len);
    if (result == TARN_OK) {
        s->noise = fresh;
        memcpy(s->hs_msg, msg, sizeof s->hs_msg);
    }
    tarn_secure_wipe(&fresh, sizeof fresh);
    if (result != TARN_OK) return;
    s->hs_pending = 1;
    s->hs_done = 0;
    s->next_hs_us = now + conn_retry_us;
    const bool active_only = first_established(c) && path_usable(c, c->active_path);
    for (int i = 0; i < TARN_PATHS_MAX; i++) {
        if (!path_usable(c, i) || (active_only && i != c->active_path)) continue;
        conn_send(&c->base, &c->paths[i].addr, s->hs_msg, sizeof s->hs_msg);
        c->paths[i].hs_sent_us = now;
    }
}

// The first keys of a session.
static void session_up(tarn_client *c, client_session *s, const tarn_session *keys, int path, uint64_t now) {
    s->current = *keys;
    s->session = keys->id;
    s->state = SESSION_ESTABLISHED;
    s->last_rekey_us = now;
    if (c->first_up_us == 0) c->first_up_us = now;
    if (c->active_path < 0 && path_usable(c, path)) {
        c->active_path = path;
        c->last_switch_us = now;
    }

    static const client_path no_path = {};
    const client_path &p = c->active_path >= 0 ? c->paths[c->active_path] : no_path;
    char text[conn_addr_text];
    conn_log(&c->base, "session %08x up via %s %s (rtt %.1f ms)", s->session, tarn_path_name(p.path),
             conn_addr_str(&p.addr, text, sizeof text), p.rtt_us / 1000.0);
    conn_event *event = conn_ev_push_peer(&c->base, TARN_EV_SESSION_UP, c->host_key);
    event->session = s->session;
    if (c->active_path < 0) return;
    event->path = p.path;
    event->addr = p.addr;
    event->rtt_us = p.rtt_us;
    event->server = p.server;
}

// A response finished a session's handshake.
static void handshake_done(tarn_client *c, client_session *s, const tarn_session *keys, const conn_packet &p,
                           int path) {
    s->hs_pending = 0;
    s->hs_done = 1;
    memcpy(s->hs_reply, p.data, sizeof s->hs_reply);
    if (path < 0 && c->route_mode != TARN_ROUTE_RELAY_ONLY) {
        path = path_add(c, p.from, tarn_addr_path_class(p.from), -1);
    }
    if (path >= 0) mark_ack(c, path, p.now - c->paths[path].hs_sent_us, p.now);
    if (s->state == SESSION_ESTABLISHED) {
        s->next = *keys;
        s->have_next = 1;
        s->next_rekey_send_us = p.now;
        return;
    }
    session_up(c, s, keys, path, p.now);
}

void handshake_response(tarn_client *c, const conn_packet &p) {
    if (p.len != TARN_HS_RESP_SIZE) return;
    const int path = path_find(c, p.from);
    // A copy of the response that already finished a handshake comes from every path that carried the init, and
    // measures it.
    for (const client_session &s : c->sessions) {
        if (s.state == SESSION_FREE || !s.hs_done || memcmp(s.hs_reply, p.data, p.len) != 0) continue;
        if (path >= 0) mark_ack(c, path, p.now - c->paths[path].hs_sent_us, p.now);
        return;
    }
    for (client_session &s : c->sessions) {
        if (s.state == SESSION_FREE || !s.hs_pending) continue;
        tarn_session keys;
        const int result = tarn_hs_client_finish(&s.noise, p.data, p.len, &keys);
        if (result == TARN_OK) handshake_done(c, &s, &keys, p, path);
        tarn_session_wipe(&keys);
        if (result == TARN_OK) return;
    }
}

void handshake_reject(tarn_client *c, const conn_packet &p) {
    uint8_t reason;
    if (tarn_hs_decode_reject(p.data, p.len, &reason) != 0) return;
    if (c->mode != CLIENT_CONNECT || first_established(c)) return;
    if (p.now - c->last_reject_us <= reject_quiet_us) return;
    c->last_reject_us = p.now;
    conn_log(&c->base, "host rejected the handshake (reason %d)", int{reason});
    conn_ev_push(&c->base, TARN_EV_HANDSHAKE_REJECTED)->detail = reason;
}

// ---- Sealed packets

// The keys of a crypto session id, and the session that they belong to.
struct key_match {
    client_session *session;
    tarn_session *keys;
};

static key_match find_keys(tarn_client *c, uint32_t id) {
    for (client_session &s : c->sessions) {
        if (s.state != SESSION_ESTABLISHED) continue;
        if (s.current.id == id) return {&s, &s.current};
        if (s.have_next && s.next.id == id) return {&s, &s.next};
        if (s.have_previous && s.previous.id == id) return {&s, &s.previous};
    }
    return {nullptr, nullptr};
}

// The host has taken the new keys: they become the current ones.
static void rekey_done(tarn_client *c, client_session *s, uint64_t now) {
    s->previous = s->current;
    s->current = s->next;
    tarn_session_wipe(&s->next);
    s->have_next = 0;
    s->have_previous = 1;
    s->previous_until_us = now + conn_old_keys_us;
    s->last_rekey_us = now;
    conn_log(&c->base, "session %08x rekeyed (crypto session %08x)", s->session, s->current.id);
    conn_ev_push(&c->base, TARN_EV_REKEYED)->session = s->session;
}

// An echo of our probe. One whose time lies ahead is none of ours and gives no sample.
static void probe_echo(tarn_client *c, const conn_packet &p, size_t len, int path) {
    if (len < conn_probe_size || path < 0) return;
    const uint64_t sent_us = get_u64(p.out + 12);
    if (sent_us <= p.now) mark_ack(c, path, p.now - sent_us, p.now);
}

int client_sealed(tarn_client *c, const conn_packet &p) {
    if (p.len < TARN_SEALED_MIN) return TARN_RECV_NONE;
    const key_match match = find_keys(c, get_u32(p.data + 4));
    if (!match.keys) return TARN_RECV_NONE;
    const uint8_t type = p.data[2];
    size_t len;
    if (tarn_open(match.keys, p.data, p.len, p.out, p.out_cap, &len) != TARN_OK) return TARN_RECV_NONE;
    const int path = path_find(c, p.from);
    if (path >= 0) c->paths[path].last_rx_us = p.now;
    switch (type) {
    case TARN_PKT_PROBE:
    case TARN_PKT_REKEY:
        return TARN_RECV_NONE;
    case TARN_PKT_PROBE_ACK:
        probe_echo(c, p, len, path);
        return TARN_RECV_NONE;
    case TARN_PKT_REKEY_ACK:
        if (match.keys == &match.session->next) rekey_done(c, match.session, p.now);
        return TARN_RECV_NONE;
    default:
        break;
    }
    put_u32(p.out + 4, match.session->session);
    *p.out_len = len;
    if (p.info) {
        p.info->session = match.session->session;
        p.info->path = path >= 0 ? static_cast<uint32_t>(c->paths[path].path) : 0;
    }
    return TARN_RECV_DATA;
}

// ---- What a session has due

static bool rekey_due(const tarn_client *c, client_session *s, uint64_t now) {
    const uint64_t sent = std::atomic_ref<uint64_t>(s->current.send_counter).load();
    return sent >= c->rekey_packets || now - s->last_rekey_us >= c->rekey_us;
}

static void rekey_work(tarn_client *c, client_session *s, uint64_t now, conn_wake *wake) {
    if (s->have_previous && now > s->previous_until_us) {
        tarn_session_wipe(&s->previous);
        s->have_previous = 0;
    }
    if (s->hs_pending) {
        if (now >= s->next_hs_us) hs_send(c, s, now);
        wake->follow(s->next_hs_us);
        return;
    }
    if (!s->have_next) {
        if (!rekey_due(c, s, now)) return;
        conn_log(&c->base, "session %08x: rekeying", s->session);
        s->last_rekey_us = now;
        s->next_hs_us = now;
        s->hs_pending = 1;
        hs_send(c, s, now);
        return;
    }
    if (c->active_path < 0) return;
    if (now >= s->next_rekey_send_us) {
        uint8_t request[conn_rekey_size];
        const size_t len = conn_make_rekey(request, TARN_PKT_REKEY, s->session);
        conn_send_sealed(&c->base, &c->paths[c->active_path].addr, &s->next, request, len);
        s->next_rekey_send_us = now + conn_retry_us;
    }
    wake->follow(s->next_rekey_send_us);
}

bool session_work(tarn_client *c, client_session *s, uint64_t now, conn_wake *wake) {
    if (s->state == SESSION_ESTABLISHED) rekey_work(c, s, now, wake);
    if (s->state != SESSION_CONNECTING) return false;
    if (now >= s->next_hs_us) hs_send(c, s, now);
    wake->follow(s->next_hs_us);
    return true;
}
