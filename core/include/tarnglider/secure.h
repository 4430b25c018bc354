/* The secure channel: key utilities, the AEAD, the Noise IK handshake and the record layer.
 *
 * Keys are X25519, hashing is BLAKE2b, the AEAD is ChaCha20-Poly1305; every primitive is Monocypher's.
 * Nothing here keeps static state, so every function may run on any thread; what runs at once on one record
 * is said where it matters. Records hold secrets: they never leave the process, and their owner wipes them.
 * No function allocates but tarn_password_derive. Unless stated otherwise pointers are not null, except data
 * of size 0. */
#ifndef TARNGLIDER_SECURE_H
#define TARNGLIDER_SECURE_H

#include <stddef.h>
#include <stdint.h>

#include <tarnglider/api.h>

TARN_BEGIN_DECLS

/* Results of the secure channel. A plain -1 of an older style of function below is TARN_ERR_FORMAT. */
enum {
    TARN_OK = 0,
    TARN_ERR_FORMAT = -1, /* malformed input */
    TARN_ERR_AUTH = -2,   /* authentication failed */
    TARN_ERR_REPLAY = -3, /* counter replayed or too old */
    TARN_ERR_STATE = -4,  /* operation not allowed in this state */
    TARN_ERR_LOCKED = -5, /* too many attempts */
    TARN_ERR_SPACE = -6,  /* output buffer too small */
    TARN_ERR_RANDOM = -7, /* the random source failed */
    TARN_ERR_DH = -8,     /* a Diffie-Hellman result was all zero: a low-order public key */
    TARN_ERR_SESSION = -9 /* the packet carries another session id */
};

/* ---- Key utilities ---- */

enum {
    TARN_KEY_ID_SIZE = 16,   /* bytes of a key id */
    TARN_KEY_CODE_BYTES = 5, /* bytes of a parsed key code */
    TARN_KEY_CODE_TEXT = 10  /* "XXXX-XXXX" with its terminator */
};

/* An X25519 key pair: the lasting identity of a host or client, or the ephemeral key of one handshake. */
typedef struct tarn_keypair {
    uint8_t secret[32];
    uint8_t public_key[32];
} tarn_keypair;

/* Fills `buffer` from the system's random source. Size 0 succeeds at once. Returns TARN_OK, or
 * TARN_ERR_RANDOM with the buffer's content unspecified: whoever asked gives up the operation at hand. */
TARN_API int tarn_random_bytes(void *buffer, size_t size);

/* Zeroes memory in a way that the compiler can't leave out. All key material goes this way. */
TARN_API void tarn_secure_wipe(void *buffer, size_t size);

/* Fills a key pair from a secret key: copies it and computes the public key (X25519, RFC 7748). */
TARN_API void tarn_keypair_from_secret(tarn_keypair *keypair, const uint8_t secret[32]);

/* Makes a fresh key pair. Returns TARN_OK, or TARN_ERR_RANDOM with `keypair` as it was. */
TARN_API int tarn_keypair_generate(tarn_keypair *keypair);

/* The key id of a public key: BLAKE2b with 16 bytes of output over "tarnglider-key-id-v1" and the key. */
TARN_API void tarn_key_id(uint8_t id[16], const uint8_t public_key[32]);

/* The key code of a public key, for one person to read out and another to type: the first 40 bits of the key
 * id in eight symbols, "XXXX-XXXX" and a terminator. The alphabet is "0123456789ABCDEFGHJKMNPQRSTVWXYZ" (no
 * I, L, O, U); there is no check digit. */
TARN_API void tarn_key_code(char text[10], const uint8_t public_key[32]);

/* Reads a key code as a person types it: either case, hyphens and spaces anywhere, L and I for 1, O for 0.
 * Writes the 5 bytes with which the key id begins. Returns 0, or -1 with `bytes` as it was for any other
 * character and for fewer or more than eight symbols. */
TARN_API int tarn_key_code_parse(uint8_t bytes[5], const char *text);

