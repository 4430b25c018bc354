// The host engine's face: create and destroy, the dispatch of received datagrams, sealing, and the order of work in a
// tick. Handshakes and sessions are in conn_host_sessions.cpp, pairing in conn_host_pairing.cpp, servers in
// conn_host_rendezvous.cpp. Every exported call holds the engine's lock.
#include "conn_host_internal.h"

#include <stdlib.h>

#include "bytes_internal.h"

bool rate_allow(rate_bucket *bucket, rate_limit limit, uint64_t now) {
    constexpr uint64_t one_action = 1000000;
    const uint64_t full = limit.burst * one_action;
    if (bucket->last_us == 0) {
        bucket->tokens = full;
    } else {
        // A bucket is full after burst / per_second seconds, so more elapsed time than that adds nothing.
        const uint64_t elapsed = now - bucket->last_us;
        const uint64_t missing = full - bucket->tokens;
        bucket->tokens += elapsed > missing / limit.per_second ? missing : elapsed * limit.per_second;
    }
    bucket->last_us = now;
    if (bucket->tokens < one_action) return false;
    bucket->tokens -= one_action;
    return true;
}

static int32_t or_default(int32_t value, int32_t standard) { return value > 0 ? value : standard; }

tarn_host *tarn_host_create(const tarn_host_config *c, const tarn_client_list *clients,
                            const char *stored_password) {
    if (!c || !c->send) return nullptr;
    tarn_host *h = static_cast<tarn_host *>(calloc(1, sizeof *h));
    if (!h) return nullptr;
    conn_base_init(&h->base, &c->identity, c->name, &c->relays, c->lan, c->lan_count, c->send, c->log,
                   c->user);
    h->allow_plain = c->allow_plain;
    h->pairing.pin_attempts = or_default(c->pin_attempts, 10);
    h->pairing.password_attempts = or_default(c->password_attempts, 10);
    h->pairing.lockout_us = static_cast<uint64_t>(or_default(c->lockout_s, 600)) * conn_second_us;
    for (int i = 0; clients && i < clients->count && i < host_clients_max; i++) {
        const tarn_client_entry *from = &clients->entries[i];
        host_client *to = &h->clients[i];
        to->active = 1;
        memcpy(to->key, from->key, sizeof to->key);
        conn_clean_name(to->name, from->name);
        to->added = from->added;
    }
    for (crypto_slot &slot : h->slots)
        slot.link = -1;
    load_password(h, stored_password);
    const bool have_pin = new_pin(h);
    if (have_pin && !h->clients[0].active) {
        h->pairing.open = 1; // with no deadline: a fresh host is there to be paired with
    } else {
        tarn_secure_wipe(h->pairing.pin, sizeof h->pairing.pin);
    }
    register_all_anew(h, conn_now());
    return h;
}

void tarn_host_destroy(tarn_host *h) {
    if (!h) return;
    tarn_secure_wipe(h, sizeof *h);
    free(h);
}

// Tells a client of the plain protocol that this host wants the secure handshake.
static void refuse_hello(tarn_host *h, const conn_packet &p) {
    if (!rate_allow(&h->hello_bucket, hello_limit, p.now)) return;
    constexpr uint8_t secure_handshake_required = 3;
    const tarn_header header = {};
    tarn_hello_ack ack = {};
    ack.status = secure_handshake_required;
    uint8_t reply[22];
    conn_send(&h->base, p.from, reply, tarn_encode_hello_ack(reply, sizeof reply, &header, &ack));
}

// A plain packet, by type. 80 to 95 is the secure channel's own range: what it doesn't use never gets to the caller.
static int receive_plain(tarn_host *h, const conn_packet &p) {
    const uint8_t type = p.data[2];
    switch (type) {
    case TARN_PKT_PAIR_CONFIRM:
        host_pair_confirm(h, p);
        return TARN_RECV_NONE;
    case TARN_PKT_HOST_QUERY:
        host_query(h, p);
        return TARN_RECV_NONE;
    case TARN_PKT_HS_INIT:
        host_handshake(h, p);
        return TARN_RECV_NONE;
    case TARN_PKT_PAIR_INIT:
        host_pair_init(h, p);
        return TARN_RECV_NONE;
    case TARN_PKT_DISCOVER:
        return TARN_RECV_PLAIN;
    default:
        break;
    }
    if (type >= 96 && type <= 111) host_rendezvous(h, p);
    if (type >= 80 && type <= 111) return TARN_RECV_NONE;
    if (h->allow_plain) return TARN_RECV_PLAIN;
    if (type == TARN_PKT_HELLO) refuse_hello(h, p);
    return TARN_RECV_NONE;
}

int tarn_host_receive(tarn_host *h, const uint8_t *pkt, size_t len, const tarn_addr *from, uint8_t *out,
                      size_t out_cap, size_t *out_len, tarn_recv_info *info) {
    if (!conn_receive_begins(pkt, len, out_len, info)) return TARN_RECV_NONE;
    const conn_packet p = {pkt, len, from, conn_now(), out, out_cap, out_len, info};
    const conn_guard held(&h->base.lock);
    switch (pkt[1]) {
    case TARN_VERSION_PLAIN:
        return receive_plain(h, p);
    case TARN_VERSION_SEALED:
        return host_sealed(h, p);
    default:
        return TARN_RECV_NONE;
    }
}

int tarn_host_tick(tarn_host *h) {
    const conn_guard held(&h->base.lock);
    conn_wake wake(conn_now());
    pairing_tick(h, wake.now);
    host_expire(h, wake.now);
    rendezvous_tick(h, wake.now, &wake);
    return wake.result(conn_tick_max_us);
}

int tarn_host_poll_event(tarn_host *h, conn_event *out) { return conn_poll_event(&h->base, out); }

size_t tarn_host_seal(tarn_host *h, uint32_t session, const uint8_t *plain, size_t len, uint8_t *out,
                      size_t out_cap, tarn_addr *to) {
    const conn_guard held(&h->base.lock);
    const int index = find_link(h, session);
    if (index < 0) return 0;
    const host_link *link = &h->links[index];
    if (to) *to = link->addr;
    return tarn_seal(&h->slots[link->current].session, plain, len, out, out_cap);
}

int tarn_host_session_info_get(tarn_host *h, uint32_t session, tarn_session_info *out) {
    *out = tarn_session_info{};
    const conn_guard held(&h->base.lock);
    const int index = find_link(h, session);
    if (index < 0) return -1;
    const host_link *link = &h->links[index];
    const host_client *client = &h->clients[link->client];
    out->session = link->session;
    out->path = link->path;
    out->addr = link->addr;
    memcpy(out->key, client->key, sizeof out->key);
    memcpy(out->name, client->name, sizeof out->name);
    out->last_rx_us = link->last_rx_us;
    return 0;
}

void tarn_host_session_close(tarn_host *h, uint32_t session) {
    const conn_guard held(&h->base.lock);
    const int index = find_link(h, session);
    if (index >= 0) free_link(h, index);
}
