// Both engines joined by the simulated network: what a user of the two sees through loss, NATs, roaming and rekeys.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "conn_client_internal.h"
#include "conn_host_internal.h"
#include "support/netsim.h"
#include "support/virtual_clock.h"

// The linker turns the library's calls of free here, so that a record can be looked at after its last wipe.
static const void *watched;
static size_t watched_size;
static bool watched_clean;
extern "C" void __real_free(void *p);
extern "C" void __wrap_free(void *p);
extern "C" void __wrap_free(void *p) {
    if (p && p == watched) watched_clean = all_zero(std::exchange(watched, nullptr), watched_size);
    __real_free(p);
}
// And its calls of the wiping functions, counted by what they wipe.
static std::map<size_t, int> wipes;
extern "C" void __real_tarn_secure_wipe(void *p, size_t n);
extern "C" void __wrap_tarn_secure_wipe(void *p, size_t n);
extern "C" void __wrap_tarn_secure_wipe(void *p, size_t n) {
    wipes[n]++;
    __real_tarn_secure_wipe(p, n);
}
extern "C" void __real_tarn_session_wipe(tarn_session *s);
extern "C" void __wrap_tarn_session_wipe(tarn_session *s);
extern "C" void __wrap_tarn_session_wipe(tarn_session *s) {
    wipes[sizeof *s]++;
    __real_tarn_session_wipe(s);
}