/* Writes 2 x size lower-case hexadecimal digits and a terminator. */
TARN_API void tarn_hex_encode(char *text, const uint8_t *bytes, size_t size);

/* Reads exactly 2 x size hexadecimal digits of either case, behind which the text must end. Returns 0, or -1
 * with `bytes` partly or, if the text is too long, wholly written. */
TARN_API int tarn_hex_decode(uint8_t *bytes, size_t size, const char *text);

/* ---- AEAD: ChaCha20-Poly1305 of RFC 8439 ----
 * The nonce is 4 zero bytes and the counter in 8 bytes, little-endian (the ChaChaPoly form of the Noise
 * protocol). A counter must never be used twice with one key. `plain` and `cipher` are the same memory or
 * don't overlap. */

/* Encrypts `size` bytes into `cipher` and writes the tag. */
TARN_API void tarn_aead_encrypt(const uint8_t key[32], uint64_t counter, const uint8_t *ad, size_t ad_size,
                                const uint8_t *plain, size_t size, uint8_t *cipher, uint8_t mac[16]);

/* Decrypts `size` bytes into `plain`. Returns TARN_OK, or TARN_ERR_AUTH with `plain` as it was. */
TARN_API int tarn_aead_decrypt(const uint8_t key[32], uint64_t counter, const uint8_t *ad, size_t ad_size,
                               const uint8_t *cipher, size_t size, const uint8_t mac[16], uint8_t *plain);

/* ---- Pairing secrets ---- */

enum {
    TARN_SECRET_PIN = 1,          /* six digits, read from the host's screen */
    TARN_SECRET_PASSWORD = 2,     /* the host's lasting pairing password */
    TARN_PASSWORD_BLOCKS = 65536, /* a host's own cost: 64 MiB */
    TARN_PASSWORD_PASSES = 3
};

/* TARN_SECRET_PIN for a text of exactly six ASCII digits, else (null too) TARN_SECRET_PASSWORD. */
TARN_API int tarn_secret_guess_kind(const char *text);

/* The key of a password: Argon2id (RFC 9106) with one lane, no key and no associated data. `blocks` of 1 KiB
 * from 8 to 1048576, `passes` from 1 to 16. Allocates blocks x 1 KiB for the call. Returns 0, or -1 with
 * `key` as it was for a cost out of range, a null password, or want of memory. */
TARN_API int tarn_password_derive(uint8_t key[32], const char *password, const uint8_t salt[16],
                                  uint32_t blocks, uint32_t passes);

/* ---- Noise IK: Noise_IK_25519_ChaChaPoly_BLAKE2b ----
 * One round trip between a client (initiator), which knows the host's public key, and a host (responder). */

enum { TARN_NOISE_INITIATOR = 1, TARN_NOISE_RESPONDER = 2 };

enum {
    TARN_NOISE_READY = 1,
    TARN_NOISE_FIRST_DONE = 2,  /* the first message was written or read */
    TARN_NOISE_SECOND_DONE = 3, /* the second one, too: the keys may be split */
    TARN_NOISE_FAILED = 4
};

/* The state of one handshake; its owner wipes it when the handshake ends, however it ends. */
typedef struct tarn_noise_ik {
    uint8_t role;
    uint8_t stage;
    uint8_t has_key; /* set once a key has been mixed */
    uint64_t nonce;  /* counter of the cipher state */
    uint8_t ck[64];  /* chaining key */
    uint8_t h[64];   /* handshake hash */
    uint8_t k[32];   /* cipher key */
    tarn_keypair s;  /* local static key pair */
    tarn_keypair e;  /* local ephemeral key pair */
    uint8_t rs[32];  /* remote static public key */
    uint8_t re[32];  /* remote ephemeral public key */
} tarn_noise_ik;

