// tarn_relay_check to the microsecond: sockets made of a list of deliveries, on the settable clock, with a
// seeded random source. The linker passes every wipe through this file (--wrap), which sees what is wiped.
#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <tarnglider/clock.h>
#include <tarnglider/netsock.h>
#include <tarnglider/rendezvous.h>
#include <tarnglider/secure.h>

#include "core/netsock_test.h"
#include "support/seeded_random.h"
#include "support/virtual_clock.h"

namespace {
struct datagram {
    int64_t at_us; // arrival, after the start
    tarn_addr from;
    std::vector<uint8_t> bytes;
};
const uint64_t the_socket = 77;
const uint8_t link_key[] = {'l', 'i', 'n', 'k'};

struct world {
    std::function<void(int, const tarn_rv_msg &)> on_probe = [](int, const tarn_rv_msg &) {};
    std::vector<datagram> inbox; // in order of arrival
    std::vector<tarn_rv_msg> probes;
    std::vector<int64_t> sent_us;
    std::vector<int> waits;
    tarn_addr server = {};
    uint8_t net_key[32] = {};
    int64_t start = 0;
    uint32_t rtt = 5;
    int opened = 0, closed = 0, fail_send = -1, record_wipes = 0, key_wipes = 0;
    bool fail_open = false, fail_resolve = false;
};
world w;

int64_t elapsed() { return tarn_now_us() - w.start; }

// A fresh world with a server; its name resolves to `text`.
tarn_relay_server fresh(const char *text = "192.0.2.9:9877", size_t key_len = sizeof link_key) {
    w = world();
    virtual_clock::reset();
    seeded_random::reset(1);
    w.start = tarn_now_us();
    w.server = addr(text);
    tarn_relay_server s = {};
    memcpy(s.key, link_key, sizeof link_key);
    s.key_len = key_len;
    tarn_rv_net_key(w.net_key, s.key, key_len <= sizeof s.key ? key_len : 0);
    return s;
}

// An answer that arrives `after_us` from now.
struct answer {
    uint8_t type = TARN_RV_ERROR;
    uint32_t tag = 0;
    int64_t after_us = 1000;
    const char *from = "192.0.2.9:9877", *key = "link";
    int cut = 0, flip = 0; // bytes missing at the end; bits of the last byte that are wrong
};
void reply(const answer &a) {
    tarn_rv_msg m = {};
    m.type = a.type;
    m.tag = a.tag;
    m.status = 3; // even a refusal proves that the server is there
    m.id_len = 16;
    uint8_t key[32];
    tarn_rv_net_key(key, reinterpret_cast<const uint8_t *>(a.key), strlen(a.key));
    std::vector<uint8_t> bytes(256);
    bytes.resize(tarn_rv_encode(bytes.data(), bytes.size(), key, &m) - static_cast<size_t>(a.cut));
    bytes.back() = static_cast<uint8_t>(bytes.back() ^ a.flip);
    w.inbox.push_back({elapsed() + a.after_us, addr(a.from), bytes});
}
} // namespace

uint64_t tarn_udp_open(int family, const tarn_addr *bind_addr, uint16_t port) {
    EXPECT_EQ(family, w.server.family);
    EXPECT_TRUE(!bind_addr && port == 0) << "any address, any port";
    if (w.fail_open) return TARN_SOCKET_NONE;
    w.opened++;
    return the_socket;
}
void tarn_udp_close(uint64_t handle) {
    if (handle == the_socket) w.closed++;
}
int tarn_udp_send(uint64_t, const tarn_addr *to, const uint8_t *data, int len) {
    const int n = static_cast<int>(w.probes.size());
    tarn_rv_msg m;
    EXPECT_TRUE(tarn_rv_endpoint_equal(to, &w.server));
    EXPECT_EQ(tarn_rv_decode(data, static_cast<size_t>(len), w.net_key, &m), 0);
    if (n == w.fail_send) return -1;
    w.probes.push_back(m);
    w.sent_us.push_back(elapsed());
    w.on_probe(n, m);
    return 0;
}
int tarn_udp_recv(uint64_t, uint8_t *buf, size_t cap, tarn_addr *from) {
    EXPECT_EQ(cap, 2048u);
    if (w.inbox.empty() || w.inbox[0].at_us > elapsed()) return -1;
    const datagram d = w.inbox[0];
    w.inbox.erase(w.inbox.begin());
    memcpy(buf, d.bytes.data(), d.bytes.size());
    *from = d.from;
    return static_cast<int>(d.bytes.size());
}
int tarn_udp_wait(const uint64_t *list, int n, int timeout_ms) {
    EXPECT_TRUE(n == 1 && list[0] == the_socket);
    w.waits.push_back(timeout_ms);
    const int64_t limit = int64_t{timeout_ms} * 1000;
    const int64_t first = w.inbox.empty() ? limit + 1 : w.inbox[0].at_us - elapsed();
    virtual_clock::advance(std::clamp<int64_t>(first, 0, limit));
    return first <= limit;
}
int tarn_relay_resolve(tarn_relay_server *s) {
    if (!w.fail_resolve) s->addr = w.server;
    return w.fail_resolve ? -1 : 0;
}

