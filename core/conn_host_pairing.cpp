// The host engine's pairing: who may try which secret, how guessing is bounded, and what becomes of PIN and password.
// A PIN allows so many attempts and is then replaced; a password allows so many, one new one a second, and then locks
// for a while. The engine's lock is held, but for the key derivation of tarn_host_set_password.
//
//   window     closed, or open with or without a deadline; opens without one on a host that has no clients
//   password   none; set and free; set and locked
//   attempt    begun by an init that the exchange counts; ends by confirmation, refusal, 10 seconds of silence, or
//              the next attempt
#include "conn_host_internal.h"

#include <stdio.h>
#include <string.h>

#include "bytes_internal.h"

static const char *method_name(int method) { return method == TARN_SECRET_PIN ? "PIN" : "password"; }

static void close_window(tarn_host *h, const char *why) {
    h->pairing.open = 0;
    tarn_secure_wipe(h->pairing.pin, sizeof h->pairing.pin);
    conn_log(&h->base, "pairing closed (%s)", why);
    conn_ev_push(&h->base, TARN_EV_PAIRING_CLOSED);
}

// ---- Secrets

// Six digits, uniform: the largest multiple of a million below 2^32 bounds the draw. Without random bytes
// there is no PIN: returns false, and a window that was open closes.
bool new_pin(tarn_host *h) {
    constexpr uint32_t uniform_below = 4294000000u;
    constexpr int tries = 64; // each fails with a chance below 1 in 4000
    host_pairing *pairing = &h->pairing;
    uint32_t value = uniform_below;
    for (int i = 0; i < tries && value >= uniform_below; i++) {
        uint8_t bytes[4];
        if (tarn_random_bytes(bytes, sizeof bytes) != TARN_OK) break;
        value = get_u32(bytes);
        tarn_secure_wipe(bytes, sizeof bytes);
    }
    pairing->pin_attempt = pair_attempt{};
    tarn_secure_wipe(pairing->pin, sizeof pairing->pin);
    if (value >= uniform_below) {
        tarn_pair_wipe(&pairing->pin_pair);
        if (pairing->open) close_window(h, "no random numbers");
        return false;
    }
    snprintf(pairing->pin, sizeof pairing->pin, "%06u", static_cast<unsigned>(value % 1000000));
    tarn_pair_host_init(&pairing->pin_pair, &h->base.identity, h->base.name, pairing->pin,
                        pairing->pin_attempts);
    return true;
}

// Readies the exchange of the password. Its secret is the derived key as text, so the password itself is never kept.
static void init_pw_pair(tarn_host *h) {
    host_pairing *pairing = &h->pairing;
    char text[65];
    tarn_hex_encode(text, pairing->password_key, sizeof pairing->password_key);
    tarn_pair_host_init(&pairing->password_pair, &h->base.identity, h->base.name, text,
                        pairing->password_attempts);
    tarn_secure_wipe(text, sizeof text);
    pairing->password_attempt = pair_attempt{};
}

// "tarnglider-pw1 SALT BLOCKS PASSES KEY", salt and key in hexadecimal.
static bool read_password_line(host_pairing *pairing, const char *line) {
    char magic[16], salt[40], key[72];
    unsigned blocks, passes;
    const int fields = sscanf(line, "%15s %39s %u %u %71s", magic, salt, &blocks, &passes, key);
    const bool good = fields == 5 && strcmp(magic, "tarnglider-pw1") == 0 && blocks >= 8 &&
                      blocks <= 1048576 && passes >= 1 && passes <= 16 &&
                      tarn_hex_decode(pairing->password_salt, sizeof pairing->password_salt, salt) == 0 &&
                      tarn_hex_decode(pairing->password_key, sizeof pairing->password_key, key) == 0;
    tarn_secure_wipe(key, sizeof key);
    if (!good) return false;
    pairing->password_blocks = blocks;
    pairing->password_passes = passes;
    return true;
}

void load_password(tarn_host *h, const char *line) {
    if (!line || line[0] == '\0') return;
    host_pairing *pairing = &h->pairing;
    if (read_password_line(pairing, line)) {
        pairing->password_set = 1;
        init_pw_pair(h);
        return;
    }
    tarn_secure_wipe(pairing->password_salt, sizeof pairing->password_salt);
    tarn_secure_wipe(pairing->password_key, sizeof pairing->password_key);
    conn_log(&h->base, "stored password is unreadable; password pairing is off");
}

