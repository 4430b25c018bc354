// The Noise IK handshake, its two packets, and the session that comes out of it. Reentrant on separate states. Every
// temporary that holds key material wipes itself; the states themselves are their owner's to wipe.
//
//   stage             initiator may   responder may
//   1 ready           write1          read1
//   2 first done      read2           write2
//   3 second done     split           split
//   4 failed          -               -
#include "secure_internal.h"

#include "bytes_internal.h"

#include <tarnglider/protocol.h>

#include <string.h>

static const char protocol_name[] = "Noise_IK_25519_ChaChaPoly_BLAKE2b";
static const char prologue[] = "tarnglider-ik-v1";
static_assert(sizeof protocol_name - 1 == 33 && sizeof prologue - 1 == 16);

static constexpr size_t key_size = 32;
static constexpr size_t tag_size = 16;
static constexpr size_t overhead1 =
    key_size + key_size + tag_size + tag_size;           // e, s with its tag, payload's tag
static constexpr size_t overhead2 = key_size + tag_size; // e, payload's tag
static_assert(TARN_HS_INIT_SIZE == TARN_HEADER_SIZE + overhead1 + 8);
static_assert(TARN_HS_RESP_SIZE == TARN_HEADER_SIZE + overhead2 + 4);

// ---- the operations of the Noise protocol ----

static void mix_hash(tarn_noise_ik *state, const uint8_t *data, size_t size) {
    crypto_blake2b_ctx ctx;
    crypto_blake2b_init(&ctx, 64);
    crypto_blake2b_update(&ctx, state->h, sizeof state->h);
    if (size > 0) crypto_blake2b_update(&ctx, data, size);
    crypto_blake2b_final(&ctx, state->h);
}

// Mixes a Diffie-Hellman result into chaining key and cipher key. An all-zero result goes the whole way like any
// other and is reported at the end, so that the time taken tells nothing.
static int mix_dh(tarn_noise_ik *state, const uint8_t secret[32], const uint8_t public_key[32]) {
    static const uint8_t zero[32] = {};
    wiped<uint8_t[32]> dh;
    wiped<uint8_t[64]> temp;
    crypto_x25519(dh.v, secret, public_key);
    hkdf2(state->ck, dh.v, sizeof dh.v, state->ck, temp.v);
    memcpy(state->k, temp.v, sizeof state->k);
    state->nonce = 0;
    state->has_key = 1;
    return crypto_verify32(dh.v, zero) == 0 ? TARN_ERR_DH : TARN_OK;
}

// Writes size + 16 bytes.
static void encrypt_and_hash(tarn_noise_ik *state, const uint8_t *plain, size_t size, uint8_t *out) {
    tarn_aead_encrypt(state->k, state->nonce, state->h, sizeof state->h, plain, size, out, out + size);
    state->nonce++;
    mix_hash(state, out, size + tag_size);
}

// Reads size + 16 bytes, writes size.
static int decrypt_and_hash(tarn_noise_ik *state, const uint8_t *in, size_t size, uint8_t *plain) {
    if (tarn_aead_decrypt(state->k, state->nonce, state->h, sizeof state->h, in, size, in + size, plain)) {
        return TARN_ERR_AUTH;
    }
    state->nonce++;
    mix_hash(state, in, size + tag_size);
    return TARN_OK;
}

static bool ready_for(const tarn_noise_ik *state, int role, int stage) {
    return state->role == role && state->stage == stage;
}

static int make_ephemeral(tarn_noise_ik *state, const uint8_t *secret) {
    if (secret == nullptr) return tarn_keypair_generate(&state->e);
    tarn_keypair_from_secret(&state->e, secret);
    return TARN_OK;
}

void tarn_noise_ik_init(tarn_noise_ik *state, int initiator, const uint8_t *prologue_data,
                        size_t prologue_size, const tarn_keypair *local_keypair,
                        const uint8_t *remote_public) {
    memset(state, 0, sizeof *state);
    state->role = initiator ? TARN_NOISE_INITIATOR : TARN_NOISE_RESPONDER;
    memcpy(state->h, protocol_name, sizeof protocol_name - 1); // zeros behind it, up to the hash's length
    memcpy(state->ck, state->h, sizeof state->ck);
    mix_hash(state, prologue_data, prologue_size);
    state->s = *local_keypair;
    if (initiator) memcpy(state->rs, remote_public, sizeof state->rs);
    mix_hash(state, initiator ? state->rs : state->s.public_key, key_size);
    state->stage = TARN_NOISE_READY;
}

