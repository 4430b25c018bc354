// The host engine by itself, against packets made by hand: what it answers, what it drops, and when things end.
#include <gtest/gtest.h>

#include <stddef.h>

#include "bytes_internal.h"
#include "conn_host_internal.h"
#include "support/engine_rig.h"
#include "support/seeded_random.h"
#include "support/virtual_clock.h"

namespace {

constexpr int64_t ms = 1000, second = 1000000;
const tarn_addr at_a = ep("203.0.113.10:5000"), at_b = ep("198.51.100.20:6000"),
                at_lan = ep("192.168.1.5:7000");

class ConnHost : public testing::Test {
protected:
    ConnHost() {
        virtual_clock::reset();
        seeded_random::reset(1);
    }
    uint64_t stamp = 1000; // the last handshake timestamp used

    // A handshake and a first data packet; what that logs and reports is thrown away.
    uint32_t connect(host_rig &host, hand_client &client, const tarn_addr &from) {
        EXPECT_TRUE(client.shake(host, from, ++stamp));
        EXPECT_EQ(host.receive(seal(client.keys, plain(TARN_PKT_PING)), from).result, TARN_RECV_DATA);
        host.take_log();
        host.events();
        return client.keys.id;
    }
    // A further handshake whose keys are attached to a session.
    void rekey(host_rig &host, hand_client &client, uint32_t session, const tarn_addr &from) {
        ASSERT_TRUE(client.shake(host, from, ++stamp));
        host.receive(seal(client.keys, plain(TARN_PKT_REKEY, le32(session))), from);
        host.take();
    }
    static int used_slots(const host_rig &host, uint32_t state) {
        int n = 0;
        for (const crypto_slot &slot : host.h->slots)
            n += slot.state == state;
        return n;
    }
};

bool all_zero(const void *p, size_t n) {
    for (size_t i = 0; i < n; i++) {
        if (static_cast<const uint8_t *>(p)[i] != 0) return false;
    }
    return true;
}
// A free slot holds no key any more, and no link.
bool wiped(const crypto_slot &s) {
    return s.state == SLOT_FREE && s.link == -1 && all_zero(&s.session, sizeof s.session);
}

// The whole record but the lock and the buckets at its end.
bytes snapshot(const host_rig &host) {
    const uint8_t *from = reinterpret_cast<const uint8_t *>(host.h);
    return bytes(from + offsetof(tarn_host, base) + sizeof(conn_lock),
                 from + offsetof(tarn_host, handshake_bucket));
}
bytes probe(uint8_t flags, size_t size = 20) {
    bytes body(size - 8);
    for (size_t i = 0; i < body.size(); i++)
        body[i] = static_cast<uint8_t>(i + 1);
    return plain(TARN_PKT_PROBE, body, flags);
}
// What a data packet of this session reports at the host.
std::string got(const received &r) {
    return std::to_string(r.result) + (r.data.size() < 8 ? "" : " " + hex8(get_u32(r.data.data() + 4))) +
           " " + hex8(r.info.session) + " first " + std::to_string(r.info.first) + " path " +
           std::to_string(r.info.path);
}
const char *const dropped = "0 00000000 first 0 path 0";

TEST_F(ConnHost, CreateAndDispatch) {
    EXPECT_EQ(tarn_host_create(nullptr, nullptr, nullptr), nullptr);
    host_rig mute(0, [](tarn_host_config &c) { c.send = nullptr; });
    EXPECT_EQ(mute.h, nullptr);
    for (uint32_t allow : {0u, 1u}) {
        host_rig host(1, [&](tarn_host_config &c) { c.allow_plain = allow; });
        EXPECT_EQ(tarn_host_tick(host.h), 250000);
        for (unsigned type = 0; type < 256; type++) {
            const bool to_caller = type == TARN_PKT_DISCOVER || (allow && (type < 80 || type > 111));
            const received r = host.receive(plain(static_cast<uint8_t>(type), le32(1)), at_a);
            EXPECT_EQ(r.result, to_caller ? TARN_RECV_PLAIN : TARN_RECV_NONE) << type;
            EXPECT_TRUE(r.data.empty() && all_zero(&r.info, sizeof r.info)); // both are cleared at first
            const bool refused = type == TARN_PKT_HELLO && !allow;
            const auto sent = host.take();
            ASSERT_EQ(sent.size(), refused ? 1u : 0u) << type;
            if (!refused) continue;
            EXPECT_EQ(sent[0].data,
                      bytes({0x50, 1, 2, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
        }
        bytes p = plain(TARN_PKT_DISCOVER);
        EXPECT_EQ(host.receive(p, at_a).result, TARN_RECV_PLAIN);
        EXPECT_EQ(host.receive(bytes(p.begin(), p.end() - 1), at_a).result, TARN_RECV_NONE);
        for (const auto &[at, value] : {std::pair{0, 0x51}, {1, 0}, {1, 3}}) {
            bytes bad = p;
            bad[static_cast<size_t>(at)] = static_cast<uint8_t>(value);
            EXPECT_EQ(host.receive(bad, at_a).result, TARN_RECV_NONE);
        }
        EXPECT_EQ(host.receive({}, at_a).result, TARN_RECV_NONE);
    }
    tarn_client_list list =
        {}; // names are cleaned on their way in, and a count beyond the table is not believed
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
    hand_client client;
    const bytes init = client.start(host, 500);
    for (size_t size : {111u, 113u}) {
        bytes bad = init;
        bad.resize(size);
        host.receive(bad, at_a);
    }
    bytes bad = init;
    bad[4] = 1;
    host.receive(bad, at_a);
    EXPECT_TRUE(host.take().empty());

    host.receive(init, at_a);
    const bytes random_state = snapshot(host);
    const int draws = seeded_random::draws();
    virtual_clock::advance(40 * second);
    host.receive(init,
                 at_b); // a repeat: answered where it comes from, with the same bytes and no second slot
    for (int i = 0; i < 100; i++)
        host.receive(init, at_b);
    EXPECT_EQ(snapshot(host), random_state);
    EXPECT_EQ(seeded_random::draws(), draws);
    auto sent = host.take();
    ASSERT_EQ(sent.size(), 102u);
    EXPECT_EQ(text(sent[0].to), text(at_a));
    EXPECT_EQ(text(sent[1].to), text(at_b));
    EXPECT_EQ(sent[0].data, sent[101].data);
    EXPECT_TRUE(client.finish(sent[0].data));
    EXPECT_EQ(used_slots(host, SLOT_PENDING), 1);

    for (uint64_t stale : {500u, 499u, 0u}) { // another init under a used or an older timestamp is a replay
        host.receive(client.start(host, stale), at_a);
        EXPECT_TRUE(host.take().empty()) << stale;
    }
    host.receive(client.start(host, 501), at_a);
    EXPECT_EQ(host.take().size(), 1u);
    EXPECT_EQ(used_slots(host, SLOT_PENDING), 2);
    host.receive(init, at_a); // the first one is a replay now, too
    EXPECT_TRUE(host.take().empty());
    EXPECT_TRUE(host.take_log().empty() && host.events().empty());
}

TEST_F(ConnHost, UnknownKeyIsRejectedAndReported) {
    host_rig host;
    hand_client stranger(9);
    host.receive(stranger.start(host, 1), at_a);
    auto sent = host.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].data, bytes({0x50, 1, 90, 0, 0, 0, 0, 0, 1}));
    const std::string code = code_of(stranger.key.public_key);
    EXPECT_EQ(host.take_log(),
              texts{"handshake from unknown device " + code + " at 203.0.113.10:5000: rejected"});
    EXPECT_EQ(host.events(), texts{"7 detail=1 addr=203.0.113.10:5000 key=" + code});
    EXPECT_EQ(used_slots(host, SLOT_FREE), 24);
}

TEST_F(ConnHost, EveryReplyToAStrangerPassesItsBucket) {
    // For each limit: what is asked, how many come through at once, how long one more takes, and what it is counted by.
    const struct {
        const char *what;
        int burst;
        int64_t refill_us;
    } rows[] = {
        {"handshake", 40, 50000}, {"reject", 10, 200000}, {"unknown", 3, 1000000}, {"hello", 10, 200000}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const std::string what = row.what;
        host_rig host(1);
        hand_client stranger(9), known(1);
        const bytes hello = plain(TARN_PKT_HELLO, bytes(33));
        uint64_t asked = 0;
        const auto ask = [&] { // 1 if it was answered
            if (what == "handshake") {
                host.receive(known.start(host, ++asked), at_a);
                return static_cast<int>(host.take().size());
            }
            if (what == "hello") {
                host.receive(hello, at_a);
                return static_cast<int>(host.take().size());
            }
            host.h->handshake_bucket = {};
            host.receive(stranger.start(host, 1), at_a);
            const int rejects = static_cast<int>(host.take().size()),
                      logs = static_cast<int>(host.take_log().size());
            EXPECT_EQ(host.events().size(), static_cast<size_t>(logs));
            return what == "reject" ? rejects : logs;
        };
        const auto flood = [&] {
            int n = 0;
            for (int i = 0; i < 60; i++)
                n += ask();
            return n;
        };
        EXPECT_EQ(flood(), row.burst);
        virtual_clock::advance(row.refill_us - 1);
        EXPECT_EQ(ask(), 0);
        virtual_clock::advance(1);
        EXPECT_EQ(flood(), 1);
        virtual_clock::advance(5 * row.refill_us / 2);
        EXPECT_EQ(flood(), 2);
        virtual_clock::advance(row.refill_us / 2); // the half of before counts
        EXPECT_EQ(flood(), 1);
        virtual_clock::advance(3600 * second);
        EXPECT_EQ(flood(), row.burst);
    }
    host_rig host; // garbage costs the host as much as a good init, so it comes out of the same bucket
    hand_client client;
    for (int i = 0; i < 39; i++)
        host.receive(plain(TARN_PKT_HS_INIT, bytes(104)), at_a);
    EXPECT_TRUE(client.shake(host, at_a, 1));
    host.receive(client.start(host, 2), at_a);
    EXPECT_TRUE(host.take().empty());
}

TEST_F(ConnHost, SessionIdsAreNeverZeroOrTaken) {
    host_rig host;
    hand_client client;
    const uint32_t session = connect(host, client, at_a);
    rekey(host, client, session, at_a);
    virtual_clock::advance(6 * second);
    tarn_host_tick(host.h); // the first keys are gone: only the link still holds the id
    const bytes init = client.start(host, ++stamp);
    for (uint32_t taken : {uint32_t{0}, session, client.keys.id, uint32_t{0xABCD1234}}) {
        const bytes draw = le32(taken);
        seeded_random::push(draw.data(), draw.size());
    }
    host.receive(init, at_a);
    ASSERT_TRUE(client.finish(host.take().at(0).data));
    EXPECT_EQ(client.keys.id, 0xABCD1234u);
    const bytes next = client.start(host, ++stamp);
    seeded_random::push("\x34\x12\xCD\xAB\x01\x00\x00\x00", 8); // taken by a pending slot
    host.receive(next, at_a);
    ASSERT_TRUE(client.finish(host.take().at(0).data));
    EXPECT_EQ(client.keys.id, 1u);
}

TEST_F(ConnHost, FailedRandomSourceLeavesNothingHalfMade) {
    int failures = 0;
    for (int n = 1;; n++) {
        seeded_random::reset(1);
        host_rig host;
        hand_client client;
        const bytes init = client.start(host, 1);
        const bytes before = snapshot(host);
        seeded_random::fail_at(n);
        host.receive(init, at_a);
        seeded_random::fail_at(0);
        if (!host.take().empty()) break;
        failures++;
        EXPECT_EQ(snapshot(host), before) << n;
        host.receive(init, at_a); // the very same init is good for a second try
        const auto sent = host.take();
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_TRUE(client.finish(sent[0].data));
    }
    EXPECT_EQ(failures, 2); // session id and ephemeral key
}

TEST_F(ConnHost, FullSlotTableGivesUpItsOldestPendingSlot) {
    host_rig host(2);
    hand_client first, second_client, other(2);
    ASSERT_TRUE(first.shake(host, at_a, 1));
    virtual_clock::advance(ms);
    ASSERT_TRUE(second_client.shake(host, at_a, 2));
    hand_client rest;
    for (uint64_t i = 3; i <= 25; i++) {
        virtual_clock::advance(100 * ms);
        ASSERT_TRUE(rest.shake(host, at_a, i)) << i;
    }
    EXPECT_EQ(used_slots(host, SLOT_PENDING), 24);
    EXPECT_EQ(host.h->slots[0].session.id, rest.keys.id);
    EXPECT_EQ(got(host.receive(seal(first.keys, plain(TARN_PKT_PING)), at_a)), dropped);
    EXPECT_EQ(host.receive(seal(second_client.keys, plain(TARN_PKT_PING)), at_a).result, TARN_RECV_DATA);
    ASSERT_TRUE(rest.shake(host, at_a, 26)); // slot 1 is in use: the oldest pending one is number 2
    EXPECT_EQ(host.h->slots[2].session.id, rest.keys.id);

    for (crypto_slot &slot : host.h->slots)
        slot.state = SLOT_IN_USE;
    const bytes before = snapshot(host);
    host.receive(first.start(host, 27), at_a);
    const auto sent = host.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].data, bytes({0x50, 1, 90, 0, 0, 0, 0, 0, 2}));
    EXPECT_EQ(snapshot(host), before);
    for (crypto_slot &slot : host.h->slots)
        slot.state = SLOT_PENDING;
}

