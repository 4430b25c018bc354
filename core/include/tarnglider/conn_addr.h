/* Endpoints and path classes: one small value type for an address and port, its text forms, and the class that
 * decides how large a datagram may be on the way to it. Pure functions; any thread. */
#ifndef TARNGLIDER_CONN_ADDR_H
#define TARNGLIDER_CONN_ADDR_H

#include <stddef.h>
#include <stdint.h>

#include <tarnglider/api.h>

TARN_BEGIN_DECLS

/* An endpoint, copied by assignment. All-zero means "no address". */
typedef struct tarn_addr {
    uint8_t family; /* 0 none, 4 IPv4, 6 IPv6 */
    uint16_t port;  /* host byte order */
    uint8_t ip[16]; /* network order; IPv4 fills the first 4 bytes, the other 12 stay zero */
} tarn_addr;

/* Path classes, best first. P2P and Relay never come from an address: the engines give them by how a path was
 * reached. */
enum { TARN_PATH_NONE = 0, TARN_PATH_LAN = 1, TARN_PATH_DIRECT = 2, TARN_PATH_P2P = 3, TARN_PATH_RELAY = 4 };

/* Reads an endpoint: "1.2.3.4", "1.2.3.4:80", "[::1]", "[::1]:80" or a bare IPv6 address, which never carries a
 * port. Without a port in the text `default_port` is taken, 0 included; a port in the text is 1 to 65535. No white
 * space. Returns 0, or -1 with `out` all zero. */
TARN_API int tarn_addr_parse(tarn_addr *out, const char *text, uint16_t default_port);

/* Writes "1.2.3.4:80", "[2001:db8::1]:80" (RFC 5952 form, no special case for mapped addresses), or "-" for a
 * record of no known family. The port is always written. The text is cut to cap - 1 characters and terminated;
 * with cap 0 nothing is written. Returns the number of characters written, terminator not counted. */
TARN_API size_t tarn_addr_format(char *buf, size_t cap, const tarn_addr *a);

/* 1 for an address of the Tailscale overlay (100.64.0.0/10, fd7a:115c:a1e0::/48), else 0. */
TARN_API int tarn_addr_is_tailscale(const tarn_addr *a);

/* 1 for 10/8, 127/8, 172.16/12, 192.168/16, 169.254/16, ::1, fc00::/7 and fe80::/10, else 0. */
TARN_API int tarn_addr_is_private(const tarn_addr *a);

/* TARN_PATH_LAN for a private address outside the Tailscale overlay (a peer behind an overlay is a routed peer, so
 * it never earns the larger datagram), else TARN_PATH_DIRECT, also for family 0. */
TARN_API int tarn_addr_path_class(const tarn_addr *a);

/* "LAN", "Direct", "P2P", "Relay"; "-" for 0 and any other value. A constant string. */
TARN_API const char *tarn_path_name(int path);

/* Largest UDP payload on a path of this class: 1400 bytes for LAN, 1200 for everything else. */
TARN_API size_t tarn_path_max_datagram(int path);

/* Largest plain packet on a path of this class: tarn_path_max_datagram less the 24 bytes that sealing adds. */
TARN_API size_t tarn_path_payload(int path);

TARN_END_DECLS

#endif