extern "C" {
void __real_tarn_secure_wipe(void *buffer, size_t size);
void __wrap_tarn_secure_wipe(void *buffer, size_t size);
void __wrap_tarn_secure_wipe(void *buffer, size_t size) {
    const auto *record = static_cast<tarn_relay_server *>(buffer);
    w.record_wipes += size == sizeof *record && !memcmp(record->key, link_key, sizeof link_key);
    w.key_wipes += size == sizeof w.net_key && !memcmp(buffer, w.net_key, size);
    __real_tarn_secure_wipe(buffer, size);
}
}

// The check, its result, and what must hold after every one that gets as far as a key.
static int check(const tarn_relay_server &s, int timeout_ms = 300) {
    const tarn_relay_server before = s;
    const int result = tarn_relay_check(&s, timeout_ms, &w.rtt);
    EXPECT_EQ(memcmp(&s, &before, sizeof s), 0) << "the caller's record stays";
    EXPECT_EQ(w.closed, w.opened);
    EXPECT_EQ(w.record_wipes, 1);
    EXPECT_EQ(w.key_wipes, w.fail_resolve ? 0 : 1);
    EXPECT_TRUE(result == TARN_RELAY_CHECK_OK || w.rtt == 0);
    return result;
}

TEST(RelayCheck, SilenceEndsAfterThreeQuestions) {
    const std::tuple<int, std::vector<int64_t>, std::vector<int>> rows[] = {
        {1500, {0, 500000, 1000000}, {500, 500, 500}}, // by these waits alone time passes
        {0, {0, 500000, 1000000}, {500, 500, 500}},
        {-7, {0, 500000, 1000000}, {500, 500, 500}},
        {100, {0, 34000, 67000}, {34, 33, 33}}, // a fraction of a millisecond is waited for whole
        {1, {0}, {1}},                          // over before the second is due
    };
    for (const auto &[timeout_ms, sent_us, waits] : rows) {
        SCOPED_TRACE(timeout_ms);
        EXPECT_EQ(check(fresh(), timeout_ms), TARN_RELAY_CHECK_NO_ANSWER);
        EXPECT_EQ(w.waits, waits);
        EXPECT_EQ(w.sent_us, sent_us);
    }
}

TEST(RelayCheck, QuestionsAreItsOwn) {
    const tarn_relay_server s = fresh("[2001:db8::7]:9877"); // opens a socket of family 6
    const uint8_t draw[20] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 255, 255, 255, 255};
    seeded_random::push(draw, sizeof draw); // the tags wrap
    w.on_probe = [](int n, const tarn_rv_msg &m) {
        if (n == 2) reply({.tag = m.tag, .after_us = 7, .from = "[2001:db8::7]:9877"});
    };
    EXPECT_EQ(check(s), TARN_RELAY_CHECK_OK);
    EXPECT_EQ(w.rtt, 7u);
    EXPECT_EQ(seeded_random::draws(), 2);
    ASSERT_EQ(w.probes.size(), 3u);
    for (uint32_t i = 0; i < 3; i++) {
        const tarn_rv_msg &m = w.probes[i];
        EXPECT_TRUE(m.type == TARN_RV_LOOKUP && m.tag == i - 1 && m.count == 0) << i;
        EXPECT_TRUE(m.id_len == 16 && memcmp(m.lookup_id, draw, 16) == 0) << i;
    }
}