int tarn_host_set_password(tarn_host *h, const char *password, char *line, size_t line_cap) {
    if (!password || password[0] == '\0' || !line || line_cap < TARN_PASSWORD_LINE_SIZE) return -1;
    uint8_t salt[16];
    uint8_t key[32];
    int result = -1;
    if (tarn_random_bytes(salt, sizeof salt) == TARN_OK &&
        tarn_password_derive(key, password, salt, TARN_PASSWORD_BLOCKS, TARN_PASSWORD_PASSES) == 0) {
        char salt_text[33];
        char key_text[65];
        tarn_hex_encode(salt_text, salt, sizeof salt);
        tarn_hex_encode(key_text, key, sizeof key);
        snprintf(line, line_cap, "tarnglider-pw1 %s %u %u %s", salt_text, unsigned{TARN_PASSWORD_BLOCKS},
                 unsigned{TARN_PASSWORD_PASSES}, key_text);
        tarn_secure_wipe(key_text, sizeof key_text);

        const conn_guard held(&h->base.lock);
        host_pairing *pairing = &h->pairing;
        pairing->password_set = 1;
        memcpy(pairing->password_salt, salt, sizeof salt);
        memcpy(pairing->password_key, key, sizeof key);
        pairing->password_blocks = TARN_PASSWORD_BLOCKS;
        pairing->password_passes = TARN_PASSWORD_PASSES;
        pairing->password_locked_until_us = 0;
        init_pw_pair(h);
        conn_log(&h->base, "pairing password set");
        result = 0;
    }
    tarn_secure_wipe(key, sizeof key);
    return result;
}

void tarn_host_clear_password(tarn_host *h) {
    const conn_guard held(&h->base.lock);
    host_pairing *pairing = &h->pairing;
    pairing->password_set = 0;
    tarn_secure_wipe(pairing->password_key, sizeof pairing->password_key);
    tarn_pair_wipe(&pairing->password_pair);
    pairing->password_attempt = pair_attempt{};
    conn_log(&h->base, "pairing password cleared");
}

// ---- The window

void tarn_host_pairing_open(tarn_host *h, uint32_t seconds) {
    constexpr uint32_t standard_s = 120;
    if (seconds == 0) seconds = standard_s;
    const conn_guard held(&h->base.lock);
    h->pairing.open = 1;
    h->pairing.deadline_us = conn_now() + seconds * conn_second_us;
    if (new_pin(h)) conn_log(&h->base, "pairing open for %u s", seconds);
}

void tarn_host_pairing_close(tarn_host *h) {
    const conn_guard held(&h->base.lock);
    if (h->pairing.open) close_window(h, "closed");
}

static bool password_locked(const host_pairing *pairing, uint64_t now) {
    return pairing->password_set && now < pairing->password_locked_until_us;
}

void tarn_host_pairing_status(tarn_host *h, tarn_host_pairing_state *out) {
    *out = tarn_host_pairing_state{};
    const conn_guard held(&h->base.lock);
    const host_pairing *pairing = &h->pairing;
    const uint64_t now = conn_now();
    out->open = pairing->open;
    if (pairing->open) {
        memcpy(out->pin, pairing->pin, sizeof out->pin);
        if (pairing->deadline_us > now) {
            out->seconds_left =
                static_cast<uint32_t>((pairing->deadline_us - now + conn_second_us - 1) / conn_second_us);
        }
    }
    tarn_key_code(out->code, h->base.identity.public_key);
    out->password_set = pairing->password_set;
    out->password_locked = password_locked(pairing, now);
}

// ---- The list of clients

// Index of the client's entry, renamed if it was there; -1 when the list is full.
static int add_client(tarn_host *h, const uint8_t key[32], const char *name) {
    const int known = find_client(h, key);
    if (known >= 0) {
        conn_clean_name(h->clients[known].name, name);
        return known;
    }
    for (int i = 0; i < host_clients_max; i++) {
        host_client *client = &h->clients[i];
        if (client->active) continue;
        *client = host_client{};
        client->active = 1;
        memcpy(client->key, key, sizeof client->key);
        conn_clean_name(client->name, name);
        client->added = conn_wall_us() / conn_second_us;
        return i;
    }
    return -1;
}

