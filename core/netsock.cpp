// UDP sockets, socket addresses, local endpoints and name resolution: what is common to all platforms. No
// state of its own, so any thread may call anything; what one socket allows is in the header.
#include <tarnglider/netsock.h>

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "netsock_internal.h"

static_assert(sizeof(sockaddr_in) == 16 && sizeof(sockaddr_in6) == 28);
static_assert(offsetof(sockaddr_in, sin_family) == offsetof(sockaddr_in6, sin6_family));

static const uint8_t mapped_prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

static netsock_fd fd_of(uint64_t handle) { return static_cast<netsock_fd>(handle); }

int tarn_addr_from_sockaddr(tarn_addr *out, const void *sa, size_t len) {
    memset(out, 0, sizeof *out);
    sockaddr_in in;
    if (!sa || len < sizeof in) return -1;
    memcpy(&in, sa, sizeof in);
    if (in.sin_family == AF_INET) {
        out->family = 4;
        out->port = ntohs(in.sin_port);
        memcpy(out->ip, &in.sin_addr, 4);
        return 0;
    }
    sockaddr_in6 in6;
    if (in.sin_family != AF_INET6 || len < sizeof in6) return -1;
    memcpy(&in6, sa, sizeof in6);
    uint8_t ip[16];
    memcpy(ip, &in6.sin6_addr, sizeof ip);
    const bool mapped = memcmp(ip, mapped_prefix, sizeof mapped_prefix) == 0;
    out->family = mapped ? 4 : 6;
    out->port = ntohs(in6.sin6_port);
    if (mapped) {
        memcpy(out->ip, ip + sizeof mapped_prefix, 4);
    } else {
        memcpy(out->ip, ip, sizeof ip);
    }
    return 0;
}

size_t tarn_addr_to_sockaddr(const tarn_addr *a, void *sa, size_t cap, int force_v6) {
    if (!a || !sa || (a->family != 4 && a->family != 6)) return 0;
    if (a->family == 4 && !force_v6) {
        sockaddr_in in = {};
        if (cap < sizeof in) return 0;
        in.sin_family = AF_INET;
        in.sin_port = htons(a->port);
        memcpy(&in.sin_addr, a->ip, 4);
        memcpy(sa, &in, sizeof in);
        return sizeof in;
    }
    sockaddr_in6 in6 = {};
    if (cap < sizeof in6) return 0;
    uint8_t ip[16];
    if (a->family == 4) {
        memcpy(ip, mapped_prefix, sizeof mapped_prefix);
        memcpy(ip + sizeof mapped_prefix, a->ip, 4);
    } else {
        memcpy(ip, a->ip, sizeof ip);
    }
    in6.sin6_family = AF_INET6;
    in6.sin6_port = htons(a->port);
    memcpy(&in6.sin6_addr, ip, sizeof ip);
    memcpy(sa, &in6, sizeof in6);
    return sizeof in6;
}

// Sets one number; a system that refuses it keeps its default, and the socket works all the same.
static void set_option(netsock_fd fd, int level, int name, int value) {
    setsockopt(fd, level, name, reinterpret_cast<const char *>(&value), sizeof value);
}

static bool bind_to(netsock_fd fd, const tarn_addr *to, bool v6) {
    sockaddr_storage sa;
    const size_t len = tarn_addr_to_sockaddr(to, &sa, sizeof sa, v6);
    return len > 0 && bind(fd, reinterpret_cast<const sockaddr *>(&sa), static_cast<socklen_t>(len)) == 0;
}

uint64_t tarn_udp_open(int family, const tarn_addr *bind_addr, uint16_t port) {
    if (tarn_net_init() != 0) return TARN_SOCKET_NONE;
    const bool v6 = family == 6;
    const netsock_fd fd = netsock_create(v6 ? AF_INET6 : AF_INET);
    if (fd == fd_of(TARN_SOCKET_NONE)) return TARN_SOCKET_NONE;

    const int buffer_size = 4 << 20; // a burst of video packets at 100 Mbit/s for a third of a second
    set_option(fd, SOL_SOCKET, SO_RCVBUF, buffer_size);
    set_option(fd, SOL_SOCKET, SO_SNDBUF, buffer_size);
    if (v6) set_option(fd, IPPROTO_IPV6, IPV6_V6ONLY, 0);
    set_option(fd, SOL_SOCKET, SO_BROADCAST, 1);

    tarn_addr local = {};
    local.family = v6 ? 6 : 4;
    if (bind_addr) local = *bind_addr;
    local.port = port;
    if (!bind_to(fd, &local, v6) || !netsock_unblock(fd)) {
        netsock_close(fd);
        return TARN_SOCKET_NONE;
    }
    return static_cast<uint64_t>(fd);
}

void tarn_udp_close(uint64_t handle) {
    if (handle != TARN_SOCKET_NONE) netsock_close(fd_of(handle));
}

// The socket's own address; false if the system doesn't tell it.
static bool own_address(uint64_t handle, sockaddr_storage *sa, socklen_t *len) {
    *len = sizeof *sa;
    return getsockname(fd_of(handle), reinterpret_cast<sockaddr *>(sa), len) == 0;
}

uint16_t tarn_udp_local_port(uint64_t handle) {
    sockaddr_storage sa;
    socklen_t len;
    tarn_addr own;
    if (!own_address(handle, &sa, &len)) return 0;
    return tarn_addr_from_sockaddr(&own, &sa, static_cast<size_t>(len)) == 0 ? own.port : uint16_t{0};
}

