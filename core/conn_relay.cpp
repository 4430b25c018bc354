// Relay servers: link text, server record, server list and its file text. Texts are read as counted spans, so
// that a NUL byte is an ordinary wrong byte and no line is copied. Records on the stack hold keys: each one
// is a wiped_server, which wipes itself on every way out.
#include <tarnglider/conn_relay.h>

#include <stdio.h>
#include <string.h>

#include <tarnglider/secure.h>

#include "conn_addr_internal.h"
#include "conn_text_internal.h"

static constexpr char scheme[] = "tarnglider-relay://";
static constexpr size_t scheme_len = sizeof scheme - 1;
static constexpr char magic_line[] = "tarnglider-relays-v1\n";
static constexpr size_t magic_len = sizeof magic_line - 1; // with its line feed
static constexpr size_t authority_max = 268;               // above brackets 2, host 253, port 6

static constexpr char default_link[] =
    "tarnglider-relay://" TARN_DEFAULT_RELAY_HOST ":9877#5e0b7a91c2d46f38a17d90e3b6c8f2145a7e03d9c61b84f2";

struct wiped_server {
    tarn_relay_server s = {};
    wiped_server() = default;
    wiped_server(const wiped_server &) = delete;
    wiped_server &operator=(const wiped_server &) = delete;
    ~wiped_server() { tarn_secure_wipe(&s, sizeof s); }
};

// A piece of a text, not terminated.
struct span {
    const char *at;
    size_t n;
};

static bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

static span trim(span t) {
    while (t.n > 0 && is_space(t.at[0])) {
        t.at++;
        t.n--;
    }
    while (t.n > 0 && is_space(t.at[t.n - 1])) {
        t.n--;
    }
    return t;
}

// The first `c` in the span, or null.
static const char *find(span t, char c) {
    return t.n == 0 ? nullptr : static_cast<const char *>(memchr(t.at, c, t.n));
}

static span up_to(span t, const char *end) { return {t.at, static_cast<size_t>(end - t.at)}; }
static span from(span t, const char *start) { return {start, t.n - static_cast<size_t>(start - t.at)}; }

// One label of a host name; sets whether it is all digits.
static bool valid_label(span label, bool *numeric) {
    if (label.n == 0 || label.n > 63 || label.at[0] == '-' || label.at[label.n - 1] == '-') return false;
    *numeric = true;
    for (size_t i = 0; i < label.n; i++) {
        char c = label.at[i];
        if (is_digit(c)) continue;
        if (!is_letter(c) && c != '-' && c != '_') return false;
        *numeric = false;
    }
    return true;
}

// A last label of digits alone would be a malformed IPv4 text, never a name.
static bool valid_name(span name) {
    bool numeric = false;
    while (const char *dot = find(name, '.')) {
        if (!valid_label(up_to(name, dot), &numeric)) return false;
        name = from(name, dot + 1);
    }
    return valid_label(name, &numeric) && !numeric;
}

// Checks a host and puts it with its port into `s`, which is to be wiped or dropped on failure.
static int relay_set_host(tarn_relay_server *s, span host, uint16_t port) {
    if (host.n == 0 || host.n >= sizeof s->host) return -1;
    memset(&s->addr, 0, sizeof s->addr);
    if (find(host, ':')) {
        if (parse_v6(host.at, host.n, s->addr.ip) != 0) return -1;
        s->addr.family = 6;
    } else if (parse_v4(host.at, host.n, s->addr.ip) == 0) {
        s->addr.family = 4;
    } else if (!valid_name(host)) {
        return -1;
    }
    if (s->addr.family != 0) s->addr.port = port;
    memcpy(s->host, host.at, host.n);
    s->host[host.n] = '\0';
    s->port = port;
    return 0;
}

int tarn_relay_server_set(tarn_relay_server *out, const char *host, uint16_t port, const uint8_t *key,
                          size_t key_len) {
    if (!out || !host || !key || key_len < 1 || key_len > TARN_RELAY_KEY_MAX) return -1;
    span h = trim({host, strlen(host)});
    if (h.n > 1 && h.at[0] == '[' && h.at[h.n - 1] == ']') {
        h = {h.at + 1, h.n - 2};
        if (!find(h, ':')) return -1;
    }
    wiped_server t;
    if (relay_set_host(&t.s, h, port != 0 ? port : uint16_t{TARN_RELAY_DEFAULT_PORT}) != 0) return -1;
    memcpy(t.s.key, key, key_len);
    t.s.key_len = key_len;
    *out = t.s;
    return 0;
}

