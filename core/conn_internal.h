// What the two engines share around their records: the common head with its lock, callbacks, server table and event
// ring, the send paths, and small packets that keep paths and rekeys going.
// All functions but conn_poll_event, conn_hs_timestamp, conn_servers_load and conn_base_init expect the engine's
// lock to be held. Nothing here allocates.
#ifndef TARN_CONN_INTERNAL_H
#define TARN_CONN_INTERNAL_H

#include <tarnglider/clock.h>
#include <tarnglider/conn.h>
#include <tarnglider/protocol.h>
#include <tarnglider/rendezvous.h>

#include "conn_lists_internal.h"
#include "seams_internal.h"

#if defined(__MINGW32__)
#define CONN_PRINTF(at, first) __attribute__((format(gnu_printf, at, first)))
#elif defined(__GNUC__)
#define CONN_PRINTF(at, first) __attribute__((format(printf, at, first)))
#else
#define CONN_PRINTF(at, first)
#endif

constexpr int conn_servers_max = 8;
constexpr uint64_t conn_second_us = 1000000;
constexpr uint64_t conn_ms_us = 1000;

// What a tick may return.
constexpr uint64_t conn_tick_min_us = 1000;
constexpr uint64_t conn_tick_max_us = 250000;

// How often what awaits an answer is repeated: handshakes and rekey requests.
constexpr uint64_t conn_retry_us = 250 * conn_ms_us;
// How long keys that a rekey replaced still open packets in flight.
constexpr uint64_t conn_old_keys_us = 5 * conn_second_us;

// Punching: a packet to every candidate each 50 ms for 2.5 seconds. Relay bindings: repeated until confirmed, then kept
// alive. Candidates are the peer's public endpoint and its LAN endpoints.
constexpr uint64_t conn_punch_us = 50 * conn_ms_us;
constexpr uint64_t conn_punch_for_us = 2500 * conn_ms_us;
constexpr uint64_t conn_bind_retry_us = 1 * conn_second_us;
constexpr uint64_t conn_bind_keep_us = 15 * conn_second_us;
constexpr int conn_candidates_max = 1 + TARN_LAN_MAX;

// Who sends a punch or binds, and what a host says of its pairing in answer to a query.
enum { CONN_SIDE_HOST = 0, CONN_SIDE_CLIENT = 1 };
enum { CONN_INFO_PIN = 1, CONN_INFO_PASSWORD = 2, CONN_INFO_LOCKED = 4 };

// Sizes of the small packets that keep paths and rekeys going, plain.
constexpr size_t conn_probe_size = 20;
constexpr size_t conn_rekey_size = 12;

// A rendezvous server. Usable only while `addr` has a family; its place in the table is its number everywhere.
struct conn_server {
    char host[254];
    uint16_t port;
    uint8_t net_key[32];
    tarn_addr addr;
    uint32_t resolve_failed; // 1 after the last resolution failed
};

struct conn_base {
    conn_lock lock;
    tarn_keypair identity;
    char name[64];
    tarn_send_fn send;
    tarn_log_fn log;
    void *user;
    int32_t server_count;
    conn_server servers[conn_servers_max];
    int32_t lan_count;
    tarn_addr lan[TARN_LAN_MAX];
    conn_event events[TARN_EVENTS_MAX];
    int32_t event_head;
    int32_t event_count;
};

inline uint64_t conn_now() { return static_cast<uint64_t>(tarn_now_us()); }

// A handshake timestamp: the wall clock in microseconds, but always above the last one given in this process, so
// that two handshakes in one microsecond, or after the clock was set back, still rise. Any thread.
uint64_t conn_hs_timestamp();

// 32 random bits; 0 if the random source failed, so not for secrets.
uint32_t conn_random_u32();

// Unkeyed BLAKE2b with a 16-byte result.
void conn_blake2b16(uint8_t out[16], const uint8_t *data, size_t len);

// Fills a zeroed base. `name` may be null; `lan` beyond 4 endpoints is ignored.
void conn_base_init(conn_base *b, const tarn_keypair *id, const char *name, const tarn_relay_config *relays,
                    const tarn_addr *lan, int lan_count, tarn_send_fn send, tarn_log_fn log, void *user);

