// Whole worlds: which path a session finds between two places, what becomes of it when a way closes, and what one client
// can do to another's. Servers are the real class.
#include <gtest/gtest.h>

#include "support/world.h"

namespace {

using namespace netsim;

constexpr int64_t ms = 1000, second = 1000000;
constexpr int open = in_the_open, full = static_cast<int>(nat_kind::full_cone),
              restricted = static_cast<int>(nat_kind::restricted),
              by_port = static_cast<int>(nat_kind::port_restricted),
              symmetric = static_cast<int>(nat_kind::symmetric);

plan between(int host_nat, int client_nat, bool shares_lan = false) {
    plan p;
    p.host_nat = host_nat;
    p.clients[0].nat = client_nat;
    p.clients[0].shares_lan = shares_lan;
    return p;
}
bool connects(world &w, int client = 0) {
    w.run(second); // the host registers
    w.start(client);
    return w.run_until([&] { return w.content(client, true); }, 8 * second);
}

// Every pair of places, against what is written here, not against the table that the world keeps.
TEST(World, FindsTheBestPathBetweenTwoPlaces) {
    const struct {
        const char *what;
        plan p;
        bool told, isolated, hairpin;
        uint32_t mode;
        int path;
    } rows[] = {
        {"one LAN", between(by_port, by_port, true), 0, 0, 0, TARN_ROUTE_ANY, TARN_PATH_LAN},
        {"one LAN, no server used", between(symmetric, symmetric, true), 1, 0, 0, TARN_ROUTE_LOCAL_ONLY,
         TARN_PATH_LAN},
        {"one LAN, relay only", between(by_port, by_port, true), 0, 0, 0, TARN_ROUTE_RELAY_ONLY,
         TARN_PATH_RELAY},
        {"isolated devices", between(by_port, by_port, true), 0, 1, 0, TARN_ROUTE_ANY, TARN_PATH_RELAY},
        {"isolated, hairpin", between(by_port, by_port, true), 0, 1, 1, TARN_ROUTE_ANY, TARN_PATH_P2P},
        {"isolated, symmetric", between(symmetric, symmetric, true), 0, 1, 1, TARN_ROUTE_ANY,
         TARN_PATH_RELAY},
        {"known host in the open", between(open, symmetric), 1, 0, 0, TARN_ROUTE_ANY, TARN_PATH_DIRECT},
        {"known host, no server used", between(open, by_port), 1, 0, 0, TARN_ROUTE_LOCAL_ONLY,
         TARN_PATH_DIRECT},
        {"both in the open", between(open, open), 0, 0, 0, TARN_ROUTE_ANY, TARN_PATH_P2P},
        {"open host", between(open, symmetric), 0, 0, 0, TARN_ROUTE_ANY, TARN_PATH_P2P},
        {"open client", between(symmetric, open), 0, 0, 0, TARN_ROUTE_ANY, TARN_PATH_P2P},
        {"cone and cone", between(full, restricted), 0, 0, 0, TARN_ROUTE_ANY, TARN_PATH_P2P},
        {"two careful cones", between(by_port, by_port), 0, 0, 0, TARN_ROUTE_NO_RELAY, TARN_PATH_P2P},
        {"symmetric host, cone", between(symmetric, restricted), 0, 0, 0, TARN_ROUTE_ANY, TARN_PATH_P2P},
        {"symmetric client, cone", between(restricted, symmetric), 0, 0, 0, TARN_ROUTE_ANY, TARN_PATH_P2P},
        {"symmetric host, careful cone", between(symmetric, by_port), 0, 0, 0, TARN_ROUTE_ANY,
         TARN_PATH_RELAY},
        {"symmetric client, careful cone", between(by_port, symmetric), 0, 0, 0, TARN_ROUTE_ANY,
         TARN_PATH_RELAY},
        {"two symmetric", between(symmetric, symmetric), 0, 0, 0, TARN_ROUTE_ANY, TARN_PATH_RELAY},
        {"relay only", between(open, open), 1, 0, 0, TARN_ROUTE_RELAY_ONLY, TARN_PATH_RELAY},
        {"no relay, no other way", between(symmetric, symmetric), 0, 0, 0, TARN_ROUTE_NO_RELAY,
         TARN_PATH_NONE},
        {"local only, host elsewhere", between(by_port, open), 0, 0, 0, TARN_ROUTE_LOCAL_ONLY,
         TARN_PATH_NONE},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        plan p = row.p;
        p.clients[0].told = row.told;
        p.clients[0].route_mode = row.mode;
        p.isolated = row.isolated;
        p.hairpin = row.hairpin;
        world w(1, p);
        EXPECT_EQ(w.best_class(0), row.path);
        connects(w);
        w.run(6 * second);
        EXPECT_EQ(w.path(0), row.path);
        if (row.path == TARN_PATH_NONE) continue;
        EXPECT_EQ(w.talk(0, 20), 20U);
        EXPECT_TRUE(w.content(0, true));
    }
}

// Whoever knows no more than PIN and key code, or PIN and LAN, gets a session; a wrong PIN costs another try.
TEST(World, PairsThenConnects) {
    const struct {
        int host, client;
        bool shares_lan, by_code;
        uint32_t mode;
    } rows[] = {
        {by_port, by_port, false, true, TARN_ROUTE_ANY},
        {symmetric, symmetric, false, true, TARN_ROUTE_RELAY_ONLY},
        {symmetric, symmetric, true, false, TARN_ROUTE_LOCAL_ONLY},
    };
    for (const auto &row : rows) {
        plan p = between(row.host, row.client, row.shares_lan);
        p.by_code = row.by_code;
        p.clients[0].listed = false;
        p.clients[0].told = row.shares_lan;
        p.clients[0].route_mode = row.mode;
        world w(2, p);
        w.guesses_first = true;
        ASSERT_TRUE(connects(w));
        EXPECT_TRUE(w.people[0].pair_failed);
        EXPECT_EQ(w.talk(0, 20), 20U);
    }
}

// A cut direct path leads to the relay within two seconds, and back when it holds again.
TEST(World, MovesToTheRelayAndBack) {
    for (const int nat : {open, by_port}) {
        world w(3, between(by_port, nat));
        ASSERT_TRUE(connects(w));
        w.run(5 * second);
        w.block(0, true);
        EXPECT_TRUE(w.run_until([&] { return w.path(0) == TARN_PATH_RELAY; }, 2 * second));
        w.run(50 * ms); // until the host knows
        EXPECT_EQ(w.talk(0, 20), 20U);
        w.block(0, false);
        EXPECT_FALSE(
            w.run_until([&] { return w.path(0) == TARN_PATH_P2P; }, 2900 * ms)); // it must prove itself
        EXPECT_TRUE(w.run_until([&] { return w.content(0, true); }, 3 * second));
        EXPECT_EQ(w.talk(0, 20), 20U);
    }
}

// The second client is told why it doesn't get in, and gets in once the first is gone. Meanwhile the first one's relayed
// session goes on, which it doesn't with a server that sends all to the host's newest client.
TEST(World, ASecondClientCannotSilenceARelayedSession) {
    for (const bool by_session : {true, false}) {
        plan p = between(symmetric, symmetric);
        p.clients[1].nat = symmetric;
        p.route_by_session = by_session;
        world w(4, p);
        ASSERT_TRUE(connects(w));
        w.start(1);
        w.run(3 * second);
        EXPECT_EQ(w.talk(0, 20), by_session ? 20U : 0U);
        if (!by_session) continue;
        EXPECT_TRUE(w.people[1].rejected);
        EXPECT_TRUE(w.people[1].sessions.empty());
        w.stop(0);
        EXPECT_TRUE(w.run_until([&] { return !w.people[1].sessions.empty(); }, 5 * second));
        w.run(100 * ms); // until the host knows
        EXPECT_EQ(w.talk(1, 20), 20U);
    }
}

// A server that restarts knows nobody. Hosts and clients come back by themselves, and a session that needs it goes on
// under its old keys; one that doesn't feels nothing.
TEST(World, OutlivesARestartOfTheServer) {
    for (const int nat : {symmetric, by_port}) {
        world w(5, between(nat, nat));
        ASSERT_TRUE(connects(w));
        w.run(5 * second);
        const std::vector<uint32_t> before = w.people[0].sessions;
        w.servers[0]->restart();
        if (nat == by_port) {
            EXPECT_EQ(w.talk(0, 20), 20U);
        }
        w.run(25 * second);
        EXPECT_TRUE(w.content(0, true));
        EXPECT_EQ(w.talk(0, 20), 20U);
        EXPECT_EQ(w.people[0].sessions, before);
    }
}

// A host that moves while a client is being brought to it binds from an address that its server doesn't know, again and
// again. It gets to register all the same, and is found at its new place.
TEST(World, FindsAHostThatMovesInTheMiddle) {
    plan p = between(by_port, by_port);
    p.interval_s = 60;
    world w(7, p);
    w.run(second);
    w.start(0);
    ASSERT_TRUE(
        w.run_until([&] { return w.host->log.back().find("punching") != std::string::npos; }, second));
    w.renumber(-1);
    EXPECT_TRUE(w.run_until([&] { return w.content(0, true); }, 9 * second));
}

// With two servers, one that falls silent takes no session with it.
TEST(World, FallsBackToTheOtherServer) {
    plan p = between(symmetric, symmetric);
    p.servers = 2;
    world w(6, p);
    ASSERT_TRUE(connects(w));
    w.second_session(0);
    w.rekey(0);
    ASSERT_TRUE(w.run_until([&] { return w.content(0, true); }, 3 * second));
    const tarn_addr used = w.people[0].node->status().addr;
    for (auto &server : w.servers)
        server->deaf = tarn_rv_endpoint_equal(&server->at, &used);
    w.run(2 * second);
    const tarn_addr now = w.people[0].node->status().addr;
    EXPECT_FALSE(tarn_rv_endpoint_equal(&used, &now));
    EXPECT_EQ(w.talk(0, 20), 20U);
    EXPECT_EQ(w.people[0].sessions.size(), 2U);
}

} // namespace