int tarn_host_add_client(tarn_host *h, const uint8_t key[32], const char *name) {
    const conn_guard held(&h->base.lock);
    if (add_client(h, key, name) < 0) return -1;
    conn_log(&h->base, "client authorized without pairing (two-way pairing)");
    if (h->pairing.open && h->pairing.deadline_us == 0) close_window(h, "a device was authorized");
    return 0;
}

int tarn_host_remove_client(tarn_host *h, const uint8_t key[32]) {
    const conn_guard held(&h->base.lock);
    const int index = find_client(h, key);
    if (index < 0) return -1;
    for (int i = 0; i < host_links_max; i++) {
        if (h->links[i].active && h->links[i].client == index) free_link(h, i);
    }
    for (int i = 0; i < host_slots_max; i++) {
        if (h->slots[i].state != SLOT_FREE && h->slots[i].client == index) free_slot(h, i);
    }
    h->clients[index] = host_client{};
    return 0;
}

void tarn_host_export_clients(tarn_host *h, tarn_client_list *out) {
    *out = tarn_client_list{};
    const conn_guard held(&h->base.lock);
    for (const host_client &client : h->clients) {
        if (!client.active) continue;
        tarn_client_entry *entry = &out->entries[out->count++];
        memcpy(entry->key, client.key, sizeof entry->key);
        memcpy(entry->name, client.name, sizeof entry->name);
        entry->added = client.added;
    }
}

// ---- Queries

// Info: u32 nonce, u8 flags, u32 blocks, u32 passes, salt 16, public key 32, u8 name length, name.
void host_query(tarn_host *h, const conn_packet &p) {
    constexpr size_t query_size = 64;
    constexpr size_t info_size = 70;
    if (p.len != query_size || !rate_allow(&h->probe_bucket, probe_limit, p.now)) return;
    const host_pairing *pairing = &h->pairing;
    const bool password = pairing->password_set != 0;
    uint8_t reply[info_size + 63];
    const tarn_header header = {TARN_PKT_HOST_INFO, 0, 0};
    tarn_encode_header(reply, sizeof reply, &header);
    byte_writer w(reply + TARN_HEADER_SIZE, sizeof reply - TARN_HEADER_SIZE);
    static const uint8_t no_salt[16] = {};
    const size_t name_len = strlen(h->base.name);
    w.u32(get_u32(p.data + 8));
    w.u8(static_cast<uint8_t>((pairing->open ? CONN_INFO_PIN : 0) | (password ? CONN_INFO_PASSWORD : 0) |
                              (password_locked(pairing, p.now) ? CONN_INFO_LOCKED : 0)));
    w.u32(password ? pairing->password_blocks : 0);
    w.u32(password ? pairing->password_passes : 0);
    w.bytes(password ? pairing->password_salt : no_salt, 16);
    w.bytes(h->base.identity.public_key, 32);
    w.u8(static_cast<uint8_t>(name_len));
    w.bytes(h->base.name, name_len);
    conn_send(&h->base, p.from, reply, TARN_HEADER_SIZE + w.size());
}

// ---- The lock

// Ends a lock whose time has come, with a fresh count. Done before each init, too, so that the first one after a lock
// isn't counted against the old attempts.
static void unlock_password(tarn_host *h, uint64_t now) {
    host_pairing *pairing = &h->pairing;
    if (pairing->password_locked_until_us == 0 || now < pairing->password_locked_until_us) return;
    pairing->password_locked_until_us = 0;
    if (pairing->password_set) init_pw_pair(h);
    conn_log(&h->base, "password pairing unlocked");
}

// ---- Attempts

static void attempt_failed(tarn_host *h, pair_attempt *attempt, int method, const char *why) {
    attempt->active = 0;
    char addr[conn_addr_text];
    conn_log(&h->base, "pairing attempt %d (%s) from %s failed: %s", attempt->number, method_name(method),
             conn_addr_str(&attempt->addr, addr, sizeof addr), why);
    conn_event *event = conn_ev_push(&h->base, TARN_EV_PAIR_ATTEMPT_FAILED);
    event->detail = 1;
    event->method = method;
    event->addr = attempt->addr;
}

