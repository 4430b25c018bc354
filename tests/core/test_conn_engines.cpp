// Both engines joined by the simulated network: what a user of the two sees through loss, NATs, roaming and rekeys.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "conn_client_internal.h"
#include "conn_host_internal.h"
#include "support/netsim.h"
#include "support/virtual_clock.h"

// The linker turns the library's calls of free here, so that a record can be looked at after its last wipe.
static void *watched;
static size_t watched_size;
static int dirty_bytes = -1;
extern "C" void __real_free(void *p);
extern "C" void __wrap_free(void *p);
extern "C" void __wrap_free(void *p) {
    if (p && p == watched) {
        const uint8_t *at = static_cast<const uint8_t *>(p);
        dirty_bytes = static_cast<int>(watched_size) - static_cast<int>(std::count(at, at + watched_size, 0));
        watched = nullptr;
    }
    __real_free(p);
}

namespace {

using netsim::client_node;
using netsim::dead;
using netsim::host_node;
using netsim::nat_kind;
using netsim::network;
using netsim::quality;

constexpr int64_t ms = 1000, second = 1000000;
const char *const host_at = "203.0.113.5:9000";
const char *const client_at = "198.51.100.20:5000";

quality line(int64_t delay_us, unsigned loss = 0) {
    quality q;
    q.delay_us = delay_us;
    q.loss = loss;
    return q;
}
bool has(const texts &all, const std::string &part) {
    return std::any_of(all.begin(), all.end(),
                       [&](const std::string &s) { return s.find(part) != std::string::npos; });
}

// A host in the open and a client that knows its address.
struct pair_of_engines {
    network net;
    host_node host;
    client_node client;
    explicit pair_of_engines(uint64_t seed, const std::function<void(tarn_client_config &)> &tweak = nullptr)
        : net(seed), host(net), client(net, tweak) {
        net.attach(host, host_at);
        net.attach(client, client_at);
    }
    bool start(int64_t within = 10 * second) {
        const tarn_addr to = ep(host_at);
        tarn_client_add_candidate(client.c, &to, 0);
        tarn_client_connect(client.c);
        client.poke();
        return net.run_until([&] { return client.status().connected && host.h->links[0].active; }, within);
    }
    uint32_t session() { return client.status().session; }
    // Sends numbered data both ways every 20 ms for a time.
    void talk(int64_t us) {
        for (int64_t t = 0; t < us; t += 20 * ms, number++) {
            client.say(plain(TARN_PKT_INPUT, le32(number)));
            host.say(session(), plain(TARN_PKT_CURSOR_POS, le32(number)));
            net.run(20 * ms);
        }
    }
    uint32_t number = 0;
};
// How often each number arrived.
std::map<bytes, int> arrivals(const std::vector<received> &got) {
    std::map<bytes, int> all;
    for (const received &r : got)
        all[bytes(r.data.begin() + 8, r.data.end())]++;
    return all;
}

TEST(Engines, ConnectThroughThirtyPercentLoss) {
    for (uint64_t seed : netsim::seeds(100)) {
        TRACE_SEED(seed);
        pair_of_engines p(seed);
        p.net.any = line(20 * ms, 30);
        p.net.any.jitter_us = 15 * ms;
        p.net.any.duplicate = p.net.any.reorder = 20;
        ASSERT_TRUE(p.start(15 * second));
        EXPECT_EQ(p.client.log.size(), 2u);
        EXPECT_EQ(p.host.h->links[0].session, p.session());
        p.talk(5 * second);
        // Whatever the loss does, nothing arrives twice, the session stays, and about 70 percent get through.
        for (const auto *got : {&p.client.got, &p.host.got}) {
            for (const auto &[number, times] : arrivals(*got))
                EXPECT_EQ(times, 1);
            EXPECT_GT(got->size(), 130u);
            EXPECT_EQ(got->back().info.session, p.session());
        }
        EXPECT_EQ(std::count_if(p.host.got.begin(), p.host.got.end(),
                                [](const received &r) { return r.info.first == 1; }),
                  1);
        EXPECT_EQ(p.host.h->links[0].session, p.session());
        EXPECT_FALSE(p.host.h->links[1].active);
    }
}

TEST(Engines, TheSameSeedIsTheSameRun) {
    const auto run = [](uint64_t seed) {
        pair_of_engines p(seed);
        p.net.any = line(20 * ms, 10);
        p.start();
        p.talk(3 * second);
        return std::pair(p.net.delivered, p.client.got.size() * 1000 + p.host.got.size());
    };
    EXPECT_EQ(run(3), run(3));
    EXPECT_NE(run(3), run(4));
}

TEST(Engines, FourPathsAndTheirTroubles) {
    const char *const homes[4] = {"192.168.1.10:9000", host_at, "203.0.113.6:4000", "203.0.113.99:9877"};
    const char *const from[4] = {"192.168.1.20:5000", client_at, "198.51.100.20:5001", "198.51.100.20:5002"};
    for (uint64_t seed : netsim::seeds(20)) {
        TRACE_SEED(seed);
        network net(seed);
        host_node host(net, 1, [](tarn_host_config &c) {
            tarn_relay_config_add_link(&c.relays, "tarnglider-relay://198.51.100.20:5002#k");
        });
        client_node client(net);
        const int64_t delay[4] = {2 * ms, 30 * ms, 15 * ms, 50 * ms};
        const unsigned loss[4] = {0, 0, 5, 1}; // lossless where a chance silence would move the session
        const auto restore = [&](int i) { net.link(from[i], homes[i], line(delay[i], loss[i])); };
        const auto cut = [&](int i) { net.link(from[i], homes[i], dead()); };
        for (int i = 0; i < 4; i++) {
            net.attach(host, homes[i]);
            net.attach(client, from[i]);
            restore(i);
            const tarn_addr at = ep(homes[i]);
            path_add(client.c, &at, i + 1, i == 3 ? 0 : -1);
        }
        const auto on = [&](int cls, int64_t within) {
            return net.run_until([&] { return client.status().path == cls; }, within);
        };
        const auto host_on = [&](int i) { return text(host.h->links[0].addr) == from[i]; };
        tarn_client_connect(client.c);
        client.poke();
        ASSERT_TRUE(on(TARN_PATH_LAN, 1 * second)); // settled within a second on the best class
        net.run(4 * second);
        EXPECT_TRUE(host_on(0));
        client.events();
        client.take_log();

        cut(0); // silence: to the best class that answers, soon after the threshold
        EXPECT_FALSE(on(TARN_PATH_DIRECT, 1200 * ms - 510 * ms));
        ASSERT_TRUE(on(TARN_PATH_DIRECT, 1200 * ms));
        EXPECT_TRUE(has(client.take_log(),
                        "path LAN -> Direct 203.0.113.5:9000 (current path went silent, rtt 60.0 ms)"));
        net.run(1 * second);
        EXPECT_TRUE(host_on(1)); // the host follows

        net.run(5 * second);
        restore(0); // LAN is back, but breaks off once: the three seconds begin again
        ASSERT_FALSE(on(TARN_PATH_LAN, 1500 * ms));
        cut(0);
        net.run(1700 * ms);
        restore(0);
        ASSERT_FALSE(on(TARN_PATH_LAN, 3000 * ms));
        ASSERT_TRUE(on(TARN_PATH_LAN, 2000 * ms));
        EXPECT_TRUE(has(client.log, "(better path is back, rtt 4.0 ms)"));
        net.run(5 * second);
        EXPECT_EQ(client.status().path, TARN_PATH_LAN);

        for (int i = 0; i < 4; i++)
            cut(i); // the blackout: blind moves, the relay first, one per threshold
        client.take_log();
        client.events();
        net.run(6200 * ms);
        const texts moves = client.take_log();
        EXPECT_TRUE(moves.size() == 4 || moves.size() == 5) << moves.size();
        for (const std::string &move : moves)
            EXPECT_TRUE(move.find("current path went silent") != std::string::npos);
        const int first =
            moves.at(0).find("-> Relay") == std::string::npos ? 1 : 0; // a path's last answer may be young
        for (size_t i = static_cast<size_t>(first); i < moves.size(); i++) {
            const bool to_relay = (i - static_cast<size_t>(first)) % 2 == 0;
            EXPECT_TRUE(moves[i].find(to_relay ? "-> Relay" : "-> P2P") != std::string::npos) << moves[i];
        }
        restore(3); // only the relay is left, and the session goes on over it
        ASSERT_TRUE(net.run_until([&] { return client.status().path == 4 && host_on(3); }, 4 * second));
        client.got.clear();
        EXPECT_EQ(host.h->links[0].path, TARN_PATH_RELAY);
        for (int i = 0; i < 100; i++) {
            host.say(client.status().session, plain(TARN_PKT_CURSOR_POS, {1}));
            net.run(10 * ms);
        }
        EXPECT_GT(client.got.size(), 80u);
        EXPECT_EQ(client.got.back().info.path, 4u);
    }
}

TEST(Engines, SettledSessionIgnoresAFasterPathOfItsClass) {
    pair_of_engines p(1);
    p.net.any = line(20 * ms);
    ASSERT_TRUE(p.start());
    p.net.run(3 * second);
    const tarn_addr other = ep("203.0.113.6:9000");
    p.net.attach(p.host, "203.0.113.6:9000");
    p.net.attach(p.client, "198.51.100.20:5001");
    p.net.link("198.51.100.20:5001", "203.0.113.6:9000", line(1 * ms));
    tarn_client_add_candidate(p.client.c, &other, 0);
    p.net.run(20 * second);
    EXPECT_EQ(text(p.client.status().addr), host_at);
    EXPECT_EQ(p.client.status().paths[1].rtt_us, 2000u);
    EXPECT_EQ(p.client.status().paths[1].alive, 1u);
    EXPECT_EQ(text(p.host.h->links[0].addr), client_at); // its probes didn't pull the host over
}

TEST(Engines, HostFollowsARoamingClient) {
    for (uint64_t seed : netsim::seeds(20)) {
        TRACE_SEED(seed);
        pair_of_engines p(seed);
        p.net.any = line(20 * ms, 5);
        p.net.any.jitter_us = 60 * ms; // much reordering
        ASSERT_TRUE(p.start());
        p.talk(500 * ms);
        const char *const places[] = {"198.51.100.77:6000", "192.168.7.7:7000", client_at};
        const char *now_at = client_at;
        for (const char *place : places) {
            p.net.detach(now_at);
            p.net.attach(p.client, place);
            now_at = place;
            p.host.log.clear();
            p.talk(600 * ms);
            EXPECT_EQ(text(p.host.h->links[0].addr), place);
            // Packets from the old address are still under way, but don't drag it back: it moves once.
            EXPECT_EQ(p.host.log, texts{"session " + hex8(p.session()) + ": path -> " +
                                        tarn_path_name(p.host.h->links[0].path) + " " + place});
        }
        // An attacker who repeats or moves packets to its own address gains nothing.
        netsim::node attacker;
        p.net.attach(attacker, "192.0.2.66:666");
        std::vector<bytes> seen;
        p.net.hook = [&](netsim::datagram &d) {
            seen.push_back(d.data);
            return true;
        };
        p.talk(500 * ms);
        p.net.hook = nullptr;
        p.net.run(200 * ms);
        for (const bytes &d : seen)
            p.net.send_from(ep("192.0.2.66:666"), ep(host_at), d);
        for (const bytes &d : seen)
            p.net.send_from(ep("192.0.2.66:666"), ep(client_at), d);
        p.host.log.clear();
        p.net.run(1 * second);
        EXPECT_LE(p.host.log.size(),
                  1u); // of lost packets the attacker's copy is the first; the next real one moves back
        EXPECT_TRUE(text(p.host.h->links[0].addr) == client_at || !p.host.log.empty());
        p.talk(600 * ms);
        EXPECT_EQ(text(p.host.h->links[0].addr), client_at);
    }
}

TEST(Engines, NatsOfEveryKindCarryTheSession) {
    const nat_kind kinds[] = {nat_kind::full_cone, nat_kind::restricted, nat_kind::port_restricted,
                              nat_kind::symmetric};
    for (nat_kind kind : kinds) {
        SCOPED_TRACE(static_cast<int>(kind));
        pair_of_engines p(1);
        netsim::node outside;
        p.net.attach(outside, "192.0.2.1:100");
        p.net.attach(outside, "203.0.113.5:9001"); // the host's address, another port
        const int nat = p.net.add_nat(kind, "198.51.100.99");
        p.net.detach(client_at);
        p.net.attach(p.client, "10.0.0.2:5000", nat);
        ASSERT_TRUE(p.start());
        EXPECT_EQ(text(p.host.h->links[0].addr), "198.51.100.99:40000");

        // Who else gets through to the client: anybody, the same address, or only the host's very endpoint.
        const auto reaches = [&](const char *from) {
            const uint64_t before = p.net.delivered;
            p.net.send_from(ep(from), ep("198.51.100.99:40000"), {1});
            p.net.run(11 * ms);
            return p.net.delivered > before;
        };
        p.net.run(60 * second);
        p.net.run_until([&] { return p.client.due() > tarn_now_us() + 100 * ms; }, 1 * second);
        p.net.hook = [&](netsim::datagram &d) { return d.data.size() == 1; }; // the engines are mute
        p.net.run(50 * ms);
        EXPECT_EQ(reaches("192.0.2.1:100"), kind == nat_kind::full_cone);
        EXPECT_EQ(reaches("203.0.113.5:9001"), kind == nat_kind::full_cone || kind == nat_kind::restricted);
        EXPECT_TRUE(reaches(host_at));
        p.net.hook = nullptr;

        p.net.forget(nat); // the NAT restarts: the client appears from a new port, and the host follows
        p.talk(1 * second);
        EXPECT_EQ(text(p.host.h->links[0].addr), "198.51.100.99:40001");
        EXPECT_EQ(arrivals(p.client.got).count(le32(p.number - 5)), 1u);
    }
}

TEST(Engines, RekeySurvivesTheLossOfAnyOfItsPackets) {
    // The packets of a rekey, in order of sending: init, response, request, acknowledgement, and what repeats make of them.
    // Every subset of the first six that are sent is lost in turn.
    for (unsigned lost = 0; lost < 64; lost++) {
        SCOPED_TRACE(lost);
        pair_of_engines p(1);
        ASSERT_TRUE(p.start());
        const uint32_t session = p.session();
        const uint32_t crypto = p.client.c->sessions[0].current.id;
        unsigned count = 0;
        p.net.hook = [&](netsim::datagram &d) {
            const uint8_t type = d.data[2];
            const bool of_rekey = type == TARN_PKT_HS_INIT || type == TARN_PKT_HS_RESP ||
                                  type == TARN_PKT_REKEY || type == TARN_PKT_REKEY_ACK;
            if (!of_rekey) return true;
            const unsigned n = count++;
            return n >= 6 || !(lost >> n & 1);
        };
        p.host.events();
        p.client.events();
        tarn_client_rekey(p.client.c);
        p.talk(4 * second);
        EXPECT_EQ(p.client.events(), texts{"11 session=" + hex8(session)});
        EXPECT_EQ(p.host.events(), texts{"11 session=" + hex8(session)});
        EXPECT_NE(p.client.c->sessions[0].current.id, crypto);
        EXPECT_EQ(p.client.c->sessions[0].current.id, p.host.h->slots[p.host.h->links[0].current].session.id);
        p.net.run(1 * second);
        EXPECT_EQ(p.host.got.size(), p.number); // no data was lost over it
        EXPECT_EQ(p.client.got.size(), p.number);
        EXPECT_EQ(std::count_if(p.host.got.begin(), p.host.got.end(),
                                [](const received &r) { return r.info.first == 1; }),
                  1);
        p.net.run(10 * second); // and nothing of the old keys is left
        EXPECT_EQ(std::count_if(p.host.h->slots, p.host.h->slots + 24,
                                [](const crypto_slot &s) { return s.state != SLOT_FREE; }),
                  1);
    }
}

TEST(Engines, ManyRekeysUnderHeavyLossNeverPartTheTwo) {
    for (uint64_t seed : netsim::seeds(20)) {
        TRACE_SEED(seed);
        pair_of_engines p(seed, [](tarn_client_config &c) { c.rekey_packets = 30; });
        p.net.any = line(15 * ms, 30);
        p.net.any.reorder = p.net.any.duplicate = 20;
        ASSERT_TRUE(p.start(15 * second));
        p.talk(60 * second);
        const auto rekeys = [](const texts &log) {
            return std::count_if(log.begin(), log.end(),
                                 [](const std::string &s) { return s.find("rekeyed") != std::string::npos; });
        };
        EXPECT_GT(rekeys(p.client.log), 20);
        EXPECT_LE(rekeys(p.host.log) - rekeys(p.client.log), 1);
        EXPECT_GE(rekeys(p.host.log), rekeys(p.client.log));
        for (const auto *got : {&p.client.got, &p.host.got}) {
            for (const auto &[number, times] : arrivals(*got))
                EXPECT_EQ(times, 1);
            EXPECT_GT(got->size(), 3000u * 60 / 100);
        }
        p.net.any = line(15 * ms);
        const size_t before = p.host.got.size();
        p.talk(5 * second);
        p.net.run(1 * second);
        EXPECT_GE(p.host.got.size() - before, 250u);
    }
}

TEST(Engines, OneClientAtATime) {
    pair_of_engines p(1);
    host_node busy(p.net, 2);
    p.net.attach(busy, "203.0.113.50:9000");
    client_node other(p.net, [](tarn_client_config &c) { c.identity = test_key(2); });
    p.net.attach(other, "198.51.100.30:5000");
    const tarn_addr at = ep("203.0.113.50:9000");
    for (client_node *c : {&p.client, &other}) {
        tarn_client_add_candidate(c->c, &at, 0);
        tarn_client_connect(c->c);
        c->poke();
        p.net.run(5 * second);
    }
    EXPECT_TRUE(p.client.status().connected);
    EXPECT_FALSE(other.status().connected);
    EXPECT_EQ(other.events(), (texts{"15 detail=2", "15 detail=2", "15 detail=2"})); // every 2 seconds
    p.net.detach(client_at);
    p.net.run(2500 * ms);
    EXPECT_FALSE(other.status().connected);
    EXPECT_TRUE(p.net.run_until([&] { return other.status().connected != 0; }, 1 * second));
    p.net.run(1 * second);
    tarn_session_info info;
    EXPECT_EQ(tarn_host_session_info_get(busy.h, p.session(), &info), 0);
    EXPECT_EQ(tarn_host_session_info_get(busy.h, other.status().session, &info), 0);
    p.net.run(60 * second);
    EXPECT_EQ(tarn_host_session_info_get(busy.h, p.session(), &info), -1);
    EXPECT_TRUE(has(busy.log, "session " + hex8(p.session()) + " expired (idle)"));
    EXPECT_TRUE(other.status().connected);
}

TEST(Engines, RestIsQuiet) {
    pair_of_engines p(1);
    p.net.run(10 * second);
    EXPECT_LE(p.net.ticks, 2 * 41u); // idle: four calls a second of each
    ASSERT_TRUE(p.start());
    p.net.run(10 * second);
    const uint64_t ticks = p.net.ticks, delivered = p.net.delivered;
    p.net.run(10 * second);
    EXPECT_LE(p.net.ticks - ticks, 2 * 61u);
    EXPECT_EQ(p.net.delivered - delivered, 40u); // two probes a second, and their echoes
    tarn_client_session_close(p.client.c, 0);
    p.net.run(100 * second);
    EXPECT_FALSE(p.host.h->links[0].active);
    EXPECT_FALSE(p.client.say(plain(TARN_PKT_INPUT)));
    EXPECT_TRUE(p.start()); // and once more, with the path that is known
}

TEST(Engines, DestroyWipesEverything) {
    pair_of_engines p(1);
    ASSERT_TRUE(p.start());
    watched = p.host.h;
    watched_size = sizeof(tarn_host);
    tarn_host_destroy(std::exchange(p.host.h, nullptr));
    EXPECT_EQ(dirty_bytes, 0);
    dirty_bytes = -1;
    watched = p.client.c;
    watched_size = sizeof(tarn_client);
    tarn_client_destroy(std::exchange(p.client.c, nullptr));
    EXPECT_EQ(dirty_bytes, 0);
}

} // namespace