TEST_F(ConnHost, FirstPacketMakesTheSession) {
    const std::string code = code_of(test_key(1).public_key);
    const struct {
        bytes first;
        const char *reply;
        const tarn_addr *from;
        const char *via;
    } rows[] = {
        {plain(TARN_PKT_PING), "", &at_a, "Direct"},
        {probe(1), "\x50\x01\x5C", &at_lan, "LAN"},
        {probe(0), "\x50\x01\x5C", &at_a, "Direct"},
        {probe(1, 19), "", &at_a, "Direct"},
        {plain(TARN_PKT_PROBE_ACK, bytes(12)), "", &at_a, "Direct"},
        {plain(TARN_PKT_REKEY_ACK, bytes(4)), "", &at_a, "Direct"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        host_rig host;
        hand_client client;
        ASSERT_TRUE(client.shake(host, at_b, ++stamp));
        EXPECT_TRUE(host.take_log().empty() && host.events().empty());
        const std::string id = hex8(client.keys.id);
        const std::string path = row.from == &at_lan ? "1" : "2";
        const bool data = row.first[2] == TARN_PKT_PING;
        EXPECT_EQ(got(host.receive(seal(client.keys, row.first), *row.from)),
                  data ? "1 " + id + " " + id + " first 1 path 2" : dropped);
        EXPECT_EQ(host.take_log(), texts{"session " + id + ": \"client 1\" (" + code + ") connected via " +
                                         row.via + " " + text(*row.from)});
        EXPECT_EQ(host.events(), texts{"6 path=" + path + " session=" + id + " addr=" + text(*row.from) +
                                       " key=" + code + " name=client 1"});
        const auto sent = host.take();
        ASSERT_EQ(sent.size(), strlen(row.reply) ? 1u : 0u);
        if (!sent.empty()) { // the probe as it was, but for its type and its flags
            bytes echo = probe(0);
            echo[2] = TARN_PKT_PROBE_ACK;
            put_u32(echo.data() + 4, client.keys.id);
            EXPECT_EQ(open(client.keys, sent[0].data), echo);
            EXPECT_EQ(text(sent[0].to), text(*row.from));
        }
        EXPECT_EQ(got(host.receive(seal(client.keys, plain(TARN_PKT_PING)), *row.from)),
                  "1 " + id + " " + id + " first " + (data ? "0" : "1") + " path " + path);
        tarn_session_info info;
        ASSERT_EQ(tarn_host_session_info_get(host.h, client.keys.id, &info), 0);
        EXPECT_EQ(hex8(info.session) + text(info.addr) + code_of(info.key) + info.name,
                  id + text(*row.from) + code + "client 1");
        EXPECT_EQ(info.path, path[0] - '0');
        EXPECT_EQ(info.last_rx_us, conn_now());
    }
}

TEST_F(ConnHost, OpensInPlaceAndSealsForTheSession) {
    host_rig host;
    hand_client client;
    const uint32_t session = connect(host, client, at_a);
    bytes buffer = seal(client.keys, plain(TARN_PKT_INPUT, {1, 2, 3}, 7));
    size_t len;
    ASSERT_EQ(tarn_host_receive(host.h, buffer.data(), buffer.size(), &at_b, buffer.data(), buffer.size(),
                                &len, nullptr),
              TARN_RECV_DATA);
    buffer.resize(len);
    bytes want = plain(TARN_PKT_INPUT, {1, 2, 3}, 7);
    put_u32(want.data() + 4, session);
    EXPECT_EQ(buffer, want);

    uint8_t out[64];
    tarn_addr to = {};
    const struct {
        uint32_t session;
        bytes packet;
        size_t cap, want;
    } rows[] = {{session, plain(TARN_PKT_PONG, {9}), 33, 33},
                {session, plain(TARN_PKT_PONG, {9}), 32, 0},
                {session, bytes(7), 64, 0},
                {session, seal(client.keys, plain(3)), 64, 0},
                {session + 1, plain(3), 64, 0},
                {0, plain(3), 64, 0}};
    for (const auto &row : rows) {
        EXPECT_EQ(
            tarn_host_seal(host.h, row.session, row.packet.data(), row.packet.size(), out, row.cap, nullptr),
            row.want);
    }
    const bytes pong = plain(TARN_PKT_PONG, {9});
    len = tarn_host_seal(host.h, session, pong.data(), pong.size(), out, sizeof out, &to);
    EXPECT_EQ(open(client.keys, bytes(out, out + len)).back(), 9);
    EXPECT_EQ(text(to), text(at_b)); // where the last packet came from

    bytes no_room = seal(client.keys, plain(3, {1, 2}));
    EXPECT_EQ(tarn_host_receive(host.h, no_room.data(), no_room.size(), &at_a, out, 9, &len, nullptr),
              TARN_RECV_NONE);
    EXPECT_EQ(tarn_host_receive(host.h, no_room.data(), no_room.size(), &at_a, out, 10, &len, nullptr),
              TARN_RECV_DATA);
}

TEST_F(ConnHost, PathFollowsTheNewestPacketOfTheClient) {
    host_rig host(1, [](tarn_host_config &c) {
        tarn_relay_config_add_link(&c.relays, "tarnglider-relay://192.168.1.9:9877#k");
    });
    hand_client client;
    const uint32_t session = connect(host, client, at_a); // packet 0
    const std::string id = hex8(session);
    std::vector<bytes> later;
    for (int i = 1; i <= 8; i++)
        later.push_back(seal(client.keys, i == 3 ? probe(0) : i == 4 || i == 8 ? probe(1) : plain(3)));
    const tarn_addr relay = ep("192.168.1.9:9877");
    const struct {
        int number;
        const tarn_addr *from;
        const char *moved;
        const char *path;
    } rows[] = {
        {2, &at_b, "Direct 198.51.100.20:6000", "2"},
        {1, &at_a, "", "2"},  // older, from the address that was left
        {3, &at_lan, "", ""}, // a probe of a spare path
        {5, &at_b, "", "2"},  // no move, but it counts as the newest
        {4, &at_lan, "", ""}, // so an older flagged probe doesn't move it either
        {6, &relay, "Relay 192.168.1.9:9877", "4"},
        {8, &at_lan, "LAN 192.168.1.5:7000", ""},
        {7, &at_a, "", "1"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.number);
        const received r = host.receive(later[static_cast<size_t>(row.number - 1)], *row.from);
        EXPECT_EQ(got(r), *row.path ? "1 " + id + " " + id + " first 0 path " + row.path : dropped);
        const std::string moved = row.moved;
        EXPECT_EQ(host.take_log(), moved.empty() ? texts{} : texts{"session " + id + ": path -> " + moved});
        const char cls = moved[0] == 'L' ? '1' : moved[0] == 'R' ? '4' : '2';
        EXPECT_EQ(host.events(), moved.empty() ? texts{}
                                               : texts{std::string("10 path=") + cls + " session=" + id +
                                                       " addr=" + text(*row.from)});
        for (const auto &echo : host.take())
            EXPECT_EQ(text(echo.to), text(*row.from)); // echoes go to the source
    }
}

TEST_F(ConnHost, RekeyChangesKeysAndKeepsTheSession) {
    host_rig host(2);
    hand_client client;
    const uint32_t session = connect(host, client, at_a);
    const std::string id = hex8(session);
    tarn_session old = client.keys;
    for (int i = 0; i < 5; i++)
        host.receive(seal(old, plain(3)), at_a); // number 5 under the old keys
    ASSERT_TRUE(client.shake(host, at_a, ++stamp));
    EXPECT_TRUE(host.take_log().empty());
    EXPECT_EQ(host.receive(seal(old, plain(3)), at_a).result, TARN_RECV_DATA); // goes on under the old ones

    host.receive(seal(client.keys, plain(TARN_PKT_REKEY, le32(session))),
                 at_b); // number 0 moves the path, by force
    auto sent = host.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(text(sent[0].to), text(at_b));
    bytes ack = plain(TARN_PKT_REKEY_ACK, le32(session));
    put_u32(ack.data() + 4, client.keys.id);
    EXPECT_EQ(open(client.keys, sent[0].data), ack);
    EXPECT_EQ(host.take_log(),
              (texts{"session " + id + ": path -> Direct 198.51.100.20:6000",
                     "session " + id + " rekeyed (crypto session " + hex8(client.keys.id) + ")"}));
    EXPECT_EQ(host.events(),
              (texts{"10 path=2 session=" + id + " addr=198.51.100.20:6000", "11 session=" + id}));

    // The acknowledgement was lost: asked again, it is given again, to where the request comes from, and nothing moves.
    host.receive(seal(client.keys, plain(TARN_PKT_REKEY, le32(session))), at_lan);
    sent = host.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(text(sent[0].to), text(at_lan));
    EXPECT_EQ(open(client.keys, sent[0].data), ack);
    host.receive(seal(client.keys, plain(TARN_PKT_REKEY, {1, 2, 3})), at_lan); // too short
    host.receive(seal(old, plain(TARN_PKT_REKEY, le32(session))), at_lan);     // not under the current keys
    EXPECT_TRUE(host.take().empty() && host.take_log().empty() && host.events().empty());

    // Old keys open for 5 seconds and count as life, but no longer steer; sealing is under the new ones.
    uint8_t out[64];
    const bytes pong = plain(4);
    EXPECT_FALSE(
        open(client.keys, bytes(out, out + tarn_host_seal(host.h, session, pong.data(), 8, out, 64, nullptr)))
            .empty());
    virtual_clock::advance(5 * second);
    tarn_host_tick(host.h);
    EXPECT_EQ(got(host.receive(seal(old, plain(3)), at_lan)), "1 " + id + " " + id + " first 0 path 2");
    host.receive(seal(old, probe(1)), at_lan);
    EXPECT_EQ(host.take().size(), 1u);
    EXPECT_EQ(host.h->links[0].last_rx_us, conn_now());
    EXPECT_EQ(text(host.h->links[0].addr), text(at_b));
    virtual_clock::advance(1);
    tarn_host_tick(host.h);
    EXPECT_EQ(got(host.receive(seal(old, plain(3)), at_b)), dropped);
    EXPECT_TRUE(wiped(host.h->slots[0]));
    EXPECT_EQ(host.h->links[0].previous, -1);

    // Two rekeys within 5 seconds: the oldest keys go at once.
    old = client.keys;
    rekey(host, client, session, at_b);
    tarn_session between = client.keys;
    rekey(host, client, session, at_b);
    EXPECT_EQ(got(host.receive(seal(old, plain(3)), at_b)), dropped);
    EXPECT_EQ(host.receive(seal(between, plain(3)), at_b).result, TARN_RECV_DATA);
    EXPECT_EQ(used_slots(host, SLOT_IN_USE), 2);
    tarn_host_session_close(host.h, session);
    EXPECT_EQ(used_slots(host, SLOT_FREE), 24);
    for (const crypto_slot &slot : host.h->slots)
        EXPECT_TRUE(wiped(slot));
}

TEST_F(ConnHost, RekeyOfSomethingElseCostsTheNewKeys) {
    host_rig host(2);
    hand_client client, other(2);
    const uint32_t theirs = connect(host, other, at_b);
    virtual_clock::advance(3 * second);
    const uint32_t session = connect(host, client, at_a);
    for (const bytes &body : {le32(session + 1), le32(theirs), le32(0), bytes{1, 2, 3}}) {
        ASSERT_TRUE(client.shake(host, at_a, ++stamp));
        host.receive(seal(client.keys, plain(TARN_PKT_REKEY, body)), at_a);
        EXPECT_TRUE(host.take().empty() && host.take_log().empty() && host.events().empty());
        EXPECT_EQ(got(host.receive(seal(client.keys, plain(3)), at_a)), dropped);
        EXPECT_EQ(used_slots(host, SLOT_FREE), 22);
        EXPECT_TRUE(wiped(host.h->slots[2]));
    }
}

TEST_F(ConnHost, ThingsEndAtTheirTimeAndNotBefore) {
    host_rig host;
    hand_client client, idle;
    const uint32_t session = connect(host, client, at_a);
    ASSERT_TRUE(idle.shake(host, at_a, ++stamp));
    virtual_clock::advance(10 * second);
    EXPECT_EQ(tarn_host_tick(host.h), 250000); // nothing that waits here hurries the caller
    EXPECT_EQ(used_slots(host, SLOT_PENDING), 1);
    virtual_clock::advance(1);
    tarn_host_tick(host.h);
    EXPECT_TRUE(wiped(host.h->slots[1]));
    EXPECT_EQ(got(host.receive(seal(idle.keys, plain(3)), at_a)), dropped);

    host.receive(seal(client.keys, plain(TARN_PKT_PROBE_ACK, bytes(12))),
                 at_a); // any authentic packet is life
    virtual_clock::advance(60 * second);
    tarn_host_tick(host.h);
    tarn_session_info info;
    EXPECT_EQ(tarn_host_session_info_get(host.h, session, &info), 0);
    virtual_clock::advance(1);
    EXPECT_EQ(tarn_host_tick(host.h), 250000);
    EXPECT_EQ(host.take_log(), texts{"session " + hex8(session) + " expired (idle)"});
    EXPECT_TRUE(host.events().empty());
    memset(&info, 1, sizeof info);
    EXPECT_EQ(tarn_host_session_info_get(host.h, session, &info), -1);
    EXPECT_TRUE(all_zero(&info, sizeof info));
    uint8_t out[64];
    const bytes pong = plain(4);
    EXPECT_EQ(tarn_host_seal(host.h, session, pong.data(), 8, out, 64, nullptr), 0u);
    EXPECT_TRUE(wiped(host.h->slots[0]));
    EXPECT_TRUE(all_zero(&host.h->links[0], sizeof host.h->links[0]));
}

TEST_F(ConnHost, OneClientAtATimeInSeveralSessions) {
    host_rig host(2);
    hand_client a(1), a2(1), b(2);
    const uint32_t session = connect(host, a, at_a);
    connect(host, a2, at_a);
    virtual_clock::advance(2 * second);
    host.receive(seal(a.keys, plain(3)), at_a); // the youngest of two links decides
    virtual_clock::advance(3 * second - 1);
    const bytes init = b.start(host, 7);
    const bytes before = snapshot(host);
    host.receive(init, at_b);
    auto sent = host.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].data, bytes({0x50, 1, 90, 0, 0, 0, 0, 0, 2}));
    EXPECT_EQ(snapshot(host), before);
    EXPECT_TRUE(a2.shake(host, at_a, ++stamp)); // the same client is never busy with itself
    virtual_clock::advance(1);
    host.receive(init, at_b); // the rejected init is still good
    sent = host.take();
    ASSERT_EQ(sent.size(), 1u);
    ASSERT_TRUE(b.finish(sent[0].data));
    host.receive(b.start(host, 7), at_b); // a replay is dropped before it is called busy
    EXPECT_TRUE(host.take().empty());
    EXPECT_EQ(host.receive(seal(b.keys, plain(3)), at_b).result, TARN_RECV_DATA);
    tarn_session_info info;
    EXPECT_EQ(tarn_host_session_info_get(host.h, session, &info), 0); // the silent one still exists
}

