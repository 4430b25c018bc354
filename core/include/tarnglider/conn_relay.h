/* Relay servers: the one-line link that describes a server, the server record, the list of up to eight
 * servers and the file text that holds the list. No network and no files here: a name is resolved elsewhere.
 * Pure functions over records of the caller; any thread. Whatever holds a key is secret: these functions wipe
 * every copy that they make, and a caller wipes its records and link texts with tarn_secure_wipe.
 *
 * Link: tarnglider-relay://HOST[:PORT][/]#KEY
 *   HOST  a host name, an IPv4 address, or an IPv6 address in brackets
 *   PORT  1 to 65535, 9877 when absent
 *   KEY   1 to 128 bytes: printable ASCII but '#' and '%' as they stand, any byte as %XX */
#ifndef TARNGLIDER_CONN_RELAY_H
#define TARNGLIDER_CONN_RELAY_H

#include <stddef.h>
#include <stdint.h>

#include <tarnglider/api.h>
#include <tarnglider/conn_addr.h>

TARN_BEGIN_DECLS

enum {
    TARN_RELAY_MAX_SERVERS = 8,
    TARN_RELAY_DEFAULT_PORT = 9877,
    TARN_RELAY_HOST_SIZE = 254, /* longest DNS name, 253 characters, and the terminator */
    TARN_RELAY_KEY_MAX = 128,
    TARN_RELAY_LINK_MAX = 671 /* longest link read: scheme 19, authority and '#' 268, key 3 * 128 */
};

/* One server. Every record that these functions hand out is valid: host, port and key as stated. */
typedef struct tarn_relay_server {
    char host[TARN_RELAY_HOST_SIZE]; /* name or address text, terminated, without brackets */
    uint16_t port;                   /* 1 to 65535 */
    size_t key_len;                  /* 1 to 128 */
    uint8_t key[TARN_RELAY_KEY_MAX]; /* the network key's bytes as the link gives them; secret */
    tarn_addr addr; /* what `host` spells, with the port; a resolved address when known; else family 0 */
} tarn_relay_server;

/* The servers that a device uses, in order of preference; slots from count on are all zero. */
typedef struct tarn_relay_config {
    int32_t count; /* 0 to 8 */
    tarn_relay_server servers[TARN_RELAY_MAX_SERVERS];
} tarn_relay_config;

/* Makes a record from its parts.
 *   host  white space around it is ignored; an IPv6 address may stand in brackets. A name's labels are 1 to 63
 *         letters, digits, '-' and '_', without '-' at either end; the last one is not all digits
 *   port  0 stands for 9877
 *   key   key_len bytes, 1 to 128; may lie inside *out
 * Returns 0, or -1 with `out` untouched. */
TARN_API int tarn_relay_server_set(tarn_relay_server *out, const char *host, uint16_t port,
                                   const uint8_t *key, size_t key_len);

/* Reads a link; white space around it is ignored, the scheme's case is free.
 * Returns 0, or -1 with `out` untouched. */
TARN_API int tarn_relay_link_parse(tarn_relay_server *out, const char *link);

/* Writes a record's link, always with its port. The key's letters, digits and -._~ stand as they are, the
 * rest is escaped. cap must hold the worst case, every key byte escaped, even if the key needs no escapes.
 * Returns the length without the terminator, or 0 with `buf` untouched. */
TARN_API size_t tarn_relay_link_format(char *buf, size_t cap, const tarn_relay_server *s);

/* Writes "host:port" or "[v6]:port" for display, cut to cap - 1 characters and terminated.
 * Returns the length written, 0 for a null or empty buffer. */
TARN_API size_t tarn_relay_server_name(char *buf, size_t cap, const tarn_relay_server *s);

/* 1 when host (ignoring ASCII case) and port are equal, else 0. The key is no part of a server's identity. */
TARN_API int tarn_relay_server_same(const tarn_relay_server *a, const tarn_relay_server *b);

/* Checks a record and puts it into the list: over the entry of the same host and port, key included, else at
 * the end. A resolved `addr` of the incoming record is kept when its host is a name. Returns the index, or -1
 * for an invalid record or a full list, with the list unchanged. */
TARN_API int tarn_relay_config_add(tarn_relay_config *c, const tarn_relay_server *s);

/* tarn_relay_link_parse, then tarn_relay_config_add. Returns the index or -1. */
TARN_API int tarn_relay_config_add_link(tarn_relay_config *c, const char *link);

/* Takes out one entry; later ones move down and keep their order. Returns 0, or -1 for an index outside the
 * list. */
TARN_API int tarn_relay_config_remove(tarn_relay_config *c, int index);

/* Writes the file text: the line "tarnglider-relays-v1", then one link a line. A null `c` counts as empty.
 * Returns the length without the terminator, or 0 with all cap bytes of `buf` wiped (cap below 22 or a null
 * `buf`: 0 and nothing touched). 22 + 8 * 680 bytes are always enough for eight valid servers. */
TARN_API size_t tarn_relay_config_save(const tarn_relay_config *c, char *buf, size_t cap);

/* Reads the file text, all or nothing; lines may end in LF or CR LF, blank lines are skipped, of two lines
 * for one server the later counts. Returns 0, or -1 with `c` all zero. */
TARN_API int tarn_relay_config_load(tarn_relay_config *c, const uint8_t *data, size_t len);

/* The configuration that a store holds. stored = 1: `data` is its text, read by tarn_relay_config_load; a
 * file without links means that its owner wants no server. stored = 0: there is none, and the built-in
 * default server is taken. Any other value fails. Returns 0, or -1 with `c` all zero. */
TARN_API int tarn_relay_config_load_stored(tarn_relay_config *c, const uint8_t *data, size_t len, int stored);

TARN_END_DECLS

#endif