/* One crypto session: what a handshake leaves behind, and all that sealing and opening need. */
typedef struct tarn_session {
    uint32_t id;                /* crypto session id, never 0 */
    uint8_t initiator;          /* 1 if this side began the handshake */
    uint8_t send_key[32];       /* key of outgoing packets */
    uint8_t recv_key[32];       /* key of incoming packets */
    uint64_t send_counter;      /* next counter to use; accessed atomically */
    uint64_t recv_next;         /* highest accepted counter plus one */
    uint64_t replay[32];        /* window of 2048 bits: bit c mod 2048 stands for counter c */
    uint8_t peer_key[32];       /* the peer's static public key */
    uint8_t handshake_hash[64]; /* the same on both sides, and in no other session */
} tarn_session;

/* Readies a state. `remote_public` is the host's key for an initiator and is ignored (may be null) for a
 * responder; `initiator` is a truth value. Both sides must agree on the prologue. */
TARN_API void tarn_noise_ik_init(tarn_noise_ik *state, int initiator, const uint8_t *prologue,
                                 size_t prologue_size, const tarn_keypair *local_keypair,
                                 const uint8_t *remote_public);

/* The messages. Message one is payload_size + 96 bytes, message two payload_size + 48. `ephemeral_secret` is
 * null in normal use, when a fresh key is drawn; a value fixes it, for known answers. `out` and `payload`
 * don't overlap. *out_size and *payload_size are 0 on every failure, and what the buffers then hold is not to
 * be used.
 *
 * All return TARN_OK; TARN_ERR_STATE out of order; TARN_ERR_FORMAT for a message too short; TARN_ERR_SPACE
 * for too small a buffer; TARN_ERR_RANDOM; TARN_ERR_DH; TARN_ERR_AUTH. A state is as it was after the first
 * four. After TARN_ERR_DH or TARN_ERR_AUTH it has failed for good, but for read2: that leaves it untouched on
 * every failure, so that a forged answer can't cost the genuine one its place. */
TARN_API int tarn_noise_ik_write1(tarn_noise_ik *state, const uint8_t *ephemeral_secret,
                                  const uint8_t *payload, size_t payload_size, uint8_t *out, size_t capacity,
                                  size_t *out_size);
TARN_API int tarn_noise_ik_read1(tarn_noise_ik *state, const uint8_t *message, size_t size, uint8_t *payload,
                                 size_t capacity, size_t *payload_size);
TARN_API int tarn_noise_ik_write2(tarn_noise_ik *state, const uint8_t *ephemeral_secret,
                                  const uint8_t *payload, size_t payload_size, uint8_t *out, size_t capacity,
                                  size_t *out_size);
TARN_API int tarn_noise_ik_read2(tarn_noise_ik *state, const uint8_t *message, size_t size, uint8_t *payload,
                                 size_t capacity, size_t *payload_size);

/* The traffic keys: `key1` from initiator to responder, `key2` back. The state stays as it is. Returns
 * TARN_OK, or TARN_ERR_STATE, with the keys as they were, before both messages are done. */
TARN_API int tarn_noise_split(const tarn_noise_ik *state, uint8_t key1[32], uint8_t key2[32]);

/* ---- The handshake in packets ----
 * Client: start, then finish for every answer until one succeeds. Host: read, its policy, then respond. */

enum {
    TARN_HS_INIT_SIZE = 112,
    TARN_HS_RESP_SIZE = 60,
    TARN_HS_REJECT_SIZE = 9,
    TARN_HS_REJECT_UNKNOWN = 1, /* the client is not on the host's list */
    TARN_HS_REJECT_BUSY = 2     /* the host is busy or out of session slots */
};

/* Begins a handshake with the host of `host_public` and writes its first packet, 112 bytes. `timestamp`
 * (microseconds since the Unix epoch) must exceed every earlier one of this client: it is how the host
 * refuses a replay. Returns TARN_OK, TARN_ERR_SPACE, TARN_ERR_RANDOM or TARN_ERR_DH; *out_size is 0 on
 * failure. */
TARN_API int tarn_hs_client_start(tarn_noise_ik *state, const tarn_keypair *local_keypair,
                                  const uint8_t host_public[32], uint64_t timestamp, uint8_t *out,
                                  size_t capacity, size_t *out_size);

