/* The host engine: answers handshakes of the clients in its list and keeps up to eight live sessions, each of which
 * follows its client from address to address. It serves one client at a time, in one or several sessions.
 * How an engine is driven: <tarnglider/conn.h>. */
#ifndef TARNGLIDER_CONN_HOST_H
#define TARNGLIDER_CONN_HOST_H

#include <tarnglider/conn.h>

TARN_BEGIN_DECLS

typedef struct tarn_host tarn_host;

typedef struct tarn_host_config {
    tarn_keypair identity;
    const char *name; /* display name, or null */
    tarn_relay_config relays;
    int32_t lan_count; /* endpoints in `lan`; more than 4 are ignored */
    tarn_addr lan[TARN_LAN_MAX];
    tarn_send_fn send;         /* required */
    tarn_log_fn log;           /* or null */
    void *user;                /* passed to both callbacks */
    uint32_t allow_plain;      /* 1: plain packets outside the secure range come back as TARN_RECV_PLAIN */
    int32_t pin_attempts;      /* 0 or less: 10 */
    int32_t password_attempts; /* 0 or less: 10 */
    int32_t lockout_s;         /* 0 or less: 600 */
} tarn_host_config;

/* What is known of a session. */
typedef struct tarn_session_info {
    uint32_t session;
    int32_t path;
    tarn_addr addr; /* where its packets go */
    uint8_t key[32];
    char name[64];
    uint64_t last_rx_us; /* last authenticated packet, on the clock of tarn_now_us */
} tarn_session_info;

/* Makes an engine from a configuration, the list of trusted clients (null: none) and the stored password line (null
 * or empty: none). All three are copied. Returns null if `c` or its `send` is null or memory fails. The caller ends
 * it with tarn_host_destroy. */
TARN_API tarn_host *tarn_host_create(const tarn_host_config *c, const tarn_client_list *clients,
                                     const char *stored_password);

/* Wipes and frees the engine; null is allowed. No other call may be under way. */
TARN_API void tarn_host_destroy(tarn_host *h);

/* Takes one datagram.
 *   pkt, len   the datagram; `pkt` may be the same memory as `out`
 *   from       its source
 *   out        receives an opened packet: 8-byte header with the session id in bytes 4 to 7, then the body;
 *              out_cap of len - 24 is always enough
 *   out_len    required; the opened packet's length with TARN_RECV_DATA, else 0
 *   info       or null
 * Returns TARN_RECV_NONE, TARN_RECV_DATA or TARN_RECV_PLAIN. Whatever is forged, replayed or malformed is dropped
 * without a word and without effect. */
TARN_API int tarn_host_receive(tarn_host *h, const uint8_t *pkt, size_t len, const tarn_addr *from,
                               uint8_t *out, size_t out_cap, size_t *out_len, tarn_recv_info *info);

/* Does what is due. Returns the microseconds after which to call again, 1000 to 250000. */
TARN_API int tarn_host_tick(tarn_host *h);

/* Takes the oldest event. Returns 1, or 0 with `out` untouched when there is none. */
TARN_API int tarn_host_poll_event(tarn_host *h, conn_event *out);

/* Seals a plain packet for a session; the caller sends the result to `to`.
 *   plain, len  at least the 8-byte header; its session word is not sent
 *   out         receives len + 24 bytes; may be the same memory as `plain`
 *   to          receives the session's endpoint; or null
 * Returns the sealed length, or 0: unknown session, malformed packet, too little room, keys used up. */
TARN_API size_t tarn_host_seal(tarn_host *h, uint32_t session, const uint8_t *plain, size_t len, uint8_t *out,
                               size_t out_cap, tarn_addr *to);

/* Returns 0, or -1 for an unknown session with `out` zeroed. A session that was idle for over 60 seconds is gone
 * without an event: this call and tarn_host_seal are how the caller learns it. */
TARN_API int tarn_host_session_info_get(tarn_host *h, uint32_t session, tarn_session_info *out);

