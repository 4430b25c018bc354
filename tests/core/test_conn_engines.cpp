// Both engines joined by the simulated network: what a user of the two sees through loss, NATs, roaming and
// rekeys.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "conn_client_internal.h"
#include "conn_host_internal.h"
#include "support/netsim.h"

// The linker turns the library's calls of its wiping functions here: counted by the size of what they wipe.
static std::map<size_t, int> wipes;
extern "C" {
void __real_tarn_secure_wipe(void *p, size_t n);
void __wrap_tarn_secure_wipe(void *p, size_t n);
void __wrap_tarn_secure_wipe(void *p, size_t n) {
    wipes[n]++;
    __real_tarn_secure_wipe(p, n);
}
void __real_tarn_session_wipe(tarn_session *s);
void __wrap_tarn_session_wipe(tarn_session *s);
void __wrap_tarn_session_wipe(tarn_session *s) {
    wipes[sizeof *s]++;
    __real_tarn_session_wipe(s);
}
}

namespace {

using namespace netsim;

constexpr int64_t ms = 1000, second = 1000000;
const char *const host_at = "203.0.113.5:9000";
const char *const client_at = "198.51.100.20:5000";

quality line(int64_t delay_us, unsigned loss = 0, unsigned trouble = 0) {
    return {delay_us, trouble * ms, loss, trouble, trouble};
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
        client.due = tarn_now_us();
        return net.run_until([&] { return client.status().connected && link().active; }, 15 * second);
    }
    const host_link &link() { return host.h->links[0]; }
    uint32_t session() { return client.status().session; }
    // Sends numbered data both ways every 20 ms for a time, and lets it arrive.
    void talk(int64_t us) {
        for (int64_t t = 0; t < us; t += 20 * ms, number++) {
            client.say(0, plain(TARN_PKT_INPUT, le32(number)));
            host.say(session(), plain(TARN_PKT_CURSOR_POS, le32(number)));
            net.run(20 * ms);
        }
    }
    // Nothing arrived twice, at least so many numbers arrived each way, and one packet was the host's first.
    void expect_arrivals(size_t least) {
        int firsts = 0;
        for (const auto *got : {&client.got, &host.got}) {
            std::set<bytes> numbers;
            for (const received &r : *got) {
                numbers.insert(bytes(r.data.begin() + 8, r.data.end()));
                firsts += r.info.first == 1;
                ASSERT_EQ(r.info.session, session());
            }
            EXPECT_EQ(numbers.size(), got->size());
            EXPECT_GE(got->size(), least);
        }
        EXPECT_EQ(firsts, 1);
    }
};

TEST(Engines, ConnectThroughThirtyPercentLoss) {
    for (uint64_t seed : seeds(100)) {
        TRACE_SEED(seed);
        pair_of_engines p(seed);
        p.net.any = line(20 * ms, 30, 20);
        ASSERT_TRUE(p.start());
        EXPECT_EQ(p.link().session, p.session());
        p.talk(5 * second);
        p.expect_arrivals(130);
        EXPECT_FALSE(p.host.h->links[1].active);
    }
}

