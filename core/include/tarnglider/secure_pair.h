/* Pairing: turns a short shared secret into mutual knowledge of long-term public keys. CPace over X25519 with SHA-512
 * (draft-irtf-cfrg-cpace), then the static keys and names under keys that only holders of the secret can derive. A
 * listener learns nothing of the secret; an active attacker gets one guess a run.
 *
 * One tarn_pair is one context: a client's single run, or a host's secret with its count of runs. What limits
 * guessing over time, chooses the context and repeats messages are the engines. Not safe on one context from two
 * threads. The context holds secrets: its owner wipes it with tarn_pair_wipe. */
#ifndef TARNGLIDER_SECURE_PAIR_H
#define TARNGLIDER_SECURE_PAIR_H

#include <stddef.h>
#include <stdint.h>

#include <tarnglider/api.h>
#include <tarnglider/secure.h>

TARN_BEGIN_DECLS

enum {
    TARN_PAIR_INIT_SIZE = 56,      /* exactly */
    TARN_PAIR_RESP_SIZE = 105,     /* and the length of the host's name, at most 63 */
    TARN_PAIR_CONFIRM_SIZE = 73,   /* and the length of the client's name */
    TARN_PAIR_DONE_SIZE = 41,      /* exactly */
    TARN_PAIR_FAIL_SIZE = 25,      /* exactly */
    TARN_PAIR_MESSAGE_MAX = 192,   /* room for any message */
    TARN_PAIR_FAIL_SECRET = 1,     /* reasons of a fail message: wrong secret, */
    TARN_PAIR_FAIL_LOCKED = 2,     /* too many attempts, */
    TARN_PAIR_FAIL_UNAVAILABLE = 3 /* the host is not pairing by this method */
};

/* States of a context; which message is taken in which stands beside the code. */
enum {
    TARN_PAIR_IDLE = 0,         /* host: waiting for a first message */
    TARN_PAIR_INIT_SENT = 1,    /* client */
    TARN_PAIR_CONFIRM_SENT = 2, /* client */
    TARN_PAIR_RESP_SENT = 3,    /* host */
    TARN_PAIR_FINISHED = 4,     /* both */
    TARN_PAIR_FAILED = 5        /* client, for good */
};

typedef struct tarn_pair {
    uint8_t role; /* 1 client, 2 host */
    uint8_t state;
    uint8_t attempts;     /* host: runs begun on this context */
    uint8_t max_attempts; /* host: limit of runs */
    uint8_t secret[64];   /* the PIN's digits, or the password key as 64 hexadecimal digits */
    uint8_t secret_len;
    uint8_t name_len;
    char name[64]; /* own display name */
    tarn_keypair keypair;
    uint8_t sid[16];    /* session id of the run, from the client */
    uint8_t scalar[32]; /* own CPace secret */
    uint8_t point[32];  /* own CPace public value */
    uint8_t send_key[32];
    uint8_t recv_key[32];
    uint8_t last_message[TARN_PAIR_MESSAGE_MAX]; /* for repeats */
    uint16_t last_size;
    uint8_t peer_key[32]; /* peer's static public key, when known */
    char peer_name[64];   /* peer's name as it sent it, terminated */
} tarn_pair;

/* Begins a client's run and writes its first message, 56 bytes, with flags 0; a sender that pairs by password sets the
 * flags byte to 1 in its own copy. Name and secret are cut to 63 and 64 bytes. Returns TARN_OK, TARN_ERR_SPACE, or
 * TARN_ERR_RANDOM; on failure *out_size is 0 and the context all zero. */
TARN_API int tarn_pair_client_start(tarn_pair *pair, const tarn_keypair *keypair, const char *name,
                                    const char *secret, uint8_t *out, size_t capacity, size_t *out_size);

/* Readies a host's context. `max_attempts` outside 1 to 254 means 10. Returns 0. */
TARN_API int tarn_pair_host_init(tarn_pair *pair, const tarn_keypair *keypair, const char *name,
                                 const char *secret, int max_attempts);

/* Takes a received pairing message, for both roles.
 *   out, capacity  for the answer; 192 bytes always do
 *   out_size       0 when there is nothing to send, whatever the result
 * Returns
 *   1                 finished; the peer's key and name are in the context
 *   0                 in progress, or a repeat answered with the same bytes
 *   TARN_ERR_FORMAT   malformed, of another run, or no message for this role
 *   TARN_ERR_AUTH     wrong secret
 *   TARN_ERR_LOCKED   attempts used up
 *   TARN_ERR_STATE    not valid now
 *   TARN_ERR_SPACE    `out` is too small; the context is as it was
 *   TARN_ERR_RANDOM, TARN_ERR_DH */
TARN_API int tarn_pair_handle(tarn_pair *pair, const uint8_t *packet, size_t size, uint8_t *out,
                              size_t capacity, size_t *out_size);

/* The host's refusal, 25 bytes, not authenticated. Returns 25, or 0 if it doesn't fit. */
TARN_API size_t tarn_pair_encode_fail(uint8_t *out, size_t capacity, const uint8_t sid[16], uint8_t reason);

/* The last message sent, for a repeat; null, with *size 0, if there is none. Valid until the context changes. */
TARN_API const uint8_t *tarn_pair_last_message(const tarn_pair *pair, size_t *size);

/* Wipes the whole context. */
TARN_API void tarn_pair_wipe(tarn_pair *pair);

/* The CPace generator for X25519 with SHA-512: hash of secret (PRS), channel identifier (CI) and session id, mapped to
 * the curve by Elligator 2. Constant time in all of its input but the lengths. */
TARN_API void tarn_cpace_generator(uint8_t point_out[32], const uint8_t *prs, size_t prs_size,
                                   const uint8_t *ci, size_t ci_size, const uint8_t *sid, size_t sid_size);

/* The CPace key of an initiator-responder run: SHA-512 over the session id, X25519(scalar, peer_point), and both
 * public values with their associated data, the client's (A) first on both sides. Returns TARN_OK, or TARN_ERR_DH for
 * a low-order point, with `isk_out` as it was. */
TARN_API int tarn_cpace_isk(uint8_t isk_out[64], const uint8_t *sid, size_t sid_size,
                            const uint8_t scalar[32], const uint8_t peer_point[32], const uint8_t ya[32],
                            const uint8_t *ada, size_t ada_size, const uint8_t yb[32], const uint8_t *adb,
                            size_t adb_size);

TARN_END_DECLS

#endif
