// The client engine by itself, against a host played by hand: what it sends where, which keys it uses, and
// every rule of path choice at its exact border.
#include <gtest/gtest.h>

#include <sstream>

#include "bytes_internal.h"
#include "conn_client_internal.h"
#include "support/engine_rig.h"
#include "support/virtual_clock.h"

namespace {

constexpr int64_t ms = 1000, second = 1000000;
const tarn_addr at_lan = ep("192.168.1.10:9000"), at_direct = ep("203.0.113.5:9000"),
                at_p2p = ep("198.51.100.7:4000"), at_relay = ep("203.0.113.99:9877");

class ConnClient : public testing::Test {
protected:
    tarn_session host_keys = {};
    ConnClient() {
        virtual_clock::reset();
        seeded_random::reset(1);
    }
    // Brings a first session up over one direct path; its id is 0x11223344. Logs and events are thrown away.
    void connect(client_rig &rig, int64_t rtt_us = 20 * ms) {
        tarn_client_add_candidate(rig.c, &at_direct, 0);
        EXPECT_EQ(tarn_client_connect(rig.c), 0);
        rig.tick();
        const bytes init = rig.take().at(0).data;
        virtual_clock::advance(rtt_us);
        rig.receive(hand_respond(init, 0x11223344, &host_keys), at_direct);
        rig.told();
    }
    // Which of the paths 0 to 3 got something, as "1010".
    static std::string targets(const client_rig &rig, const std::vector<engine_rig::sent_packet> &sent) {
        std::string on = "0000";
        for (const auto &p : sent)
            on[static_cast<size_t>(path_find(rig.c, &p.to))] = '1';
        return on;
    }
};

// A ping, sealed for a session; empty if there is none.
bytes sealed_ping(client_rig &rig, uint32_t session) {
    bytes out(32);
    out.resize(rig.seal_for(session, plain(TARN_PKT_PING), out));
    return out;
}

TEST_F(ConnClient, CreateTakesDefaultsAndCopies) {
    EXPECT_EQ(tarn_client_create(nullptr), nullptr);
    EXPECT_EQ(client_rig([](tarn_client_config &c) { c.send = nullptr; }).c, nullptr);
    using values = std::vector<uint64_t>;
    const auto settings = [](const tarn_client *c) {
        return values{c->settle_us, c->silence_us, c->stable_us, c->rekey_packets, c->rekey_us};
    };
    client_rig rig([](tarn_client_config &c) { c.host_code = ""; });
    EXPECT_EQ(settings(rig.c), (values{2000000, 1200000, 3000000, uint64_t{1} << 40, 3600000000}));
    EXPECT_TRUE(rig.c->active_path == -1 && rig.c->code_known == 0 && rig.tick() == 250000);
    client_rig set([](tarn_client_config &c) {
        c.settle_ms = 1, c.silence_ms = 2, c.stable_ms = 3, c.rekey_packets = 4, c.rekey_seconds = 5;
        c.host_code = "0123-4567", c.host_key_known = 0;
    });
    EXPECT_EQ(settings(set.c), (values{1000, 2000, 3000, 4, 5000000}));
    uint8_t code[5];
    tarn_key_code_parse(code, "01234567");
    EXPECT_TRUE(set.c->code_known == 1 && memcmp(set.c->code_bits, code, 5) == 0);
    EXPECT_EQ(tarn_client_connect(set.c) + tarn_client_open_session(set.c), -2);
    EXPECT_EQ(set.c->mode, 0u);
    EXPECT_EQ(client_rig([](tarn_client_config &c) { c.host_code = "0123-456U"; }).c->code_known, 0u);
    tarn_client_destroy(nullptr);
}

TEST_F(ConnClient, CandidatesAreClassifiedAndKept) {
    client_rig rig;
    const std::tuple<const char *, int, int, const char *> rows[] = {
        {"203.0.113.5:9000", 1, 2, "path Direct 203.0.113.5:9000"}, // claims LAN, but its address doesn't
        {"192.168.1.10:9000", 2, 2, "path Direct 192.168.1.10:9000"},
        {"192.168.1.11:9000", 1, 1, "path LAN 192.168.1.11:9000"},
        {"198.51.100.1:1", 3, 2, "path Direct 198.51.100.1:1"},
        {"10.0.0.4:1", 4, 1, "path LAN 10.0.0.4:1"},
        {"[fd00::1]:7", -1, 1, "path LAN [fd00::1]:7"},
        {"192.168.1.10:9000", 1, 1, ""}, // the same endpoint takes the better class,
        {"192.168.1.11:9000", 2, 1, ""}, // but not the worse one
        {"203.0.113.5", 0, -1, ""},      // no port
        {"-", 0, -1, ""},
    };
    for (const auto &[addr, claim, cls, log] : rows) {
        SCOPED_TRACE(addr);
        const tarn_addr a = ep(addr);
        EXPECT_EQ(tarn_client_add_candidate(rig.c, &a, claim), cls < 0 ? -1 : 0);
        EXPECT_EQ(cls < 0 ? -1 : rig.c->paths[path_find(rig.c, &a)].path, cls);
        EXPECT_EQ(rig.take_log(), *log ? texts{log} : texts{});
    }
    EXPECT_EQ(tarn_client_add_candidate(rig.c, nullptr, 0), -1);
    tarn_addr a = ep("203.0.113.6:9000");
    EXPECT_EQ(path_add(rig.c, &a, TARN_PATH_RELAY, 2), 6);
    EXPECT_EQ(path_add(rig.c, &a, TARN_PATH_P2P, 1), 6); // the class gets better, the server stays
    for (int i = 7; i < 17; i++) {
        a.port++;
        EXPECT_EQ(tarn_client_add_candidate(rig.c, &a, 0), i < 16 ? 0 : -1) << i;
    }
    const tarn_client_status s = rig.status();
    EXPECT_EQ(s.path_count, 16);
    EXPECT_EQ(text(s.paths[1].addr), "192.168.1.10:9000");
    EXPECT_TRUE(s.paths[6].path == TARN_PATH_P2P && s.paths[6].server == 2);
    EXPECT_TRUE(s.max_datagram == 1200 && s.payload == 1176);
    EXPECT_TRUE(all_zero(&s, offsetof(tarn_client_status, max_datagram)));
}

TEST_F(ConnClient, HandshakeGoesOverEveryUsablePath) {
    // By route mode: which of LAN, Direct, P2P, Relay may carry anything.
    const char *usable[] = {"1111", "1110", "0001", "1110"};
    for (uint32_t mode = 0; mode < 4; mode++) {
        SCOPED_TRACE(mode);
        client_rig rig([&](tarn_client_config &c) { c.route_mode = mode; });
        for (int cls = 1; const tarn_addr *at : {&at_lan, &at_direct, &at_p2p})
            path_add(rig.c, at, cls++, -1);
        EXPECT_EQ(tarn_client_open_session(rig.c), 0);
        path_kick(rig.c, 1, conn_now());
        EXPECT_TRUE(rig.take().empty()); // there is no init yet
        EXPECT_EQ(rig.tick(), 50000);
        path_add(rig.c, &at_relay, TARN_PATH_RELAY, 0);
        path_kick(rig.c, 3, conn_now()); // a path that comes later gets the same init at once
        EXPECT_EQ(rig.c->paths[3].hs_sent_us, usable[mode][3] == '1' ? conn_now() : 0);
        const auto first = rig.take();
        EXPECT_EQ(targets(rig, first), usable[mode]);
        for (const auto &p : first)
            EXPECT_EQ(p.data, first[0].data);
        virtual_clock::advance(249 * ms);
        EXPECT_EQ(rig.tick(), 1000);
        EXPECT_TRUE(rig.take().empty());
        virtual_clock::advance(1 * ms);
        rig.tick();
        const auto again = rig.take();
        EXPECT_EQ(targets(rig, again), usable[mode]);
        EXPECT_NE(again[0].data, first[0].data);

        // A response to the init that the retry replaced is ignored, and so are damaged and overlong ones.
        // The good one counts even from a path that the mode forbids, but never makes that path active.
        tarn_session keys;
        const bytes response = hand_respond(again[0].data, 6, &keys);
        bytes damaged = response, longer = response;
        damaged[50] ^= 1;
        longer.push_back(0);
        for (const bytes &p : {hand_respond(first[0].data, 5, &keys), damaged, longer})
            rig.receive(p, at_direct);
        EXPECT_TRUE(rig.events().empty());
        virtual_clock::advance(30 * ms);
        rig.receive(response, mode == 2 ? at_lan : at_relay);
        EXPECT_EQ(rig.c->active_path, mode == 0 ? 3 : -1);
        const std::string key = " key=" + code_of(test_key(200).public_key);
        const std::string on_relay = "14 path=4 server=0 session=00000006 rtt=30000 addr=203.0.113.99:9877";
        EXPECT_EQ(rig.events(), texts{(mode == 0 ? on_relay : "14 session=00000006") + key});
        EXPECT_EQ(rig.log.back(), mode == 0 ? "session 00000006 up via Relay 203.0.113.99:9877 (rtt 30.0 ms)"
                                            : "session 00000006 up via - - (rtt 0.0 ms)");
        EXPECT_EQ(sealed_ping(rig, 0).size(), mode == 0 ? 32u : 0u);

        // From now on probes go to every usable path and to no other, also when all of them are silent.
        std::string probed = "0000";
        for (int i = 0; i < 100; i++) {
            rig.tick();
            for (const auto &p : rig.take())
                probed[static_cast<size_t>(path_find(rig.c, &p.to))] = '1';
            EXPECT_TRUE(rig.c->active_path < 0 || usable[mode][rig.c->active_path] == '1');
            virtual_clock::advance(100 * ms);
        }
        EXPECT_EQ(probed, usable[mode]);
    }
}

TEST_F(ConnClient, ResponseFromAnUnknownSourceMakesAPath) {
    for (uint32_t mode : {0u, 2u}) {
        client_rig rig([&](tarn_client_config &c) { c.route_mode = mode; });
        path_add(rig.c, &at_relay, TARN_PATH_RELAY, 0);
        tarn_client_connect(rig.c);
        rig.tick();
        rig.receive(hand_respond(rig.take().at(0).data, 5, &host_keys), at_lan);
        EXPECT_EQ(rig.c->active_path, mode == 0 ? 1 : -1);
        EXPECT_EQ(rig.c->paths[1].path, mode == 0 ? TARN_PATH_LAN : 0);
        EXPECT_EQ(rig.c->sessions[0].state, 2u);
    }
}

TEST_F(ConnClient, RoundTripTimesAreSmoothedAndCapped) {
    client_rig rig;
    connect(rig, 16 * ms);
    client_path *p = &rig.c->paths[0];
    EXPECT_EQ(p->rtt_us, 16000u);
    const bytes response(rig.c->sessions[0].hs_reply, rig.c->sessions[0].hs_reply + 60);
    path_add(rig.c, &at_lan, TARN_PATH_LAN, -1);
    rig.c->paths[1].hs_sent_us = conn_now() - 3000;
    rig.receive(response, at_lan); // the same response over another path only measures that path
    rig.receive(response, at_p2p);
    EXPECT_TRUE(rig.c->paths[1].rtt_us == 3000 && rig.c->active_path == 0);
    EXPECT_TRUE(rig.events().empty() && path_find(rig.c, &at_p2p) < 0);

    const std::pair<int64_t, uint32_t> rows[] = {{8000, 15000}, {15008, 15001},      {0, 13125},
                                                 {-1, 13125},   {10000000, 1261484}, {15000000, 2353798}};
    for (const auto &[age_us, want] : rows) { // an echo from the future gives no sample
        uint8_t echo[conn_probe_size];
        conn_make_probe(echo, TARN_PKT_PROBE_ACK, 0, 1, conn_now() - static_cast<uint64_t>(age_us));
        rig.receive(seal(host_keys, bytes(echo, echo + 20)), at_direct);
        EXPECT_EQ(p->rtt_us, want) << age_us;
    }
    const uint32_t before = p->rtt_us;
    rig.receive(seal(host_keys, plain(TARN_PKT_PROBE_ACK, bytes(11))), at_direct); // too short
    rig.receive(seal(host_keys, plain(TARN_PKT_PROBE_ACK, bytes(12))), at_p2p);    // from nowhere
    EXPECT_TRUE(p->rtt_us == before && path_find(rig.c, &at_p2p) < 0);
    // A gap, or a declared death, breaks a run.
    const std::tuple<int64_t, uint32_t, bool> runs[] = {
        {1500 * ms, 1, false}, {1500 * ms + 1, 1, true}, {1, 0, true}};
    for (const auto &[gap, alive, breaks] : runs) {
        p->ack_since_us = 1;
        p->alive = alive;
        virtual_clock::advance(gap);
        mark_ack(rig.c, 0, 1000, conn_now());
        EXPECT_EQ(p->ack_since_us, breaks ? conn_now() : 1);
        EXPECT_TRUE(p->alive == 1 && p->last_ack_us == conn_now() && p->last_rx_us == conn_now());
    }
}

TEST_F(ConnClient, RejectIsReportedNotObeyed) {
    client_rig rig, up;
    rig.receive(reject_packet(2), at_direct);
    EXPECT_TRUE(rig.quiet()); // idle
    tarn_client_add_candidate(rig.c, &at_direct, 0);
    tarn_client_connect(rig.c);
    rig.told();
    const std::pair<int64_t, bool> rows[] = {{0, true}, {2 * second, false}, {1, true}, {1, false}};
    for (const auto &[later, reported] : rows) {
        virtual_clock::advance(later);
        rig.receive(reject_packet(2), at_p2p);
        const texts report = {"host rejected the handshake (reason 2)", "15 detail=2"};
        EXPECT_EQ(rig.told(), reported ? report : texts{});
    }
    virtual_clock::advance(3 * second);
    bytes bad = reject_packet(2);
    bad.push_back(0);
    rig.receive(bad, at_direct);
    rig.tick();
    EXPECT_EQ(rig.take().size(), 1u); // it goes on trying
    connect(up);
    tarn_client_open_session(up.c);
    up.receive(reject_packet(2), at_direct);
    EXPECT_TRUE(rig.events().empty() && up.events().empty());
}

TEST_F(ConnClient, DispatchAndData) {
    client_rig rig;
    connect(rig);
    for (unsigned type = 0; type < 256; type++) {
        SCOPED_TRACE(type);
        const uint8_t t = static_cast<uint8_t>(type);
        received r = rig.receive(plain(t, bytes(4)), at_direct);
        EXPECT_EQ(r.result, t == TARN_PKT_DISCOVER_REPLY ? TARN_RECV_PLAIN : TARN_RECV_NONE);
        EXPECT_TRUE(r.data.empty() && all_zero(&r.info, sizeof r.info)); // both are cleared at first

        const bool own = t >= TARN_PKT_PROBE && t <= TARN_PKT_REKEY_ACK, known = t % 2;
        const bytes sealed = seal(host_keys, plain(t, {7}, 3));
        virtual_clock::advance(1);
        r = rig.receive(sealed, known ? at_direct : at_p2p);
        ASSERT_EQ(r.result, own ? TARN_RECV_NONE : TARN_RECV_DATA);
        EXPECT_EQ(rig.receive(sealed, at_direct).result, TARN_RECV_NONE);    // a replay
        EXPECT_EQ(rig.c->paths[0].last_rx_us, conn_now() - (known ? 0 : 1)); // any authentic packet is life
        if (own) continue;
        EXPECT_EQ(r.data, bytes({0x50, 1, t, 3, 0x44, 0x33, 0x22, 0x11, 7}));
        EXPECT_TRUE(r.info.session == 0x11223344 && r.info.first == 0 && r.info.path == (known ? 2u : 0u));
    }
    for (const bytes &p : {bytes{}, bytes{0x50, 1, 10, 0, 0, 0, 0}, bytes{0x51, 1, 10, 0, 0, 0, 0, 0},
                           bytes{0x50, 3, 10, 0, 0, 0, 0, 0}})
        EXPECT_EQ(rig.receive(p, at_direct).result, TARN_RECV_NONE);
    tarn_session wiped = {}; // the keys that a session doesn't have at present open nothing
    EXPECT_EQ(rig.receive(seal(wiped, plain(TARN_PKT_PING)), at_direct).result, TARN_RECV_NONE);
    EXPECT_TRUE(rig.told().empty() && path_find(rig.c, &at_p2p) < 0);

    tarn_addr to = {};
    const std::tuple<uint32_t, size_t, size_t, size_t> rows[] = {
        {0, 9, 33, 33}, {0x11223344, 9, 64, 33}, {0x11223345, 9, 64, 0}, {0, 9, 32, 0}, {0, 7, 64, 0}};
    for (const auto &[session, len, cap, want] : rows) {
        bytes packet = plain(TARN_PKT_PING, {1}), out(cap);
        packet.resize(len);
        EXPECT_EQ(rig.seal_for(session, packet, out, &to), want);
    }
    EXPECT_EQ(text(to), text(at_direct));
}

TEST_F(ConnClient, RekeyByPacketsByTimeAndByWish) {
    for (const std::string why : {"packets", "time", "wish"}) {
        SCOPED_TRACE(why);
        virtual_clock::reset();
        client_rig rig([&](tarn_client_config &c) {
            if (why == "packets") c.rekey_packets = 5;
            c.rekey_seconds = 10;
            c.settle_ms = 1;
        });
        connect(rig);
        client_session *s = &rig.c->sessions[0];
        path_add(rig.c, &at_lan, TARN_PATH_LAN, -1);
        rig.take_log();
        const auto tick = [&] { // with both paths fresh, so that only the rekey acts
            for (int i = 0; i < 2; i++)
                rig.c->paths[i].next_probe_us = (rig.c->paths[i].last_rx_us = conn_now()) << 1;
            return rig.tick();
        };
        if (why == "packets") s->current.send_counter = 4;
        if (why == "time") virtual_clock::advance(10 * second - 1);
        tick();
        EXPECT_TRUE(rig.quiet());
        if (why == "packets") s->current.send_counter++;
        if (why == "time") virtual_clock::advance(1);
        if (why == "wish") tarn_client_rekey(rig.c);
        tick();
        EXPECT_EQ(rig.take_log(), texts{"session 11223344: rekeying"});
        EXPECT_EQ(rig.take().size(), 1u); // the active path alone
        tarn_client_rekey(rig.c);
        rig.receive(bytes(s->hs_reply, s->hs_reply + 60), at_lan); // of the first handshake: no measure now
        EXPECT_EQ(rig.c->paths[1].alive, 0u);
        virtual_clock::advance(249 * ms);
        tick();
        EXPECT_TRUE(rig.quiet()); // no second one beside it
        virtual_clock::advance(1 * ms);
        tick();
        const auto init = rig.take(); // its answer was lost: a new init
        ASSERT_EQ(targets(rig, init), "1000");

        tarn_session old_keys = host_keys, new_keys;
        rig.receive(hand_respond(init[0].data, 77, &new_keys), at_direct);
        EXPECT_FALSE(open(old_keys, sealed_ping(rig, 0)).empty()); // data goes on under the old keys
        bytes request = plain(TARN_PKT_REKEY, le32(0x11223344));
        const bytes ack = plain(TARN_PKT_REKEY_ACK, le32(0x11223344));
        put_u32(request.data() + 4, 77);
        for (int i = 0; i < 3; i++) { // the request at once, and again every 250 ms
            tick();
            const auto sent = rig.take();
            ASSERT_EQ(targets(rig, sent), "1000");
            EXPECT_EQ(open(new_keys, sent[0].data), request);
            virtual_clock::advance(250 * ms - 1);
            EXPECT_EQ(tick(), 1000);
            tarn_client_rekey(rig.c); // changes nothing under way
            virtual_clock::advance(1);
        }
        rig.receive(seal(old_keys, ack), at_direct); // under the wrong keys
        EXPECT_TRUE(rig.quiet());
        const bytes early = seal(new_keys, plain(TARN_PKT_PING));
        received r = rig.receive(early, at_direct); // the host may talk first; the session keeps its id
        EXPECT_TRUE(r.info.session == 0x11223344 && get_u32(r.data.data() + 4) == 0x11223344);
        rig.receive(seal(new_keys, ack), at_lan);
        EXPECT_EQ(rig.told(),
                  (texts{"session 11223344 rekeyed (crypto session 0000004d)", "11 session=11223344"}));
        EXPECT_TRUE(all_zero(&s->next, sizeof s->next));
        EXPECT_EQ(s->last_rekey_us, conn_now());
        EXPECT_EQ(rig.receive(early, at_direct).result, TARN_RECV_NONE); // the replay window came along
        rig.receive(seal(new_keys, ack), at_lan);                        // a repeat
        EXPECT_FALSE(open(new_keys, sealed_ping(rig, 0x11223344)).empty());

        virtual_clock::advance(5 * second);
        s->current.send_counter = 0;
        tick();
        EXPECT_EQ(rig.receive(seal(old_keys, plain(TARN_PKT_PING)), at_direct).info.session, 0x11223344u);
        virtual_clock::advance(1);
        tick();
        EXPECT_EQ(rig.receive(seal(old_keys, plain(TARN_PKT_PING)), at_direct).result, TARN_RECV_NONE);
        EXPECT_TRUE(all_zero(&s->previous, sizeof s->previous));
        tarn_session wiped = {};
        EXPECT_EQ(rig.receive(seal(wiped, plain(TARN_PKT_PING)), at_direct).result, TARN_RECV_NONE);
        EXPECT_TRUE(rig.quiet());
    }
}

// One row for each rule of path choice, at its border. A path is "class,rtt" and, when they matter, the ages
// of its last packet and last acknowledgement (-1: not alive) and of its run of acknowledgements.
TEST_F(ConnClient, PathChoiceAtEveryBorder) {
    const char *no = "", *silent = "current path went silent", *freely = "better path",
               *back = "better path is back";
    constexpr int64_t s1 = second, s2 = 2 * second, m1 = 60 * second;
    const struct {
        const char *what;
        int64_t up_age;
        int active;
        const char *paths;
        int to;
        const char *why;
        int64_t switch_age = 60 * second;
    } rows[] = {
        {"settling: a better class at any round trip", s1, 0, "2,5000 1,90000", 1, freely},
        {"settling: a worse class never", s1, 0, "1,90000 2,500", 0, no},
        {"exactly 20 percent faster is not better", s1, 0, "2,10000 2,8000", 0, no},
        {"more than 20 percent is", s1, 0, "2,10000 2,7999", 1, freely},
        {"a gain of 300 us is too small", s1, 0, "2,1000 2,700", 0, no},
        {"and so is 500", s1, 0, "2,1000 2,500", 0, no},
        {"501 will do", s1, 0, "2,1000 2,499", 1, freely},
        {"the largest round trips", s1, 0, "2,10000000 2,7999999", 1, freely},
        {"no sample there", s1, 0, "2,10000 2,0", 0, no},
        {"no sample here", s1, 0, "2,0 2,100", 0, no},
        {"the best of several", s1, 0, "4,100 2,9000 2,7000 3,10", 2, freely},
        {"acknowledged just under 1.5 s ago", s1, 0, "2,9 1,9,0,1499999", 1, freely},
        {"1.5 s ago is not alive", s1, 0, "2,9 1,9,0,1500000", 0, no},
        {"never acknowledged", s1, 0, "2,9 1,9,0,-1", 0, no},
        {"the last microsecond of settling", s2 - 1, 0, "2,9000 2,900", 1, freely},
        {"settled: the same class never", s2, 0, "2,9000 2,900,0,0,60000000", 0, no},
        {"settled: a better class, stable for 3 s", s2, 0, "2,9 1,9,0,0,3000000", 1, back},
        {"a microsecond less is too short", s2, 0, "2,9 1,9,0,0,2999999", 0, no},
        {"silent for exactly 1.2 s is not silent", m1, 0, "1,9,1200000,1200000 2,9", 0, no},
        {"longer is: to the best alive, stable or not", m1, 0, "1,9,1200001,1200001 3,9 2,9000", 2, silent},
        {"even just after a switch", m1, 0, "1,9,1200001,1200001 4,9", 1, silent, 10 * ms},
        {"and while settling", s1, 0, "1,9,1200001,1200001 4,9", 1, silent, 10 * ms},
        {"data is life without acknowledgements, too", m1, 0, "1,9,0,5000000 2,9", 0, no},
        {"blindly to the highest class, first of equals", m1, 0, "1,9,2000000,-1 2,9,0,-1 4,0,0,-1 4,9,0,-1",
         2, silent},
        {"other than the active one", m1, 1, "3,9,0,-1 4,9,2000000,-1 2,9,0,-1", 0, silent},
        {"blindly only once per silence threshold", m1, 0, "1,9,2000000,-1 4,9,0,-1", 0, no, 1200 * ms},
        {"which must have passed", m1, 0, "1,9,2000000,-1 4,9,0,-1", 1, silent, 1200 * ms + 1},
        {"nowhere to go", m1, 0, "1,9,2000000,-1", 0, no},
        {"no active path: the best", m1, -1, "4,9 2,9 1,9,0,-1", 1, "first path"},
        {"no active path and none alive", m1, -1, "4,9,0,1500000 1,9,0,-1", -1, no},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        client_rig rig;
        connect(rig);
        virtual_clock::advance(100 * second);
        const uint64_t now = conn_now();
        rig.c->first_up_us = now - static_cast<uint64_t>(row.up_age);
        rig.c->last_switch_us = now - static_cast<uint64_t>(row.switch_age);
        rig.c->active_path = row.active;
        std::istringstream words(row.paths);
        int count = 0;
        for (std::string word; words >> word; count++) {
            int cls = 0;
            unsigned rtt = 0;
            long rx = 0, ack = 0, since = 0;
            sscanf(word.c_str(), "%d,%u,%ld,%ld,%ld", &cls, &rtt, &rx, &ack, &since);
            const tarn_addr addr = ep(("203.0.113.50:" + std::to_string(count + 1)).c_str());
            const auto ago = [&](long age) { return age < 0 ? 0 : now - static_cast<uint64_t>(age); };
            rig.c->paths[count] = {1,        cls,        count, ack >= 0,      addr, ago(rx),
                                   ago(ack), ago(since), 0,     now + 1000000, rtt};
        }
        const int old_class = row.active < 0 ? 0 : rig.c->paths[row.active].path;
        rig.take();
        rig.tick();
        ASSERT_EQ(rig.c->active_path, row.to);
        const auto sent = rig.take();
        if (row.to == row.active) {
            EXPECT_TRUE(sent.empty() && rig.told().empty());
            continue;
        }
        const client_path &to = rig.c->paths[row.to];
        ASSERT_EQ(sent.size(), 1u); // a flagged probe turns the host around at once
        const bytes probe = open(host_keys, sent[0].data);
        EXPECT_TRUE(probe.size() == 20 && probe[2] == TARN_PKT_PROBE && probe[3] == 1);
        EXPECT_EQ(text(sent[0].to), text(to.addr));
        EXPECT_TRUE(to.last_rx_us == now && rig.c->last_switch_us == now && to.next_probe_us == now + 500000);
        EXPECT_TRUE(row.active < 0 || rig.c->paths[row.active].alive == (row.why == silent ? 0 : 1));
        char line[128], event[128];
        const std::string at = text(to.addr), rtt = " rtt=" + std::to_string(to.rtt_us);
        snprintf(line, sizeof line, "path %s -> %s %s (%s, rtt %.1f ms)", tarn_path_name(old_class),
                 tarn_path_name(to.path), at.c_str(), row.why, to.rtt_us / 1000.0);
        snprintf(event, sizeof event, "10 path=%d server=%d session=11223344%s addr=%s", to.path, row.to,
                 to.rtt_us ? rtt.c_str() : "", at.c_str());
        EXPECT_EQ(rig.told(), (texts{line, event}));
    }
}

TEST_F(ConnClient, ProbesComeAtTheirPace) {
    const std::tuple<const char *, int64_t, bool, bool, int64_t, uint64_t> rows[] = {
        {"active, though silent", 60 * second, true, false, 0, 500000},
        {"answering", 60 * second, false, true, 1500 * ms - 1, 500000},
        {"not answering any more, settled", 2 * second, false, true, 1500 * ms, 1000000},
        {"the same while settling", 2 * second - 1, false, true, 1500 * ms, 200000},
        {"never answered, or declared dead", 60 * second, false, false, 0, 200000},
    };
    for (const auto &[what, up_age, active, alive, ack_age, next] : rows) {
        SCOPED_TRACE(what);
        client_rig rig;
        connect(rig);
        virtual_clock::advance(100 * second);
        const uint64_t now = conn_now();
        path_add(rig.c, &at_relay, TARN_PATH_RELAY, -1);
        rig.c->first_up_us = now - static_cast<uint64_t>(up_age);
        rig.c->paths[0].next_probe_us = now + 1;
        rig.c->paths[0].last_rx_us = rig.c->paths[1].last_rx_us = now;
        rig.c->paths[0].alive = 0;
        rig.c->paths[1].alive = alive;
        rig.c->paths[1].last_ack_us = now - static_cast<uint64_t>(ack_age);
        rig.c->paths[1].next_probe_us = now;
        rig.c->active_path = active ? 1 : 0;
        rig.c->probe_seq = 41;
        rig.take();
        EXPECT_EQ(rig.tick(), 1000); // of the other path, due in a microsecond
        const auto sent = rig.take();
        ASSERT_EQ(targets(rig, sent), "0100");
        uint8_t probe[conn_probe_size];
        conn_make_probe(probe, TARN_PKT_PROBE, active ? 1 : 0, 42, now);
        put_u32(probe + 4, 0x11223344);
        EXPECT_EQ(open(host_keys, sent[0].data), bytes(probe, probe + 20));
        EXPECT_EQ(rig.c->paths[1].next_probe_us, now + next);
    }
    client_rig rig; // a path that comes while a session stands is probed at once
    tarn_client_add_candidate(rig.c, &at_relay, 0);
    connect(rig);
    rig.take();
    tarn_client_add_candidate(rig.c, &at_lan, 0);
    tarn_client_add_candidate(rig.c, &at_lan, 0); // but not again when it is named again
    const auto sent = rig.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(open(host_keys, sent[0].data).size(), 20u);
    EXPECT_EQ(rig.c->paths[2].next_probe_us, conn_now() + 200000);
}

TEST_F(ConnClient, SessionsOpenAndClose) {
    client_rig rig;
    connect(rig);
    EXPECT_EQ(tarn_client_connect(rig.c), 0); // there is one already
    for (int i = 1; i < 5; i++)
        EXPECT_EQ(tarn_client_open_session(rig.c), i < 4 ? 0 : -1);
    const uint64_t first_up = rig.c->first_up_us;
    virtual_clock::advance(1);
    rig.take();
    rig.tick();
    tarn_session keys;
    uint32_t id = 0x500;
    for (const auto &p : rig.take()) { // each has its own handshake
        const bytes response = hand_respond(p.data, id, &keys);
        if (response.empty()) continue; // a probe
        rig.receive(response, at_lan);  // its path doesn't become the active one
        id++;
    }
    EXPECT_EQ(rig.c->active_path, 0);
    EXPECT_EQ(id, 0x503u);
    EXPECT_EQ(rig.events().size(), 3u);
    EXPECT_EQ(get_u32(sealed_ping(rig, 0x502).data() + 4), 0x502u);
    tarn_client_session_close(rig.c, 0x11223344);
    tarn_client_session_close(rig.c, 0x999);
    EXPECT_TRUE(all_zero(&rig.c->sessions[0], sizeof rig.c->sessions[0]));
    EXPECT_TRUE(rig.c->mode == 2 && rig.c->first_up_us == first_up);
    const tarn_client_status s = rig.status();
    EXPECT_TRUE(s.connected == 1 && s.session == 0x500 && s.path == TARN_PATH_DIRECT && s.rtt_us == 20000);
    EXPECT_EQ(text(s.addr), text(at_direct));
    EXPECT_EQ(s.paths[0].alive, 1u);
    virtual_clock::advance(1500 * ms);
    EXPECT_EQ(rig.status().paths[0].alive, 0u);
    EXPECT_EQ(tarn_client_open_session(rig.c), 0);
    EXPECT_EQ(rig.c->sessions[0].state, 1u);
    rig.take();
    tarn_client_session_close(rig.c, 0);
    EXPECT_TRUE(rig.take().empty()); // nothing tells the host
    EXPECT_TRUE(all_zero(rig.c->sessions, sizeof rig.c->sessions));
    EXPECT_TRUE(rig.c->mode == 0 && rig.c->first_up_us == 0 && rig.c->active_path == -1 &&
                rig.c->paths[0].active);
    EXPECT_EQ(rig.tick(), 250000);
    const tarn_client_status end = rig.status();
    EXPECT_TRUE(all_zero(&end, offsetof(tarn_client_status, max_datagram)) && end.path_count == 2);
}

TEST_F(ConnClient, TickAsksForNothingThatItWontDo) {
    client_rig rig;
    connect(rig);
    virtual_clock::advance(2 * second - 1);
    EXPECT_EQ(rig.tick(), 50000); // settling
    virtual_clock::advance(1);
    rig.c->paths[0].last_rx_us = conn_now();
    EXPECT_EQ(rig.tick(), 250000);
    rig.c->sessions[0].have_next = 1; // a rekey request without a path to go to
    rig.c->active_path = -1;
    rig.c->paths[0].alive = 0;
    EXPECT_EQ(rig.tick(), 250000);
    EXPECT_EQ(rig.c->sessions[0].next_rekey_send_us, 0u);
    rig.c->route_mode = TARN_ROUTE_RELAY_ONLY; // a path that may not be used and would have been due
    virtual_clock::advance(1 * second);
    rig.take();
    EXPECT_EQ(rig.tick(), 250000);
    EXPECT_TRUE(rig.take().empty());
    rig.c->active_path = 0; // nor does a forbidden path stay in use
    rig.c->sessions[0].have_next = 0;
    path_add(rig.c, &at_relay, TARN_PATH_RELAY, 0);
    mark_ack(rig.c, 1, 5000, conn_now());
    rig.tick();
    EXPECT_EQ(rig.c->active_path, 1);

    client_rig unlucky; // a random source that fails only delays a handshake
    tarn_client_add_candidate(unlucky.c, &at_direct, 0);
    tarn_client_connect(unlucky.c);
    const client_session before = unlucky.c->sessions[0];
    seeded_random::fail_at(1);
    EXPECT_EQ(unlucky.tick(), 1000);
    EXPECT_TRUE(unlucky.take().empty());
    EXPECT_EQ(memcmp(&unlucky.c->sessions[0], &before, sizeof before), 0);
    unlucky.tick();
    EXPECT_EQ(unlucky.take().size(), 1u);
}

} // namespace
