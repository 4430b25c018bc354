// Identity text and the two device lists. Both lists share their mechanism (find, remove, lines, header)
// through templates over their like-named fields; what differs is one function each way that turns an entry
// into a line and a line into an entry. Only the identity is secret: its scratch copies are wiped.
#include <tarnglider/conn_lists.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "conn_lists_internal.h"
#include "seams_internal.h"

static constexpr char client_magic[] = "tarnglider-clients-v1";
static constexpr char host_magic[] = "tarnglider-hosts-v1";

int tarn_identity_generate(tarn_keypair *kp, char hex[65]) {
    if (tarn_keypair_generate(kp) != TARN_OK) return -1;
    tarn_hex_encode(hex, kp->secret, sizeof kp->secret);
    return 0;
}

struct identity_scratch {
    uint8_t secret[32] = {};
    char hex[65] = {};
    identity_scratch() = default;
    identity_scratch(const identity_scratch &) = delete;
    identity_scratch &operator=(const identity_scratch &) = delete;
    ~identity_scratch() {
        tarn_secure_wipe(secret, sizeof secret);
        tarn_secure_wipe(hex, sizeof hex);
    }
};

int tarn_identity_load(tarn_keypair *kp, const char *hex) {
    if (!hex) return -1;
    identity_scratch t;
    for (size_t i = 0; i < 64; i++) {
        if (hex[i] == '\0') return -1;
        t.hex[i] = hex[i];
    }
    if (tarn_hex_decode(t.secret, sizeof t.secret, t.hex) != 0) return -1;
    tarn_keypair_from_secret(kp, t.secret);
    return 0;
}

static bool is_continuation(char c) { return (static_cast<uint8_t>(c) & 0xC0) == 0x80; }

void conn_clean_name(char dst[64], const char *src) {
    size_t n = 0;
    for (; src && n < TARN_NAME_SIZE - 1 && src[n] != '\0'; n++) {
        uint8_t c = static_cast<uint8_t>(src[n]);
        dst[n] = c < 32 || c == 127 ? ' ' : src[n];
    }
    // Text behind a full copy that goes on with a continuation byte: the cut lies inside a character, which
    // goes.
    if (n == TARN_NAME_SIZE - 1 && is_continuation(src[n])) {
        while (n > 0 && is_continuation(dst[n - 1])) {
            n--;
        }
        if (n > 0 && static_cast<uint8_t>(dst[n - 1]) >= 0xC0) n--;
    }
    memset(dst + n, 0, TARN_NAME_SIZE - n);
}

// Text buffer of a save: a piece that doesn't fit whole, with its terminator, marks the overflow.
struct sb {
    char *ptr;
    size_t cap;
    size_t len;
    int overflow;
};

static void sb_text(sb *b, const char *text) {
    size_t n = strlen(text);
    if (b->len >= b->cap || n >= b->cap - b->len) {
        b->overflow = 1;
        return;
    }
    memcpy(b->ptr + b->len, text, n + 1);
    b->len += n;
}

// Reads a list's text line by line.
struct line_reader {
    const char *at;
    const char *end;
    char line[512];
};

// Takes the next line without its line feed: carriage returns are dropped, bytes beyond 511 too. A NUL byte
// ends the line and the text. Returns false when there is no further line.
static bool next_line(line_reader *r) {
    if (r->at == r->end || *r->at == '\0') return false;
    size_t n = 0;
    for (; r->at != r->end && *r->at != '\n' && *r->at != '\0'; r->at++) {
        if (*r->at != '\r' && n < sizeof r->line - 1) r->line[n++] = *r->at;
    }
    r->line[n] = '\0';
    if (r->at != r->end && *r->at == '\n') r->at++;
    return true;
}

// Splits a line in place into `count` fields, separated by any number of spaces. The rest of the line behind
// one further space is the name. Returns false when there are fewer fields.
static bool split(char *line, char **fields, int count, const char **name) {
    for (int i = 0; i < count; i++) {
        while (*line == ' ') {
            line++;
        }
        if (*line == '\0') return false;
        fields[i] = line;
        while (*line != ' ' && *line != '\0') {
            line++;
        }
        if (*line == ' ') *line++ = '\0';
    }
    *name = line;
    return true;
}

static bool read_address(tarn_addr *a, const char *field) {
    return strcmp(field, "-") == 0 || tarn_addr_parse(a, field, 0) == 0;
}

// Numbers are read leniently: a bad field is 0 or the value of its prefix.
static uint64_t read_number(const char *field) { return strtoull(field, nullptr, 10); }

static bool read_entry(tarn_client_entry *e, char *line) {
    char *f[2];
    const char *name;
    if (!split(line, f, 2, &name) || tarn_hex_decode(e->key, sizeof e->key, f[0]) != 0) return false;
    e->added = read_number(f[1]);
    conn_clean_name(e->name, name);
    return true;
}

static bool read_entry(tarn_host_entry *e, char *line) {
    char *f[6];
    const char *name;
    if (!split(line, f, 6, &name) || tarn_hex_decode(e->key, sizeof e->key, f[0]) != 0) return false;
    const unsigned long long id = strtoull(f[1], nullptr, 16);
    e->lan_id =
        static_cast<uint32_t>(id < UINT32_MAX ? id : UINT32_MAX); // the same wherever a long has 64 bits
    if (!read_address(&e->lan_addr, f[2]) || !read_address(&e->direct_addr, f[3])) return false;
    e->added = read_number(f[4]);
    e->last_seen = read_number(f[5]);
    conn_clean_name(e->name, name);
    return true;
}