TEST_F(ConnHost, NinthSessionTakesThePlaceOfTheMostSilent) {
    host_rig host;
    std::vector<hand_client> all(9);
    std::vector<uint32_t> ids;
    for (int i = 0; i < 8; i++) {
        ids.push_back(connect(host, all[static_cast<size_t>(i)], at_a));
        virtual_clock::advance(100 * ms);
    }
    for (int i : {0, 1, 2, 4, 5, 6, 7})
        host.receive(seal(all[static_cast<size_t>(i)].keys, plain(3)), at_a);
    const uint32_t ninth = connect(host, all[8], at_a);
    EXPECT_TRUE(host.events().empty());
    tarn_session_info info;
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(tarn_host_session_info_get(host.h, ids[static_cast<size_t>(i)], &info), i == 3 ? -1 : 0);
    EXPECT_EQ(host.h->links[3].session, ninth);
    EXPECT_EQ(got(host.receive(seal(all[3].keys, plain(3)), at_a)), dropped);
    EXPECT_EQ(used_slots(host, SLOT_IN_USE), 8);
    tarn_host_session_close(host.h, ids[0]);
    tarn_host_session_close(host.h, 0);
    EXPECT_EQ(tarn_host_session_info_get(host.h, ids[0], &info), -1);
    EXPECT_EQ(used_slots(host, SLOT_IN_USE), 7);
}

