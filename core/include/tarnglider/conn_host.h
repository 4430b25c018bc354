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

TARN_END_DECLS

#endif
