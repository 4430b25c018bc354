// The host engine's handshakes and sessions: who may come in, which keys belong to which link, where a link's packets
// go, and when all of it ends. The state machine stands in conn_host_internal.h. The engine's lock is held.
#include "conn_host_internal.h"

#include "bytes_internal.h"

// ---- Lookups and endings

int find_link(const tarn_host *h, uint32_t session) {
    for (int i = 0; i < host_links_max; i++) {
        if (h->links[i].active && h->links[i].session == session) return i;
    }
    return -1;
}

int find_client(const tarn_host *h, const uint8_t key[32]) {
    for (int i = 0; i < host_clients_max; i++) {
        if (h->clients[i].active && memcmp(h->clients[i].key, key, 32) == 0) return i;
    }
    return -1;
}

// Slot of a crypto session id, pending or in use, or -1.
static int find_slot(const tarn_host *h, uint32_t id) {
    for (int i = 0; i < host_slots_max; i++) {
        if (h->slots[i].state != SLOT_FREE && h->slots[i].session.id == id) return i;
    }
    return -1;
}

void free_slot(tarn_host *h, int index) {
    if (index < 0) return;
    tarn_secure_wipe(&h->slots[index], sizeof h->slots[index]);
    h->slots[index].link = -1;
}

void free_link(tarn_host *h, int index) {
    host_link *link = &h->links[index];
    free_slot(h, link->current);
    free_slot(h, link->previous);
    *link = host_link{};
}

void host_expire(tarn_host *h, uint64_t now) {
    for (int i = 0; i < host_slots_max; i++) {
        const crypto_slot &slot = h->slots[i];
        if (slot.state == SLOT_PENDING && now - slot.created_us > host_pending_us) free_slot(h, i);
    }
    for (int i = 0; i < host_links_max; i++) {
        host_link *link = &h->links[i];
        if (!link->active) continue;
        if (link->previous >= 0 && now > link->previous_until_us) {
            free_slot(h, link->previous);
            link->previous = -1;
        }
        if (now - link->last_rx_us > host_idle_us) {
            conn_log(&h->base, "session %08x expired (idle)", link->session);
            free_link(h, i);
        }
    }
}

// ---- Handshake

// A handshake state that is wiped however its function ends.
struct wiped_handshake {
    tarn_noise_ik state;
    ~wiped_handshake() { tarn_secure_wipe(&state, sizeof state); }
};

static void send_reject(tarn_host *h, const tarn_addr *to, uint8_t reason, uint64_t now) {
    if (!rate_allow(&h->reject_bucket, reject_limit, now)) return;
    uint8_t packet[TARN_HS_REJECT_SIZE];
    conn_send(&h->base, to, packet, tarn_hs_encode_reject(packet, sizeof packet, reason));
}

// Answers a repeat of the last accepted init with the same bytes: a retransmission costs one hash, and can't make a
// second session.
static bool answer_repeat(tarn_host *h, const uint8_t hash[16], const tarn_addr *from) {
    for (const host_client &client : h->clients) {
        if (!client.active || !client.reply_valid || memcmp(client.init_hash, hash, 16) != 0) continue;
        conn_send(&h->base, from, client.reply, sizeof client.reply);
        return true;
    }
    return false;
}

static void refuse_unknown(tarn_host *h, const conn_packet &p, const uint8_t key[32]) {
    send_reject(h, p.from, TARN_HS_REJECT_UNKNOWN, p.now);
    if (!rate_allow(&h->unknown_bucket, unknown_limit, p.now)) return;
    char code[TARN_KEY_CODE_TEXT];
    char addr[conn_addr_text];
    tarn_key_code(code, key);
    conn_log(&h->base, "handshake from unknown device %s at %s: rejected", code,
             conn_addr_str(p.from, addr, sizeof addr));
    conn_event *event = conn_ev_push_peer(&h->base, TARN_EV_UNKNOWN_DEVICE, key);
    event->detail = 1;
    event->addr = *p.from;
}

// One client is served at a time: recent traffic of another keeps this one out.
static bool busy_for(const tarn_host *h, int client, uint64_t now) {
    for (const host_link &link : h->links) {
        if (link.active && link.client != client && now - link.last_rx_us < host_busy_us) return true;
    }
    return false;
}

// The first free slot, else the oldest pending one, else -1.
static int take_slot(const tarn_host *h) {
    int oldest = -1;
    for (int i = 0; i < host_slots_max; i++) {
        const crypto_slot &slot = h->slots[i];
        if (slot.state == SLOT_FREE) return i;
        if (slot.state != SLOT_PENDING) continue;
        if (oldest < 0 || slot.created_us < h->slots[oldest].created_us) oldest = i;
    }
    return oldest;
}

// A session id that no slot and no link uses; false if the random source fails.
static bool new_session_id(const tarn_host *h, uint32_t *id) {
    do {
        uint8_t bytes[4];
        if (tarn_random_bytes(bytes, sizeof bytes) != TARN_OK) return false;
        *id = get_u32(bytes);
    } while (*id == 0 || find_slot(h, *id) >= 0 || find_link(h, *id) >= 0);
    return true;
}