TEST(RelayCheck, RoundTripBelongsToTheAnsweredQuestion) {
    // The answered question, after how long, with what; and the questions sent by then.
    const std::tuple<int, uint32_t, uint8_t, size_t> rows[] = {
        {0, 12345, TARN_RV_ERROR, 1}, {0, 150000, TARN_RV_LOOKUP_REPLY, 2}, {0, 290000, TARN_RV_ERROR, 3},
        {1, 10000, TARN_RV_ERROR, 2}, {2, 99000, TARN_RV_ERROR, 3},         {2, 0, TARN_RV_ERROR, 3}};
    for (const auto &[answered, after_us, type, sent] : rows) {
        SCOPED_TRACE(after_us);
        const tarn_relay_server s = fresh();
        answer good = {.type = type, .after_us = after_us};
        w.on_probe = [&, which = answered](int n, const tarn_rv_msg &m) {
            good.tag = m.tag;
            if (n == which) reply(good);
        };
        EXPECT_EQ(check(s), TARN_RELAY_CHECK_OK);
        EXPECT_EQ(w.rtt, after_us);
        EXPECT_EQ(w.probes.size(), sent);
    }
}

// Each bad answer alone is as good as none, and doesn't hide a good one that waits behind it.
TEST(RelayCheck, OnlyTheServersOwnAnswerCounts) {
    const std::pair<const char *, answer> rows[] = {
        // the tag counts from the first question's
        {"another port of the server", {.from = "192.0.2.9:9878"}},
        {"another address", {.from = "192.0.2.8:9877"}},
        {"its mapped form is another endpoint", {.from = "[::ffff:192.0.2.9]:9877"}},
        {"another key", {.key = "Link"}},
        {"a damaged trailer", {.flip = 1}},
        {"cut short", {.cut = 1}},
        {"a question that was not sent yet", {.tag = 1}},
        {"a tag below the first question's", {.tag = UINT32_MAX}},
        {"the question itself come back", {.type = TARN_RV_LOOKUP}},
        {"an introduction", {.type = TARN_RV_INTRODUCE}},
    };
    for (const auto &[why, answered] : rows) {
        for (const bool good_behind : {false, true}) {
            SCOPED_TRACE(why);
            const tarn_relay_server s = fresh();
            w.on_probe = [&, bad = answered](int n, const tarn_rv_msg &m) mutable {
                bad.tag += m.tag;
                if (n == 0) reply(bad);
                if (n == 0 && good_behind) reply({.tag = m.tag});
            };
            EXPECT_EQ(check(s), good_behind ? TARN_RELAY_CHECK_OK : TARN_RELAY_CHECK_NO_ANSWER);
            EXPECT_EQ(w.waits.size(), good_behind ? 1u : 4u) << "read at one wake-up";
        }
    }
}

TEST(RelayCheck, FailuresAreToldApartAndLeaveNothing) {
    // Result, sockets opened, questions sent.
    const std::tuple<const char *, int, int, size_t, void (*)()> rows[] = {
        {"no such name", 2, 0, 0, [] { w.fail_resolve = true; }},
        {"no socket", 3, 0, 0, [] { w.fail_open = true; }},
        {"no random id", 3, 1, 0, [] { seeded_random::fail_at(1); }},
        {"no random tag", 3, 1, 0, [] { seeded_random::fail_at(2); }},
        {"first send", 3, 1, 0, [] { w.fail_send = 0; }},
        {"third send", 3, 1, 2, [] { w.fail_send = 2; }},
    };
    for (const auto &[why, result, opened, sent, fail] : rows) {
        SCOPED_TRACE(why);
        const tarn_relay_server s = fresh();
        fail();
        EXPECT_EQ(check(s), result);
        EXPECT_EQ(w.probes.size(), sent);
        EXPECT_EQ(w.opened, opened);
    }
    for (const size_t key_len : {1u, 128u})
        EXPECT_EQ(check(fresh("192.0.2.9:9877", key_len)), TARN_RELAY_CHECK_NO_ANSWER);
    const tarn_relay_server empty = fresh("192.0.2.9:9877", 0), large = fresh("192.0.2.9:9877", 129);
    for (const tarn_relay_server *s : {&empty, &large, static_cast<const tarn_relay_server *>(nullptr)}) {
        w.rtt = 5;
        EXPECT_EQ(tarn_relay_check(s, 300, &w.rtt), TARN_RELAY_CHECK_FAILED);
        EXPECT_TRUE(w.rtt == 0 && w.opened == 0);
    }
}
