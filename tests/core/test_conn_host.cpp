// The host engine by itself, against packets made by hand: what it answers, what it drops, and when things
// end.
#include <gtest/gtest.h>

#include <algorithm>

#include "bytes_internal.h"
#include "conn_host_internal.h"
#include "support/engine_rig.h"
#include "support/virtual_clock.h"

namespace {

constexpr int64_t ms = 1000, second = 1000000;
const tarn_addr at_a = ep("203.0.113.10:5000"), at_b = ep("198.51.100.20:6000"),
                at_lan = ep("192.168.1.5:7000");
const char *const dropped = "0 00000000 first 0 path 0";

bytes sealed(hand_client &client, uint8_t type = 3, const bytes &body = {}) {
    return seal(client.keys, plain(type, body));
}
bytes probe(uint8_t flags, size_t size = 20) { return plain(TARN_PKT_PROBE, bytes(size - 8, 5), flags); }

class ConnHost : public testing::Test {
protected:
    uint64_t stamp = 1000; // the last handshake timestamp used
    ConnHost() {
        virtual_clock::reset();
        seeded_random::reset(1);
    }
    // A handshake and a first data packet; what that logs and reports is thrown away.
    uint32_t connect(host_rig &host, hand_client &client, const tarn_addr &from) {
        EXPECT_TRUE(client.shake(host, from, ++stamp));
        EXPECT_EQ(host.receive(sealed(client), from).result, TARN_RECV_DATA);
        host.told();
        return client.keys.id;
    }
    // A further handshake whose keys are attached to a session.
    void rekey(host_rig &host, hand_client &client, uint32_t session, const tarn_addr &from) {
        ASSERT_TRUE(client.shake(host, from, ++stamp));
        host.receive(sealed(client, TARN_PKT_REKEY, le32(session)), from);
        host.take();
    }
};

auto slots(const host_rig &host, uint32_t state) {
    return std::count_if(host.h->slots, host.h->slots + host_slots_max,
                         [&](const crypto_slot &slot) { return slot.state == state; });
}
// A free slot holds no key any more, and no link.
bool wiped(const crypto_slot &s) {
    return s.state == SLOT_FREE && s.link == -1 && all_zero(&s.session, sizeof s.session);
}
bool known(const host_rig &host, uint32_t session) {
    tarn_session_info info;
    return tarn_host_session_info_get(host.h, session, &info) == 0;
}
// The whole record but the lock and the buckets at its end.
bytes snapshot(const host_rig &host) {
    const uint8_t *from = reinterpret_cast<const uint8_t *>(host.h);
    return bytes(from + sizeof(conn_lock), from + offsetof(tarn_host, handshake_bucket));
}
// What a packet came to: result, session word of the packet, and the info record.
std::string got(const received &r) {
    const std::string word = r.data.size() < 8 ? "" : " " + hex8(get_u32(r.data.data() + 4));
    return std::to_string(r.result) + word + " " + hex8(r.info.session) + " first " +
           std::to_string(r.info.first) + " path " + std::to_string(r.info.path);
}

TEST_F(ConnHost, CreateAndDispatch) {
    EXPECT_EQ(tarn_host_create(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(host_rig(0, [](tarn_host_config &c) { c.send = nullptr; }).h, nullptr);
    for (uint32_t allow : {0u, 1u}) {
        host_rig host(1, [&](tarn_host_config &c) { c.allow_plain = allow; });
        EXPECT_EQ(host.tick(), 250000);
        for (unsigned type = 0; type < 256; type++) {
            SCOPED_TRACE(type);
            const bool to_caller = type == TARN_PKT_DISCOVER || (allow && (type < 80 || type > 111));
            const received r = host.receive(plain(static_cast<uint8_t>(type), le32(1)), at_a);
            EXPECT_EQ(r.result, to_caller ? TARN_RECV_PLAIN : TARN_RECV_NONE);
            EXPECT_TRUE(r.data.empty() && all_zero(&r.info, sizeof r.info)); // both are cleared at first
            bytes refusal = {0x50, 1, 2, 0, 0, 0, 0, 0, 3};
            refusal.resize(22);
            const auto sent = host.take();
            ASSERT_EQ(sent.size(), type == TARN_PKT_HELLO && !allow ? 1u : 0u);
            EXPECT_TRUE(sent.empty() || sent[0].data == refusal);
        }
        EXPECT_EQ(host.receive(plain(TARN_PKT_DISCOVER), at_a).result, TARN_RECV_PLAIN);
        for (const bytes &p : {bytes{}, bytes{0x50, 1, 9, 0, 0, 0, 0}, bytes{0x51, 1, 9, 0, 0, 0, 0, 0},
                               bytes{0x50, 0, 9, 0, 0, 0, 0, 0}, bytes{0x50, 3, 9, 0, 0, 0, 0, 0}})
            EXPECT_EQ(host.receive(p, at_a).result, TARN_RECV_NONE);
    }
    tarn_client_list list = {}; // its names are cleaned, and a count beyond the table is not believed
    list.count = 40;
    memset(list.entries, 'x', sizeof list.entries);
    memcpy(list.entries[0].name, "a\nb", 4);
    tarn_host_config config = {};
    config.send = engine_rig::on_send;
    tarn_host *h = tarn_host_create(&config, &list, "");
    EXPECT_STREQ(h->clients[0].name, "a b");
    EXPECT_EQ(strlen(h->clients[31].name), 63u);
    EXPECT_EQ(h->clients[31].active, 1u);
    tarn_host_destroy(h);
    tarn_host_destroy(nullptr);
}

TEST_F(ConnHost, HandshakeAnswersOnceAndNeverBackwards) {
    host_rig host;
    hand_client client, stranger(9);
    const bytes init = client.start(host, 500);
    bytes bad = init, shorter(init.begin(), init.end() - 1), longer = init;
    bad[4] = 1;
    longer.push_back(0);
    for (const bytes &p : {bad, shorter, longer})
        host.receive(p, at_a);
    EXPECT_TRUE(host.quiet());

    host.receive(init, at_a);
    const bytes answered = snapshot(host);
    const int draws = seeded_random::draws();
    for (int i = 0; i < 101; i++)
        host.receive(init, at_b); // repeats: the same bytes, to their source, past every limit
    EXPECT_EQ(snapshot(host), answered);
    EXPECT_EQ(seeded_random::draws(), draws);
    auto sent = host.take();
    ASSERT_EQ(sent.size(), 102u);
    EXPECT_EQ(text(sent[0].to) + text(sent[101].to), text(at_a) + text(at_b));
    EXPECT_EQ(sent[0].data, sent[101].data);
    EXPECT_TRUE(client.finish(sent[0].data));
    EXPECT_EQ(slots(host, SLOT_PENDING), 1);

    for (uint64_t stale : {500u, 499u, 0u})
        host.receive(client.start(host, stale), at_a); // replays in new clothes
    EXPECT_TRUE(host.quiet());
    EXPECT_TRUE(client.shake(host, at_a, 501));
    EXPECT_EQ(slots(host, SLOT_PENDING), 2);
    host.receive(init, at_a); // the first one is a replay now, too
    EXPECT_TRUE(host.quiet());

    host.receive(stranger.start(host, 1), at_a);
    EXPECT_EQ(host.take().at(0).data, reject_packet(1));
    const std::string code = code_of(stranger.key.public_key), at = "203.0.113.10:5000";
    EXPECT_EQ(host.told(), (texts{"handshake from unknown device " + code + " at " + at + ": rejected",
                                  "7 detail=1 addr=" + at + " key=" + code}));
    EXPECT_EQ(slots(host, SLOT_FREE), 22);
}

TEST_F(ConnHost, EveryReplyToAStrangerPassesItsBucket) {
    // For each limit: what is asked, how many come through at once, and how long one more takes.
    const std::tuple<std::string, int, int64_t> rows[] = {
        {"handshake", 40, 50000}, {"reject", 10, 200000}, {"unknown", 3, 1000000}, {"hello", 10, 200000}};
    for (const auto &[what, burst, refill_us] : rows) {
        SCOPED_TRACE(what);
        host_rig host;
        hand_client client(what == "handshake" ? 1 : 9);
        // What is left over counts, and an hour saves up no more than the burst.
        const std::pair<int64_t, int> later[] = {
            {0, burst},         {refill_us - 1, 0},    {1, 1}, {5 * refill_us / 2, 2},
            {refill_us / 2, 1}, {3600 * second, burst}};
        for (const auto &[us, more] : later) {
            virtual_clock::advance(us);
            size_t answered = 0;
            for (int i = 0; i < 60; i++) {
                if (what != "handshake") host.h->handshake_bucket = {};
                host.receive(what == "hello" ? plain(TARN_PKT_HELLO, bytes(33)) : client.start(host, ++stamp),
                             at_a);
                const size_t replies = host.take().size(), lines = host.take_log().size();
                EXPECT_EQ(host.events().size(), lines);
                answered += what == "unknown" ? lines : replies;
            }
            EXPECT_EQ(answered, static_cast<size_t>(more)) << us;
        }
    }
    host_rig host; // garbage costs the host as much as a good init, so it comes out of the same bucket
    hand_client client;
    for (int i = 0; i < 39; i++)
        host.receive(plain(TARN_PKT_HS_INIT, bytes(104)), at_a);
    EXPECT_TRUE(client.shake(host, at_a, 1));
    EXPECT_FALSE(client.shake(host, at_a, 2));
}

TEST_F(ConnHost, SessionIdsAreNeverZeroOrTaken) {
    host_rig host;
    hand_client client;
    const uint32_t session = connect(host, client, at_a);
    rekey(host, client, session, at_a);
    virtual_clock::advance(6 * second);
    host.tick(); // the first keys are gone: only the link still holds their id
    // Nobody's; the link's; a slot's; and then a pending slot's.
    std::vector<uint32_t> draws = {0, session, client.keys.id};
    for (uint32_t fresh : {0xABCD1234u, 1u}) {
        const bytes init = client.start(host, ++stamp);
        draws.push_back(fresh);
        for (uint32_t id : draws)
            seeded_random::push(le32(id).data(), 4);
        host.receive(init, at_a);
        ASSERT_TRUE(client.finish(host.take().at(0).data));
        EXPECT_EQ(client.keys.id, fresh);
    }
}

TEST_F(ConnHost, FailedRandomSourceLeavesNothingHalfMade) {
    for (int failure = 1; failure <= 2; failure++) { // session id and ephemeral key
        host_rig host;
        hand_client client;
        const bytes init = client.start(host, 1), before = snapshot(host);
        seeded_random::fail_at(failure);
        host.receive(init, at_a);
        EXPECT_TRUE(host.quiet());
        EXPECT_EQ(snapshot(host), before);
        seeded_random::fail_at(0);
        host.receive(init, at_a); // the very same init is good for a second try
        EXPECT_TRUE(client.finish(host.take().at(0).data));
    }
}

TEST_F(ConnHost, FullSlotTableGivesUpItsOldestPendingSlot) {
    host_rig host;
    hand_client first, next, rest;
    ASSERT_TRUE(first.shake(host, at_a, 1));
    virtual_clock::advance(ms);
    ASSERT_TRUE(next.shake(host, at_a, 2));
    for (uint64_t i = 3; i <= 25; i++) {
        virtual_clock::advance(100 * ms);
        ASSERT_TRUE(rest.shake(host, at_a, i)) << i;
    }
    EXPECT_EQ(slots(host, SLOT_PENDING), 24);
    EXPECT_EQ(got(host.receive(sealed(first), at_a)), dropped);
    EXPECT_EQ(host.receive(sealed(next), at_a).result, TARN_RECV_DATA);
    ASSERT_TRUE(rest.shake(host, at_a, 26)); // slot 1 is in use: the oldest pending one is number 2
    EXPECT_EQ(host.h->slots[2].session.id, rest.keys.id);

    for (crypto_slot &slot : host.h->slots)
        slot.state = SLOT_IN_USE;
    const bytes before = snapshot(host);
    host.receive(first.start(host, 27), at_a);
    EXPECT_EQ(host.take().at(0).data, reject_packet(2));
    EXPECT_EQ(snapshot(host), before);
}

TEST_F(ConnHost, FirstPacketMakesTheSession) {
    const std::string code = code_of(test_key(1).public_key);
    const std::tuple<bytes, bool, const tarn_addr *, const char *> rows[] = {
        {plain(TARN_PKT_PING), false, &at_a, "Direct"},
        {probe(1), true, &at_lan, "LAN"},
        {probe(0), true, &at_a, "Direct"},
        {probe(1, 19), false, &at_a, "Direct"},
        {plain(TARN_PKT_PROBE_ACK, bytes(12)), false, &at_a, "Direct"},
        {plain(TARN_PKT_REKEY_ACK, bytes(4)), false, &at_a, "Direct"},
    };
    for (const auto &[packet, answered, from, via] : rows) {
        SCOPED_TRACE(packet[2]);
        host_rig host;
        hand_client client;
        ASSERT_TRUE(client.shake(host, at_b, ++stamp));
        EXPECT_TRUE(host.quiet());
        const std::string id = hex8(client.keys.id), at = text(*from), path = from == &at_lan ? "1" : "2";
        const bool data = packet[2] == TARN_PKT_PING;
        EXPECT_EQ(got(host.receive(seal(client.keys, packet), *from)),
                  data ? "1 " + id + " " + id + " first 1 path 2" : dropped);
        EXPECT_EQ(
            host.told(),
            (texts{"session " + id + ": \"client 1\" (" + code + ") connected via " + via + " " + at,
                   "6 path=" + path + " session=" + id + " addr=" + at + " key=" + code + " name=client 1"}));
        const auto sent = host.take();
        ASSERT_EQ(sent.size(), answered ? 1u : 0u);
        if (answered) { // the probe as it was, but for its type and its flags
            bytes echo = probe(0);
            echo[2] = TARN_PKT_PROBE_ACK;
            put_u32(echo.data() + 4, client.keys.id);
            EXPECT_EQ(open(client.keys, sent[0].data), echo);
            EXPECT_EQ(text(sent[0].to), at);
        }
        EXPECT_EQ(got(host.receive(sealed(client), *from)),
                  "1 " + id + " " + id + " first " + (data ? "0" : "1") + " path " + path);
        tarn_session_info info;
        ASSERT_EQ(tarn_host_session_info_get(host.h, client.keys.id, &info), 0);
        EXPECT_EQ(hex8(info.session) + text(info.addr) + code_of(info.key) + info.name,
                  id + at + code + "client 1");
        EXPECT_TRUE(std::to_string(info.path) == path && info.last_rx_us == conn_now());
    }
}

TEST_F(ConnHost, OpensInPlaceAndSealsForTheSession) {
    host_rig host;
    hand_client client;
    const uint32_t session = connect(host, client, at_a);
    bytes want = plain(TARN_PKT_INPUT, {1, 2, 3}, 7), buffer = seal(client.keys, want);
    size_t len;
    for (size_t cap : {10u, 11u}) // a buffer too small by one costs nothing
        EXPECT_EQ(
            tarn_host_receive(host.h, buffer.data(), buffer.size(), &at_b, buffer.data(), cap, &len, nullptr),
            cap == 11 ? TARN_RECV_DATA : TARN_RECV_NONE);
    buffer.resize(len);
    put_u32(want.data() + 4, session);
    EXPECT_EQ(buffer, want);

    bytes out;
    tarn_addr to = {};
    const bytes pong = plain(TARN_PKT_PONG, {9});
    const std::tuple<uint32_t, size_t, size_t> rows[] = {
        {session, 32, 0}, {session + 1, 64, 0}, {0, 64, 0}, {session, 33, 33}};
    for (const auto &[id, cap, size] : rows) {
        out.resize(cap);
        EXPECT_EQ(host.seal_for(id, pong, out, size ? &to : nullptr), size);
    }
    EXPECT_EQ(open(client.keys, out).back(), 9);
    EXPECT_EQ(text(to), text(at_b)); // where the last packet came from
}

TEST_F(ConnHost, PathFollowsTheNewestPacketOfTheClient) {
    host_rig host(1, [](tarn_host_config &c) {
        tarn_relay_config_add_link(&c.relays, "tarnglider-relay://192.168.1.9:9877#k");
    });
    hand_client client;
    const std::string id = hex8(connect(host, client, at_a)); // packet 0
    std::vector<bytes> later; // packets 1 to 8: 3 a probe, 4 and 8 flagged probes
    for (int i = 1; i <= 8; i++)
        later.push_back(seal(client.keys, i == 3 ? probe(0) : i % 4 ? plain(3) : probe(1)));
    const tarn_addr relay = ep("192.168.1.9:9877");
    // Packet and source; the class and name of the path that it moves to; the class that data is delivered
    // with.
    const std::tuple<size_t, const tarn_addr *, std::string, std::string, const char *> rows[] = {
        {2, &at_b, "2", "Direct", "2"}, {1, &at_a, "", "", "2"}, // older, from the address that was left
        {3, &at_lan, "", "", ""},                                // a probe of a spare path
        {5, &at_b, "", "", "2"},                                 // no move, but it counts as the newest,
        {4, &at_lan, "", "", ""}, // so an older flagged probe doesn't move it either
        {6, &relay, "4", "Relay", "4"}, {8, &at_lan, "1", "LAN", ""}, {7, &at_a, "", "", "1"},
    };
    for (const auto &[number, from, cls, name, path] : rows) {
        SCOPED_TRACE(number);
        EXPECT_EQ(got(host.receive(later[number - 1], *from)),
                  *path ? "1 " + id + " " + id + " first 0 path " + path : dropped);
        const texts moved = {"session " + id + ": path -> " + name + " " + text(*from),
                             "10 path=" + cls + " session=" + id + " addr=" + text(*from)};
        EXPECT_EQ(host.told(), name.empty() ? texts{} : moved);
        for (const auto &echo : host.take())
            EXPECT_EQ(text(echo.to), text(*from)); // echoes go to the source
    }
}

TEST_F(ConnHost, RekeyChangesKeysAndKeepsTheSession) {
    host_rig host;
    hand_client client, old;
    const uint32_t session = connect(host, client, at_a);
    const std::string id = hex8(session), same = "1 " + id + " " + id + " first 0 path 2";
    old = client;
    for (int i = 0; i < 5; i++)
        host.receive(sealed(old), at_a); // up to number 5 under the old keys
    ASSERT_TRUE(client.shake(host, at_a, ++stamp));
    EXPECT_EQ(got(host.receive(sealed(old), at_a)), same); // goes on under the old ones
    EXPECT_TRUE(host.quiet());

    virtual_clock::advance(ms);
    const bytes request = plain(TARN_PKT_REKEY, le32(session));
    bytes ack = plain(TARN_PKT_REKEY_ACK, le32(session));
    put_u32(ack.data() + 4, client.keys.id);
    // Its number 0 moves the path all the same. If the acknowledgement is lost and asked for again, it is
    // given again, to where the request comes from, and nothing moves.
    for (const tarn_addr *from : {&at_b, &at_lan}) {
        host.receive(seal(client.keys, request), *from);
        const auto sent = host.take();
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(text(sent[0].to), text(*from));
        EXPECT_EQ(open(client.keys, sent[0].data), ack);
        EXPECT_EQ(host.h->links[0].last_rx_us, conn_now());
        const texts moved = {"session " + id + ": path -> Direct 198.51.100.20:6000",
                             "session " + id + " rekeyed (crypto session " + hex8(client.keys.id) + ")",
                             "10 path=2 session=" + id + " addr=198.51.100.20:6000", "11 session=" + id};
        EXPECT_EQ(host.told(), from == &at_b ? moved : texts{});
    }
    host.receive(sealed(client, TARN_PKT_REKEY, {1, 2, 3}), at_lan); // too short
    host.receive(seal(old.keys, request), at_lan);                   // not under the current keys
    EXPECT_TRUE(host.quiet());

    // Old keys open for 5 seconds and count as life, but no longer steer; sealing is under the new ones.
    bytes out(32);
    ASSERT_EQ(host.seal_for(session, plain(4), out), 32u);
    EXPECT_FALSE(open(client.keys, out).empty());
    EXPECT_EQ(got(host.receive(sealed(client), at_b)), same);
    virtual_clock::advance(5 * second);
    host.tick();
    EXPECT_EQ(got(host.receive(sealed(old), at_lan)), same);
    host.receive(seal(old.keys, probe(1)), at_lan);
    EXPECT_EQ(open(old.keys, host.take().at(0).data).size(), 20u); // under the keys that it came under
    EXPECT_EQ(host.h->links[0].last_rx_us, conn_now());
    EXPECT_EQ(text(host.h->links[0].addr), text(at_b));
    virtual_clock::advance(1);
    host.tick();
    EXPECT_EQ(got(host.receive(sealed(old), at_b)), dropped);
    EXPECT_TRUE(wiped(host.h->slots[0]));
    EXPECT_EQ(host.h->links[0].previous, -1);

    // Two rekeys within 5 seconds: the oldest keys go at once.
    old = client;
    rekey(host, client, session, at_b);
    hand_client between = client;
    rekey(host, client, session, at_b);
    EXPECT_EQ(got(host.receive(sealed(old), at_b)), dropped);
    EXPECT_EQ(got(host.receive(sealed(between), at_b)), same);
    EXPECT_EQ(slots(host, SLOT_IN_USE), 2);
    tarn_host_session_close(host.h, session);
    EXPECT_TRUE(std::all_of(host.h->slots, host.h->slots + host_slots_max, wiped));
}

TEST_F(ConnHost, RekeyOfSomethingElseCostsTheNewKeys) {
    host_rig host(2);
    hand_client client, other(2);
    const uint32_t theirs = connect(host, other, at_b);
    virtual_clock::advance(3 * second);
    const uint32_t session = connect(host, client, at_a);
    for (const bytes &body : {le32(session + 1), le32(theirs), le32(0), bytes{1, 2, 3}}) {
        ASSERT_TRUE(client.shake(host, at_a, ++stamp));
        host.receive(sealed(client, TARN_PKT_REKEY, body), at_a);
        EXPECT_TRUE(host.quiet());
        EXPECT_EQ(got(host.receive(sealed(client), at_a)), dropped);
        EXPECT_TRUE(wiped(host.h->slots[2]) && slots(host, SLOT_FREE) == 22);
    }
}

TEST_F(ConnHost, ThingsEndAtTheirTimeAndNotBefore) {
    host_rig host;
    hand_client client, idle;
    const uint32_t session = connect(host, client, at_a);
    ASSERT_TRUE(idle.shake(host, at_a, ++stamp));
    virtual_clock::advance(10 * second);
    EXPECT_EQ(host.tick(), 250000); // nothing that waits here hurries the caller
    EXPECT_EQ(slots(host, SLOT_PENDING), 1);
    virtual_clock::advance(1);
    host.tick();
    EXPECT_TRUE(wiped(host.h->slots[1]));
    EXPECT_EQ(got(host.receive(sealed(idle), at_a)), dropped);

    host.receive(sealed(client, TARN_PKT_PROBE_ACK, bytes(12)), at_a); // any authentic packet is life
    virtual_clock::advance(60 * second);
    host.tick();
    EXPECT_TRUE(known(host, session));
    virtual_clock::advance(1);
    EXPECT_EQ(host.tick(), 250000);
    EXPECT_EQ(host.told(), texts{"session " + hex8(session) + " expired (idle)"});
    tarn_session_info info;
    memset(&info, 1, sizeof info);
    EXPECT_EQ(tarn_host_session_info_get(host.h, session, &info), -1);
    EXPECT_TRUE(all_zero(&info, sizeof info));
    EXPECT_TRUE(wiped(host.h->slots[0]) && all_zero(&host.h->links[0], sizeof host.h->links[0]));
}

TEST_F(ConnHost, OneClientAtATimeInSeveralSessions) {
    host_rig host(2);
    hand_client a(1), a2(1), b(2), late(2);
    const uint32_t session = connect(host, a, at_a);
    connect(host, a2, at_a);
    virtual_clock::advance(2 * second);
    host.receive(sealed(a), at_a); // the youngest of two links decides
    virtual_clock::advance(3 * second - 1);
    const bytes init = b.start(host, 7), before = snapshot(host);
    host.receive(init, at_b);
    EXPECT_EQ(host.take().at(0).data, reject_packet(2));
    EXPECT_EQ(snapshot(host), before);
    EXPECT_TRUE(a2.shake(host, at_a, ++stamp)); // the same client is never busy with itself
    virtual_clock::advance(1);
    host.receive(init, at_b); // the rejected init is still good
    ASSERT_TRUE(b.finish(host.take().at(0).data));
    host.receive(late.start(host, 7), at_b);
    EXPECT_TRUE(host.quiet());
    EXPECT_EQ(host.receive(sealed(b), at_b).result, TARN_RECV_DATA);
    EXPECT_TRUE(known(host, session)); // the silent one still exists
}

TEST_F(ConnHost, NinthSessionTakesThePlaceOfTheMostSilent) {
    host_rig host;
    std::vector<hand_client> all(9);
    std::vector<uint32_t> ids;
    for (size_t i = 0; i < 8; i++) {
        ids.push_back(connect(host, all[i], at_a));
        virtual_clock::advance(100 * ms);
    }
    for (size_t i : {0u, 1u, 2u, 4u, 5u, 6u, 7u})
        host.receive(sealed(all[i]), at_a);
    const uint32_t ninth = connect(host, all[8], at_a);
    for (size_t i = 0; i < 8; i++)
        EXPECT_EQ(known(host, ids[i]), i != 3);
    EXPECT_EQ(host.h->links[3].session, ninth);
    EXPECT_EQ(got(host.receive(sealed(all[3]), at_a)), dropped);
    EXPECT_EQ(slots(host, SLOT_IN_USE), 8);
    tarn_host_session_close(host.h, ids[0]);
    tarn_host_session_close(host.h, 0);
    EXPECT_TRUE(!known(host, ids[0]) && slots(host, SLOT_IN_USE) == 7);
}

TEST_F(ConnHost, FloodChangesNothing) {
    host_rig host(2);
    hand_client client, other;
    std::vector<bytes> replays = {client.start(host, ++stamp), other.start(host, 1)}, unseen;
    host.receive(replays[0], at_a);
    host.take();
    connect(host, client, at_a);
    for (int i = 0; i < 20; i++) {
        replays.push_back(seal(client.keys, i % 2 ? probe(1) : plain(3, bytes(100))));
        host.receive(replays.back(), at_a);
        unseen.push_back(sealed(client, static_cast<uint8_t>(60 + i), bytes(40)));
    }
    const bytes fresh = other.start(host, ++stamp);
    host.take();
    const bytes before = snapshot(host);
    test_random random(5);
    const auto pick = [&](const std::vector<bytes> &all) { return all[random.below(all.size())]; };
    for (int i = 0; i < 20000; i++) {
        bytes p = i % 4 ? pick(unseen) : i % 8 ? pick(replays) : fresh;
        if (i % 4 == 3)
            p.resize(p.size() - 1 - random.below(p.size()));
        else if (i % 8 != 4)
            p[8 + random.below(p.size() - 8)] ^= static_cast<uint8_t>(1u << random.below(8));
        ASSERT_EQ(host.receive(p, i % 2 ? at_a : at_b).result, TARN_RECV_NONE) << i;
        virtual_clock::advance(50);
    }
    EXPECT_TRUE(host.take().empty());
    EXPECT_EQ(snapshot(host), before);
    for (const bytes &p : unseen)
        EXPECT_EQ(host.receive(p, at_a).result, TARN_RECV_DATA); // the real client goes on
}

} // namespace