static void send_pair_fail(tarn_host *h, const tarn_addr *to, const uint8_t id[16], uint8_t reason,
                           uint64_t now) {
    if (!rate_allow(&h->pair_fail_bucket, pair_fail_limit, now)) return;
    uint8_t packet[TARN_PAIR_FAIL_SIZE];
    conn_send(&h->base, to, packet, tarn_pair_encode_fail(packet, sizeof packet, id, reason));
}

// The exchange of a method, with its running attempt.
struct pair_method {
    int method;
    tarn_pair *pair;
    pair_attempt *attempt;
};

static pair_method method_of(tarn_host *h, int method) {
    host_pairing *pairing = &h->pairing;
    if (method == TARN_SECRET_PIN) return {method, &pairing->pin_pair, &pairing->pin_attempt};
    return {method, &pairing->password_pair, &pairing->password_attempt};
}

// The attempts of a secret are used up: the guesser starts over against another PIN, or the password locks.
static void attempts_used_up(tarn_host *h, const conn_packet &p, const pair_method &m, int attempts) {
    if (m.attempt->active) attempt_failed(h, m.attempt, m.method, "no confirmation");
    conn_event *event = conn_ev_push(&h->base, TARN_EV_PAIR_ATTEMPT_FAILED);
    event->detail = 2;
    event->method = m.method;
    event->addr = *p.from;
    char addr[conn_addr_text];
    conn_addr_str(p.from, addr, sizeof addr);
    host_pairing *pairing = &h->pairing;
    if (m.method == TARN_SECRET_PIN) {
        conn_log(&h->base, "PIN pairing locked after %d attempts (last from %s): new PIN", attempts, addr);
        if (new_pin(h)) conn_ev_push(&h->base, TARN_EV_NEW_PIN);
        return;
    }
    pairing->password_locked_until_us = p.now + pairing->lockout_us;
    conn_log(&h->base, "password pairing locked for %llu s after %d attempts (last from %s)",
             static_cast<unsigned long long>(pairing->lockout_us / conn_second_us), attempts, addr);
}

static void attempt_began(tarn_host *h, const conn_packet &p, const pair_method &m, const uint8_t id[16]) {
    if (m.attempt->active) attempt_failed(h, m.attempt, m.method, "replaced by a new attempt");
    m.attempt->active = 1;
    m.attempt->number = m.pair->attempts;
    memcpy(m.attempt->id, id, sizeof m.attempt->id);
    m.attempt->started_us = p.now;
    m.attempt->addr = *p.from;
    if (m.method == TARN_SECRET_PASSWORD) h->pairing.last_password_attempt_us = p.now;
    char addr[conn_addr_text];
    conn_log(&h->base, "pairing attempt %d/%d (%s) from %s", m.attempt->number, int{m.pair->max_attempts},
             method_name(m.method), conn_addr_str(p.from, addr, sizeof addr));
    conn_event *event = conn_ev_push(&h->base, TARN_EV_PAIR_ATTEMPT);
    event->detail = m.attempt->number;
    event->method = m.method;
    event->addr = *p.from;
}

// May this init reach the exchange? If not, what is to be said has been sent.
static bool init_allowed(tarn_host *h, const conn_packet &p, int method, const uint8_t id[16]) {
    const host_pairing *pairing = &h->pairing;
    const bool available = method == TARN_SECRET_PIN ? pairing->open != 0 : pairing->password_set != 0;
    if (!available) {
        send_pair_fail(h, p.from, id, TARN_PAIR_FAIL_UNAVAILABLE, p.now);
        return false;
    }
    if (method == TARN_SECRET_PIN) return true;
    if (password_locked(pairing, p.now)) {
        send_pair_fail(h, p.from, id, TARN_PAIR_FAIL_LOCKED, p.now);
        return false;
    }
    const bool another = memcmp(pairing->password_pair.sid, id, 16) != 0;
    const bool too_soon = pairing->last_password_attempt_us != 0 &&
                          p.now - pairing->last_password_attempt_us < host_password_pause_us;
    return !(another && too_soon);
}

