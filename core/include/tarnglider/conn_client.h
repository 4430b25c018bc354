/* The client engine: opens sessions to one host over all candidate paths at once, and keeps its traffic on the best
 * of them. It never gives up by itself: a handshake is repeated while its session is open, and a silent path only
 * leads to another path. How an engine is driven: <tarnglider/conn.h>. */
#ifndef TARNGLIDER_CONN_CLIENT_H
#define TARNGLIDER_CONN_CLIENT_H

#include <tarnglider/conn.h>

TARN_BEGIN_DECLS

typedef struct tarn_client tarn_client;

/* Which paths may be used, and what servers are for. */
enum {
    TARN_ROUTE_ANY = 0,        /* all paths; lookup, punching, relay */
    TARN_ROUTE_NO_RELAY = 1,   /* all but the relay class; lookup and punching, no relay binding */
    TARN_ROUTE_RELAY_ONLY = 2, /* the relay class alone; lookup and relay, no punching */
    TARN_ROUTE_LOCAL_ONLY = 3  /* all but the relay class; servers are not used at all */
};

enum { TARN_PATHS_MAX = 16, TARN_CLIENT_SESSIONS_MAX = 4 };

typedef struct tarn_client_config {
    tarn_keypair identity;
    const char *name; /* display name, or null */
    tarn_relay_config relays;
    int32_t lan_count; /* endpoints in `lan`; more than 4 are ignored */
    tarn_addr lan[TARN_LAN_MAX];
    tarn_send_fn send;       /* required */
    tarn_log_fn log;         /* or null */
    void *user;              /* passed to both callbacks */
    uint32_t host_key_known; /* 1: `host_key` is the host's public key; required for sessions */
    uint8_t host_key[32];
    const char *host_code;  /* the host's key code as text, or null; ignored if it doesn't parse */
    uint32_t route_mode;    /* TARN_ROUTE_* */
    uint32_t settle_ms;     /* after the first session, free choice of paths; 0: 2000 */
    uint32_t silence_ms;    /* without a packet for longer, a path is left; 0: 1200 */
    uint32_t stable_ms;     /* a better class must answer this long before traffic moves back; 0: 3000 */
    uint64_t rekey_packets; /* new keys after this many packets; 0: 2^40 */
    uint64_t rekey_seconds; /* new keys after this time; 0: 3600 */
} tarn_client_config;

typedef struct tarn_path_status {
    int32_t path;
    uint32_t alive;  /* usable, and acknowledged within the last 1.5 seconds */
    int32_t server;  /* server through which it came, or -1 */
    uint32_t rtt_us; /* smoothed; 0 without a sample */
    tarn_addr addr;
} tarn_path_status;

typedef struct tarn_client_status {
    uint32_t connected;  /* 1: a session is established and a path is active */
    uint32_t session;    /* first established session, else 0 */
    int32_t path;        /* class of the active path, else 0 */
    uint32_t rtt_us;     /* its round-trip time */
    tarn_addr addr;      /* its endpoint */
    size_t max_datagram; /* tarn_path_max_datagram of `path` */
    size_t payload;      /* tarn_path_payload of `path` */
    int32_t path_count;
    tarn_path_status paths[TARN_PATHS_MAX]; /* in the order in which they were learnt */
} tarn_client_status;

/* Makes an engine; the configuration is copied. Returns null if `c` or its `send` is null or memory fails. The
 * caller ends it with tarn_client_destroy. */
TARN_API tarn_client *tarn_client_create(const tarn_client_config *c);

/* Wipes and frees the engine; null is allowed. No other call may be under way. */
TARN_API void tarn_client_destroy(tarn_client *c);

/* Kinds of a pairing secret for tarn_client_pair beside TARN_SECRET_PIN and TARN_SECRET_PASSWORD, and the reasons of
 * TARN_EV_PAIR_FAILED. */
enum {
    TARN_PAIR_AUTOMATIC = 0, /* six digits are tried as a PIN, then as a password; all else is a password */
    TARN_PAIR_REASON_SECRET = 1,      /* wrong PIN or password */
    TARN_PAIR_REASON_LOCKED = 2,      /* too many attempts */
    TARN_PAIR_REASON_UNAVAILABLE = 3, /* the host doesn't pair that way now */
    TARN_PAIR_REASON_WRONG_HOST = 4,  /* its key doesn't match the code or key that was given */
    TARN_PAIR_REASON_NO_ANSWER = 5    /* no answer, or a failure on this side */
};

/* Starts to pair with the host that answers first on the candidates and server paths and, where a key or code was
 * given, has it. `secret` (1 to 255 bytes, terminated) is copied and wiped when pairing ends; `kind` is 0, 1 or 2. The
 * end is TARN_EV_CLIENT_PAIRED, and a session is opened with no further call, or TARN_EV_PAIR_FAILED. Returns 0, or
 * -1 for a bad argument. One receive may take as long as the derivation of a password key with up to 256 MiB. */
TARN_API int tarn_client_pair(tarn_client *c, const char *secret, int kind);

/* Takes the result of a name resolution of a server: `addr` null, or without family, if it failed. */
TARN_API void tarn_client_server_resolved(tarn_client *c, const char *name, uint16_t port,
                                          const tarn_addr *addr);

/* Adds an endpoint at which the host may be. `path` is TARN_PATH_LAN (believed only of an address that is of that
 * class), TARN_PATH_DIRECT, or anything else: the address decides. Returns 0, or -1 if `addr` is null or has no
 * family or port, or 16 paths are known. Paths are kept until the engine is destroyed. */
TARN_API int tarn_client_add_candidate(tarn_client *c, const tarn_addr *addr, int path);

/* Starts a first session unless there is one. Returns 0, or -1 without the host's key. */
TARN_API int tarn_client_connect(tarn_client *c);

/* Starts one more session. Returns 0, or -1 without the host's key or with 4 sessions taken. */
TARN_API int tarn_client_open_session(tarn_client *c);

/* Ends a session, or all of them with 0. Nothing is sent: the host lets it expire. Pairing ends, too, if no session
 * is left. */
TARN_API void tarn_client_session_close(tarn_client *c, uint32_t session);

/* Takes one datagram; parameters and results as in tarn_host_receive. */
TARN_API int tarn_client_receive(tarn_client *c, const uint8_t *pkt, size_t len, const tarn_addr *from,
                                 uint8_t *out, size_t out_cap, size_t *out_len, tarn_recv_info *info);

/* Seals a plain packet for a session, 0 meaning the first established one; parameters as in tarn_host_seal. Returns
 * the sealed length, or 0, also while there is no active path. */
TARN_API size_t tarn_client_seal(tarn_client *c, uint32_t session, const uint8_t *plain, size_t len,
                                 uint8_t *out, size_t out_cap, tarn_addr *to);

/* Does what is due. Returns the microseconds after which to call again, 1000 to 250000. */
TARN_API int tarn_client_tick(tarn_client *c);

/* Asks for new keys on every established session that isn't already at it; the next tick begins. */
TARN_API void tarn_client_rekey(tarn_client *c);

/* Takes the oldest event. Returns 1, or 0 with `out` untouched when there is none. */
TARN_API int tarn_client_poll_event(tarn_client *c, conn_event *out);

/* Fills `out` with the state of the first established session and of all known paths. */
TARN_API void tarn_client_status_get(tarn_client *c, tarn_client_status *out);

TARN_END_DECLS

#endif
