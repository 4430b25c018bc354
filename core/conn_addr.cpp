// Endpoints: reading and writing their text, and the path class of an address. Everything here is pure and
// allocates nothing; the format and the classifiers run for packets and log lines.
#include <tarnglider/conn_addr.h>

#include <string.h>

#include "conn_addr_internal.h"
#include "conn_text_internal.h"

// Bytes that sealing adds to a plain packet: a longer header and the authentication tag.
static constexpr size_t seal_overhead = 24;

int parse_v4(const char *s, size_t n, uint8_t out[4]) {
    uint8_t ip[4];
    size_t at = 0;
    for (int field = 0; field < 4; field++) {
        if (field > 0) {
            if (at == n || s[at] != '.') return -1;
            at++;
        }
        unsigned value = 0;
        int digits = 0;
        for (; at < n && is_digit(s[at]); at++) {
            if (++digits > 3) return -1;
            value = value * 10 + static_cast<unsigned>(s[at] - '0');
        }
        if (digits == 0 || value > 255) return -1;
        ip[field] = static_cast<uint8_t>(value);
    }
    if (at != n) return -1;
    memcpy(out, ip, sizeof ip);
    return 0;
}

// The groups of an IPv6 text as they are read.
struct v6_groups {
    uint8_t bytes[16];
    size_t count;    // groups so far
    int compression; // group index of "::", -1 while there is none
};

// Takes one segment without colons. `last` says that the text ends behind it.
static int take_segment(v6_groups *g, const char *s, size_t n, bool last) {
    if (memchr(s, '.', n)) {
        if (!last || g->count > 6 || parse_v4(s, n, g->bytes + 2 * g->count) != 0) return -1;
        g->count += 2;
        return 0;
    }
    if (n == 0 || n > 4 || g->count == 8) return -1;
    unsigned value = 0;
    for (size_t i = 0; i < n; i++) {
        int digit = hex_value(s[i]);
        if (digit < 0) return -1;
        value = value << 4 | static_cast<unsigned>(digit);
    }
    g->bytes[2 * g->count] = static_cast<uint8_t>(value >> 8);
    g->bytes[2 * g->count + 1] = static_cast<uint8_t>(value);
    g->count++;
    return 0;
}

// Reads the segments from left to right into `g`.
static int read_groups(v6_groups *g, const char *s, size_t n) {
    size_t at = 0;
    if (n >= 2 && s[0] == ':' && s[1] == ':') {
        g->compression = 0;
        at = 2;
        if (n == 2) return 0;
    }
    while (true) {
        size_t end = at;
        while (end < n && s[end] != ':') {
            end++;
        }
        if (take_segment(g, s + at, end - at, end == n) != 0) return -1;
        if (end == n) return 0;
        at = end + 1;
        if (at == n) return -1; // a single colon at the end
        if (s[at] != ':') continue;
        if (g->compression >= 0) return -1;
        g->compression = static_cast<int>(g->count);
        if (++at == n) return 0;
    }
}

int parse_v6(const char *s, size_t n, uint8_t out[16]) {
    v6_groups g = {{}, 0, -1};
    if (read_groups(&g, s, n) != 0) return -1;
    if (g.compression < 0) {
        if (g.count != 8) return -1;
        memcpy(out, g.bytes, 16);
        return 0;
    }
    // "::" stands for at least one group of zeros.
    if (g.count > 7) return -1;
    size_t head = 2 * static_cast<size_t>(g.compression);
    size_t tail = 2 * g.count - head;
    memset(out, 0, 16);
    memcpy(out, g.bytes, head);
    memcpy(out + 16 - tail, g.bytes + head, tail);
    return 0;
}

int parse_port(const char *s, size_t n, uint16_t *port) {
    unsigned value = 0;
    for (size_t i = 0; i < n; i++) {
        if (!is_digit(s[i])) return -1;
        value = value * 10 + static_cast<unsigned>(s[i] - '0');
        if (value > 65535) return -1; // after every digit, so that nothing wraps
    }
    if (value == 0) return -1;
    *port = static_cast<uint16_t>(value);
    return 0;
}

// Fills `a` from a text; what it holds on failure is of no use.
static int parse_endpoint(tarn_addr *a, const char *text) {
    if (text[0] == '[') {
        const char *end = strchr(text, ']');
        if (!end) return -1;
        if (end[1] == ':') {
            if (parse_port(end + 2, strlen(end + 2), &a->port) != 0) return -1;
        } else if (end[1] != '\0') {
            return -1;
        }
        a->family = 6;
        return parse_v6(text + 1, static_cast<size_t>(end - text - 1), a->ip);
    }
    const char *colon = strchr(text, ':');
    if (colon && strchr(colon + 1, ':')) {
        a->family = 6;
        return parse_v6(text, strlen(text), a->ip);
    }
    if (colon && parse_port(colon + 1, strlen(colon + 1), &a->port) != 0) return -1;
    a->family = 4;
    return parse_v4(text, colon ? static_cast<size_t>(colon - text) : strlen(text), a->ip);
}