// Replaces the LAN endpoints; those beyond 4 are ignored.
void conn_set_lan(conn_base *b, const tarn_addr *lan, int count);

// Loads the server table from a relay configuration, dropping entries that are not valid. Returns their number.
int conn_servers_load(conn_server out[conn_servers_max], const tarn_relay_config *relays);

// Appends an event, dropping the oldest of a full ring, and returns it to be filled.
conn_event *conn_ev_push(conn_base *b, int kind);
// Appends an event about a peer: its key and key id are filled in, too.
conn_event *conn_ev_push_peer(conn_base *b, int kind, const uint8_t key[32]);
// Takes the oldest event: 1, or 0 when there is none.
int conn_ev_pop(conn_base *b, conn_event *out);
// The same under the lock: the whole of both exported poll functions.
int conn_poll_event(conn_base *b, conn_event *out);

void conn_log(conn_base *b, const char *format, ...) CONN_PRINTF(2, 3);

// Sends a datagram. A length of 0 or an endpoint without family sends nothing, so that callers need not test what an
// encoder gave them.
void conn_send(conn_base *b, const tarn_addr *to, const uint8_t *data, size_t len);
// Encodes and sends a rendezvous message; `key` is null for those that travel without a trailer.
void conn_send_rv(conn_base *b, const tarn_addr *to, const tarn_rv_msg *m, const uint8_t *key);
// The same to a server, with its key; nothing for a number out of range or a server without an address.
void conn_send_server(conn_base *b, int server, const tarn_rv_msg *m);
// Ties this socket's address to a relay allocation of a server.
void conn_send_bind(conn_base *b, int server, uint32_t allocation, const uint8_t token[16], uint8_t side);
// Seals a plain packet of at most 64 bytes and sends it.
void conn_send_sealed(conn_base *b, const tarn_addr *to, tarn_session *keys, const uint8_t *plain,
                      size_t len);

// The peer's endpoints in a lookup reply or introduction: public one first, none without a family, no LAN endpoint twice.
int conn_candidates(tarn_addr out[conn_candidates_max], const tarn_rv_msg *m);

// Number of the first server at this address, or -1.
int conn_server_index(const conn_base *b, const tarn_addr *from);

// Text forms that can stand inside a log call: both return `buf`.
constexpr size_t conn_addr_text = 64;
constexpr size_t conn_server_text = 264;
const char *conn_addr_str(const tarn_addr *a, char *buf, size_t cap);
const char *conn_server_str(const conn_base *b, int server, char *buf, size_t cap);

// Takes a finished name resolution; `addr` null or without family means that it failed. Returns a bit for each server
// whose address changed. A failed resolution keeps the old address.
uint32_t conn_server_resolved(conn_base *b, const char *name, uint16_t port, const tarn_addr *addr);

// 1 when two texts are equal without regard to ASCII case.
int conn_strieq(const char *a, const char *b);

// The plain packets of path probes and rekeys, which are sealed at once. Both return the length.
size_t conn_make_probe(uint8_t out[conn_probe_size], uint8_t type, uint8_t flags, uint32_t seq,
                       uint64_t time_us);
size_t conn_make_rekey(uint8_t out[conn_rekey_size], uint8_t type, uint32_t session);

// One datagram on its way through an engine, with the caller's outputs.
struct conn_packet {
    const uint8_t *data;
    size_t len;
    const tarn_addr *from;
    uint64_t now;
    uint8_t *out;
    size_t out_cap;
    size_t *out_len;
    tarn_recv_info *info;
};

// Clears a receive's outputs. True if the datagram can be a packet of ours, which needs no lock to see.
bool conn_receive_begins(const uint8_t *pkt, size_t len, size_t *out_len, tarn_recv_info *info);

// How far a tick may sleep: brought forward by each thing that will be due, then turned into the tick's result.
struct conn_wake {
    uint64_t now;
    uint64_t at;
    explicit conn_wake(uint64_t present) : now(present), at(present + conn_tick_max_us) {}
    void follow(uint64_t due) {
        if (due < at) at = due;
    }
    int result(uint64_t ceiling) const {
        if (at <= now + conn_tick_min_us) return static_cast<int>(conn_tick_min_us);
        const uint64_t rest = at - now;
        return static_cast<int>(rest < ceiling ? rest : ceiling);
    }
};

#endif
