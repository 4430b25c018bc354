// The client engine's pairing: finds a host that answers on the candidates, chooses the method that it offers, runs the
// exchange, and on success goes on to connect with no further call. The engine's lock is held throughout, also while
// a password key is derived.
//
//   phase    searching -> init sent -> confirm sent; success makes the mode "connect", a failure makes it "idle"
//   PIN or password   a six-digit secret starts as a PIN; if that can't be it and the host has a password, it is tried
//                     once as a password, so that a six-digit password works, too
#include "conn_client_internal.h"

#include <string.h>

#include "bytes_internal.h"

// Largest password cost that a client takes on: 256 MiB. A host may ask for more, and then can't be paired with by
// password, but no host can make a client allocate without bound.
static constexpr uint32_t largest_blocks = 262144;
static constexpr size_t query_size = 64;
static constexpr size_t info_size = 70;

static const char wrong_secret[] = "wrong PIN or password";

void end_pairing(tarn_client *c) {
    tarn_secure_wipe(c->pairing.secret, sizeof c->pairing.secret);
    tarn_secure_wipe(c->pairing.pair_msg, sizeof c->pairing.pair_msg);
    tarn_pair_wipe(&c->pairing.pair);
}

static void pair_failed(tarn_client *c, int reason, const char *text) {
    conn_log(&c->base, "pairing failed: %s", text);
    conn_event *event = conn_ev_push(&c->base, TARN_EV_PAIR_FAILED);
    event->detail = reason;
    event->method = static_cast<int>(c->pairing.pair_method);
    c->mode = CLIENT_IDLE;
    end_pairing(c);
}

int tarn_client_pair(tarn_client *c, const char *secret, int kind) {
    if (!secret || secret[0] == '\0' || kind < TARN_PAIR_AUTOMATIC || kind > TARN_SECRET_PASSWORD) return -1;
    const size_t length = strlen(secret);
    const conn_guard held(&c->base.lock);
    client_pairing *pairing = &c->pairing;
    if (length >= sizeof pairing->secret) return -1;
    const uint64_t now = conn_now();
    end_pairing(c);
    memcpy(pairing->secret, secret, length);
    pairing->pair_kind = static_cast<uint32_t>(kind);
    pairing->pair_method =
        static_cast<uint32_t>(kind != TARN_PAIR_AUTOMATIC ? kind : tarn_secret_guess_kind(secret));
    c->mode = CLIENT_PAIR;
    pairing->password_derived = 0;
    pairing->pair_phase = PAIR_SEARCHING;
    pairing->pair_nonce = conn_random_u32();
    pairing->next_pair_send_us = now;
    pairing->pair_deadline_us = now + pair_timeout_us;
    reset_lookups(c, now);
    return 0;
}

// ---- The exchange

// The secret of the exchange: the PIN as it is, or the password's derived key as 64 hexadecimal digits.
struct exchange_secret {
    char text[256];
    ~exchange_secret() { tarn_secure_wipe(text, sizeof text); }
};

static bool derive_password(client_pairing *pairing, exchange_secret *secret) {
    uint8_t key[32];
    const bool done = pairing->pair_blocks <= largest_blocks &&
                      tarn_password_derive(key, pairing->secret, pairing->pair_salt, pairing->pair_blocks,
                                           pairing->pair_passes) == 0;
    if (done) tarn_hex_encode(secret->text, key, sizeof key);
    tarn_secure_wipe(key, sizeof key);
    return done;
}

// Settles the method from what the host offers. False if pairing has failed.
static bool choose_method(tarn_client *c) {
    client_pairing *pairing = &c->pairing;
    const bool has_password = (pairing->pair_host_flags & CONN_INFO_PASSWORD) != 0;
    if (pairing->pair_method == TARN_SECRET_PIN && !(pairing->pair_host_flags & CONN_INFO_PIN)) {
        if (pairing->pair_kind != TARN_PAIR_AUTOMATIC || !has_password) {
            pair_failed(c, TARN_PAIR_REASON_UNAVAILABLE, "the host is not in pairing mode");
            return false;
        }
        pairing->pair_method = TARN_SECRET_PASSWORD;
    }
    if (pairing->pair_method == TARN_SECRET_PIN) return true;
    if (!has_password) {
        pair_failed(c, TARN_PAIR_REASON_UNAVAILABLE, "the host has no password");
        return false;
    }
    if (pairing->pair_host_flags & CONN_INFO_LOCKED) {
        pair_failed(c, TARN_PAIR_REASON_LOCKED, "password pairing is locked on the host");
        return false;
    }
    return true;
}

