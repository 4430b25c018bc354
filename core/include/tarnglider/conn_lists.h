/* A device's identity text, the list of clients that a host trusts and the list of hosts that a client
 * remembers, with the text form of each. Records to text and text to records only: files and their protection
 * are the caller's. The lists are plain records without pointers, copied by assignment. Pure functions (but
 * for the wall clock and the random source) over records of the caller, who holds whatever lock guards them.
 *
 * Files are 8-bit text, one entry a line after a header line; keys are 64 hexadecimal digits, a name is last and may
 * hold spaces:
 *   tarnglider-clients-v1   KEY ADDED NAME
 *   tarnglider-hosts-v1     KEY LAN_ID(8 hex digits) LAN_ADDR DIRECT_ADDR ADDED LAST_SEEN NAME   ("-": no address) */
#ifndef TARNGLIDER_CONN_LISTS_H
#define TARNGLIDER_CONN_LISTS_H

#include <stddef.h>
#include <stdint.h>

#include <tarnglider/api.h>
#include <tarnglider/conn_addr.h>
#include <tarnglider/secure.h>

TARN_BEGIN_DECLS

enum {
    TARN_LIST_MAX = 32, /* entries of either list */
    TARN_NAME_SIZE = 64 /* a display name, at most 63 bytes of UTF-8, and its terminator */
};

/* A client that a host trusts. */
typedef struct tarn_client_entry {
    uint8_t key[32];           /* the client's public key, the entry's identity */
    char name[TARN_NAME_SIZE]; /* display name without control characters */
    uint64_t added;            /* first pairing, Unix seconds */
} tarn_client_entry;

typedef struct tarn_client_list {
    int32_t count; /* 0 to 32 */
    tarn_client_entry entries[TARN_LIST_MAX];
} tarn_client_list;

/* A host that a client remembers. */
typedef struct tarn_host_entry {
    uint8_t key[32];           /* the host's public key, the entry's identity */
    char name[TARN_NAME_SIZE]; /* display name without control characters */
    uint32_t lan_id;           /* the host's short LAN identifier, 0 for none */
    tarn_addr lan_addr;        /* endpoints to try first; family 0 for none. One without a port is */
    tarn_addr direct_addr;     /*   written, but the text is then refused on load */
    uint64_t added;            /* first stored, Unix seconds */
    uint64_t last_seen;        /* Unix seconds, as the caller gave it */
} tarn_host_entry;

typedef struct tarn_host_list {
    int32_t count; /* 0 to 32 */
    tarn_host_entry entries[TARN_LIST_MAX];
} tarn_host_list;

/* Makes a new identity and its text form, the 64 lower-case hexadecimal digits of the secret half,
 * terminated. Both outputs are secret; the caller wipes them. Returns 0, or -1 when the random source fails,
 * with both untouched. */
TARN_API int tarn_identity_generate(tarn_keypair *kp, char hex[65]);

/* Reads an identity from its text form: the first 64 characters, of either case; what stands behind them is
 * ignored. Returns 0, or -1 for a null, short or malformed text, with `kp` untouched. */
TARN_API int tarn_identity_load(tarn_keypair *kp, const char *hex);

/* Write a list's file text into cap bytes. Return its length without the terminator, or 0 when it doesn't
 * fit; the buffer's content is then not to be used. */
TARN_API size_t tarn_client_list_save(const tarn_client_list *l, char *buf, size_t cap);
TARN_API size_t tarn_host_list_save(const tarn_host_list *l, char *buf, size_t cap);

/* Read a list's file text; `data` needs no terminator, a NUL byte ends it early. CR LF lines load, empty
 * lines are skipped, a line's bytes beyond 511 are ignored; numbers are read leniently, keys and addresses
 * strictly. Return 0, or -1 for a bad header, at the first bad line, or at a 33rd entry; the entries accepted
 * before that line are then in the list, and it is up to the caller whether to use them. */
TARN_API int tarn_client_list_load(tarn_client_list *l, const char *data, size_t len);
TARN_API int tarn_host_list_load(tarn_host_list *l, const char *data, size_t len);

/* Return the index of the entry with this key, or -1. */
TARN_API int tarn_client_list_find(const tarn_client_list *l, const uint8_t key[32]);
TARN_API int tarn_host_list_find(const tarn_host_list *l, const uint8_t key[32]);

/* Returns the index of the first entry with this LAN identifier, or -1; always -1 for 0, which means none. */
TARN_API int tarn_host_list_find_lan_id(const tarn_host_list *l, uint32_t id);

/* Adds a client with the current time, or renames the one that is listed, whose time stays. A null `name` is
 * the empty name. Names are cut to 63 bytes on a UTF-8 boundary, control characters become spaces. Returns
 * the index, or -1 for a new key and a full list. */
TARN_API int tarn_client_list_add(tarn_client_list *l, const uint8_t key[32], const char *name);

/* Stores a host's record over the one with its key, or at the end. It replaces the whole entry: a caller that
 * updates a host passes its old `added`, since 0 becomes the current time. The name is cleaned as above.
 * `e` may be an entry of the list. Returns the index, or -1 for a new key and a full list. */
TARN_API int tarn_host_list_put(tarn_host_list *l, const tarn_host_entry *e);

/* Remove an entry; later ones move down and keep their order. Return 0, or -1 when the key is absent. */
TARN_API int tarn_client_list_remove(tarn_client_list *l, const uint8_t key[32]);
TARN_API int tarn_host_list_remove(tarn_host_list *l, const uint8_t key[32]);

TARN_END_DECLS

#endif