TEST(Engines, FourPathsAndTheirTroubles) {
    const char *const homes[4] = {"192.168.1.10:9000", host_at, "203.0.113.6:4000", "203.0.113.99:9877"};
    const char *const from[4] = {"192.168.1.20:5000", client_at, "198.51.100.20:5001", "198.51.100.20:5002"};
    const int64_t delay[4] = {2 * ms, 30 * ms, 15 * ms, 50 * ms};
    const unsigned loss[4] = {0, 0, 5, 0}; // lossless where a chance silence would move the session
    for (uint64_t seed : seeds(20)) {
        TRACE_SEED(seed);
        network net(seed);
        host_node host(net, 1, [](tarn_host_config &c) {
            tarn_relay_config_add_link(&c.relays, "tarnglider-relay://198.51.100.20:5002#k");
        });
        client_node client(net);
        const auto restore = [&](int i) { net.link(from[i], homes[i], line(delay[i], loss[i])); };
        const auto cut = [&](int i) { net.link(from[i], homes[i], line(0, 100)); };
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
        client.due = tarn_now_us();
        ASSERT_TRUE(on(TARN_PATH_LAN, 1 * second)); // settled on the best class
        net.run(4 * second);
        EXPECT_TRUE(host_on(0));

        cut(0); // silence: to the best class that answers, soon after the threshold
        EXPECT_FALSE(on(TARN_PATH_DIRECT, 690 * ms));
        ASSERT_TRUE(on(TARN_PATH_DIRECT, 1200 * ms));
        const std::string why = "path LAN -> Direct 203.0.113.5:9000 (current path went silent, rtt 60.0 ms)";
        EXPECT_EQ(count_of(client.log, why), 1);
        net.run(6 * second);
        EXPECT_TRUE(host_on(1)); // the host follows

        restore(0); // LAN is back, and has to answer for three seconds
        ASSERT_FALSE(on(TARN_PATH_LAN, 2900 * ms));
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
        // One path's last answer may still be young.
        const size_t first = count_of({moves.at(0)}, "-> Relay") ? 0 : 1;
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
    for (uint64_t seed : seeds(20)) {
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
        p.expect_arrivals(1);
    }
}

TEST(Engines, NatRestartsUnderTheSession) {
    pair_of_engines p(1);
    const int nat = p.net.add_nat(nat_kind::symmetric, "198.51.100.99");
    p.net.detach(client_at);
    p.net.attach(p.client, "10.0.0.2:5000", nat);
    ASSERT_TRUE(p.start());
    EXPECT_EQ(text(p.link().addr), "198.51.100.99:40000");
    p.net.forget(nat); // the client appears from a new port, and the host follows
    p.talk(1 * second);
    EXPECT_EQ(text(p.link().addr), "198.51.100.99:40001");
    p.expect_arrivals(p.number - 5);
}

TEST(Engines, RekeySurvivesTheLossOfAnyOfItsPackets) {
    // Init, response, request, acknowledgement and what repeats make of them: every subset of the first six
    // is lost.
    for (unsigned lost = 0; lost < 64; lost++) {
        SCOPED_TRACE(lost);
        pair_of_engines p(1);
        ASSERT_TRUE(p.start());
        const texts rekeyed = {"11 session=" + hex8(p.session())};
        int count = 0;
        const std::set<int> types = {TARN_PKT_HS_INIT, TARN_PKT_HS_RESP, TARN_PKT_REKEY, TARN_PKT_REKEY_ACK};
        p.net.hook = [&](const datagram &d) {
            return !types.count(d.data[2]) || !(lost >> std::min(count++, 6) & 1);
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
        const auto used = [](const crypto_slot &s) { return s.state != SLOT_FREE; };
        EXPECT_EQ(std::count_if(p.host.h->slots, p.host.h->slots + 24, used), 1);
    }
}

TEST(Engines, ManyRekeysUnderHeavyLossNeverPartTheTwo) {
    for (uint64_t seed : seeds(20)) {
        TRACE_SEED(seed);
        pair_of_engines p(seed, [](tarn_client_config &c) { c.rekey_packets = 30; });
        p.net.any = line(15 * ms, 30, 20);
        ASSERT_TRUE(p.start());
        p.talk(60 * second);
        const auto ours = count_of(p.client.log, "rekeyed"), theirs = count_of(p.host.log, "rekeyed");
        EXPECT_GT(ours, 20);
        EXPECT_TRUE(theirs == ours || theirs == ours + 1);
        p.expect_arrivals(3000 * 60 / 100);
    }
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
    EXPECT_TRUE(p.start()); // and once more, with the path that is known
    wipes.clear();
    tarn_host_destroy(std::exchange(p.host.h, nullptr));
    tarn_client_destroy(std::exchange(p.client.c, nullptr));
    EXPECT_EQ(wipes[sizeof(tarn_host)] + wipes[sizeof(tarn_client)], 2);
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