static void pair_start(tarn_client *c, uint64_t now) {
    client_pairing *pairing = &c->pairing;
    if (!choose_method(c)) return;
    const bool by_password = pairing->pair_method == TARN_SECRET_PASSWORD;
    exchange_secret secret;
    memcpy(secret.text, pairing->secret, sizeof secret.text);
    if (by_password) {
        if (!derive_password(pairing, &secret)) {
            pair_failed(c, TARN_PAIR_REASON_UNAVAILABLE, "bad password parameters from the host");
            return;
        }
        pairing->password_derived = 1;
        now = conn_now(); // the derivation takes long
    }
    if (tarn_pair_client_start(&pairing->pair, &c->base.identity, c->base.name, secret.text,
                               pairing->pair_msg, sizeof pairing->pair_msg,
                               &pairing->pair_msg_len) != TARN_OK) {
        pair_failed(c, TARN_PAIR_REASON_NO_ANSWER, "random generator failed");
        return;
    }
    pairing->pair_msg[3] = by_password ? 1 : 0;
    pairing->pair_phase = PAIR_INIT_SENT;
    pairing->next_pair_send_us = now + pair_retry_us;
    pairing->pair_deadline_us = now + pair_timeout_us;
    conn_send(&c->base, &pairing->pair_host_addr, pairing->pair_msg, pairing->pair_msg_len);
    conn_log(&c->base, "pairing with %s", by_password ? "the password" : "the PIN");
}

// A PIN that failed may have been a password of six digits: tries that once. False if there is nothing to try.
static bool fall_back(tarn_client *c, uint64_t now) {
    client_pairing *pairing = &c->pairing;
    if (pairing->pair_kind != TARN_PAIR_AUTOMATIC || pairing->pair_method != TARN_SECRET_PIN ||
        pairing->password_derived || !(pairing->pair_host_flags & CONN_INFO_PASSWORD)) {
        return false;
    }
    pairing->pair_method = TARN_SECRET_PASSWORD;
    pair_start(c, now);
    return true;
}

// ---- Messages

// Info: u32 nonce at 8, u8 flags at 12, u32 blocks, u32 passes, salt 16 at 21, public key 32 at 37, u8 name length, name.
static void on_host_info(tarn_client *c, const conn_packet &p) {
    client_pairing *pairing = &c->pairing;
    if (pairing->pair_phase != PAIR_SEARCHING || p.len < info_size) return;
    const size_t name_len = p.data[69];
    if (get_u32(p.data + 8) != pairing->pair_nonce || name_len > 63 || p.len != info_size + name_len) return;
    if (!code_matches(c, p.data + 37)) return;
    pairing->pair_host_flags = p.data[12];
    pairing->pair_blocks = get_u32(p.data + 13);
    pairing->pair_passes = get_u32(p.data + 17);
    memcpy(pairing->pair_salt, p.data + 21, sizeof pairing->pair_salt);
    memcpy(pairing->pair_host_key, p.data + 37, sizeof pairing->pair_host_key);
    pairing->pair_host_addr = *p.from;
    pair_start(c, p.now);
}

static void on_pair_fail(tarn_client *c, const conn_packet &p) {
    if (p.len != TARN_PAIR_FAIL_SIZE || memcmp(p.data + 8, c->pairing.pair.sid, 16) != 0) return;
    const uint8_t reason = p.data[24];
    if (reason == TARN_PAIR_FAIL_LOCKED) {
        pair_failed(c, TARN_PAIR_REASON_LOCKED, "too many attempts (locked)");
        return;
    }
    if (fall_back(c, p.now)) return;
    if (reason == TARN_PAIR_FAIL_UNAVAILABLE) {
        pair_failed(c, TARN_PAIR_REASON_UNAVAILABLE, "the host is not pairing");
    } else {
        pair_failed(c, TARN_PAIR_REASON_SECRET, wrong_secret);
    }
}

