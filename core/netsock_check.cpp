// The live test of a relay server: a few lookups of a key id that nobody has, sent over a socket of its own,
// and the wait for an authentic answer to one of them. Runs in the caller's thread; no state outlives a call.
#include <tarnglider/netsock.h>

#include <string.h>

#include <tarnglider/clock.h>
#include <tarnglider/rendezvous.h>
#include <tarnglider/secure.h>

// Sent at 0, T/3 and 2T/3: one lost datagram, or two, must not make a good server look dead.
static const int probe_count = 3;
static const int default_timeout_ms = 1500;

// What a test holds; its end closes the socket and wipes the key, whichever way the test ends.
struct relay_check {
    tarn_addr server;
    uint8_t net_key[32];
    uint64_t socket;
    tarn_rv_msg probe;
    uint32_t base_tag; // probe i carries base_tag + i, which may wrap
    int64_t sent_us[probe_count];
    int sent;

    relay_check() : server(), net_key(), socket(TARN_SOCKET_NONE), probe(), base_tag(0), sent_us(), sent(0) {}
    ~relay_check() {
        tarn_udp_close(socket);
        tarn_secure_wipe(net_key, sizeof net_key);
    }
    relay_check(const relay_check &) = delete;
    relay_check &operator=(const relay_check &) = delete;
};

// Takes the server's address and network key from a copy of the record. False if its name can't be resolved.
static bool take_server(relay_check *check, const tarn_relay_server *s) {
    tarn_relay_server copy = *s;
    const bool resolved = tarn_relay_resolve(&copy) == 0;
    if (resolved) {
        check->server = copy.addr;
        tarn_rv_net_key(check->net_key, copy.key, copy.key_len);
    }
    tarn_secure_wipe(&copy, sizeof copy);
    return resolved;
}

// Opens the socket and draws what makes this test's questions its own.
static bool prepare(relay_check *check) {
    check->socket = tarn_udp_open(check->server.family, nullptr, 0);
    if (check->socket == TARN_SOCKET_NONE) return false;
    tarn_rv_msg *probe = &check->probe;
    probe->type = TARN_RV_LOOKUP;
    probe->id_len = sizeof probe->lookup_id;
    return tarn_random_bytes(probe->lookup_id, sizeof probe->lookup_id) == TARN_OK &&
           tarn_random_bytes(&check->base_tag, sizeof check->base_tag) == TARN_OK;
}

static bool send_probe(relay_check *check) {
    uint8_t packet[64]; // a lookup without endpoints takes 46
    check->probe.tag = check->base_tag + static_cast<uint32_t>(check->sent);
    const size_t len = tarn_rv_encode(packet, sizeof packet, check->net_key, &check->probe);
    check->sent_us[check->sent] = tarn_now_us();
    if (len == 0) return false;
    if (tarn_udp_send(check->socket, &check->server, packet, static_cast<int>(len)) != 0) return false;
    check->sent++;
    return true;
}

// The number of the probe that a datagram answers, or -1. Only a holder of the network key can make one that
// passes.
static int answered_probe(const relay_check *check, const tarn_addr *from, const uint8_t *packet,
                          size_t size) {
    tarn_rv_msg m;
    if (!tarn_rv_endpoint_equal(from, &check->server)) return -1;
    if (tarn_rv_decode(packet, size, check->net_key, &m) != 0) return -1;
    if (m.type != TARN_RV_LOOKUP_REPLY && m.type != TARN_RV_ERROR) return -1;
    const uint32_t number = m.tag - check->base_tag;
    return number < static_cast<uint32_t>(check->sent) ? static_cast<int>(number) : -1;
}

// Reads all waiting datagrams up to the first good one. True if there was one, with its round trip.
static bool read_answer(const relay_check *check, uint32_t *rtt_us) {
    uint8_t packet[2048];
    tarn_addr from;
    for (;;) {
        const int len = tarn_udp_recv(check->socket, packet, sizeof packet, &from);
        if (len < 0) return false;
        const int number = answered_probe(check, &from, packet, static_cast<size_t>(len));
        if (number < 0) continue;
        const int64_t rtt = tarn_now_us() - check->sent_us[number];
        *rtt_us = rtt < UINT32_MAX ? static_cast<uint32_t>(rtt) : UINT32_MAX; // T may be weeks
        return true;
    }
}

// Sends the probes when they are due and waits for an answer until T has passed.
static int run(relay_check *check, int64_t limit_us, uint32_t *rtt_us) {
    const int64_t start = tarn_now_us();
    for (;;) {
        const int64_t elapsed = tarn_now_us() - start;
        if (elapsed >= limit_us) return TARN_RELAY_CHECK_NO_ANSWER;
        if (check->sent < probe_count && elapsed >= limit_us * check->sent / probe_count) {
            if (!send_probe(check)) return TARN_RELAY_CHECK_FAILED;
            continue;
        }
        // With all probes sent this is the end of T. A millisecond too long is better than a busy loop before
        // it.
        const int64_t wake = limit_us * check->sent / probe_count;
        const int wait_ms = static_cast<int>((wake - elapsed + 999) / 1000);
        if (tarn_udp_wait(&check->socket, 1, wait_ms) < 0) return TARN_RELAY_CHECK_FAILED;
        if (read_answer(check, rtt_us)) return TARN_RELAY_CHECK_OK;
    }
}

int tarn_relay_check(const tarn_relay_server *s, int timeout_ms, uint32_t *rtt_us) {
    *rtt_us = 0;
    if (!s || s->key_len < 1 || s->key_len > TARN_RELAY_KEY_MAX) return TARN_RELAY_CHECK_FAILED;
    relay_check check;
    if (!take_server(&check, s)) return TARN_RELAY_CHECK_UNRESOLVED;
    if (!prepare(&check)) return TARN_RELAY_CHECK_FAILED;
    const int64_t limit_ms = timeout_ms > 0 ? timeout_ms : default_timeout_ms;
    return run(&check, limit_ms * 1000, rtt_us);
}