// ---- message one: e, es, s, ss ----

int tarn_noise_ik_write1(tarn_noise_ik *state, const uint8_t *ephemeral_secret, const uint8_t *payload,
                         size_t payload_size, uint8_t *out, size_t capacity, size_t *out_size) {
    *out_size = 0;
    if (!ready_for(state, TARN_NOISE_INITIATOR, TARN_NOISE_READY)) return TARN_ERR_STATE;
    if (capacity < overhead1 || capacity - overhead1 < payload_size) return TARN_ERR_SPACE;
    if (make_ephemeral(state, ephemeral_secret) != TARN_OK) return TARN_ERR_RANDOM;
    state->stage = TARN_NOISE_FAILED; // until the end
    memcpy(out, state->e.public_key, key_size);
    mix_hash(state, out, key_size);
    if (mix_dh(state, state->e.secret, state->rs) != TARN_OK) return TARN_ERR_DH;
    encrypt_and_hash(state, state->s.public_key, key_size, out + 32);
    if (mix_dh(state, state->s.secret, state->rs) != TARN_OK) return TARN_ERR_DH;
    encrypt_and_hash(state, payload, payload_size, out + 80);
    state->stage = TARN_NOISE_FIRST_DONE;
    *out_size = payload_size + overhead1;
    return TARN_OK;
}

int tarn_noise_ik_read1(tarn_noise_ik *state, const uint8_t *message, size_t size, uint8_t *payload,
                        size_t capacity, size_t *payload_size) {
    *payload_size = 0;
    if (!ready_for(state, TARN_NOISE_RESPONDER, TARN_NOISE_READY)) return TARN_ERR_STATE;
    if (size < overhead1) return TARN_ERR_FORMAT;
    if (capacity < size - overhead1) return TARN_ERR_SPACE;
    state->stage = TARN_NOISE_FAILED; // until the end
    memcpy(state->re, message, key_size);
    mix_hash(state, state->re, key_size);
    if (mix_dh(state, state->s.secret, state->re) != TARN_OK) return TARN_ERR_DH;
    if (decrypt_and_hash(state, message + 32, key_size, state->rs) != TARN_OK) return TARN_ERR_AUTH;
    if (mix_dh(state, state->s.secret, state->rs) != TARN_OK) return TARN_ERR_DH;
    if (decrypt_and_hash(state, message + 80, size - overhead1, payload) != TARN_OK) return TARN_ERR_AUTH;
    state->stage = TARN_NOISE_FIRST_DONE;
    *payload_size = size - overhead1;
    return TARN_OK;
}

// ---- message two: e, ee, se ----

int tarn_noise_ik_write2(tarn_noise_ik *state, const uint8_t *ephemeral_secret, const uint8_t *payload,
                         size_t payload_size, uint8_t *out, size_t capacity, size_t *out_size) {
    *out_size = 0;
    if (!ready_for(state, TARN_NOISE_RESPONDER, TARN_NOISE_FIRST_DONE)) return TARN_ERR_STATE;
    if (capacity < overhead2 || capacity - overhead2 < payload_size) return TARN_ERR_SPACE;
    if (make_ephemeral(state, ephemeral_secret) != TARN_OK) return TARN_ERR_RANDOM;
    state->stage = TARN_NOISE_FAILED; // until the end
    memcpy(out, state->e.public_key, key_size);
    mix_hash(state, out, key_size);
    if (mix_dh(state, state->e.secret, state->re) != TARN_OK) return TARN_ERR_DH;
    if (mix_dh(state, state->e.secret, state->rs) != TARN_OK) return TARN_ERR_DH;
    encrypt_and_hash(state, payload, payload_size, out + 32);
    state->stage = TARN_NOISE_SECOND_DONE;
    *out_size = payload_size + overhead2;
    return TARN_OK;
}

