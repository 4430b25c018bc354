// What both engines stand on: timestamps, the event ring, the server table and its resolutions, the small
// packets.
#include <gtest/gtest.h>

#include "conn_internal.h"
#include "support/engine_rig.h"
#include "support/seeded_random.h"
#include "support/virtual_clock.h"

namespace {

struct base_rig : engine_rig {
    conn_base b = {};
    explicit base_rig(const tarn_relay_config &relays = {}, const char *name = nullptr, int lan_count = 0) {
        const tarn_keypair id = test_key(7);
        const std::vector<tarn_addr> lan(TARN_LAN_MAX + 1, ep("192.168.1.2:9"));
        conn_base_init(&b, &id, name, &relays, lan.data(), lan_count, on_send, on_log,
                       static_cast<engine_rig *>(this));
    }
};

// The next server of a configuration.
tarn_relay_server &add(tarn_relay_config &relays, const char *host, uint16_t port, const char *key = "key") {
    tarn_relay_server &s = relays.servers[relays.count++];
    strcpy(s.host, host);
    s.port = port;
    s.key_len = strlen(key);
    memcpy(s.key, key, s.key_len);
    return s;
}

TEST(ConnBase, TimestampsRiseWhateverTheClockDoes) {
    virtual_clock::step_wall(int64_t{3600} * 1000000);
    const uint64_t first = conn_hs_timestamp();
    EXPECT_EQ(first, conn_wall_us());
    EXPECT_EQ(conn_hs_timestamp(), first + 1); // same microsecond
    virtual_clock::step_wall(-60000000);
    EXPECT_EQ(conn_hs_timestamp(), first + 2); // set back
    virtual_clock::step_wall(120000000);
    EXPECT_EQ(conn_hs_timestamp(), conn_wall_us());
    seeded_random::push("\x01\x02\x03\x04", 4);
    EXPECT_EQ(conn_random_u32(), 0x04030201u);
    uint8_t digest[16];
    char hex[33];
    conn_blake2b16(digest, reinterpret_cast<const uint8_t *>("abc"), 3);
    tarn_hex_encode(hex, digest, 16);
    EXPECT_STREQ(hex, "cf4ab791c62b8d2b2109c90275287816");
}

TEST(ConnBase, FullEventRingDropsTheOldestAndKeepsOrder) {
    base_rig rig;
    conn_base *b = &rig.b;
    conn_event e = {}, before = {};
    e.kind = before.kind = 99;
    EXPECT_EQ(conn_ev_pop(b, &e), 0);
    EXPECT_EQ(memcmp(&e, &before, sizeof e), 0);

    memset(b->events, 0xFF, sizeof b->events); // what an earlier turn of the ring left
    for (int i = 1; i <= 65; i++)
        conn_ev_push(b, i)->detail = 100 + i;
    EXPECT_EQ(b->event_count, 64);
    ASSERT_EQ(conn_ev_pop(b, &e), 1); // the first is lost
    EXPECT_EQ(show(e), "2 detail=102");
    conn_ev_push(b, 66); // across the end of the ring
    for (int i = 3; i <= 66; i++) {
        ASSERT_EQ(conn_poll_event(b, &e), 1);
        EXPECT_EQ(e.kind, i);
    }
    EXPECT_EQ(conn_poll_event(b, &e), 0);
    const tarn_keypair peer = test_key(3);
    EXPECT_EQ(show(*conn_ev_push_peer(b, 9, peer.public_key)), "9 key=" + code_of(peer.public_key));
}

TEST(ConnBase, InitCleansAndClamps) {
    for (const auto &[given, kept] : {std::pair{-1, 0}, {0, 0}, {4, 4}, {5, 4}}) {
        base_rig rig({}, "a\nb", given);
        EXPECT_EQ(rig.b.lan_count, kept);
        EXPECT_TRUE(kept == 0 || text(rig.b.lan[kept - 1]) == "192.168.1.2:9");
        EXPECT_STREQ(rig.b.name, "a b");
        EXPECT_EQ(memcmp(rig.b.identity.secret, test_key(7).secret, 32), 0);
    }
    EXPECT_STREQ(base_rig().b.name, "");
}

TEST(ConnBase, ServerTableKeepsGoodEntriesInOrder) {
    tarn_relay_config relays = {};
    for (int i = 0; i < 8; i++)
        add(relays, ("s" + std::to_string(i)).c_str(), 0, "k");
    relays.count = 9; // one more than there is room for
    conn_server table[conn_servers_max];
    memset(table, 0xFF, sizeof table);
    EXPECT_EQ(conn_servers_load(table, &relays), 8);
    EXPECT_STREQ(table[7].host, "s7");
    EXPECT_EQ(table[7].port, TARN_RELAY_DEFAULT_PORT);

    relays = {};
    add(relays, " 203.0.113.7 ", 100, "one").addr = ep("9.9.9.9:5"); // a literal names its address itself
    add(relays, "two", 200, "two").addr = ep("198.51.100.2:7");      // resolved earlier, on another port
    add(relays, "bad name", 1);
    add(relays, "four", 400).addr.port = 77; // no family: no address at all
    add(relays, "five", 500, "");
    memset(table, 0xFF, sizeof table);
    ASSERT_EQ(conn_servers_load(table, &relays), 3);
    const std::tuple<const char *, uint16_t, const char *, const char *> rows[] = {
        {"203.0.113.7", 100, "one", "203.0.113.7:100"},
        {"two", 200, "two", "198.51.100.2:200"},
        {"four", 400, "key", "-"}};
    const conn_server *loaded = table;
    for (const auto &[host, port, key, addr] : rows) {
        uint8_t net_key[32];
        tarn_rv_net_key(net_key, reinterpret_cast<const uint8_t *>(key), 3);
        EXPECT_STREQ(loaded->host, host);
        EXPECT_TRUE(loaded->port == port && text(loaded->addr) == addr && loaded->resolve_failed == 0);
        EXPECT_EQ(memcmp(loaded++->net_key, net_key, 32), 0);
    }
    EXPECT_TRUE(all_zero(&table[2].addr, sizeof(tarn_addr)) && all_zero(&table[3], 5 * sizeof table[3]));
    EXPECT_EQ(conn_servers_load(table, nullptr), 0);
    EXPECT_TRUE(all_zero(table, sizeof table));
}

TEST(ConnBase, ResolutionsMoveAddressesAndLogOnce) {
    tarn_relay_config relays = {};
    add(relays, "one.example", 100);
    add(relays, "two.example", 100);
    add(relays, "ONE.example", 100, "other"); // the same server under another key
    add(relays, "one.example", 101);
    base_rig rig(relays);
    const tarn_addr a = ep("203.0.113.5:9"), b = ep("[2001:db8::5]:1"), none = {};
    const std::string failed = ": name did not resolve", at_a = " is at 203.0.113.5:100",
                      at_b = " is at [2001:db8::5]:100";
    // Name, port, address; then the mask, what is logged of servers 0 and 2, and what server 0 looks like.
    const std::tuple<const char *, uint16_t, const tarn_addr *, uint32_t, std::string, uint32_t, const char *>
        rows[] = {
            {nullptr, 100, &a, 0, "", 0, "-"},
            {"one.example", 102, &a, 0, "", 0, "-"},
            {"one.exampl", 100, &a, 0, "", 0, "-"},
            {"oNe.EXAMPLE", 100, nullptr, 0, failed, 1, "-"},
            {"one.example", 100, &none, 0, "", 1, "-"},
            {"one.example", 100, &a, 5, at_a, 0, "203.0.113.5:100"},
            {"one.example", 100, &a, 0, "", 0, "203.0.113.5:100"},
            {"one.example", 100, nullptr, 0, failed, 1, "203.0.113.5:100"},
            {"ONE.EXAMPLE", 100, &a, 0, "", 0, "203.0.113.5:100"},
            {"one.example", 100, &b, 5, at_b, 0, "[2001:db8::5]:100"},
        };
    int row = 0;
    for (const auto &[name, port, addr, mask, log, flag, at] : rows) {
        SCOPED_TRACE(row++);
        EXPECT_EQ(conn_server_resolved(&rig.b, name, port, addr), mask);
        const texts both = {"server one.example:100" + log, "server ONE.example:100" + log};
        EXPECT_EQ(rig.take_log(), log.empty() ? texts{} : both);
        EXPECT_EQ(rig.b.servers[0].resolve_failed, flag);
        EXPECT_EQ(text(rig.b.servers[0].addr) + text(rig.b.servers[1].addr), std::string(at) + "-");
    }
    EXPECT_EQ(conn_server_resolved(&rig.b, "one.example", 101, &a), 8u);
    const tarn_addr at = ep("[2001:db8::5]:100"), port = ep("[2001:db8::5]:99"), last = ep("203.0.113.5:101");
    EXPECT_EQ(conn_server_index(&rig.b, &at), 0);
    EXPECT_EQ(conn_server_index(&rig.b, &last), 3);
    EXPECT_EQ(conn_server_index(&rig.b, &port), -1);
    EXPECT_EQ(conn_server_index(&rig.b, &none), -1); // a server without an address is nowhere
}

TEST(ConnBase, SendsOnlyWhatHasLengthAndTarget) {
    tarn_relay_config relays = {};
    add(relays, "one.example", 100);
    add(relays, "2001:db8::1", 200, "two");
    base_rig rig(relays);
    const tarn_addr to = ep("203.0.113.5:9"), none = {};
    const uint8_t data[3] = {1, 2, 3};
    conn_send(&rig.b, &none, data, 3);
    conn_send(&rig.b, &to, data, 0);
    tarn_rv_msg m = {};
    m.type = TARN_RV_PUNCH;
    rig.b.server_count = 1;
    for (int number : {-1, 0, 1, 8})
        conn_send_server(&rig.b, number, &m); // server 0 has no address
    rig.b.server_count = 2;
    EXPECT_TRUE(rig.take().empty());

    conn_send(&rig.b, &to, data, 3);
    conn_send_rv(&rig.b, &to, &m, nullptr);
    m.type = TARN_RV_LOOKUP_REPLY; // the largest message
    m.tag = 7;
    m.count = 4;
    conn_send_server(&rig.b, 1, &m);
    const auto sent = rig.take();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0].data, bytes({1, 2, 3}));
    EXPECT_EQ(sent[1].data.size(), size_t{TARN_RV_PUNCH_SIZE});
    EXPECT_EQ(text(sent[2].to), "[2001:db8::1]:200");
    tarn_rv_msg got;
    EXPECT_EQ(tarn_rv_decode(sent[2].data.data(), sent[2].data.size(), rig.b.servers[1].net_key, &got), 0);
    EXPECT_EQ(got.tag, 7u);

    char buf[conn_server_text];
    EXPECT_STREQ(conn_server_str(&rig.b, 0, buf, sizeof buf), "one.example:100");
    EXPECT_STREQ(conn_server_str(&rig.b, 1, buf, sizeof buf), "[2001:db8::1]:200");
    EXPECT_STREQ(conn_addr_str(&to, buf, 4), "203");
    conn_log(&rig.b, "%s", std::string(600, 'x').c_str());
    EXPECT_EQ(rig.take_log(), texts{std::string(511, 'x')});
    rig.b.log = nullptr;
    conn_log(&rig.b, "no callback, no call");
}

TEST(ConnBase, SmallPacketsByteForByte) {
    uint8_t probe[conn_probe_size], rekey[conn_rekey_size];
    ASSERT_EQ(conn_make_probe(probe, TARN_PKT_PROBE, 1, 0x04030201, 0x0C0B0A0908070605), 20u);
    const uint8_t want_probe[] = {0x50, 1, 91, 1, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    EXPECT_EQ(memcmp(probe, want_probe, sizeof probe), 0);
    ASSERT_EQ(conn_make_rekey(rekey, TARN_PKT_REKEY_ACK, 0x04030201), 12u);
    const uint8_t want_rekey[] = {0x50, 1, 94, 0, 0, 0, 0, 0, 1, 2, 3, 4};
    EXPECT_EQ(memcmp(rekey, want_rekey, sizeof rekey), 0);

    const std::tuple<const char *, const char *, int> rows[] = {
        {"", "", 1}, {"abc", "abcd", 0}, {"abcd", "abc", 0}, {"[", "{", 0}, {"@", "`", 0}, {"azZ", "AZz", 1}};
    for (const auto &[a, b, equal] : rows)
        EXPECT_EQ(conn_strieq(a, b), equal) << a << " " << b;
}

} // namespace