namespace {

using netsim::client_node;
using netsim::host_node;
using netsim::nat_kind;
using netsim::network;

constexpr int64_t ms = 1000, second = 1000000;
const char *const host_at = "203.0.113.5:9000";
const char *const client_at = "198.51.100.20:5000";

netsim::quality line(int64_t delay_us, unsigned loss = 0) {
    netsim::quality q;
    q.delay_us = delay_us;
    q.loss = loss;
    return q;
}
auto count_of(const texts &all, const std::string &part) {
    return std::count_if(all.begin(), all.end(),
                         [&](const auto &s) { return s.find(part) != std::string::npos; });
}

// A host in the open and a client that knows its address.
struct pair_of_engines {
    network net;
    host_node host;
    client_node client;
    uint32_t number = 0;
    explicit pair_of_engines(uint64_t seed, const std::function<void(tarn_client_config &)> &tweak = nullptr)
        : net(seed), host(net), client(net, tweak) {
        net.attach(host, host_at);
        net.attach(client, client_at);
    }
    bool start() {
        const tarn_addr to = ep(host_at);
        tarn_client_add_candidate(client.c, &to, 0);
        tarn_client_connect(client.c);
        client.poke();
        return net.run_until([&] { return client.status().connected && link().active; }, 15 * second);
    }
    const host_link &link() { return host.h->links[0]; }
    uint32_t session() { return client.status().session; }
    // Sends numbered data both ways every 20 ms for a time, and lets it arrive.
    void talk(int64_t us) {
        for (int64_t t = 0; t < us; t += 20 * ms, number++) {
            client.say(plain(TARN_PKT_INPUT, le32(number)));
            host.say(session(), plain(TARN_PKT_CURSOR_POS, le32(number)));
            net.run(20 * ms);
        }
    }
    // Nothing arrived twice, at least so many numbers arrived each way, and one packet was the host's first.
    void expect_arrivals(size_t least) {
        for (const auto *got : {&client.got, &host.got}) {
            std::set<bytes> numbers;
            for (const received &r : *got)
                numbers.insert(bytes(r.data.begin() + 8, r.data.end()));
            EXPECT_EQ(numbers.size(), got->size());
            EXPECT_GE(got->size(), least);
            for (const received &r : *got)
                ASSERT_EQ(r.info.session, session());
        }
        const auto first = [](const received &r) { return r.info.first == 1; };
        EXPECT_EQ(std::count_if(host.got.begin(), host.got.end(), first), 1);
    }
};

TEST(Engines, ConnectThroughThirtyPercentLoss) {
    for (uint64_t seed : netsim::seeds(100)) {
        TRACE_SEED(seed);
        pair_of_engines p(seed);
        p.net.any = line(20 * ms, 30);
        p.net.any.jitter_us = 15 * ms;
        p.net.any.duplicate = p.net.any.reorder = 20;
        ASSERT_TRUE(p.start());
        EXPECT_EQ(p.link().session, p.session());
        p.talk(5 * second);
        p.expect_arrivals(130);
        EXPECT_FALSE(p.host.h->links[1].active);
    }
    const auto run = [](uint64_t seed) {
        pair_of_engines p(seed);
        p.net.any = line(20 * ms, 10);
        p.start();
        p.talk(3 * second);
        return p.net.trace;
    };
    EXPECT_EQ(run(3), run(3)); // the same seed is the same run
    EXPECT_NE(run(3), run(4));
}

TEST(Engines, FourPathsAndTheirTroubles) {
    const char *const homes[4] = {"192.168.1.10:9000", host_at, "203.0.113.6:4000", "203.0.113.99:9877"};
    const char *const from[4] = {"192.168.1.20:5000", client_at, "198.51.100.20:5001", "198.51.100.20:5002"};
    const int64_t delay[4] = {2 * ms, 30 * ms, 15 * ms, 50 * ms};
    const unsigned loss[4] = {0, 0, 5, 0}; // lossless where a chance silence would move the session
    for (uint64_t seed : netsim::seeds(20)) {
        TRACE_SEED(seed);
        network net(seed);
        host_node host(net, 1, [](tarn_host_config &c) {
            tarn_relay_config_add_link(&c.relays, "tarnglider-relay://198.51.100.20:5002#k");
        });
        client_node client(net);
        const auto restore = [&](int i) { net.link(from[i], homes[i], line(delay[i], loss[i])); };
        const auto cut = [&](int i) { net.link(from[i], homes[i], netsim::dead()); };
        for (int i = 0; i < 4; i++) {
            net.attach(host, homes[i]);
            net.attach(client, from[i]);
            restore(i);
            const tarn_addr at = ep(homes[i]);
            path_add(client.c, &at, i + 1, i == 3 ? 0 : -1);
        }
        const auto on = [&](int cls, int64_t us) {
            return net.run_until([&] { return client.status().path == cls; }, us);
        };
        const auto host_on = [&](int i) { return text(host.h->links[0].addr) == from[i]; };
        tarn_client_connect(client.c);
        client.poke();
        ASSERT_TRUE(on(TARN_PATH_LAN, 1 * second)); // settled on the best class
        net.run(4 * second);
        EXPECT_TRUE(host_on(0));

        cut(0); // silence: to the best class that answers, soon after the threshold
        EXPECT_FALSE(on(TARN_PATH_DIRECT, 690 * ms));
        ASSERT_TRUE(on(TARN_PATH_DIRECT, 1200 * ms));
        EXPECT_EQ(count_of(client.log,
                           "path LAN -> Direct 203.0.113.5:9000 (current path went silent, rtt 60.0 ms)"),
                  1);
        net.run(6 * second);
        EXPECT_TRUE(host_on(1)); // the host follows

        restore(0); // LAN is back, but breaks off once: the three seconds begin again
        ASSERT_FALSE(on(TARN_PATH_LAN, 1500 * ms));
        cut(0);
        net.run(1700 * ms);
        restore(0);
        ASSERT_FALSE(on(TARN_PATH_LAN, 3000 * ms));
        ASSERT_TRUE(on(TARN_PATH_LAN, 2000 * ms));
        EXPECT_EQ(count_of(client.log, "(better path is back, rtt 4.0 ms)"), 1);
        net.run(5 * second);
        EXPECT_EQ(client.status().path, TARN_PATH_LAN);

        for (int i = 0; i < 4; i++)
            cut(i); // the blackout: blind moves, the relay first, one per threshold
        client.take_log();
        net.run(6200 * ms);
        const texts moves = client.take_log();
        EXPECT_TRUE(moves.size() == 4 || moves.size() == 5) << moves.size();
        const size_t first =
            count_of({moves.at(0)}, "-> Relay") ? 0 : 1; // one path's last answer may still be young
        for (size_t i = first; i < moves.size(); i++)
            EXPECT_EQ(count_of({moves[i]}, (i - first) % 2 ? "-> P2P" : "-> Relay"), 1) << moves[i];
        restore(3); // only the relay is left, and the session goes on over it
        ASSERT_TRUE(net.run_until([&] { return client.status().path == 4 && host_on(3); }, 4 * second));
        EXPECT_EQ(host.h->links[0].path, TARN_PATH_RELAY);
        host.say(client.status().session, plain(TARN_PKT_CURSOR_POS, {1}));
        EXPECT_TRUE(net.run_until([&] { return client.got.size() == 1; }, 100 * ms));
    }
}

TEST(Engines, HostFollowsARoamingClient) {
    for (uint64_t seed : netsim::seeds(20)) {
        TRACE_SEED(seed);
        pair_of_engines p(seed);
        p.net.any = line(20 * ms, 5);
        p.net.any.jitter_us = 60 * ms; // much reordering
        ASSERT_TRUE(p.start());
        p.talk(500 * ms);
        const char *now_at = client_at;
        for (const char *place : {"198.51.100.77:6000", "192.168.7.7:7000", client_at}) {
            p.net.detach(std::exchange(now_at, place));
            p.net.attach(p.client, place);
            p.host.take_log();
            p.talk(600 * ms);
            EXPECT_EQ(text(p.link().addr), place);
            EXPECT_EQ(p.host.log.size(), 1u); // late packets from the old address don't drag it back
        }
        std::vector<bytes> seen; // an attacker who repeats packets from its own address gains nothing lasting
        p.net.hook = [&](netsim::datagram &d) {
            seen.push_back(d.data);
            return true;
        };
        p.talk(500 * ms);
        p.net.hook = nullptr;
        p.net.run(200 * ms);
        for (const char *target : {host_at, client_at})
            for (const bytes &d : seen)
                p.net.send_from(ep("192.0.2.66:666"), ep(target), d);
        p.talk(1 * second);
        EXPECT_EQ(text(p.link().addr), client_at);
        p.expect_arrivals(1);
    }
}

TEST(Engines, NatsOfEveryKindCarryTheSession) {
    for (nat_kind kind :
         {nat_kind::full_cone, nat_kind::restricted, nat_kind::port_restricted, nat_kind::symmetric}) {
        SCOPED_TRACE(static_cast<int>(kind));
        pair_of_engines p(1);
        const int nat = p.net.add_nat(kind, "198.51.100.99");
        p.net.detach(client_at);
        p.net.attach(p.client, "10.0.0.2:5000", nat);
        ASSERT_TRUE(p.start());
        EXPECT_EQ(text(p.link().addr), "198.51.100.99:40000");
        p.net.run(100 * ms);
        p.net.hook = [](netsim::datagram &d) { return d.data.size() == 1; }; // the engines are mute
        p.net.run(100 * ms);
        const auto reaches = [&](const char *from) { // who else gets through to the client
            const uint64_t before = p.net.delivered;
            p.net.send_from(ep(from), ep("198.51.100.99:40000"), {1});
            p.net.run(11 * ms);
            return p.net.delivered > before;
        };
        EXPECT_EQ(reaches("192.0.2.1:100"), kind == nat_kind::full_cone);
        EXPECT_EQ(reaches("203.0.113.5:9001"), kind == nat_kind::full_cone || kind == nat_kind::restricted);
        EXPECT_TRUE(reaches(host_at));
        p.net.hook = nullptr;
        p.net.forget(nat); // the NAT restarts: the client appears from a new port, and the host follows
        p.talk(1 * second);
        EXPECT_EQ(text(p.link().addr), "198.51.100.99:40001");
        p.expect_arrivals(p.number - 5);
    }
}

TEST(Engines, RekeySurvivesTheLossOfAnyOfItsPackets) {
    // Init, response, request, acknowledgement and what repeats make of them: every subset of the first six is lost.
    for (unsigned lost = 0; lost < 64; lost++) {
        SCOPED_TRACE(lost);
        pair_of_engines p(1);
        ASSERT_TRUE(p.start());
        const texts rekeyed = {"11 session=" + hex8(p.session())};
        unsigned count = 0;
        p.net.hook = [&](netsim::datagram &d) {
            const uint8_t type = d.data[2];
            if (type != TARN_PKT_HS_INIT && type != TARN_PKT_HS_RESP && type != TARN_PKT_REKEY &&
                type != TARN_PKT_REKEY_ACK)
                return true;
            const unsigned n = count++;
            return n >= 6 || !(lost >> n & 1);
        };
        p.host.events();
        p.client.events();
        tarn_client_rekey(p.client.c);
        p.talk(4 * second);
        p.net.run(1 * second);
        EXPECT_EQ(p.client.events(), rekeyed);
        EXPECT_EQ(p.host.events(), rekeyed);
        EXPECT_EQ(p.client.c->sessions[0].current.id, p.host.h->slots[p.link().current].session.id);
        p.expect_arrivals(p.number);
        p.net.run(10 * second); // and nothing of the old keys is left
        EXPECT_EQ(std::count_if(p.host.h->slots, p.host.h->slots + 24,
                                [](const auto &s) { return s.state != SLOT_FREE; }),
                  1);
    }
}

TEST(Engines, ManyRekeysUnderHeavyLossNeverPartTheTwo) {
    for (uint64_t seed : netsim::seeds(20)) {
        TRACE_SEED(seed);
        pair_of_engines p(seed, [](tarn_client_config &c) { c.rekey_packets = 30; });
        p.net.any = line(15 * ms, 30);
        p.net.any.reorder = p.net.any.duplicate = 20;
        ASSERT_TRUE(p.start());
        p.talk(60 * second);
        const auto ours = count_of(p.client.log, "rekeyed"), theirs = count_of(p.host.log, "rekeyed");
        EXPECT_GT(ours, 20);
        EXPECT_TRUE(theirs == ours || theirs == ours + 1);
        p.expect_arrivals(3000 * 60 / 100);
    }
}

TEST(Engines, OneClientAtATimeAndTheSilentOneExpires) {
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
    EXPECT_EQ(other.events(), (texts{"15 detail=2", "15 detail=2", "15 detail=2"})); // every 2 seconds
    p.net.detach(client_at);
    p.net.run(2500 * ms);
    EXPECT_FALSE(other.status().connected);
    p.net.run(1 * second);
    EXPECT_TRUE(other.status().connected && busy.h->links[0].active && busy.h->links[1].active);
    p.net.run(60 * second);
    EXPECT_EQ(count_of(busy.log, "session " + hex8(p.session()) + " expired (idle)"), 1);
    EXPECT_TRUE(other.status().connected && !busy.h->links[0].active);
}

TEST(Engines, RestIsQuietAndTheEndIsClean) {
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
    EXPECT_FALSE(p.link().active);
    EXPECT_FALSE(p.client.say(plain(TARN_PKT_INPUT)));
    EXPECT_TRUE(p.start()); // and once more, with the path that is known
    watched = p.host.h;
    watched_size = sizeof(tarn_host);
    tarn_host_destroy(std::exchange(p.host.h, nullptr));
    EXPECT_TRUE(std::exchange(watched_clean, false));
    watched = p.client.c;
    watched_size = sizeof(tarn_client);
    tarn_client_destroy(std::exchange(p.client.c, nullptr));
    EXPECT_TRUE(watched_clean);
}

TEST(Engines, NoKeysAreLeftOnTheStack) {
    const tarn_addr at = ep(host_at);
    host_rig host(0); // knows nobody
    client_rig client;
    tarn_client_add_candidate(client.c, &at, 0);
    tarn_client_connect(client.c);
    wipes.clear();
    tarn_client_tick(client.c); // the state that the init was made in
    EXPECT_EQ(wipes[sizeof(tarn_noise_ik)], 1);
    const bytes init = client.take().at(0).data;
    wipes.clear();
    host.receive(init, at); // and the one that it was read in, though it ended in a reject
    EXPECT_GE(wipes[sizeof(tarn_noise_ik)], 1);
    tarn_session keys;
    const bytes response = hand_respond(init, 5, &keys);
    wipes.clear();
    client.receive(response, at); // and the keys on their way into the session
    EXPECT_GE(wipes[sizeof(tarn_session)], 1);
}

} // namespace