int tarn_udp_send(uint64_t handle, const tarn_addr *to, const uint8_t *data, int len) {
    sockaddr_storage own, sa;
    socklen_t own_len;
    if (len < 0 || !own_address(handle, &own, &own_len)) return -1;
    const size_t sa_len = tarn_addr_to_sockaddr(to, &sa, sizeof sa, own.ss_family == AF_INET6);
    if (sa_len == 0) return -1;
    const auto sent =
        sendto(fd_of(handle), reinterpret_cast<const char *>(data), static_cast<netsock_size>(len), 0,
               reinterpret_cast<const sockaddr *>(&sa), static_cast<socklen_t>(sa_len));
    return sent == len ? 0 : -1;
}

int tarn_udp_recv(uint64_t handle, uint8_t *buf, size_t cap, tarn_addr *from) {
    sockaddr_storage sa;
    socklen_t sa_len = sizeof sa;
    const size_t room = cap < INT_MAX ? cap : INT_MAX;
    const auto got = recvfrom(fd_of(handle), reinterpret_cast<char *>(buf), static_cast<netsock_size>(room),
                              0, reinterpret_cast<sockaddr *>(&sa), &sa_len);
    if (got < 0) return -1;
    tarn_addr_from_sockaddr(from, &sa, static_cast<size_t>(sa_len)); // all zero if it fails
    return static_cast<int>(got);
}

int tarn_udp_wait(const uint64_t *list, int n, int timeout_ms) {
    netsock_fd fds[NETSOCK_WAIT_MAX];
    int count = 0;
    for (int i = 0; i < n && count < NETSOCK_WAIT_MAX; i++) {
        int known = 0;
        while (known < count && fds[known] != fd_of(list[i])) {
            known++;
        }
        if (known == count) fds[count++] = fd_of(list[i]);
    }
    if (count == 0) return -1;
    return netsock_wait(fds, count, timeout_ms > 0 ? timeout_ms : 0);
}

void netsock_local_add(netsock_local *local, const uint8_t ip[4]) {
    if (local->count == NETSOCK_LOCAL_MAX) return;
    if (ip[0] == 127 || ip[0] == 0 || (ip[0] == 169 && ip[1] == 254)) return;
    for (int i = 0; i < local->count; i++) {
        if (memcmp(local->list[i].ip, ip, 4) == 0) return;
    }
    tarn_addr *a = &local->list[local->count++];
    memset(a, 0, sizeof *a);
    a->family = 4;
    memcpy(a->ip, ip, 4);
}

int netsock_local_pick(const netsock_local *local, tarn_addr *out, int max, uint16_t port) {
    int count = 0;
    for (int wanted = 1; wanted >= 0; wanted--) { // private first
        for (int i = 0; i < local->count && count < max; i++) {
            if (tarn_addr_is_private(&local->list[i]) != wanted) continue;
            out[count] = local->list[i];
            out[count++].port = port;
        }
    }
    return count;
}

int tarn_net_local_endpoints(tarn_addr *out, int max, uint16_t port) {
    if (tarn_net_init() != 0) return 0;
    netsock_local local = {};
    netsock_adapters(
        [](void *user, const uint8_t ip[4]) { netsock_local_add(static_cast<netsock_local *>(user), ip); },
        &local);
    return netsock_local_pick(&local, out, max, port);
}

// The first usable answer of either kind. What the answer's own family says decides, so an IPv4-mapped answer
// stands behind a plain IPv4 one, although both become the same kind of endpoint.
struct answers {
    tarn_addr plain_v4, other;
};

static void take_answer(void *user, const void *sa, size_t len) {
    auto *found = static_cast<answers *>(user);
    sockaddr head;
    tarn_addr a;
    if (tarn_addr_from_sockaddr(&a, sa, len) != 0) return;
    memcpy(&head, sa, sizeof head);
    tarn_addr *slot = head.sa_family == AF_INET ? &found->plain_v4 : &found->other;
    if (slot->family == 0) *slot = a;
}

int resolve_name(const char *name, tarn_addr *out) {
    answers found = {};
    if (tarn_net_init() != 0 || netsock_lookup(name, take_answer, &found) != 0) return -1;
    const tarn_addr *best = found.plain_v4.family != 0 ? &found.plain_v4 : &found.other;
    if (best->family == 0) return -1;
    *out = *best;
    out->port = 0;
    return 0;
}

int tarn_net_resolve(const char *text, uint16_t default_port, tarn_addr *out) {
    if (tarn_addr_parse(out, text, default_port) == 0) return 0;
    char host[256];
    const size_t len = text ? strlen(text) : 0;
    if (len < 1 || len >= sizeof host) return -1;
    memcpy(host, text, len + 1);

    long port = default_port;
    char *colon = strchr(host, ':');
    if (colon && !strchr(colon + 1, ':')) {
        *colon = '\0';
        port = strtol(colon + 1, nullptr, 10);
        if (port < 1 || port > 65535) return -1;
    }
    if (resolve_name(host, out) != 0) return -1;
    out->port = static_cast<uint16_t>(port);
    return 0;
}

int tarn_relay_resolve(tarn_relay_server *s) {
    if (!s || s->host[0] == '\0' || s->port == 0) return -1;
    tarn_addr found;
    const bool literal = !strchr(s->host, '[') && tarn_addr_parse(&found, s->host, s->port) == 0;
    if (!literal && resolve_name(s->host, &found) != 0) return -1;
    found.port = s->port;
    s->addr = found;
    return 0;
}

int tarn_relay_config_resolve(tarn_relay_config *c) {
    if (!c) return 0;
    int known = 0;
    for (int i = 0; i < c->count && i < TARN_RELAY_MAX_SERVERS; i++) {
        tarn_relay_resolve(&c->servers[i]); // a failure keeps the old address, which is as good as any
        if (c->servers[i].addr.family != 0) known++;
    }
    return known;
}