/* Ends a session at once. No packet tells the client, no event the caller. */
TARN_API void tarn_host_session_close(tarn_host *h, uint32_t session);

/* ---- Pairing: a PIN while a window is open, a password at any time once set ---- */

enum { TARN_PASSWORD_LINE_SIZE = 160 };

typedef struct tarn_host_pairing_state {
    uint32_t open;
    char pin[8];           /* six digits, terminated; empty while closed */
    char code[12];         /* the host's key code */
    uint32_t seconds_left; /* rounded up; 0 when closed, or open with no deadline */
    uint32_t password_set;
    uint32_t password_locked;
} tarn_host_pairing_state;

/* Opens the pairing window for some seconds (0: 120) with a new PIN; an open one starts over. Without random bytes it
 * closes. */
TARN_API void tarn_host_pairing_open(tarn_host *h, uint32_t seconds);

/* Closes the window if it is open. */
TARN_API void tarn_host_pairing_close(tarn_host *h);

TARN_API void tarn_host_pairing_status(tarn_host *h, tarn_host_pairing_state *out);

/* Sets the pairing password, lifting a lock. `line`, at least 160 bytes, receives the stored form for the next
 * tarn_host_create: "tarnglider-pw1", salt, cost and derived key; it is secret data. Takes as long as Argon2id with 64
 * MiB, without holding the engine up. Returns 0, or -1 for a null or empty password, too little room, or want of memory
 * or random bytes, with nothing changed. */
TARN_API int tarn_host_set_password(tarn_host *h, const char *password, char *line, size_t line_cap);

TARN_API void tarn_host_clear_password(tarn_host *h);

/* Trusts a client without an exchange, or renames it; a first-run window closes. `name` may be null. Returns 0, or -1
 * when the list is full. */
TARN_API int tarn_host_add_client(tarn_host *h, const uint8_t key[32], const char *name);

/* Forgets a client and ends its sessions at once. Returns 0, or -1 for an unknown key. */
TARN_API int tarn_host_remove_client(tarn_host *h, const uint8_t key[32]);

/* Copies the trusted clients, for the caller to save. */
TARN_API void tarn_host_export_clients(tarn_host *h, tarn_client_list *out);

/* ---- Rendezvous servers ---- */

enum {
    TARN_SERVER_NO_ADDRESS = 0,
    TARN_SERVER_UNRESOLVED = 1, /* its name did not resolve */
    TARN_SERVER_REGISTERING = 2,
    TARN_SERVER_SILENT = 3, /* three or more tries without an answer */
    TARN_SERVER_REGISTERED = 4,
    TARN_SERVER_ERROR = 5 /* it reported the error `error` */
};

typedef struct tarn_server_status {
    tarn_addr addr; /* the server's, family 0 until known */
    uint32_t registered;
    tarn_addr public_addr; /* this host's endpoint as the server sees it */
    uint32_t rtt_us;
    int32_t status; /* TARN_SERVER_* */
    int32_t error;  /* 0 or the server's status number */
    uint16_t port;
    char host[TARN_RELAY_HOST_SIZE];
} tarn_server_status;

/* Returns 0, or -1 for a number out of range with `out` zeroed. */
TARN_API int tarn_host_server_status(tarn_host *h, int server, tarn_server_status *out);

/* Takes the result of a name resolution of a server: `addr` null, or without family, if it failed. */
TARN_API void tarn_host_server_resolved(tarn_host *h, const char *name, uint16_t port, const tarn_addr *addr);

/* Replaces the servers; those that stay, whatever their place, keep registration and relayed clients. */
TARN_API void tarn_host_set_relay(tarn_host *h, const tarn_relay_config *relays);

/* Replaces the LAN endpoints (at most 4) that clients are told of, and registers them with every server. */
TARN_API void tarn_host_set_lan_endpoints(tarn_host *h, const tarn_addr *lan, int count);

TARN_END_DECLS

#endif