// All on a copy, which replaces the state only when the whole message has proved good: a forged answer costs the
// handshake nothing.
int tarn_noise_ik_read2(tarn_noise_ik *state, const uint8_t *message, size_t size, uint8_t *payload,
                        size_t capacity, size_t *payload_size) {
    *payload_size = 0;
    if (!ready_for(state, TARN_NOISE_INITIATOR, TARN_NOISE_FIRST_DONE)) return TARN_ERR_STATE;
    if (size < overhead2) return TARN_ERR_FORMAT;
    if (capacity < size - overhead2) return TARN_ERR_SPACE;
    wiped<tarn_noise_ik> copy(*state);
    memcpy(copy.v.re, message, key_size);
    mix_hash(&copy.v, copy.v.re, key_size);
    if (mix_dh(&copy.v, copy.v.e.secret, copy.v.re) != TARN_OK) return TARN_ERR_DH;
    if (mix_dh(&copy.v, copy.v.s.secret, copy.v.re) != TARN_OK) return TARN_ERR_DH;
    if (decrypt_and_hash(&copy.v, message + 32, size - overhead2, payload) != TARN_OK) return TARN_ERR_AUTH;
    copy.v.stage = TARN_NOISE_SECOND_DONE;
    *state = copy.v;
    *payload_size = size - overhead2;
    return TARN_OK;
}

// ---- the traffic keys ----

static void split(const tarn_noise_ik *state, uint8_t key1[32], uint8_t key2[32]) {
    wiped<uint8_t[64]> out1, out2;
    hkdf2(state->ck, nullptr, 0, out1.v, out2.v);
    memcpy(key1, out1.v, 32);
    memcpy(key2, out2.v, 32);
}

int tarn_noise_split(const tarn_noise_ik *state, uint8_t key1[32], uint8_t key2[32]) {
    if (state->stage != TARN_NOISE_SECOND_DONE) return TARN_ERR_STATE;
    split(state, key1, key2);
    return TARN_OK;
}

// ---- packets ----

static void put_header(uint8_t out[8], uint8_t type, uint32_t session) {
    out[0] = TARN_MAGIC;
    out[1] = TARN_VERSION_PLAIN;
    out[2] = type;
    out[3] = 0;
    put_u32(out + 4, session);
}

// Magic, version, type and flags; the session word is the caller's to judge.
static bool header_is(const uint8_t *packet, uint8_t type) {
    return packet[0] == TARN_MAGIC && packet[1] == TARN_VERSION_PLAIN && packet[2] == type && packet[3] == 0;
}

static void session_from(tarn_session *session, const tarn_noise_ik *state, uint32_t id) {
    wiped<uint8_t[32]> key1, key2;
    memset(session, 0, sizeof *session);
    split(state, key1.v, key2.v);
    const bool initiator = state->role == TARN_NOISE_INITIATOR;
    session->id = id;
    session->initiator = initiator;
    memcpy(session->send_key, initiator ? key1.v : key2.v, 32);
    memcpy(session->recv_key, initiator ? key2.v : key1.v, 32);
    memcpy(session->peer_key, state->rs, 32);
    memcpy(session->handshake_hash, state->h, 64);
}

// TARN_PKT_HS_INIT, 112 bytes:
//    0   8  header, session 0
//    8  32  client's ephemeral public key
//   40  48  client's static public key, encrypted
//   88  24  timestamp, encrypted
int tarn_hs_client_start(tarn_noise_ik *state, const tarn_keypair *local_keypair,
                         const uint8_t host_public[32], uint64_t timestamp, uint8_t *out, size_t capacity,
                         size_t *out_size) {
    *out_size = 0;
    if (capacity < TARN_HS_INIT_SIZE) return TARN_ERR_SPACE;
    uint8_t payload[8];
    put_u64(payload, timestamp);
    tarn_noise_ik_init(state, 1, reinterpret_cast<const uint8_t *>(prologue), sizeof prologue - 1,
                       local_keypair, host_public);
    put_header(out, TARN_PKT_HS_INIT, 0);
    size_t size = 0;
    const int result = tarn_noise_ik_write1(state, nullptr, payload, sizeof payload, out + TARN_HEADER_SIZE,
                                            capacity - TARN_HEADER_SIZE, &size);
    if (result != TARN_OK) return result;
    *out_size = TARN_HEADER_SIZE + size;
    return TARN_OK;
}

