/* Rendezvous messages: what hosts and clients say to the server that introduces and relays them, and the
 * punches between the two. One record serves all messages; which of its fields travel depends on the type.
 * Pure functions over buffers of the caller; any thread.
 *
 * On the wire: the common header of <tarnglider/protocol.h> with flags 0 and session word 0, the message's
 * fields packed and little-endian, and behind them a 16-byte trailer, keyed BLAKE2b (RFC 7693) under the
 * network key over everything before it. The trailer authenticates; nothing here is encrypted. Punches travel
 * between peers without a trailer. */
#ifndef TARNGLIDER_RENDEZVOUS_H
#define TARNGLIDER_RENDEZVOUS_H

#include <stddef.h>
#include <stdint.h>

#include <tarnglider/api.h>
#include <tarnglider/conn_addr.h>

TARN_BEGIN_DECLS

/* Message numbers, with the fields of each in wire order. */
enum {
    TARN_RV_REGISTER = 96,      /* host to server: key, token, proof, endpoints */
    TARN_RV_CHALLENGE = 97,     /* server to host: token, key, seen */
    TARN_RV_REGISTERED = 98,    /* server to host: seen, interval */
    TARN_RV_LOOKUP = 99,        /* client to server: tag, id_len, lookup_id, endpoints */
    TARN_RV_LOOKUP_REPLY = 100, /* server to client: tag, status, key, peer, endpoints, seen, punch_token,
                                 * allocation, token */
    TARN_RV_INTRODUCE = 101,    /* server to host: tag, peer, endpoints, punch_token, allocation, token */
    TARN_RV_PUNCH = 102,        /* peer to peer, no trailer: punch_token, tag, side */
    TARN_RV_PUNCH_ACK = 103,    /* the punch sent back */
    TARN_RV_BIND = 104,         /* to server: allocation, token, side */
    TARN_RV_BIND_REPLY = 105,   /* from server: allocation, status, seen */
    TARN_RV_ERROR = 106         /* from server: tag, status */
};

/* Sizes and limits. */
enum {
    TARN_RV_TRAILER_SIZE = 16,
    TARN_RV_ENDPOINT_SIZE = 19, /* u8 family, u16 port, 16 bytes of address */
    TARN_RV_ENDPOINTS_MAX = 4,
    TARN_RV_ID_MIN = 5,     /* a key code */
    TARN_RV_ID_MAX = 16,    /* a whole key id */
    TARN_RV_MAX_SIZE = 256, /* a buffer that holds every message, trailer included */
    TARN_RV_PUNCH_SIZE = 29
};

/* Values of `side` and the one `status` with a meaning to peers; other non-zero ones belong to the server. */
enum {
    TARN_RV_SIDE_HOST = 0,
    TARN_RV_SIDE_CLIENT = 1,
    TARN_RV_STATUS_OK = 0,
    TARN_RV_STATUS_REGISTER = 2 /* in an error to a host: register again from the start */
};

/* Default of `interval`, in seconds, when the server sends 0. */
enum { TARN_RV_DEFAULT_INTERVAL = 20 };

typedef struct tarn_rv_msg {
    uint8_t type;
    uint8_t status;          /* 0 is good */
    uint8_t side;            /* who sends: 1 the client, 0 the host */
    uint8_t id_len;          /* valid bytes of lookup_id, 5 to 16 */
    uint16_t interval;       /* seconds until the next registration */
    uint32_t allocation;     /* relay allocation number */
    uint32_t tag;            /* request number, echoed in the answer; in a punch it counts */
    uint8_t key[32];         /* an X25519 public key */
    uint8_t token[16];       /* registration cookie or relay token */
    uint8_t proof[16];       /* registration proof */
    uint8_t punch_token[16]; /* shared token of a punching attempt */
    uint8_t lookup_id[16];   /* the key id or key code searched for */
    tarn_addr seen;          /* endpoint as the server saw it, or the relay's */
    tarn_addr peer;          /* public endpoint of the other side */
    uint8_t count;           /* number of endpoints, at most 4 */
    tarn_addr endpoints[4];  /* LAN endpoints */
} tarn_rv_msg;

/* The network key of a relay link: BLAKE2b-256 over the 16 bytes of "tarnglider-rv-v1" and the link's key
 * bytes. All peers of one link hold the same key, so it keeps out those who have no link and tells no peer
 * from another. `link_key` may be null with size 0. The caller wipes the result. */
TARN_API void tarn_rv_net_key(uint8_t key[32], const uint8_t *link_key, size_t link_key_size);

/* Writes one message. A null `net_key` leaves out the trailer. An endpoint of any family but 4 and 6 travels
 * as nineteen zero bytes; of an IPv4 address only the first 4 bytes travel. Returns the length, or 0 for an
 * unknown type, a count above 4 or too small a buffer. */
TARN_API size_t tarn_rv_encode(uint8_t *out, size_t capacity, const uint8_t *net_key,
                               const tarn_rv_msg *message);

/* Reads one message; `net_key` has 32 bytes, or is null for a message without a trailer. The header's session
 * word is not looked at; a byte too many is an error. Returns 0; -2 if the trailer doesn't match, before
 * anything is parsed; -1 for everything else. Fields that the type doesn't carry are 0, and on failure the
 * whole record is. */
TARN_API int tarn_rv_decode(const uint8_t *packet, size_t size, const uint8_t *net_key, tarn_rv_msg *message);

/* The proof of a registration: that the host holds the secret key of what it registers, that it received the
 * cookie where it answers from, and that the endpoints are its own. BLAKE2b-128, keyed with BLAKE2b-256 over
 * "tarnglider-rv-proof-v1" and X25519(host_secret, server_public), over the cookie, the host's public key,
 * the number of endpoints (clamped to 0..4) and the endpoints in wire form. The server computes the same from
 * its own secret key and the host's public key.
 * Returns TARN_OK, or TARN_ERR_DH (<tarnglider/secure.h>) for a server key of low order, with `proof` all
 * zero. */
TARN_API int tarn_rv_register_proof(uint8_t proof[16], const uint8_t host_secret[32],
                                    const uint8_t server_public[32], const uint8_t cookie[16],
                                    const uint8_t host_public[32], const tarn_addr *endpoints, int count);

/* 1 for the same family, port and address (4 bytes of it for family 4, else 16), else 0. */
TARN_API int tarn_rv_endpoint_equal(const tarn_addr *a, const tarn_addr *b);

TARN_END_DECLS

#endif