// The checks are over: makes the keys, remembers the exchange, answers.
static void accept_handshake(tarn_host *h, const conn_packet &p, tarn_noise_ik *state, int client_index,
                             int index, uint64_t timestamp, const uint8_t hash[16]) {
    free_slot(h, index);
    crypto_slot *slot = &h->slots[index];
    uint32_t id;
    uint8_t reply[TARN_HS_RESP_SIZE];
    size_t reply_len;
    if (!new_session_id(h, &id)) return;
    if (tarn_hs_host_respond(state, id, reply, sizeof reply, &reply_len, &slot->session) != TARN_OK) {
        free_slot(h, index);
        return;
    }
    slot->state = SLOT_PENDING;
    slot->client = client_index;
    slot->created_us = p.now;
    host_client *client = &h->clients[client_index];
    client->last_timestamp = timestamp;
    memcpy(client->init_hash, hash, sizeof client->init_hash);
    memcpy(client->reply, reply, sizeof client->reply);
    client->reply_valid = 1;
    conn_send(&h->base, p.from, reply, reply_len);
}

void host_handshake(tarn_host *h, const conn_packet &p) {
    if (p.len != TARN_HS_INIT_SIZE) return;
    uint8_t hash[16];
    conn_blake2b16(hash, p.data, p.len);
    if (answer_repeat(h, hash, p.from)) return;
    if (!rate_allow(&h->handshake_bucket, handshake_limit, p.now)) return;

    wiped_handshake hs;
    uint8_t key[32];
    uint64_t timestamp;
    if (tarn_hs_host_read(&hs.state, &h->base.identity, p.data, p.len, key, &timestamp) != TARN_OK) return;
    const int client = find_client(h, key);
    if (client < 0) {
        refuse_unknown(h, p, key);
        return;
    }
    // A first message carries no freshness but its timestamp: one that doesn't rise is a replay.
    if (timestamp <= h->clients[client].last_timestamp) return;
    const int slot = busy_for(h, client, p.now) ? -1 : take_slot(h);
    if (slot < 0) {
        send_reject(h, p.from, TARN_HS_REJECT_BUSY, p.now);
        return;
    }
    accept_handshake(h, p, &hs.state, client, slot, timestamp, hash);
}

// ---- Sealed packets

// An opened packet: the slot whose keys opened it, its packet number, and what was inside.
struct opened_packet {
    int slot;
    uint64_t seq;
    uint8_t type;
    size_t len;
};

static int classify(const tarn_host *h, const tarn_addr *addr) {
    if (conn_server_index(&h->base, addr) >= 0) return TARN_PATH_RELAY;
    if (tarn_addr_path_class(addr) == TARN_PATH_LAN) return TARN_PATH_LAN;
    return is_punch_candidate(h, addr) ? TARN_PATH_P2P : TARN_PATH_DIRECT;
}

// Turns a link's traffic to the source of a packet. Without force an older packet that arrives late, from an address
// that the client has left, doesn't drag the link back.
static void set_path(tarn_host *h, host_link *link, const tarn_addr *addr, uint64_t seq, int slot,
                     bool force) {
    const uint32_t crypto = static_cast<uint32_t>(slot);
    if (!force && link->path_crypto == crypto && link->path_seq >= seq) return;
    link->path_crypto = crypto;
    link->path_seq = seq;
    if (tarn_rv_endpoint_equal(&link->addr, addr)) return;
    const bool first = link->addr.family == 0;
    link->addr = *addr;
    link->path = classify(h, addr);
    if (first) return;
    char text[conn_addr_text];
    conn_log(&h->base, "session %08x: path -> %s %s", link->session, tarn_path_name(link->path),
             conn_addr_str(addr, text, sizeof text));
    conn_event *event = conn_ev_push(&h->base, TARN_EV_PATH_CHANGED);
    event->session = link->session;
    event->path = link->path;
    event->addr = *addr;
}

static void send_rekey_ack(tarn_host *h, const host_link *link, int slot, const tarn_addr *to) {
    uint8_t ack[conn_rekey_size];
    const size_t len = conn_make_rekey(ack, TARN_PKT_REKEY_ACK, link->session);
    conn_send_sealed(&h->base, to, &h->slots[slot].session, ack, len);
}

// A rekey request under pending keys: binds them to the link that it names.
static void bind_rekey(tarn_host *h, const conn_packet &p, const opened_packet &o) {
    crypto_slot *slot = &h->slots[o.slot];
    const uint32_t session = o.len >= conn_rekey_size ? get_u32(p.out + 8) : 0;
    const int index = find_link(h, session);
    if (index < 0 || h->links[index].client != slot->client) {
        free_slot(h, o.slot);
        return;
    }
    host_link *link = &h->links[index];
    free_slot(h, link->previous); // never three generations
    link->previous = link->current;
    link->previous_until_us = p.now + conn_old_keys_us;
    link->current = o.slot;
    slot->state = SLOT_IN_USE;
    slot->link = index;
    set_path(h, link, p.from, o.seq, o.slot, true);
    link->last_rx_us = p.now;
    send_rekey_ack(h, link, o.slot, p.from);
    conn_log(&h->base, "session %08x rekeyed (crypto session %08x)", link->session, slot->session.id);
    conn_ev_push(&h->base, TARN_EV_REKEYED)->session = link->session;
}

