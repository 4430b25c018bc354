/* UDP sockets, endpoints to offer, name resolution and a live test of a relay server: what a program that
 * drives an engine needs between the engine's send function and the network. The engines themselves never
 * touch a socket.
 *
 * Nothing here logs and nothing waits, except tarn_udp_wait, the resolving functions (a system look-up) and
 * tarn_relay_check (both). All functions may be called from any thread. One socket may be used by one thread
 * that sends and another that receives; it may be closed only when no other thread is inside a call with it.
 */
#ifndef TARNGLIDER_NETSOCK_H
#define TARNGLIDER_NETSOCK_H

#include <stddef.h>
#include <stdint.h>

#include <tarnglider/api.h>
#include <tarnglider/conn_addr.h>
#include <tarnglider/conn_relay.h>

TARN_BEGIN_DECLS

/* A socket is an opaque handle; this value is no socket. */
#define TARN_SOCKET_NONE UINT64_MAX

/* Starts the system's socket library (Winsock 2.2; elsewhere there is nothing to start). Idempotent.
 * tarn_udp_open and the resolving functions do the same by themselves. Returns 0 or -1. */
TARN_API int tarn_net_init(void);

/* Reads a socket address of the system.
 *   out  the endpoint; all zero on failure
 *   sa   sockaddr_in (len at least 16) or sockaddr_in6 (len at least 28), at any alignment; an IPv4-mapped
 * address
 *        (::ffff:a.b.c.d) gives family 4
 * Returns 0, or -1 for anything else. Flow label and scope are dropped. */
TARN_API int tarn_addr_from_sockaddr(tarn_addr *out, const void *sa, size_t len);

/* Writes a socket address of the system.
 *   a         family 4 or 6
 *   sa        receives at most cap bytes, at any alignment; untouched on failure
 *   force_v6  non-zero writes an IPv4 address in its mapped form, for a socket of family 6
 * Returns its size, 16 or 28; 0 for any other family or too small a cap. */
TARN_API size_t tarn_addr_to_sockaddr(const tarn_addr *a, void *sa, size_t cap, int force_v6);

/* Opens a non-blocking UDP socket with 4 MiB buffers for sending and receiving, which may send to IPv4 broadcast
 * addresses.
 *   family     6: a socket that serves IPv6 and IPv4; anything else: IPv4 only
 *   bind_addr  the local address, its port ignored; null for all addresses. On a socket of family 6 an IPv4
 * address is taken in its mapped form port       the local port; 0 for any free one Returns the handle, which
 * the caller closes, or TARN_SOCKET_NONE (no socket, or the address can't be bound). */
TARN_API uint64_t tarn_udp_open(int family, const tarn_addr *bind_addr, uint16_t port);

/* Closes a socket; TARN_SOCKET_NONE is ignored. */
TARN_API void tarn_udp_close(uint64_t handle);

/* The port to which a socket is bound, or 0 if it can't be told. */
TARN_API uint16_t tarn_udp_local_port(uint64_t handle);

/* Sends one datagram of `len` bytes. The address is converted to what the socket's family needs, so one
 * endpoint of family 4 works on either kind of socket. Returns 0 when all bytes were taken, else -1, also
 * when the socket's buffer is full: the datagram is then lost, as any datagram may be. */
TARN_API int tarn_udp_send(uint64_t handle, const tarn_addr *to, const uint8_t *data, int len);

/* Takes one waiting datagram.
 *   buf   receives up to cap bytes; a longer datagram is cut, or lost with -1 (Windows)
 *   from  the sender; all zero if its address is of an unknown kind; unchanged on failure
 * Returns the number of bytes, 0 for an empty datagram; -1 when nothing waits and on every error alike. */
TARN_API int tarn_udp_recv(uint64_t handle, uint8_t *buf, size_t cap, tarn_addr *from);

/* Waits until one of `n` sockets has something to read. At most the first 64 distinct handles of the list are
 * watched; a repeated one counts once. A negative time-out is taken as 0.
 * Returns 1 when something can be read, 0 when timeout_ms milliseconds have passed, and -1 on error (no
 * socket in the list, or an invalid one). A signal that arrives during the wait ends it with 0 at once, so
 * that a program can stop cleanly. */