// The longest line, a host's, has 64 + 8 + 2 * 47 + 2 * 20 + 63 characters, 6 spaces and its line feed.
static constexpr size_t entry_line_size = 320;

static void write_entry(char line[entry_line_size], const tarn_client_entry *e) {
    char key[65];
    tarn_hex_encode(key, e->key, sizeof e->key);
    snprintf(line, entry_line_size, "%s %llu %s\n", key, static_cast<unsigned long long>(e->added), e->name);
}

static void write_entry(char line[entry_line_size], const tarn_host_entry *e) {
    char key[65], lan[64], direct[64];
    tarn_hex_encode(key, e->key, sizeof e->key);
    tarn_addr_format(lan, sizeof lan, &e->lan_addr);
    tarn_addr_format(direct, sizeof direct, &e->direct_addr);
    snprintf(line, entry_line_size, "%s %08x %s %s %llu %llu %s\n", key, static_cast<unsigned>(e->lan_id),
             lan, direct, static_cast<unsigned long long>(e->added),
             static_cast<unsigned long long>(e->last_seen), e->name);
}

template <class List>
static size_t save(const List *l, const char *magic, char *buf, size_t cap) {
    sb b = {buf, cap, 0, 0};
    sb_text(&b, magic);
    sb_text(&b, "\n");
    for (int i = 0; i < l->count; i++) {
        char line[entry_line_size];
        write_entry(line, &l->entries[i]);
        sb_text(&b, line);
    }
    return b.overflow ? 0 : b.len;
}

template <class Entry, class List>
static int load(List *l, const char *magic, const char *data, size_t len) {
    memset(l, 0, sizeof *l);
    if (len == 0) return -1;
    line_reader r;
    r.at = data;
    r.end = data + len;
    if (!next_line(&r) || strcmp(r.line, magic) != 0) return -1;
    while (next_line(&r)) {
        if (r.line[0] == '\0') continue;
        // An entry is built aside, so that a bad line leaves nothing behind.
        Entry e = {};
        if (l->count == TARN_LIST_MAX || !read_entry(&e, r.line)) return -1;
        l->entries[l->count++] = e;
    }
    return 0;
}

template <class List>
static int find(const List *l, const uint8_t key[32]) {
    for (int i = 0; i < l->count; i++) {
        if (memcmp(l->entries[i].key, key, 32) == 0) return i;
    }
    return -1;
}

template <class List>
static int remove_key(List *l, const uint8_t key[32]) {
    int i = find(l, key);
    if (i < 0) return -1;
    l->count--;
    memmove(&l->entries[i], &l->entries[i + 1], static_cast<size_t>(l->count - i) * sizeof l->entries[0]);
    return 0;
}

static uint64_t unix_time() { return conn_wall_us() / 1000000; }

size_t tarn_client_list_save(const tarn_client_list *l, char *buf, size_t cap) {
    return save(l, client_magic, buf, cap);
}

size_t tarn_host_list_save(const tarn_host_list *l, char *buf, size_t cap) {
    return save(l, host_magic, buf, cap);
}

int tarn_client_list_load(tarn_client_list *l, const char *data, size_t len) {
    return load<tarn_client_entry>(l, client_magic, data, len);
}

int tarn_host_list_load(tarn_host_list *l, const char *data, size_t len) {
    return load<tarn_host_entry>(l, host_magic, data, len);
}

int tarn_client_list_find(const tarn_client_list *l, const uint8_t key[32]) { return find(l, key); }
int tarn_host_list_find(const tarn_host_list *l, const uint8_t key[32]) { return find(l, key); }

int tarn_host_list_find_lan_id(const tarn_host_list *l, uint32_t id) {
    for (int i = 0; id != 0 && i < l->count; i++) {
        if (l->entries[i].lan_id == id) return i;
    }
    return -1;
}

int tarn_client_list_add(tarn_client_list *l, const uint8_t key[32], const char *name) {
    int i = find(l, key);
    if (i < 0) {
        if (l->count == TARN_LIST_MAX) return -1;
        i = l->count++;
        l->entries[i] = {};
        memcpy(l->entries[i].key, key, 32);
        l->entries[i].added = unix_time();
    }
    conn_clean_name(l->entries[i].name, name);
    return i;
}

int tarn_host_list_put(tarn_host_list *l, const tarn_host_entry *e) {
    int i = find(l, e->key);
    if (i < 0) {
        if (l->count == TARN_LIST_MAX) return -1;
        i = l->count++;
    }
    tarn_host_entry *slot = &l->entries[i];
    *slot = *e;
    conn_clean_name(slot->name, e->name);
    if (slot->added == 0) slot->added = unix_time();
    return i;
}

int tarn_client_list_remove(tarn_client_list *l, const uint8_t key[32]) { return remove_key(l, key); }
int tarn_host_list_remove(tarn_host_list *l, const uint8_t key[32]) { return remove_key(l, key); }
