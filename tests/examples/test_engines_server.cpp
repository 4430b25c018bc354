// Both engines and the rendezvous server on the simulated network: a client that knows a key code and a PIN finds its
// host behind NATs, pairs, and gets a session on the best path that there is.
#include <gtest/gtest.h>

#include <memory>

#include "conn_client_internal.h"
#include "conn_host_internal.h"
#include "server/rendezvous_server.h"
#include "support/netsim.h"

namespace {

using namespace netsim;

constexpr int64_t ms = 1000, second = 1000000;
const char *const link = "tarnglider-relay://198.51.100.99:9877#key", *const server_at = "198.51.100.99:9877";

class server_node : public node {
public:
    explicit server_node(network &net) {
        app::server_config config;
        config.link_key = {'k', 'e', 'y'};
        config.identity = test_key(50);
        server = std::make_unique<app::rendezvous_server>(
            config, [this, &net](const tarn_addr &to, const uint8_t *data, size_t len) {
                net.send(*this, to, bytes(data, data + len));
            });
    }
    void receive(const datagram &d) override {
        server->receive(d.from, d.data.data(), d.data.size(), static_cast<uint64_t>(tarn_now_us()));
    }
    void tick() override {
        server->tick(static_cast<uint64_t>(tarn_now_us()));
        due = tarn_now_us() + second;
    }
    std::unique_ptr<app::rendezvous_server> server;
};

// A host and a client, each in the open (nat -1) or behind its own NAT.
struct world {
    const std::string code = code_of(test_key(200).public_key);
    network net{1};
    server_node server{net};
    host_node host;
    client_node client;
    world(int host_nat, int client_nat, uint32_t route = TARN_ROUTE_ANY, const char *links = link)
        : host(net, 0, [&](tarn_host_config &c) { tarn_relay_config_add_link(&c.relays, links); }),
          client(net, [&](tarn_client_config &c) {
              tarn_relay_config_add_link(&c.relays, links);
              c.host_key_known = 0, c.route_mode = route;
              c.identity = test_key(60);
              c.host_code = code.c_str();
          }) {
        net.attach(server, server_at);
        const auto box = [&](int kind, const char *ip) {
            return kind < 0 ? -1 : net.add_nat(static_cast<nat_kind>(kind), ip);
        };
        net.attach(host, host_nat < 0 ? "203.0.113.5:9000" : "10.1.0.2:9000", box(host_nat, "203.0.113.50"));
        net.attach(client, client_nat < 0 ? "198.51.100.20:5000" : "10.2.0.2:5000",
                   box(client_nat, "198.51.100.77"));
        net.run(second); // the host registers
    }
    // Pairs by the host's PIN, and waits until traffic has settled. The class of the path, 0 without a session.
    int pair() {
        tarn_host_pairing_state s;
        tarn_host_pairing_status(host.h, &s);
        tarn_client_pair(client.c, s.pin, 0);
        client.due = tarn_now_us();
        net.run(8 * second);
        return client.status().connected ? client.status().path : 0;
    }
};

TEST(EnginesAndServer, EveryPairOfNatsGetsItsBestPath) {
    // Rows: the host in the open, behind a full cone, restricted, port-restricted, symmetric NAT; columns: the client.
    const int best[5][5] = {
        {3, 3, 3, 3, 3}, {3, 3, 3, 3, 3}, {3, 3, 3, 3, 3}, {3, 3, 3, 3, 4}, {3, 3, 3, 4, 4},
    };
    for (int host = -1; host < 4; host++) {
        for (int client = -1; client < 4; client++) {
            SCOPED_TRACE(std::to_string(host) + " " + std::to_string(client));
            world w(host, client);
            EXPECT_EQ(w.pair(), best[host + 1][client + 1]);
            const host_link &l = w.host.h->links[0];
            // To the host a client behind a symmetric NAT comes from an endpoint that nobody named.
            const int seen = client == 3 && best[host + 1][client + 1] == TARN_PATH_P2P
                                 ? TARN_PATH_DIRECT
                                 : best[host + 1][client + 1];
            EXPECT_TRUE(l.active && l.path == seen);
            EXPECT_EQ(w.host.h->clients[0].active, 1u);
        }
    }
}

TEST(EnginesAndServer, RouteModesAndTheCutOfTheDirectPath) {
    EXPECT_EQ(world(3, 3, TARN_ROUTE_NO_RELAY).pair(), 0);
    EXPECT_EQ(world(1, 1, TARN_ROUTE_NO_RELAY).pair(), TARN_PATH_P2P);
    EXPECT_EQ(world(-1, -1, TARN_ROUTE_LOCAL_ONLY).pair(), 0);
    EXPECT_EQ(world(-1, -1, TARN_ROUTE_RELAY_ONLY).pair(), TARN_PATH_RELAY);

    world w(2, 2);
    ASSERT_EQ(w.pair(), TARN_PATH_P2P);
    const uint32_t session = w.client.status().session;
    const auto talk = [&] { // whether data gets through both ways
        const size_t client = w.client.got.size(), host = w.host.got.size();
        w.client.say(session, plain(TARN_PKT_INPUT));
        w.host.say(session, plain(TARN_PKT_CURSOR_POS));
        w.net.run(100 * ms);
        return w.client.got.size() > client && w.host.got.size() > host;
    };
    EXPECT_TRUE(talk());
    w.net.hook = [](const datagram &d) { return text(d.to) == server_at || text(d.from) == server_at; };
    w.net.run(2 * second);
    EXPECT_TRUE(w.client.status().path == TARN_PATH_RELAY && w.host.h->links[0].path == TARN_PATH_RELAY &&
                talk());
    w.net.hook = nullptr;
    w.net.run(8 * second);
    EXPECT_TRUE(w.client.status().path == TARN_PATH_P2P && talk());
    EXPECT_EQ(w.client.status().session, session);
    EXPECT_EQ(w.server.server->hosts(), 1u);
    w.net.run(600 * second); // and it lasts: the host stays registered, once
    texts registered;
    for (const std::string &e : w.host.events())
        if (e.rfind("8 ", 0) == 0) registered.push_back(e);
    EXPECT_TRUE(registered.size() == 1 && talk());
}

} // namespace