TARN_API int tarn_udp_wait(const uint64_t *list, int n, int timeout_ms);

/* Collects this machine's IPv4 endpoints to offer to peers: the addresses of all interfaces that are up,
 * loopback interfaces excepted, without 127/8, 0/8, 169.254/16 and repeats; at most 16 are looked at. Private
 * addresses come first (tarn_addr_is_private), then the others, each in the system's order. out   receives at
 * most `max` endpoints, each with `port` Returns their number, 0 on any failure. */
TARN_API int tarn_net_local_endpoints(tarn_addr *out, int max, uint16_t port);

/* Resolves "ADDRESS", "ADDRESS:PORT" (as tarn_addr_parse), "NAME" or "NAME:PORT", 1 to 255 characters.
 * Without a port `default_port` is taken. Behind a name the port is a number of 1 to 65535 that ends at the
 * first non-digit. An IPv4 address of a name is preferred to an IPv6 address, whatever the order of the
 * answers. out  the endpoint; all zero on failure Blocks for as long as the system's look-up takes. Returns 0
 * or -1. */
TARN_API int tarn_net_resolve(const char *text, uint16_t default_port, tarn_addr *out);

/* Gives a server record its address: at once for a literal host, else by a look-up as in tarn_net_resolve,
 * which blocks. Returns 0; -1 for an empty host, a port of 0 or a failed look-up, with the old `addr` kept.
 */
TARN_API int tarn_relay_resolve(tarn_relay_server *s);

/* Resolves every server of a list in order, blocking. Returns the number of servers that have an address
 * afterwards, those that kept an old one included; 0 for null or an empty list. */
TARN_API int tarn_relay_config_resolve(tarn_relay_config *c);

/* Results of tarn_relay_check. */
enum {
    TARN_RELAY_CHECK_OK = 0,         /* the server answered */
    TARN_RELAY_CHECK_NO_ANSWER = 1,  /* no valid answer within the time */
    TARN_RELAY_CHECK_UNRESOLVED = 2, /* the name could not be resolved */
    TARN_RELAY_CHECK_FAILED = 3      /* bad argument, no socket, or the probe could not be sent */
};

/* Tests whether a relay server is alive and holds the key of its link: asks three times, at 0, T/3 and 2T/3,
 * for a key id that nobody has, and takes any authentic answer (even "unknown") from exactly the server's
 * address. s           the server; not changed timeout_ms  T in milliseconds; 0 or less means 1500 rtt_us 0,
 * or on success the microseconds from the answered question to its answer Blocks for T at most, and for a
 * look-up of the name before that. Returns a value from the list above. */
TARN_API int tarn_relay_check(const tarn_relay_server *s, int timeout_ms, uint32_t *rtt_us);

/* Keeps the names of relay servers resolved on a thread of its own and reports each result to one engine:
 * tarn_host_server_resolved or tarn_client_server_resolved, with the name and port of the configuration and
 * the address, or null if the look-up failed. A name is looked up at once, again 120 s after a success and
 * 10 s after a failure. */
typedef struct tarn_resolver tarn_resolver;
struct tarn_host;
struct tarn_client;

/* Starts it.
 *   c  at most its first 8 servers are looked at; copied. Address literals need no look-up; of servers with the
 *      same port and, to the letter, the same name one is enough
 * The engine must live until the resolver is stopped. Reports take the engine's lock with the resolver's held,
 * so neither start nor stop may be called from a callback of an engine.
 * Returns the handle; null for a null argument, if memory or the thread fails, and, which is no failure, if there
 * is no name to look up. */
TARN_API tarn_resolver *tarn_resolver_start_host(struct tarn_host *host, const tarn_relay_config *c);
TARN_API tarn_resolver *tarn_resolver_start_client(struct tarn_client *client, const tarn_relay_config *c);

/* Ends it; null is ignored. The handle is invalid from now on: stop once only. Doesn't wait for a look-up under
 * way, whose result is dropped. No report is made after this returns, so the engine may be destroyed at once. */
TARN_API void tarn_resolver_stop(tarn_resolver *resolver);

TARN_END_DECLS

#endif
