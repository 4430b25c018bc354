// One pairing context: its messages and its state machine. Reentrant on separate contexts.
//
//   client   init sent --resp good--> confirm sent --done good--> finished
//            init sent --resp bad, fail--> failed; confirm sent --fail--> failed
//   host     idle --init--> resp sent --confirm good--> finished; resp sent --confirm bad--> idle
//            an init of another run restarts from resp sent and finished, and counts an attempt
// A repeat of the message that led to the present state is answered with the same bytes.
#include "secure_internal.h"

#include "bytes_internal.h"

#include <tarnglider/protocol.h>
#include <tarnglider/secure_pair.h>

#include <string.h>

static constexpr int role_client = 1;
static constexpr int role_host = 2;
static constexpr size_t sid_at = 8, sid_size = 16;
static constexpr size_t body_at = 24; // behind the session id, in all messages
static constexpr size_t tag_size = 16;
static constexpr size_t name_max = 63;
static constexpr size_t card_min = 33; // public key and the length of the name
static constexpr int default_attempts = 10;

static const uint8_t channel[] = {'t', 'a', 'r', 'n', 'g', 'l', 'i', 'd', 'e',
                                  'r', '-', 'p', 'a', 'i', 'r', '-', 'v', '1'};
static const char info_host[] = "tarnglider-pair-v1 host->client";
static const char info_client[] = "tarnglider-pair-v1 client->host";
static_assert(sizeof channel == 18 && sizeof info_host - 1 == 31 && sizeof info_client - 1 == 31);

// ---- What both roles share

static void pair_setup(tarn_pair *pair, uint8_t role, const tarn_keypair *keypair, const char *name,
                       const char *secret) {
    crypto_wipe(pair, sizeof *pair);
    pair->role = role;
    pair->keypair = *keypair;
    while (name && pair->name_len < name_max && name[pair->name_len] != '\0') {
        pair->name[pair->name_len] = name[pair->name_len];
        pair->name_len++;
    }
    while (secret && pair->secret_len < sizeof pair->secret && secret[pair->secret_len] != '\0') {
        pair->secret[pair->secret_len] = static_cast<uint8_t>(secret[pair->secret_len]);
        pair->secret_len++;
    }
}

static void put_front(uint8_t out[body_at], uint8_t type, const uint8_t sid[16]) {
    const tarn_header header = {type, 0, 0};
    tarn_encode_header(out, body_at, &header);
    memcpy(out + sid_at, sid, sid_size);
}

// Own public value of the run: scalar times the secret's generator.
static void make_point(tarn_pair *pair) {
    wiped<uint8_t[32]> generator;
    tarn_cpace_generator(generator.v, pair->secret, pair->secret_len, channel, sizeof channel, pair->sid,
                         sid_size);
    crypto_x25519(pair->point, pair->scalar, generator.v);
}

// The keys of the run, from the peer's public value. The client's value comes first on both sides.
static int pair_keys(tarn_pair *pair, const uint8_t peer_point[32]) {
    const bool client = pair->role == role_client;
    const uint8_t *ya = client ? pair->point : peer_point;
    const uint8_t *yb = client ? peer_point : pair->point;
    wiped<uint8_t[64]> isk;
    const int result =
        tarn_cpace_isk(isk.v, pair->sid, sid_size, pair->scalar, peer_point, ya, nullptr, 0, yb, nullptr, 0);
    if (result != TARN_OK) return result;
    const auto derive = [&](uint8_t key[32], const char *info) {
        crypto_sha512_hkdf(key, 32, isk.v, sizeof isk.v, pair->sid, sid_size,
                           reinterpret_cast<const uint8_t *>(info), 31);
    };
    derive(client ? pair->recv_key : pair->send_key, info_host);
    derive(client ? pair->send_key : pair->recv_key, info_client);
    return TARN_OK;
}