/* Takes the host's answer. On TARN_OK `session` is ready and `state` wiped. Otherwise `state` and `session`
 * are as they were, ready for another answer: TARN_ERR_FORMAT, TARN_ERR_STATE, TARN_ERR_DH, TARN_ERR_AUTH
 * (also if the id in the clear header isn't the encrypted one, or is 0). */
TARN_API int tarn_hs_client_finish(tarn_noise_ik *state, const uint8_t *packet, size_t size,
                                   tarn_session *session);

/* Reads a client's first packet. On TARN_OK gives back the client's key, proved to be held by the sender at
 * some time, and the timestamp; the caller goes on with tarn_hs_host_respond or wipes `state`. Otherwise
 * TARN_ERR_FORMAT (state as it was), TARN_ERR_DH or TARN_ERR_AUTH (state failed, for the caller to wipe),
 * with the outputs as they were. */
TARN_API int tarn_hs_host_read(tarn_noise_ik *state, const tarn_keypair *local_keypair, const uint8_t *packet,
                               size_t size, uint8_t client_public[32], uint64_t *timestamp);

/* Writes the answer, 60 bytes, and makes the session; `state` is wiped. A `session_id` of 0 draws one.
 * Otherwise TARN_ERR_SPACE, TARN_ERR_STATE, TARN_ERR_RANDOM or TARN_ERR_DH, with `session` as it was and
 * *out_size 0. */
TARN_API int tarn_hs_host_respond(tarn_noise_ik *state, uint32_t session_id, uint8_t *out, size_t capacity,
                                  size_t *out_size, tarn_session *session);

/* The host's refusal, 9 bytes, not authenticated. Returns 9, or 0 if it doesn't fit. */
TARN_API size_t tarn_hs_encode_reject(uint8_t *out, size_t capacity, uint8_t reason);

/* Reads a refusal: a hint that anyone on the way could forge. Returns 0, or -1 with `reason` as it was. */
TARN_API int tarn_hs_decode_reject(const uint8_t *packet, size_t size, uint8_t *reason);

/* ---- Record layer ----
 * One AEAD for each datagram, the counter in the clear, a sliding window against replay, no order and no
 * repeats. Rekeying is a second handshake and a second session. */

enum {
    TARN_SEAL_OVERHEAD = 24, /* bytes that a sealed packet has more than the plain one */
    TARN_SEALED_MIN = 32     /* smallest sealed packet */
};

/* Seals a plain packet (header version 1): type and flags are copied, the session word becomes the session's
 * id. `out` may be the same memory as `plain`. Returns plain_size + 24, or 0: for a packet shorter than 8
 * bytes or of another version, too small a buffer (no counter is used up by these), or a session that has
 * used 2^60 counters. Safe on one session from several threads at once. */
TARN_API size_t tarn_seal(tarn_session *session, const uint8_t *plain, size_t plain_size, uint8_t *out,
                          size_t capacity);

/* Opens one sealed packet.
 *   session   the crypto session that the packet names; its window moves only if the packet is authentic
 *   packet    size bytes; may be the same memory as out, and is then spent even if the packet is not authentic
 *   out       receives size - 24 bytes: the plain packet, its header rebuilt with the session word as it came;
 *             holds no plain text on failure
 *   out_size  set to 0 first, to the plain size on success
 * Returns TARN_OK; TARN_ERR_FORMAT, TARN_ERR_SPACE, TARN_ERR_SESSION, checked in this order; TARN_ERR_REPLAY for a
 * counter used or more than 2048 behind; TARN_ERR_AUTH. Not safe on one session from two threads. */
TARN_API int tarn_open(tarn_session *session, const uint8_t *packet, size_t size, uint8_t *out,
                       size_t capacity, size_t *out_size);

/* Wipes the whole record. */
TARN_API void tarn_session_wipe(tarn_session *session);

TARN_END_DECLS

#endif