int tarn_addr_parse(tarn_addr *out, const char *text, uint16_t default_port) {
    memset(out, 0, sizeof *out);
    if (!text) return -1;
    tarn_addr a = {};
    a.port = default_port;
    if (parse_endpoint(&a, text) != 0) return -1;
    *out = a;
    return 0;
}

// A text that is composed before it is cut to the caller's buffer. The longest one,
// "[ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff]:65535", has 47 characters.
struct scratch {
    char text[64];
    size_t len = 0;

    void add(char c) { text[len++] = c; }
    void add(unsigned value, unsigned base) {
        char digits[10];
        size_t n = 0;
        do {
            digits[n++] = "0123456789abcdef"[value % base];
            value /= base;
        } while (value != 0);
        while (n > 0) {
            add(digits[--n]);
        }
    }
};

// The eight groups, the first of the longest runs of at least two zero groups written as "::" (RFC 5952).
static void add_v6(scratch *t, const uint8_t ip[16]) {
    unsigned groups[8];
    for (int i = 0; i < 8; i++) {
        groups[i] = static_cast<unsigned>(ip[i + i] << 8 | ip[i + i + 1]);
    }
    int run_at = -1, run_len = 1;
    for (int i = 0; i < 8; i++) {
        int n = 0;
        while (i + n < 8 && groups[i + n] == 0) {
            n++;
        }
        if (n > run_len) {
            run_at = i;
            run_len = n;
        }
    }
    for (int i = 0; i < 8; i++) {
        if (i == run_at) {
            t->add(':');
            t->add(':');
            i += run_len - 1;
            continue;
        }
        if (i > 0 && i != run_at + run_len) t->add(':');
        t->add(groups[i], 16);
    }
}

size_t tarn_addr_format(char *buf, size_t cap, const tarn_addr *a) {
    if (cap == 0) return 0;
    scratch t;
    if (a->family == 4) {
        for (int i = 0; i < 4; i++) {
            if (i > 0) t.add('.');
            t.add(a->ip[i], 10);
        }
    } else if (a->family == 6) {
        t.add('[');
        add_v6(&t, a->ip);
        t.add(']');
    } else {
        t.add('-');
    }
    if (a->family == 4 || a->family == 6) {
        t.add(':');
        t.add(a->port, 10);
    }
    size_t n = t.len < cap ? t.len : cap - 1;
    memcpy(buf, t.text, n);
    buf[n] = '\0';
    return n;
}

int tarn_addr_is_tailscale(const tarn_addr *a) {
    static const uint8_t overlay[6] = {0xFD, 0x7A, 0x11, 0x5C, 0xA1, 0xE0};
    if (a->family == 4) return a->ip[0] == 100 && (a->ip[1] & 0xC0) == 0x40;
    if (a->family == 6) return memcmp(a->ip, overlay, sizeof overlay) == 0;
    return 0;
}

int tarn_addr_is_private(const tarn_addr *a) {
    static const uint8_t loopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const uint8_t *ip = a->ip;
    if (a->family == 4) {
        return ip[0] == 10 || ip[0] == 127 || (ip[0] == 172 && (ip[1] & 0xF0) == 16) ||
               (ip[0] == 192 && ip[1] == 168) || (ip[0] == 169 && ip[1] == 254);
    }
    if (a->family == 6) {
        return (ip[0] & 0xFE) == 0xFC || (ip[0] == 0xFE && (ip[1] & 0xC0) == 0x80) ||
               memcmp(ip, loopback, sizeof loopback) == 0;
    }
    return 0;
}

int tarn_addr_path_class(const tarn_addr *a) {
    return tarn_addr_is_private(a) && !tarn_addr_is_tailscale(a) ? TARN_PATH_LAN : TARN_PATH_DIRECT;
}

const char *tarn_path_name(int path) {
    switch (path) {
    case TARN_PATH_LAN:
        return "LAN";
    case TARN_PATH_DIRECT:
        return "Direct";
    case TARN_PATH_P2P:
        return "P2P";
    case TARN_PATH_RELAY:
        return "Relay";
    default:
        return "-";
    }
}

// 1400 leaves room for the headers of any LAN; 1200 passes every path that carries IPv6 (minimum MTU 1280) or
// a tunnel.
size_t tarn_path_max_datagram(int path) { return path == TARN_PATH_LAN ? 1400 : 1200; }

size_t tarn_path_payload(int path) { return tarn_path_max_datagram(path) - seal_overhead; }