int tarn_hs_host_read(tarn_noise_ik *state, const tarn_keypair *local_keypair, const uint8_t *packet,
                      size_t size, uint8_t client_public[32], uint64_t *timestamp) {
    if (size != TARN_HS_INIT_SIZE || !header_is(packet, TARN_PKT_HS_INIT) || get_u32(packet + 4) != 0) {
        return TARN_ERR_FORMAT;
    }
    tarn_noise_ik_init(state, 0, reinterpret_cast<const uint8_t *>(prologue), sizeof prologue - 1,
                       local_keypair, nullptr);
    uint8_t payload[8];
    size_t payload_size = 0;
    const int result = tarn_noise_ik_read1(state, packet + TARN_HEADER_SIZE, size - TARN_HEADER_SIZE, payload,
                                           sizeof payload, &payload_size);
    if (result != TARN_OK) return result;
    memcpy(client_public, state->rs, 32);
    *timestamp = get_u64(payload);
    return TARN_OK;
}

// TARN_PKT_HS_RESP, 60 bytes:
//    0   8  header, session = the new crypto session's id
//    8  32  host's ephemeral public key
//   40  20  the id again, encrypted: a changed header can't go unnoticed
int tarn_hs_host_respond(tarn_noise_ik *state, uint32_t session_id, uint8_t *out, size_t capacity,
                         size_t *out_size, tarn_session *session) {
    *out_size = 0;
    if (!ready_for(state, TARN_NOISE_RESPONDER, TARN_NOISE_FIRST_DONE)) return TARN_ERR_STATE;
    if (capacity < TARN_HS_RESP_SIZE) return TARN_ERR_SPACE;
    uint8_t payload[4];
    put_u32(payload, session_id);
    while (get_u32(payload) == 0) {
        if (tarn_random_bytes(payload, sizeof payload) != TARN_OK) return TARN_ERR_RANDOM;
    }
    const uint32_t id = get_u32(payload);
    put_header(out, TARN_PKT_HS_RESP, id);
    size_t size = 0;
    const int result = tarn_noise_ik_write2(state, nullptr, payload, sizeof payload, out + TARN_HEADER_SIZE,
                                            capacity - TARN_HEADER_SIZE, &size);
    if (result != TARN_OK) return result;
    session_from(session, state, id);
    crypto_wipe(state, sizeof *state);
    *out_size = TARN_HEADER_SIZE + size;
    return TARN_OK;
}

int tarn_hs_client_finish(tarn_noise_ik *state, const uint8_t *packet, size_t size, tarn_session *session) {
    if (size != TARN_HS_RESP_SIZE || !header_is(packet, TARN_PKT_HS_RESP)) return TARN_ERR_FORMAT;
    // A copy, since an answer with the wrong id passes read2 and must not end the handshake.
    wiped<tarn_noise_ik> copy(*state);
    uint8_t payload[4];
    size_t payload_size = 0;
    const int result = tarn_noise_ik_read2(&copy.v, packet + TARN_HEADER_SIZE, size - TARN_HEADER_SIZE,
                                           payload, sizeof payload, &payload_size);
    if (result != TARN_OK) return result;
    const uint32_t id = get_u32(payload);
    if (id == 0 || id != get_u32(packet + 4)) return TARN_ERR_AUTH;
    session_from(session, &copy.v, id);
    crypto_wipe(state, sizeof *state);
    return TARN_OK;
}

size_t tarn_hs_encode_reject(uint8_t *out, size_t capacity, uint8_t reason) {
    if (capacity < TARN_HS_REJECT_SIZE) return 0;
    put_header(out, TARN_PKT_HS_REJECT, 0);
    out[8] = reason;
    return TARN_HS_REJECT_SIZE;
}

int tarn_hs_decode_reject(const uint8_t *packet, size_t size, uint8_t *reason) {
    if (size != TARN_HS_REJECT_SIZE || !header_is(packet, TARN_PKT_HS_REJECT) || get_u32(packet + 4) != 0) {
        return TARN_ERR_FORMAT;
    }
    *reason = packet[8];
    return TARN_OK;
}