static void on_pair_resp(tarn_client *c, const conn_packet &p) {
    client_pairing *pairing = &c->pairing;
    uint8_t reply[TARN_PAIR_MESSAGE_MAX];
    size_t reply_len;
    const int result = tarn_pair_handle(&pairing->pair, p.data, p.len, reply, sizeof reply, &reply_len);
    if (result == TARN_ERR_AUTH) {
        if (!fall_back(c, p.now)) pair_failed(c, TARN_PAIR_REASON_SECRET, wrong_secret);
        return;
    }
    if (result != 0 || reply_len == 0) return;
    conn_send(&c->base, p.from, reply, reply_len);
    pairing->next_pair_send_us = p.now + pair_retry_us;
    pairing->pair_phase = PAIR_CONFIRM_SENT;
}

static void on_pair_done(tarn_client *c, const conn_packet &p) {
    client_pairing *pairing = &c->pairing;
    uint8_t reply[TARN_PAIR_MESSAGE_MAX];
    size_t reply_len;
    if (tarn_pair_handle(&pairing->pair, p.data, p.len, reply, sizeof reply, &reply_len) != 1) return;
    if (!code_matches(c, pairing->pair.peer_key)) {
        pair_failed(c, TARN_PAIR_REASON_WRONG_HOST, "the host's key does not match the code");
        return;
    }
    memcpy(c->host_key, pairing->pair.peer_key, sizeof c->host_key);
    c->host_key_known = 1;
    char name[64];
    char code[TARN_KEY_CODE_TEXT];
    conn_clean_name(name, pairing->pair.peer_name);
    tarn_key_code(code, c->host_key);
    conn_log(&c->base, "paired with \"%s\" (%s)", name, code);
    conn_event *event = conn_ev_push_peer(&c->base, TARN_EV_CLIENT_PAIRED, c->host_key);
    event->method = static_cast<int>(pairing->pair_method);
    event->addr = *p.from;
    memcpy(event->name, name, sizeof event->name);
    end_pairing(c);
    start_connect(c, p.now);
}

void client_pairing_message(tarn_client *c, const conn_packet &p) {
    if (c->mode != CLIENT_PAIR) return;
    const uint8_t type = p.data[2];
    if (type == TARN_PKT_HOST_INFO) {
        on_host_info(c, p);
        return;
    }
    if (c->pairing.pair_phase == PAIR_SEARCHING ||
        !tarn_rv_endpoint_equal(p.from, &c->pairing.pair_host_addr))
        return;
    if (type == TARN_PKT_PAIR_FAIL) on_pair_fail(c, p);
    if (type == TARN_PKT_PAIR_RESP) on_pair_resp(c, p);
    if (type == TARN_PKT_PAIR_DONE) on_pair_done(c, p);
}

// ---- Time

// Asks on one path which host is there and what pairing it offers, while the search is on.
void send_query(tarn_client *c, int index) {
    if (c->mode != CLIENT_PAIR || c->pairing.pair_phase != PAIR_SEARCHING) return;
    uint8_t query[query_size] = {};
    const tarn_header header = {TARN_PKT_HOST_QUERY, 0, 0};
    tarn_encode_header(query, sizeof query, &header);
    put_u32(query + 8, c->pairing.pair_nonce);
    conn_send(&c->base, &c->paths[index].addr, query, sizeof query);
}

static void repeat_message(tarn_client *c) {
    const client_pairing *pairing = &c->pairing;
    if (pairing->pair_phase == PAIR_SEARCHING) {
        for (int i = 0; i < TARN_PATHS_MAX; i++) {
            if (path_usable(c, i)) send_query(c, i);
        }
    } else if (pairing->pair_phase == PAIR_INIT_SENT) {
        conn_send(&c->base, &pairing->pair_host_addr, pairing->pair_msg, pairing->pair_msg_len);
    } else {
        size_t size;
        const uint8_t *message = tarn_pair_last_message(&pairing->pair, &size);
        conn_send(&c->base, &pairing->pair_host_addr, message, size);
    }
}

void client_pairing_tick(tarn_client *c, uint64_t now, conn_wake *wake) {
    client_pairing *pairing = &c->pairing;
    if (now > pairing->pair_deadline_us) {
        const bool searching = pairing->pair_phase == PAIR_SEARCHING;
        pair_failed(c, TARN_PAIR_REASON_NO_ANSWER,
                    searching ? "no host answered" : "the host stopped answering");
        return;
    }
    if (now >= pairing->next_pair_send_us) {
        repeat_message(c);
        pairing->next_pair_send_us = now + pair_retry_us;
    }
    wake->follow(pairing->next_pair_send_us);
}