TEST_F(ConnHost, FloodChangesNothing) {
    host_rig host(2);
    hand_client client;
    const bytes old_init = client.start(host, ++stamp);
    host.receive(old_init, at_a);
    host.take();
    connect(host, client, at_a);
    std::vector<bytes> replays = {old_init};
    for (int i = 0; i < 20; i++) {
        replays.push_back(seal(client.keys, i % 2 ? probe(1) : plain(3, bytes(100))));
        host.receive(replays.back(), at_a);
    }
    std::vector<bytes> good; // never delivered as they are
    for (int i = 0; i < 20; i++)
        good.push_back(seal(client.keys, plain(static_cast<uint8_t>(60 + i), bytes(40))));
    const bytes stale = client.start(host, 1), fresh = client.start(host, ++stamp);
    host.take();
    const bytes before = snapshot(host);
    test_random random(5);
    for (int i = 0; i < 20000; i++) {
        bytes p;
        switch (random.below(5)) {
        case 0: // a replay
            p = replays[random.below(replays.size())];
            break;
        case 1: // one bit of a sealed packet wrong
            p = good[random.below(good.size())];
            p[random.below(p.size())] ^= static_cast<uint8_t>(1u << random.below(8));
            break;
        case 2: // cut or stretched
            p = good[random.below(good.size())];
            p.resize(random.below(2) ? random.below(p.size()) : p.size() + 1 + random.below(9));
            break;
        case 3: // a handshake init: one bit wrong, or stale
            p = random.below(2) ? stale : fresh;
            if (p == fresh) p[8 + random.below(104)] ^= static_cast<uint8_t>(1u << random.below(8));
            break;
        default: // any bytes behind a fair beginning
            p.resize(8 + random.below(150));
            random.fill(p.data(), p.size());
            p[0] = TARN_MAGIC;
            p[1] = static_cast<uint8_t>(1 + random.below(2));
            if (p[2] == TARN_PKT_DISCOVER || p[2] == TARN_PKT_HELLO) p[2] = TARN_PKT_REKEY;
        }
        const received r = host.receive(p, random.below(2) ? at_a : at_b);
        ASSERT_EQ(r.result, TARN_RECV_NONE) << i;
        virtual_clock::advance(50);
    }
    EXPECT_TRUE(host.take().empty());
    EXPECT_EQ(snapshot(host), before);
    for (const bytes &p : good)
        host.receive(p, at_a); // and the real client goes on
    EXPECT_EQ(host.h->links[0].path_seq, 40u);
}

} // namespace