// HOST[:PORT] with an IPv6 host in brackets. The bytes that would make it another part of a link (% / ? @)
// are in no valid host, so the host check refuses them.
static int parse_authority(tarn_relay_server *s, span authority) {
    span host = authority, rest = {nullptr, 0}; // rest: ':' and up to 5 digits
    if (authority.n > 0 && authority.at[0] == '[') {
        const char *end = find(authority, ']');
        if (!end) return -1;
        host = up_to(from(authority, authority.at + 1), end);
        if (!find(host, ':')) return -1;
        rest = from(authority, end + 1);
        if (rest.n > 0 && rest.at[0] != ':') return -1;
    } else if (const char *colon = find(authority, ':')) {
        host = up_to(authority, colon);
        rest = from(authority, colon);
    }
    uint16_t port = TARN_RELAY_DEFAULT_PORT;
    if (rest.n > 0 && (rest.n > 6 || parse_port(rest.at + 1, rest.n - 1, &port) != 0)) return -1;
    return relay_set_host(s, host, port);
}

static int parse_key(tarn_relay_server *s, span text) {
    size_t n = 0;
    for (size_t i = 0; i < text.n; i++) {
        if (n == TARN_RELAY_KEY_MAX) return -1;
        char c = text.at[i];
        if (c == '%') {
            if (text.n - i < 3) return -1;
            int high = hex_value(text.at[i + 1]), low = hex_value(text.at[i + 2]);
            if (high < 0 || low < 0) return -1;
            s->key[n++] = static_cast<uint8_t>(high << 4 | low);
            i += 2;
        } else {
            if (c < 0x21 || c > 0x7E || c == '#') return -1;
            s->key[n++] = static_cast<uint8_t>(c);
        }
    }
    s->key_len = n;
    return n > 0 ? 0 : -1;
}

static int parse_link(tarn_relay_server *out, span link) {
    link = trim(link);
    if (link.n <= scheme_len || link.n > TARN_RELAY_LINK_MAX) return -1;
    for (size_t i = 0; i < scheme_len; i++) {
        if (lower(link.at[i]) != scheme[i]) return -1;
    }
    link = from(link, link.at + scheme_len);
    const char *hash = find(link, '#');
    if (!hash) return -1;
    span authority = up_to(link, hash);
    if (authority.n > 0 && authority.at[authority.n - 1] == '/') authority.n--;
    wiped_server t;
    if (parse_authority(&t.s, authority) != 0 || parse_key(&t.s, from(link, hash + 1)) != 0) return -1;
    *out = t.s;
    return 0;
}

int tarn_relay_link_parse(tarn_relay_server *out, const char *link) {
    if (!out || !link) return -1;
    return parse_link(out, {link, strlen(link)});
}

size_t tarn_relay_server_name(char *buf, size_t cap, const tarn_relay_server *s) {
    if (!buf || cap == 0) return 0;
    bool brackets = strchr(s->host, ':') != nullptr;
    int n = snprintf(buf, cap, "%s%s%s:%u", brackets ? "[" : "", s->host, brackets ? "]" : "",
                     static_cast<unsigned>(s->port));
    size_t len = n > 0 ? static_cast<size_t>(n) : 0;
    return len < cap ? len : cap - 1;
}

size_t tarn_relay_link_format(char *buf, size_t cap, const tarn_relay_server *s) {
    static constexpr char digits[] = "0123456789ABCDEF";
    if (!buf || !s || s->host[0] == '\0' || s->port == 0) return 0;
    if (s->key_len < 1 || s->key_len > TARN_RELAY_KEY_MAX) return 0;
    char authority[authority_max + 1];
    size_t authority_len = tarn_relay_server_name(authority, sizeof authority, s);
    // The worst case, every key byte escaped, with '#' and the terminator: whether a link fits doesn't depend
    // on the key's value.
    if (cap < scheme_len + authority_len + 3 * s->key_len + 2) return 0;
    memcpy(buf, scheme, scheme_len);
    memcpy(buf + scheme_len, authority, authority_len);
    size_t at = scheme_len + authority_len;
    buf[at++] = '#';
    for (size_t i = 0; i < s->key_len; i++) {
        char c = static_cast<char>(s->key[i]);
        if (is_letter(c) || is_digit(c) || c == '-' || c == '.' || c == '_' || c == '~') {
            buf[at++] = c;
        } else {
            buf[at++] = '%';
            buf[at++] = digits[s->key[i] >> 4];
            buf[at++] = digits[s->key[i] & 15];
        }
    }
    buf[at] = '\0';
    return at;
}