// Appends the sealed card (own public key and name) to a message whose first `at` bytes stand and are its associated
// data. Returns the message's size.
static size_t seal_card(tarn_pair *pair, uint8_t *message, size_t at) {
    wiped<uint8_t[card_min + name_max]> card;
    memcpy(card.v, pair->keypair.public_key, 32);
    card.v[32] = pair->name_len;
    memcpy(card.v + card_min, pair->name, pair->name_len);
    const size_t size = card_min + pair->name_len;
    tarn_aead_encrypt(pair->send_key, 0, message, at, card.v, size, message + at, message + at + size);
    return at + size + tag_size;
}

// Opens the peer's card. TARN_ERR_AUTH if the tag fails: the secrets differ. TARN_ERR_FORMAT if the name doesn't fill
// the card exactly.
static int open_card(tarn_pair *pair, const uint8_t *message, size_t message_size, size_t at, uint8_t key[32],
                     char name[64]) {
    uint8_t card[card_min + name_max];
    const size_t size = message_size - at - tag_size;
    if (tarn_aead_decrypt(pair->recv_key, 0, message, at, message + at, size, message + at + size, card) !=
        TARN_OK) {
        return TARN_ERR_AUTH;
    }
    if (card[32] > name_max || card_min + card[32] != size) return TARN_ERR_FORMAT;
    memcpy(key, card, 32);
    memset(name, 0, 64);
    memcpy(name, card + card_min, card[32]);
    return TARN_OK;
}

// Keeps a message for repeats and hands it out.
static void give(tarn_pair *pair, const uint8_t *message, size_t size, uint8_t *out, size_t *out_size) {
    memcpy(pair->last_message, message, size);
    pair->last_size = static_cast<uint16_t>(size);
    memcpy(out, message, size);
    *out_size = size;
}

static int repeat_last(const tarn_pair *pair, uint8_t *out, size_t capacity, size_t *out_size) {
    if (capacity < pair->last_size) return TARN_ERR_SPACE;
    memcpy(out, pair->last_message, pair->last_size);
    *out_size = pair->last_size;
    return 0;
}

static bool same_run(const tarn_pair *pair, const uint8_t *packet) {
    return memcmp(packet + sid_at, pair->sid, sid_size) == 0;
}

// ---- Client

int tarn_pair_client_start(tarn_pair *pair, const tarn_keypair *keypair, const char *name, const char *secret,
                           uint8_t *out, size_t capacity, size_t *out_size) {
    *out_size = 0;
    crypto_wipe(pair, sizeof *pair);
    if (capacity < TARN_PAIR_INIT_SIZE) return TARN_ERR_SPACE;
    pair_setup(pair, role_client, keypair, name, secret);
    if (tarn_random_bytes(pair->sid, sizeof pair->sid) != TARN_OK ||
        tarn_random_bytes(pair->scalar, sizeof pair->scalar) != TARN_OK) {
        crypto_wipe(pair, sizeof *pair);
        return TARN_ERR_RANDOM;
    }
    make_point(pair);
    uint8_t message[TARN_PAIR_INIT_SIZE];
    put_front(message, TARN_PKT_PAIR_INIT, pair->sid);
    memcpy(message + body_at, pair->point, 32);
    pair->state = TARN_PAIR_INIT_SENT;
    give(pair, message, sizeof message, out, out_size);
    return TARN_OK;
}

// Resp: 8 header, 16 sid, 32 host's public value, sealed card.
static int client_on_resp(tarn_pair *pair, const uint8_t *packet, size_t size, uint8_t *out, size_t capacity,
                          size_t *out_size) {
    constexpr size_t card_at = body_at + 32;
    if (size < TARN_PAIR_RESP_SIZE || size > TARN_PAIR_RESP_SIZE + name_max || !same_run(pair, packet)) {
        return TARN_ERR_FORMAT;
    }
    if (pair->state == TARN_PAIR_CONFIRM_SENT) return repeat_last(pair, out, capacity, out_size);
    if (pair->state != TARN_PAIR_INIT_SENT) return TARN_ERR_STATE;
    if (capacity < TARN_PAIR_CONFIRM_SIZE + size_t{pair->name_len}) return TARN_ERR_SPACE;
    int result = pair_keys(pair, packet + body_at);
    if (result != TARN_OK) return result;
    result = open_card(pair, packet, size, card_at, pair->peer_key, pair->peer_name);
    if (result == TARN_ERR_AUTH) {
        pair->state = TARN_PAIR_FAILED;
        crypto_wipe(pair->send_key, sizeof pair->send_key);
        crypto_wipe(pair->recv_key, sizeof pair->recv_key);
        return result;
    }
    crypto_wipe(pair->scalar, sizeof pair->scalar);
    if (result != TARN_OK) return result;
    uint8_t message[TARN_PAIR_MESSAGE_MAX];
    put_front(message, TARN_PKT_PAIR_CONFIRM, pair->sid);
    const size_t message_size = seal_card(pair, message, body_at);
    pair->state = TARN_PAIR_CONFIRM_SENT;
    give(pair, message, message_size, out, out_size);
    return 0;
}

