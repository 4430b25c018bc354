/* What the host engine and the client engine have in common: how they are driven, what they report, and the records
 * that pass between them and their caller.
 *
 * An engine has no thread, no socket and, after create, no allocation. Its caller
 *   - owns the UDP socket and hands every datagram to tarn_host_receive or tarn_client_receive,
 *   - calls the engine's tick after at most the microseconds that the last tick returned,
 *   - polls events until the queue is empty, after each of these calls,
 *   - sends what the engine passes to the `send` callback.
 * Every exported call takes the engine's one lock for its whole length, so calls may come from several threads; the
 * callbacks run with the lock held and must not call back into the same engine. */
#ifndef TARNGLIDER_CONN_H
#define TARNGLIDER_CONN_H

#include <stddef.h>
#include <stdint.h>

#include <tarnglider/api.h>
#include <tarnglider/conn_addr.h>
#include <tarnglider/conn_lists.h>
#include <tarnglider/conn_relay.h>
#include <tarnglider/secure.h>

TARN_BEGIN_DECLS

/* Sends one datagram of `len` bytes to `to`; both are valid during the call only. A datagram that can't be sent is
 * dropped: the engine repeats what matters. */
typedef void (*tarn_send_fn)(void *user, const tarn_addr *to, const uint8_t *data, size_t len);

/* Takes one finished sentence for a log file, without a line end, at most 511 bytes long. */
typedef void (*tarn_log_fn)(void *user, const char *line);

/* Local endpoints that an engine offers to its peer, and the events that it keeps for its caller. */
enum { TARN_LAN_MAX = 4, TARN_EVENTS_MAX = 64 };

/* Kinds of events. "fills" names the fields of conn_event that the kind sets; all others are zero, `server` -1. */
enum {
    TARN_EV_HOST_PAIRED = 1,  /* host: a client finished pairing; fills method, addr, key, key_id, name */
    TARN_EV_PAIR_ATTEMPT = 2, /* host: a pairing attempt began; detail = its number, method, addr */
    TARN_EV_PAIR_ATTEMPT_FAILED = 3, /* host: detail 1 failed, 2 attempts used up; method, addr */
    TARN_EV_NEW_PIN = 4,             /* host: the PIN changed after attempts ran out */
    TARN_EV_PAIRING_CLOSED = 5,      /* host: the pairing window closed */
    TARN_EV_SESSION_CONNECTED =
        6,                      /* host: first authenticated packet; session, path, addr, key, key_id, name */
    TARN_EV_UNKNOWN_DEVICE = 7, /* host: handshake of a key not in the list; detail 1, addr, key, key_id */
    TARN_EV_SERVER_REGISTERED = 8,   /* host: registered, or public endpoint changed; server, rtt_us, addr */
    TARN_EV_SERVER_LOST = 9,         /* host: a registered server stopped answering; server */
    TARN_EV_PATH_CHANGED = 10,       /* both: session, path, addr; from the client also rtt_us and server */
    TARN_EV_REKEYED = 11,            /* both: new keys are in use; session */
    TARN_EV_CLIENT_PAIRED = 12,      /* client: pairing finished; method, addr, key, key_id, name */
    TARN_EV_PAIR_FAILED = 13,        /* client: detail = reason, method */
    TARN_EV_SESSION_UP = 14,         /* client: session, path, addr, rtt_us, server, key, key_id */
    TARN_EV_HANDSHAKE_REJECTED = 15, /* client: detail = the host's reason; the handshake goes on */
    TARN_EV_LOOKUP_FAILED = 16       /* client: a server could not find the host; server, detail = status */
};

/* One event. A full queue drops its oldest event, so a caller that polls after every call loses none. */
typedef struct conn_event {
    int32_t kind;
    int32_t detail;
    int32_t method; /* pairing method: 1 PIN, 2 password */
    int32_t path;   /* path class */
    int32_t server; /* number of a server in the relay configuration, or -1 */
    uint32_t session;
    uint32_t rtt_us;
    tarn_addr addr;
    uint8_t key[32];    /* the peer's public key */
    uint8_t key_id[16]; /* tarn_key_id of `key` */
    char name[64];      /* the peer's display name, free of control characters */
} conn_event;

/* Results of tarn_host_receive and tarn_client_receive. */
enum {
    TARN_RECV_NONE = 0, /* consumed or dropped */
    TARN_RECV_DATA = 1, /* `out` holds an opened packet of a session */
    TARN_RECV_PLAIN = 2 /* the datagram itself is a plain packet for the caller; `out` is not used */
};

/* Filled with TARN_RECV_DATA, else zero. */
typedef struct tarn_recv_info {
    uint32_t session; /* stays the same over rekeys */
    uint32_t first;   /* host: 1 on the session's first data packet; client: always 0 */
    uint32_t
        path; /* host: class of the session's path; client: class of the source, 0 if it is no known path */
} tarn_recv_info;

TARN_END_DECLS

#endif