int tarn_relay_server_same(const tarn_relay_server *a, const tarn_relay_server *b) {
    if (a->port != b->port) return 0;
    for (size_t i = 0; i < sizeof a->host; i++) {
        if (lower(a->host[i]) != lower(b->host[i])) return 0;
        if (a->host[i] == '\0') break;
    }
    return 1;
}

int tarn_relay_config_add(tarn_relay_config *c, const tarn_relay_server *s) {
    if (!c || !s) return -1;
    wiped_server t;
    if (tarn_relay_server_set(&t.s, s->host, s->port, s->key, s->key_len) != 0) return -1;
    if (t.s.addr.family == 0 && s->addr.family != 0) t.s.addr = s->addr;
    int i = 0;
    while (i < c->count && !tarn_relay_server_same(&c->servers[i], &t.s)) {
        i++;
    }
    if (i == TARN_RELAY_MAX_SERVERS) return -1;
    c->servers[i] = t.s;
    if (i == c->count) c->count++;
    return i;
}

int tarn_relay_config_add_link(tarn_relay_config *c, const char *link) {
    wiped_server t;
    if (tarn_relay_link_parse(&t.s, link) != 0) return -1;
    return tarn_relay_config_add(c, &t.s);
}

int tarn_relay_config_remove(tarn_relay_config *c, int index) {
    if (!c || index < 0 || index >= c->count) return -1;
    c->count--;
    tarn_relay_server *slot = &c->servers[index];
    memmove(slot, slot + 1, static_cast<size_t>(c->count - index) * sizeof *slot);
    tarn_secure_wipe(&c->servers[c->count], sizeof *slot);
    return 0;
}

size_t tarn_relay_config_save(const tarn_relay_config *c, char *buf, size_t cap) {
    if (!buf || cap <= magic_len) return 0;
    memcpy(buf, magic_line, magic_len);
    size_t at = magic_len;
    for (int i = 0; c && i < c->count; i++) {
        size_t n = tarn_relay_link_format(buf + at, cap - at, &c->servers[i]);
        // A link that just fits with its terminator still lacks room for the line feed.
        if (n == 0 || cap - at - n < 2) {
            tarn_secure_wipe(buf, cap);
            return 0;
        }
        at += n;
        buf[at++] = '\n';
    }
    buf[at] = '\0';
    return at;
}

// Cuts the next line, without its line feed, off the front of `text`.
static span take_line(span *text) {
    const char *end = find(*text, '\n');
    span line = end ? up_to(*text, end) : *text;
    *text = end ? from(*text, end + 1) : span{nullptr, 0};
    return line;
}

static int load_lines(tarn_relay_config *c, span text) {
    span first = trim(take_line(&text));
    if (first.n != magic_len - 1 || memcmp(first.at, magic_line, first.n) != 0) return -1;
    while (text.n > 0) {
        span line = trim(take_line(&text));
        if (line.n == 0) continue;
        // A full list takes no further line, not even one that would replace an entry.
        if (c->count == TARN_RELAY_MAX_SERVERS) return -1;
        wiped_server t;
        if (parse_link(&t.s, line) != 0 || tarn_relay_config_add(c, &t.s) < 0) return -1;
    }
    return 0;
}

int tarn_relay_config_load(tarn_relay_config *c, const uint8_t *data, size_t len) {
    if (!c) return -1;
    tarn_secure_wipe(c, sizeof *c);
    if (!data || len == 0) return -1;
    if (load_lines(c, {reinterpret_cast<const char *>(data), len}) == 0) return 0;
    tarn_secure_wipe(c, sizeof *c);
    return -1;
}

int tarn_relay_config_load_stored(tarn_relay_config *c, const uint8_t *data, size_t len, int stored) {
    if (!c) return -1;
    tarn_secure_wipe(c, sizeof *c);
    if (stored == 0) return tarn_relay_config_add_link(c, default_link) < 0 ? -1 : 0;
    return stored == 1 ? tarn_relay_config_load(c, data, len) : -1;
}