// Done: 8 header, 16 sid, one sealed byte of value 0.
static int client_on_done(tarn_pair *pair, const uint8_t *packet, size_t size) {
    if (size != TARN_PAIR_DONE_SIZE || !same_run(pair, packet)) return TARN_ERR_FORMAT;
    if (pair->state == TARN_PAIR_FINISHED) return 0;
    if (pair->state != TARN_PAIR_CONFIRM_SENT) return TARN_ERR_STATE;
    uint8_t value = 1;
    if (tarn_aead_decrypt(pair->recv_key, 1, packet, body_at, packet + body_at, 1, packet + body_at + 1,
                          &value) != TARN_OK ||
        value != 0) {
        return TARN_ERR_AUTH;
    }
    pair->state = TARN_PAIR_FINISHED;
    crypto_wipe(pair->send_key, sizeof pair->send_key);
    crypto_wipe(pair->recv_key, sizeof pair->recv_key);
    return 1;
}

static int client_on_fail(tarn_pair *pair, const uint8_t *packet, size_t size) {
    if (size != TARN_PAIR_FAIL_SIZE || !same_run(pair, packet)) return TARN_ERR_FORMAT;
    if (pair->state != TARN_PAIR_INIT_SENT && pair->state != TARN_PAIR_CONFIRM_SENT) return TARN_ERR_STATE;
    pair->state = TARN_PAIR_FAILED;
    return packet[body_at] == TARN_PAIR_FAIL_LOCKED ? TARN_ERR_LOCKED : TARN_ERR_AUTH;
}

// ---- Host

int tarn_pair_host_init(tarn_pair *pair, const tarn_keypair *keypair, const char *name, const char *secret,
                        int max_attempts) {
    pair_setup(pair, role_host, keypair, name, secret);
    pair->max_attempts =
        static_cast<uint8_t>(max_attempts < 1 || max_attempts > 254 ? default_attempts : max_attempts);
    return 0;
}

// Init: 8 header, 16 sid, 32 client's public value. The attempt counts before any cryptography, so a run that never
// finishes counts, too.
static int host_on_init(tarn_pair *pair, const uint8_t *packet, size_t size, uint8_t *out, size_t capacity,
                        size_t *out_size) {
    if (size != TARN_PAIR_INIT_SIZE) return TARN_ERR_FORMAT;
    const bool answered = pair->state == TARN_PAIR_RESP_SENT || pair->state == TARN_PAIR_FINISHED;
    if (answered && same_run(pair, packet)) return repeat_last(pair, out, capacity, out_size);
    if (capacity < TARN_PAIR_RESP_SIZE + size_t{pair->name_len}) return TARN_ERR_SPACE;
    if (pair->attempts >= pair->max_attempts) {
        *out_size = tarn_pair_encode_fail(out, capacity, packet + sid_at, TARN_PAIR_FAIL_LOCKED);
        return TARN_ERR_LOCKED;
    }
    pair->state = TARN_PAIR_IDLE;
    pair->attempts++;
    memcpy(pair->sid, packet + sid_at, sid_size);
    if (tarn_random_bytes(pair->scalar, sizeof pair->scalar) != TARN_OK) return TARN_ERR_RANDOM;
    make_point(pair);
    const int result = pair_keys(pair, packet + body_at);
    crypto_wipe(pair->scalar, sizeof pair->scalar);
    if (result != TARN_OK) return result;
    uint8_t message[TARN_PAIR_MESSAGE_MAX];
    put_front(message, TARN_PKT_PAIR_RESP, pair->sid);
    memcpy(message + body_at, pair->point, 32);
    const size_t message_size = seal_card(pair, message, body_at + 32);
    pair->state = TARN_PAIR_RESP_SENT;
    give(pair, message, message_size, out, out_size);
    return 0;
}