void host_pair_init(tarn_host *h, const conn_packet &p) {
    if (p.len != TARN_PAIR_INIT_SIZE || p.data[3] > 1) return;
    if (!rate_allow(&h->pair_bucket, pair_limit, p.now)) return;
    const int method = p.data[3] == 0 ? TARN_SECRET_PIN : TARN_SECRET_PASSWORD;
    const uint8_t *id = p.data + 8;
    unlock_password(h, p.now);
    if (!init_allowed(h, p, method, id)) return;

    uint8_t init[TARN_PAIR_INIT_SIZE];
    memcpy(init, p.data, sizeof init);
    init[3] = 0; // the exchange knows nothing of methods
    const pair_method m = method_of(h, method);
    const int before = m.pair->attempts;
    uint8_t reply[TARN_PAIR_MESSAGE_MAX];
    size_t reply_len;
    const int result = tarn_pair_handle(m.pair, init, sizeof init, reply, sizeof reply, &reply_len);
    if (result == TARN_ERR_LOCKED) {
        conn_send(&h->base, p.from, reply, reply_len);
        attempts_used_up(h, p, m, before);
        return;
    }
    if (result != 0) return;
    if (m.pair->attempts > before) attempt_began(h, p, m, id);
    conn_send(&h->base, p.from, reply, reply_len);
}

// ---- Confirmation

// The client proved the secret: it enters the list, and its success forgives failures.
static void pair_succeeded(tarn_host *h, const conn_packet &p, const pair_method &m) {
    *m.attempt = pair_attempt{};
    char name[64];
    conn_clean_name(name, m.pair->peer_name);
    const bool listed = add_client(h, m.pair->peer_key, name) >= 0;
    char code[TARN_KEY_CODE_TEXT];
    char addr[conn_addr_text];
    tarn_key_code(code, m.pair->peer_key);
    conn_log(&h->base, "paired with \"%s\" (%s) from %s using the %s%s", name, code,
             conn_addr_str(p.from, addr, sizeof addr), method_name(m.method),
             listed ? "" : " BUT THE LIST IS FULL");
    if (!listed) return;
    conn_event *event = conn_ev_push_peer(&h->base, TARN_EV_HOST_PAIRED, m.pair->peer_key);
    event->method = m.method;
    event->addr = *p.from;
    memcpy(event->name, name, sizeof event->name);
    m.pair->attempts = 0;
    if (m.method == TARN_SECRET_PIN && h->pairing.open) close_window(h, "paired");
}

void host_pair_confirm(tarn_host *h, const conn_packet &p) {
    if (p.len < 24) return;
    const uint8_t *id = p.data + 8;
    host_pairing *pairing = &h->pairing;
    int method;
    if (memcmp(pairing->pin_pair.sid, id, 16) == 0) {
        method = TARN_SECRET_PIN;
    } else if (pairing->password_set && memcmp(pairing->password_pair.sid, id, 16) == 0) {
        method = TARN_SECRET_PASSWORD;
    } else {
        return;
    }
    const pair_method m = method_of(h, method);
    uint8_t reply[TARN_PAIR_MESSAGE_MAX];
    size_t reply_len;
    const int result = tarn_pair_handle(m.pair, p.data, p.len, reply, sizeof reply, &reply_len);
    conn_send(&h->base, p.from, reply, reply_len);
    if (result == TARN_ERR_AUTH && m.attempt->active)
        attempt_failed(h, m.attempt, method, "bad confirmation");
    if (result == 1) pair_succeeded(h, p, m);
}

// ---- Time

static void expire_attempt(tarn_host *h, int method, uint64_t now) {
    const pair_method m = method_of(h, method);
    if (!m.attempt->active || now - m.attempt->started_us <= host_attempt_us) return;
    attempt_failed(h, m.attempt, method,
                   method == TARN_SECRET_PIN ? "no confirmation (wrong PIN?)"
                                             : "no confirmation (wrong password?)");
}

void pairing_tick(tarn_host *h, uint64_t now) {
    host_pairing *pairing = &h->pairing;
    if (pairing->open && pairing->deadline_us != 0 && now > pairing->deadline_us)
        close_window(h, "timed out");
    expire_attempt(h, TARN_SECRET_PIN, now);
    expire_attempt(h, TARN_SECRET_PASSWORD, now);
    unlock_password(h, now);
}