// The first inactive place; with none, the place of the link that was silent longest.
static int take_link(tarn_host *h) {
    int oldest = 0;
    for (int i = 0; i < host_links_max; i++) {
        if (!h->links[i].active) return i;
        if (h->links[i].last_rx_us < h->links[oldest].last_rx_us) oldest = i;
    }
    free_link(h, oldest);
    return oldest;
}

// The client's first packet under pending keys makes a link.
static void make_link(tarn_host *h, const conn_packet &p, const opened_packet &o) {
    crypto_slot *slot = &h->slots[o.slot];
    const host_client *client = &h->clients[slot->client];
    const int index = take_link(h);
    host_link *link = &h->links[index];
    *link = host_link{};
    link->active = 1;
    link->session = slot->session.id;
    link->client = slot->client;
    link->current = o.slot;
    link->previous = -1;
    link->last_rx_us = p.now;
    slot->state = SLOT_IN_USE;
    slot->link = index;
    set_path(h, link, p.from, o.seq, o.slot, true);

    char code[TARN_KEY_CODE_TEXT];
    char addr[conn_addr_text];
    tarn_key_code(code, client->key);
    conn_log(&h->base, "session %08x: \"%s\" (%s) connected via %s %s", link->session, client->name, code,
             tarn_path_name(link->path), conn_addr_str(&link->addr, addr, sizeof addr));
    conn_event *event = conn_ev_push_peer(&h->base, TARN_EV_SESSION_CONNECTED, client->key);
    event->session = link->session;
    event->path = link->path;
    event->addr = link->addr;
    memcpy(event->name, client->name, sizeof event->name);
}

// Sends a probe back to where it came from. Only a probe that says "this is my active path" moves the link, so a
// client that looks at its spare paths doesn't pull the traffic over to them.
static void answer_probe(tarn_host *h, const conn_packet &p, const opened_packet &o, host_link *link) {
    if (o.len < conn_probe_size) return;
    uint8_t echo[conn_probe_size];
    memcpy(echo, p.out, sizeof echo);
    const bool active_path = (echo[3] & 1) != 0;
    echo[2] = TARN_PKT_PROBE_ACK;
    echo[3] = 0;
    conn_send_sealed(&h->base, p.from, &h->slots[o.slot].session, echo, sizeof echo);
    if (active_path && o.slot == link->current) set_path(h, link, p.from, o.seq, o.slot, false);
}

static int deliver(tarn_host *h, const conn_packet &p, const opened_packet &o, host_link *link) {
    if (o.slot == link->current) set_path(h, link, p.from, o.seq, o.slot, false);
    put_u32(p.out + 4, link->session);
    *p.out_len = o.len;
    if (p.info) {
        p.info->session = link->session;
        p.info->first = link->data_seen ? 0 : 1;
        p.info->path = static_cast<uint32_t>(link->path);
    }
    link->data_seen = 1;
    return TARN_RECV_DATA;
}

int host_sealed(tarn_host *h, const conn_packet &p) {
    if (p.len < TARN_SEALED_MIN) return TARN_RECV_NONE;
    opened_packet o;
    o.slot = find_slot(h, get_u32(p.data + 4));
    if (o.slot < 0) return TARN_RECV_NONE;
    crypto_slot *slot = &h->slots[o.slot];
    o.type = p.data[2];
    o.seq = get_u64(p.data + 8); // read first: opening in place overwrites it
    if (tarn_open(&slot->session, p.data, p.len, p.out, p.out_cap, &o.len) != TARN_OK) return TARN_RECV_NONE;

    if (slot->state == SLOT_PENDING && o.type == TARN_PKT_REKEY) {
        bind_rekey(h, p, o);
        return TARN_RECV_NONE;
    }
    if (slot->state == SLOT_PENDING) make_link(h, p, o);
    if (slot->link < 0) return TARN_RECV_NONE;
    host_link *link = &h->links[slot->link];
    link->last_rx_us = p.now;
    switch (o.type) {
    case TARN_PKT_REKEY: // a repeat: its acknowledgement was lost
        if (o.slot == link->current && o.len >= conn_rekey_size) send_rekey_ack(h, link, o.slot, p.from);
        return TARN_RECV_NONE;
    case TARN_PKT_PROBE:
        answer_probe(h, p, o, link);
        return TARN_RECV_NONE;
    case TARN_PKT_PROBE_ACK:
    case TARN_PKT_REKEY_ACK:
        return TARN_RECV_NONE;
    default:
        return deliver(h, p, o, link);
    }
}