// Confirm: 8 header, 16 sid, sealed card.
static int host_on_confirm(tarn_pair *pair, const uint8_t *packet, size_t size, uint8_t *out, size_t capacity,
                           size_t *out_size) {
    if (size < TARN_PAIR_CONFIRM_SIZE || size > TARN_PAIR_CONFIRM_SIZE + name_max ||
        !same_run(pair, packet)) {
        return TARN_ERR_FORMAT;
    }
    if (pair->state == TARN_PAIR_FINISHED) return repeat_last(pair, out, capacity, out_size);
    if (pair->state != TARN_PAIR_RESP_SENT) return TARN_ERR_STATE;
    if (capacity < TARN_PAIR_DONE_SIZE) return TARN_ERR_SPACE;
    const int result = open_card(pair, packet, size, body_at, pair->peer_key, pair->peer_name);
    if (result == TARN_ERR_AUTH) {
        pair->state = TARN_PAIR_IDLE;
        *out_size = tarn_pair_encode_fail(out, capacity, pair->sid, TARN_PAIR_FAIL_SECRET);
        return result;
    }
    if (result != TARN_OK) return result;
    uint8_t message[TARN_PAIR_DONE_SIZE];
    put_front(message, TARN_PKT_PAIR_DONE, pair->sid);
    const uint8_t value = 0;
    // The response used counter 0 of this key.
    tarn_aead_encrypt(pair->send_key, 1, message, body_at, &value, 1, message + body_at,
                      message + body_at + 1);
    pair->state = TARN_PAIR_FINISHED;
    give(pair, message, sizeof message, out, out_size);
    return 1;
}

// ---- The one entry

int tarn_pair_handle(tarn_pair *pair, const uint8_t *packet, size_t size, uint8_t *out, size_t capacity,
                     size_t *out_size) {
    *out_size = 0;
    if (size < TARN_HEADER_SIZE || packet[0] != TARN_MAGIC || packet[1] != TARN_VERSION_PLAIN ||
        packet[3] != 0 || get_u32(packet + 4) != 0) {
        return TARN_ERR_FORMAT;
    }
    const uint8_t type = packet[2];
    if (pair->role == role_client) {
        if (type == TARN_PKT_PAIR_RESP) return client_on_resp(pair, packet, size, out, capacity, out_size);
        if (type == TARN_PKT_PAIR_DONE) return client_on_done(pair, packet, size);
        if (type == TARN_PKT_PAIR_FAIL) return client_on_fail(pair, packet, size);
        return TARN_ERR_FORMAT;
    }
    if (pair->role == role_host) {
        if (type == TARN_PKT_PAIR_INIT) return host_on_init(pair, packet, size, out, capacity, out_size);
        if (type == TARN_PKT_PAIR_CONFIRM)
            return host_on_confirm(pair, packet, size, out, capacity, out_size);
        return TARN_ERR_FORMAT;
    }
    return TARN_ERR_STATE;
}

size_t tarn_pair_encode_fail(uint8_t *out, size_t capacity, const uint8_t sid[16], uint8_t reason) {
    if (capacity < TARN_PAIR_FAIL_SIZE) return 0;
    put_front(out, TARN_PKT_PAIR_FAIL, sid);
    out[body_at] = reason;
    return TARN_PAIR_FAIL_SIZE;
}

const uint8_t *tarn_pair_last_message(const tarn_pair *pair, size_t *size) {
    *size = pair->last_size;
    return pair->last_size > 0 ? pair->last_message : nullptr;
}

void tarn_pair_wipe(tarn_pair *pair) { crypto_wipe(pair, sizeof *pair); }
