// The rendezvous and relay server by its datagrams: who may register, be found, bind and be forwarded to; what ends
// when; what a flood, a full table or a hostile peer can't do.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>

#include <tarnglider/protocol.h>

#include "server/rendezvous_server.h"
#include "support/engine_rig.h"
#include "support/seeded_random.h"

namespace {

using namespace app;

constexpr uint64_t second = 1000000;
const bytes link_key = {'k', 'e', 'y'};

struct sent {
    tarn_addr to;
    bytes data;
    tarn_rv_msg m;
};

tarn_addr at(uint32_t number, uint16_t port = 5000) {
    tarn_addr a{};
    a.family = 4;
    a.port = port;
    a.ip[0] = 10;
    for (int i = 0; i < 3; i++)
        a.ip[3 - i] = static_cast<uint8_t>(number >> 8 * i);
    return a;
}

struct peer_host {
    tarn_keypair key;
    tarn_addr addr;
    uint8_t cookie[16] = {};
    uint8_t server_key[32] = {};
    std::vector<tarn_addr> lan = {ep("192.168.1.2:9000")};
    peer_host(uint32_t number, const tarn_addr &a) : key(), addr(a) {
        uint8_t secret[32] = {};
        const uint64_t word = uint64_t{number} << 3; // the lowest three bits are no part of a key
        memcpy(secret, &word, sizeof word);
        secret[31] = 0x40;
        tarn_keypair_from_secret(&key, secret);
    }
    // A registration with the last cookie, or, before the first challenge, without.
    tarn_rv_msg message() const {
        tarn_rv_msg m{};
        m.type = TARN_RV_REGISTER;
        memcpy(m.key, key.public_key, 32);
        memcpy(m.token, cookie, 16);
        m.count = static_cast<uint8_t>(lan.size());
        std::copy(lan.begin(), lan.end(), m.endpoints);
        if (std::any_of(cookie, cookie + 16, [](uint8_t b) { return b != 0; }))
            tarn_rv_register_proof(m.proof, key.secret, server_key, cookie, key.public_key, m.endpoints,
                                   m.count);
        return m;
    }
};

// A relay allocation as both sides know it.
struct pair_up {
    tarn_rv_msg client, host; // the reply and the introduction
    tarn_addr client_at, host_at;
};

class Server : public testing::Test {
protected:
    Server() {
        seeded_random::reset(1);
        config.link_key = link_key;
        config.identity = test_key(9);
        tarn_rv_net_key(net_key, link_key.data(), link_key.size());
        start();
    }
    void start() {
        server = std::make_unique<rendezvous_server>(
            config, [this](const tarn_addr &to, const uint8_t *data, size_t len) {
                sent s = {to, bytes(data, data + len), {}};
                if (tarn_rv_decode(data, len, net_key, &s.m) != 0) s.m = {};
                out.push_back(s);
            });
    }
    bytes encode(const tarn_rv_msg &m) const {
        bytes p(TARN_RV_MAX_SIZE);
        p.resize(tarn_rv_encode(p.data(), p.size(), net_key, &m));
        return bytes(p.data(), p.data() + p.size()); // exactly as large as it must be
    }

    std::vector<sent> give(const tarn_addr &from, const bytes &p) {
        out.clear();
        server->receive(from, p.data(), p.size(), now);
        return out;
    }
    std::vector<sent> give(const tarn_addr &from, const tarn_rv_msg &m) { return give(from, encode(m)); }
    // The one answer to its sender; type 0 for none.
    tarn_rv_msg ask(const tarn_addr &from, const tarn_rv_msg &m) {
        tarn_rv_msg found{};
        int answers = 0;
        for (const sent &s : give(from, m)) {
            if (!tarn_rv_endpoint_equal(&s.to, &from)) continue;
            found = s.m;
            answers++;
        }
        EXPECT_LE(answers, 1);
        return found;
    }
    void wait(uint64_t us) {
        for (const uint64_t end = now + us; now < end;) {
            now = std::min(end, now + second);
            server->tick(now);
        }
    }
    static void adopt(peer_host &h, const tarn_rv_msg &challenge) {
        ASSERT_EQ(challenge.type, TARN_RV_CHALLENGE);
        memcpy(h.cookie, challenge.token, 16);
        memcpy(h.server_key, challenge.key, 32);
    }
    // Registers as a host does from the start.
    tarn_rv_msg enrol(peer_host &h) {
        memset(h.cookie, 0, sizeof h.cookie);
        adopt(h, ask(h.addr, h.message()));
        return ask(h.addr, h.message());
    }
    static tarn_rv_msg lookup(const peer_host &h, uint32_t tag, uint8_t len = 16) {
        tarn_rv_msg m{};
        m.type = TARN_RV_LOOKUP;
        m.tag = tag;
        m.id_len = len;
        tarn_key_id(m.lookup_id, h.key.public_key);
        memset(m.lookup_id + len, 0, sizeof m.lookup_id - len);
        m.count = 1;
        m.endpoints[0] = ep("192.168.7.7:7000");
        return m;
    }
    pair_up look_up(const peer_host &h, const tarn_addr &client, uint32_t tag) {
        pair_up p{{}, {}, client, h.addr};
        for (const sent &s : give(client, lookup(h, tag)))
            (tarn_rv_endpoint_equal(&s.to, &client) ? p.client : p.host) = s.m;
        return p;
    }
    static tarn_rv_msg bind(const tarn_rv_msg &m, uint8_t side) {
        tarn_rv_msg b{};
        b.type = TARN_RV_BIND;
        b.allocation = m.allocation;
        memcpy(b.token, m.token, 16);
        b.side = side;
        return b;
    }
    void bind_both(const pair_up &p) {
        ASSERT_EQ(ask(p.client_at, bind(p.client, 1)).status, status_ok);
        ASSERT_EQ(ask(p.host_at, bind(p.host, 0)).status, status_ok);
    }
    pair_up connect(const peer_host &h, const tarn_addr &client, uint32_t tag = 1) {
        const pair_up p = look_up(h, client, tag);
        bind_both(p);
        return p;
    }
    static bytes sealed(uint32_t session) {
        bytes p = {TARN_MAGIC, 2, 16, 0};
        const bytes id = le32(session);
        p.insert(p.end(), id.begin(), id.end());
        p.resize(32, 0x5A);
        return p;
    }
    // Where a datagram goes: the endpoint as text, "" for nowhere.
    std::string goes(const tarn_addr &from, const bytes &p) {
        const std::vector<sent> all = give(from, p);
        if (all.empty()) return "";
        EXPECT_EQ(all.size(), 1U);
        EXPECT_EQ(all[0].data, p);
        return text(all[0].to);
    }

    server_config config;
    uint8_t net_key[32];
    std::unique_ptr<rendezvous_server> server;
    std::vector<sent> out;
    uint64_t now = 1000 * second;
    peer_host host{1, ep("203.0.113.5:9000")};
    const tarn_addr alice = ep("198.51.100.1:5000"), bob = ep("198.51.100.2:5000");
};

// ---- Registration

TEST_F(Server, RegistersAndKeepsTheCookieForLife) {
    const bytes first = encode(host.message());
    const std::vector<sent> answer = give(host.addr, first);
    ASSERT_EQ(answer.size(), 1U);
    EXPECT_LE(answer[0].data.size(), first.size() + 2);
    EXPECT_EQ(text(answer[0].m.seen), text(host.addr));
    EXPECT_EQ(memcmp(answer[0].m.key, config.identity.public_key, 32), 0);
    EXPECT_EQ(server->hosts(), 0U); // nothing is kept for whom has proved nothing
    adopt(host, answer[0].m);
    config.limits.budgets[budget_proof].total = {1, 1};
    const tarn_rv_msg done = ask(host.addr, host.message());
    EXPECT_EQ(done.type, TARN_RV_REGISTERED);
    EXPECT_EQ(done.interval, 20);
    EXPECT_EQ(text(done.seen), text(host.addr));
    for (int i = 0; i < 30; i++) { // ten minutes: the cookie's slots are long past
        wait(20 * second);
        host.lan[0].port = static_cast<uint16_t>(9000 + i);
        ASSERT_EQ(ask(host.addr, host.message()).type, TARN_RV_REGISTERED) << i;
    }
    EXPECT_EQ(server->counters().registered, 1U);
    EXPECT_EQ(server->counters().refreshed, 30U);
    EXPECT_EQ(look_up(host, alice, 1).client.endpoints[0].port, 9029);
}

TEST_F(Server, RegistrationLivesThreeIntervals) {
    for (const uint16_t interval : {uint16_t{20}, uint16_t{7}}) {
        config.interval_s = interval;
        start();
        EXPECT_EQ(enrol(host).interval, interval);
        wait(3 * interval * second);
        EXPECT_EQ(ask(alice, lookup(host, 1)).type, TARN_RV_LOOKUP_REPLY);
        now += 1;
        EXPECT_EQ(ask(bob, lookup(host, 1)).status, status_unknown_host);
        EXPECT_EQ(ask(host.addr, host.message()).type,
                  interval == 20 ? TARN_RV_CHALLENGE : TARN_RV_REGISTERED)
            << "the cookie's slots are what counts now";
        wait(100 * second + 3 * interval * second);
        EXPECT_EQ(server->hosts(), 0U);
        EXPECT_EQ(server->counters().lapsed, 1U);
    }
}

TEST_F(Server, CookieIsForOneSourceAndTwoSlots) {
    const struct {
        uint64_t later;
        const char *from;
        int flip;
        bool good;
    } rows[] = {
        {0, "203.0.113.5:9000", -1, true},
        {59 * second, "203.0.113.5:9000", -1, true}, // the slot before
        {60 * second, "203.0.113.5:9000", -1, false},
        {0, "203.0.113.5:9001", -1, false},
        {0, "203.0.113.6:9000", -1, false},
        {0, "[2001:db8::5]:9000", -1, false},
        {0, "203.0.113.5:9000", 15, false},
    };
    now = 30 * second * 50; // a slot begins
    for (const auto &row : rows) {
        SCOPED_TRACE(row.from);
        start();
        const uint64_t begin = now;
        memset(host.cookie, 0, 16);
        adopt(host, ask(host.addr, host.message()));
        if (row.flip >= 0) host.cookie[row.flip] ^= 1;
        now += row.later;
        EXPECT_EQ(ask(ep(row.from), host.message()).type, row.good ? TARN_RV_REGISTERED : TARN_RV_CHALLENGE);
        EXPECT_EQ(server->hosts(), row.good ? 1U : 0U);
        now = begin;
    }
}

TEST_F(Server, ProofCoversKeyCookieAndEndpoints) {
    const struct {
        const char *what;
        std::function<void(tarn_rv_msg &)> change;
        int status;
    } rows[] = {
        {"proof", [](tarn_rv_msg &m) { m.proof[3] ^= 4; }, status_bad_proof},
        {"endpoint", [](tarn_rv_msg &m) { m.endpoints[0].port++; }, status_bad_proof},
        {"fewer endpoints", [](tarn_rv_msg &m) { m.count = 0; }, status_bad_proof},
        {"more endpoints", [](tarn_rv_msg &m) { m.count = 2; }, status_bad_proof},
        {"another's key", [](tarn_rv_msg &m) { memcpy(m.key, test_key(3).public_key, 32); },
         status_bad_proof},
        {"a key of low order", [](tarn_rv_msg &m) { memset(m.key, 0, 32); }, status_bad_key},
    };
    for (const bool registered : {false, true}) {
        for (const auto &row : rows) {
            SCOPED_TRACE(row.what);
            start();
            if (registered) {
                enrol(host);
            } else {
                memset(host.cookie, 0, 16);
                adopt(host, ask(host.addr, host.message()));
            }
            tarn_rv_msg m = host.message();
            row.change(m);
            const tarn_rv_msg refused = ask(host.addr, m);
            EXPECT_EQ(refused.type, TARN_RV_ERROR);
            EXPECT_EQ(refused.status, row.status);
            EXPECT_EQ(server->hosts(), registered ? 1U : 0U);
            EXPECT_EQ(server->counters().proofs_refused, 1U);
            if (!registered) continue;
            EXPECT_EQ(look_up(host, alice, 1).client.endpoints[0].port, 9000) << "the old list stays";
        }
    }
}

TEST_F(Server, LateRepeatOfAnOlderRegistrationTakesNothingBack) {
    enrol(host);
    const tarn_rv_msg old = host.message();
    now += 30 * second;
    host.lan[0].port = 9999;
    enrol(host);
    EXPECT_EQ(ask(host.addr, old).type, TARN_RV_REGISTERED);
    EXPECT_EQ(look_up(host, alice, 1).client.endpoints[0].port, 9999);
    wait(45 * second);
    EXPECT_EQ(ask(host.addr, host.message()).type, TARN_RV_REGISTERED) << "the newer cookie still holds";
}

// ---- Lookup

TEST_F(Server, IntroducesBothSides) {
    enrol(host);
    const tarn_rv_msg question = lookup(host, 77);
    const std::vector<sent> both = give(alice, question);
    ASSERT_EQ(both.size(), 2U);
    const tarn_rv_msg &intro = both[0].m, &reply = both[1].m;
    EXPECT_EQ(text(both[0].to), text(host.addr));
    EXPECT_EQ(intro.type, TARN_RV_INTRODUCE);
    EXPECT_EQ(text(intro.peer), text(alice));
    EXPECT_EQ(text(intro.endpoints[0]), text(question.endpoints[0]));
    EXPECT_EQ(text(both[1].to), text(alice));
    EXPECT_EQ(reply.type, TARN_RV_LOOKUP_REPLY);
    EXPECT_EQ(reply.status, status_ok);
    EXPECT_EQ(memcmp(reply.key, host.key.public_key, 32), 0);
    EXPECT_EQ(text(reply.peer), text(host.addr));
    EXPECT_EQ(text(reply.seen), text(alice));
    ASSERT_EQ(reply.count, 1);
    EXPECT_EQ(text(reply.endpoints[0]), text(host.lan[0]));
    EXPECT_EQ(intro.tag, 77U);
    EXPECT_EQ(reply.tag, 77U);
    EXPECT_NE(reply.allocation, 0U);
    EXPECT_EQ(intro.allocation, reply.allocation);
    EXPECT_EQ(memcmp(intro.punch_token, reply.punch_token, 16), 0);
    EXPECT_NE(memcmp(intro.token, reply.token, 16), 0) << "each side binds with its own token";
}

TEST_F(Server, FindsByCodeAndRefusesToGuess) {
    // Two keys whose ids begin with the same 48 bits.
    peer_host one(696248, at(1)), two(777692, at(2));
    enrol(one);
    for (const uint8_t len : {uint8_t{5}, uint8_t{6}, uint8_t{15}, uint8_t{16}})
        EXPECT_EQ(ask(alice, lookup(one, len, len)).type, TARN_RV_LOOKUP_REPLY) << int{len};
    EXPECT_EQ(ask(alice, lookup(two, 1)).status, status_unknown_host);
    EXPECT_EQ(ask(alice, lookup(two, 1, 7)).status, status_unknown_host);
    now += 10 * second;
    enrol(two);
    const tarn_rv_msg refused = ask(alice, lookup(one, 9, 5));
    EXPECT_EQ(refused.type, TARN_RV_ERROR);
    EXPECT_EQ(refused.tag, 9U);
    EXPECT_EQ(refused.status, status_ambiguous);
    EXPECT_EQ(give(alice, lookup(one, 9, 6)).size(), 1U) << "nobody is introduced";
    EXPECT_EQ(memcmp(ask(alice, lookup(one, 9, 7)).key, one.key.public_key, 32), 0);
    EXPECT_EQ(memcmp(ask(alice, lookup(two, 9, 16)).key, two.key.public_key, 32), 0);
    for (peer_host *stays : {&two, &one}) { // the other one lapses, and goes
        wait(30 * second);
        enrol(*stays);
        EXPECT_EQ(memcmp(ask(alice, lookup(*stays, 9, 16)).key, stays->key.public_key, 32), 0);
        wait(32 * second);
        EXPECT_EQ(memcmp(ask(alice, lookup(*stays, 9, 5)).key, stays->key.public_key, 32), 0);
        EXPECT_EQ(server->hosts(), 1U);
        enrol(two);
        enrol(one);
    }
}

TEST_F(Server, RepeatedLookupIsADuplicateOnlyWhileNothingChanged) {
    enrol(host);
    const pair_up first = look_up(host, alice, 7);
    const auto same = [&](const pair_up &p) {
        return p.client.allocation == first.client.allocation &&
               memcmp(p.client.token, first.client.token, 16) == 0 &&
               memcmp(p.client.punch_token, first.client.punch_token, 16) == 0;
    };
    const pair_up again = look_up(host, alice, 7);
    EXPECT_TRUE(same(again));
    EXPECT_EQ(again.host.type, TARN_RV_INTRODUCE) << "the first one may be lost";
    EXPECT_FALSE(same(look_up(host, alice, 8)));
    EXPECT_FALSE(same(look_up(host, bob, 7)));
    tarn_addr other_port = alice;
    other_port.port++;
    EXPECT_FALSE(same(look_up(host, other_port, 7)));
    wait(25 * second);
    ask(host.addr, host.message());
    EXPECT_TRUE(same(look_up(host, alice, 7)));
    wait(30 * second);
    EXPECT_TRUE(same(look_up(host, alice, 7)));
    ask(host.addr, host.message());
    now += 30 * second + 1; // an allocation that nobody binds ends
    EXPECT_EQ(ask(alice, bind(first.client, 1)).status, status_no_allocation);
    const pair_up fresh = look_up(host, alice, 7);
    EXPECT_FALSE(same(fresh));
    host.addr = ep("203.0.113.77:1");
    enrol(host);
    EXPECT_EQ(server->counters().moved, 1U);
    const pair_up moved = look_up(host, alice, 7);
    EXPECT_NE(moved.client.allocation, fresh.client.allocation);
    EXPECT_EQ(text(moved.client.peer), text(host.addr));
    EXPECT_EQ(moved.host.type, TARN_RV_INTRODUCE);
}

TEST_F(Server, NoRandomnessNoAllocation) {
    enrol(host);
    seeded_random::fail_at(1);
    EXPECT_EQ(ask(alice, lookup(host, 1)).status, status_full);
    EXPECT_EQ(server->allocations(), 0U);
    seeded_random::fail_at(2);
    EXPECT_THROW(start(), std::runtime_error);
    seeded_random::fail_at(0);
}

// ---- Binding

TEST_F(Server, BindsByNumberTokenSideAndAddress) {
    enrol(host);
    const pair_up p = look_up(host, alice, 1);
    const struct {
        const char *what;
        const char *from;
        std::function<tarn_rv_msg()> m;
        int type;
        int status;
    } rows[] = {
        {"client", "198.51.100.1:5000", [&] { return bind(p.client, 1); }, TARN_RV_BIND_REPLY, 0},
        {"host", "203.0.113.5:9000", [&] { return bind(p.host, 0); }, TARN_RV_BIND_REPLY, 0},
        {"client's NAT took another port", "198.51.100.1:5001", [&] { return bind(p.client, 1); },
         TARN_RV_BIND_REPLY, 0},
        {"host's token for the client", "198.51.100.1:5000", [&] { return bind(p.host, 1); },
         TARN_RV_BIND_REPLY, 7},
        {"client's token for the host", "203.0.113.5:9000", [&] { return bind(p.client, 0); },
         TARN_RV_BIND_REPLY, 7},
        {"wrong token", "198.51.100.1:5000",
         [&] {
             auto m = bind(p.client, 1);
             m.token[15] ^= 1;
             return m;
         },
         TARN_RV_BIND_REPLY, 7},
        {"another use of the record", "198.51.100.1:5000",
         [&] {
             auto m = bind(p.client, 1);
             m.allocation ^= 1U << 20;
             return m;
         },
         TARN_RV_BIND_REPLY, 7},
        {"no such record", "198.51.100.1:5000",
         [&] {
             auto m = bind(p.client, 1);
             m.allocation += 1;
             return m;
         },
         TARN_RV_BIND_REPLY, 7},
        {"client elsewhere", "198.51.100.2:5000", [&] { return bind(p.client, 1); }, TARN_RV_BIND_REPLY, 9},
        {"host elsewhere", "203.0.113.6:9000", [&] { return bind(p.host, 0); }, TARN_RV_ERROR, 2},
        {"no side", "198.51.100.1:5000", [&] { return bind(p.client, 2); }, 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const tarn_rv_msg reply = ask(ep(row.from), row.m());
        EXPECT_EQ(reply.type, row.type);
        EXPECT_EQ(reply.status, row.status);
        if (reply.type != TARN_RV_BIND_REPLY) continue;
        EXPECT_EQ(text(reply.seen), row.from);
        EXPECT_EQ(reply.allocation, row.m().allocation);
    }
    // The last good bind of a side is where its datagrams go; the older address is none of this relay any more.
    EXPECT_EQ(goes(host.addr, {1, 2, 3}), "198.51.100.1:5001");
    EXPECT_EQ(goes(alice, {1, 2, 3}), "");
}

TEST_F(Server, HostThatMovedRegistersThenBindsAndItsClientsLookUpAgain) {
    enrol(host);
    const pair_up p = connect(host, alice);
    const tarn_addr before = host.addr;
    host.addr = ep("203.0.113.77:9000");
    EXPECT_EQ(ask(host.addr, bind(p.host, 0)).status, status_register_again);
    EXPECT_EQ(ask(host.addr, host.message()).type, TARN_RV_CHALLENGE) << "the cookie was for the old address";
    EXPECT_EQ(ask(alice, bind(p.client, 1)).status, status_ok) << "until then nothing better is known";
    now += 1;
    enrol(host);
    EXPECT_EQ(ask(alice, bind(p.client, 1)).status, status_host_moved);
    EXPECT_EQ(ask(host.addr, bind(p.host, 0)).status, status_ok);
    EXPECT_EQ(ask(alice, bind(p.client, 1)).status, status_ok);
    EXPECT_EQ(goes(alice, sealed(5)), text(host.addr));
    EXPECT_EQ(goes(before, sealed(5)), "");
    EXPECT_NE(look_up(host, alice, 1).client.allocation, p.client.allocation)
        << "so the client learns where it is";
}

TEST_F(Server, ClientOfAnAllocationThatItsHostDroppedLooksUpAgain) {
    enrol(host);
    const pair_up p = connect(host, alice);
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(ask(alice, bind(p.client, 1)).status, status_ok) << i;
        wait(15 * second);
        ask(host.addr, host.message());
    }
    EXPECT_EQ(look_up(host, alice, 1).client.allocation, p.client.allocation);
    now += 1;
    EXPECT_EQ(ask(alice, bind(p.client, 1)).status, status_host_moved);
    EXPECT_NE(look_up(host, alice, 1).client.allocation, p.client.allocation);
    wait(61 * second); // while the host isn't there at all there is nothing better
    EXPECT_EQ(ask(alice, lookup(host, 1)).status, status_unknown_host);
}

// ---- Forwarding

TEST_F(Server, ForwardsWhatIsNotForAServerBetweenTheTwoEnds) {
    enrol(host);
    const pair_up p = look_up(host, alice, 1);
    EXPECT_EQ(goes(alice, sealed(1)), "");
    ask(alice, bind(p.client, 1));
    EXPECT_EQ(goes(alice, sealed(1)), "") << "one end is not bound";
    ask(host.addr, bind(p.host, 0));
    tarn_rv_msg forged{};
    forged.type = TARN_RV_INTRODUCE;
    forged.peer = bob;
    bytes punch(TARN_RV_PUNCH_SIZE);
    tarn_rv_msg hole{};
    hole.type = TARN_RV_PUNCH;
    tarn_rv_encode(punch.data(), punch.size(), nullptr, &hole);
    bytes last_number = plain(111), beyond = plain(112), below = plain(95), sealed_punch = sealed(1);
    sealed_punch[2] = TARN_RV_PUNCH;
    const struct {
        const char *what;
        bytes data;
        bool goes;
    } rows[] = {
        {"one byte", {7}, true},
        {"plain", plain(88, bytes(104)), true},
        {"sealed", sealed(1), true},
        {"largest", bytes(1500, 1), true},
        {"too large", bytes(1501, 1), false},
        {"empty", {}, false},
        {"a peer in the server's name", encode(forged), false},
        {"punch", punch, false},
        {"last number of the range", last_number, false},
        {"beyond the range", beyond, true},
        {"below the range", below, true},
        {"sealed packet with such a type", sealed_punch, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(goes(alice, row.data), row.goes ? text(host.addr) : "");
        EXPECT_EQ(goes(host.addr, row.data), row.goes ? text(alice) : "");
        EXPECT_EQ(goes(bob, row.data), "");
    }
    EXPECT_EQ(server->counters().forwarded, 14U);
    EXPECT_EQ(server->counters().forwarded_bytes, 2 * (1 + 112 + 32 + 1500 + 8 + 8 + 32U));
}

TEST_F(Server, EndBoundToItselfIsNoMirror) {
    enrol(host);
    const pair_up p = look_up(host, host.addr, 1);
    EXPECT_EQ(ask(host.addr, bind(p.client, 1)).status, status_ok);
    for (const sent &s : give(host.addr, lookup(host, 1))) {
        if (s.m.type == TARN_RV_INTRODUCE) ask(host.addr, bind(s.m, 0));
    }
    EXPECT_EQ(goes(host.addr, sealed(1)), "");
}

// A second client binds and is merely turned away. With the rule off it silences the first one.
TEST_F(Server, SecondClientCannotSilenceTheFirst) {
    for (const bool rule : {true, false}) {
        config.route_by_session = rule;
        start();
        enrol(host);
        connect(host, alice);
        EXPECT_EQ(goes(alice, sealed(100)), text(host.addr));
        EXPECT_EQ(goes(host.addr, sealed(100)), text(alice));
        connect(host, bob, 2);
        EXPECT_EQ(goes(bob, plain(88, bytes(104))), text(host.addr));
        EXPECT_EQ(goes(host.addr, plain(90, bytes(1))), text(bob)) << "it is turned away";
        EXPECT_EQ(goes(host.addr, sealed(100)), text(rule ? alice : bob));
        EXPECT_EQ(goes(alice, sealed(100)), text(host.addr));
        // The first client's new handshake is answered there, too, and its new session is learned.
        EXPECT_EQ(goes(alice, plain(88, bytes(104))), text(host.addr));
        EXPECT_EQ(goes(host.addr, plain(89, bytes(52))), text(rule ? alice : bob));
        EXPECT_EQ(goes(alice, sealed(101)), text(host.addr));
        EXPECT_EQ(goes(host.addr, sealed(101)), text(rule ? alice : bob));
        EXPECT_EQ(goes(host.addr, sealed(100)), text(rule ? alice : bob)) << "the old keys are in flight";
        // What nothing tells goes to the newest binding.
        EXPECT_EQ(goes(host.addr, sealed(999)), text(bob));
        now += 2 * second;
        EXPECT_EQ(goes(host.addr, plain(89, bytes(52))), text(rule ? alice : bob));
        now += 1;
        EXPECT_EQ(goes(host.addr, plain(89, bytes(52))), text(bob));
    }
}

TEST_F(Server, HostWhoseNatForgotItTakesAllItsAllocationsAlong) {
    peer_host neighbour(2, host.addr); // from the same endpoint, but it stays
    enrol(host);
    enrol(neighbour);
    const pair_up a = connect(host, alice), b = connect(host, bob, 2);
    connect(neighbour, at(9));
    goes(alice, sealed(100));
    goes(bob, plain(88));
    const tarn_addr before = host.addr;
    host.addr.port++;
    now += 1;
    EXPECT_EQ(ask(host.addr, bind(b.host, 0)).status, status_ok);
    EXPECT_EQ(goes(alice, sealed(100)), text(host.addr));
    EXPECT_EQ(goes(host.addr, sealed(100)), text(alice));
    EXPECT_EQ(goes(before, plain(89)), text(at(9))) << "the last question there was for the one that left";
    EXPECT_EQ(goes(at(9), sealed(7)), text(before));
    // The registration still names the old port, which isn't news any more.
    EXPECT_EQ(ask(alice, bind(a.client, 1)).status, status_ok);
    EXPECT_EQ(look_up(host, alice, 1).client.allocation, a.client.allocation);
}

TEST_F(Server, ClaimOfARunningSessionIsIgnoredUntilItsClientFallsSilent) {
    enrol(host);
    connect(host, alice);
    bytes cut = sealed(300); // no sealed packet is so short
    cut.pop_back();
    goes(alice, cut);
    goes(alice, {TARN_MAGIC, 2});
    connect(host, bob, 2);
    EXPECT_EQ(goes(host.addr, sealed(300)), text(bob));
    goes(alice, sealed(100));
    goes(bob, sealed(100));
    EXPECT_EQ(goes(host.addr, sealed(100)), text(alice));
    now += 3 * second;
    goes(bob, sealed(100));
    EXPECT_EQ(goes(host.addr, sealed(100)), text(alice));
    now += 1;
    goes(bob, sealed(100)); // the client came back from another address
    EXPECT_EQ(goes(host.addr, sealed(100)), text(bob));
    // The same client in its newer allocation needs no silence.
    connect(host, bob, 3);
    for (int i = 0; i < 4; i++) {
        goes(bob, sealed(100));
        now += second;
    }
    goes(alice, sealed(100));
    EXPECT_EQ(goes(host.addr, sealed(100)), text(bob));
    // A client has room for four sessions, the longest unused goes.
    for (const uint32_t id : {201U, 202U, 203U, 100U, 204U}) {
        now += 1;
        goes(alice, sealed(id));
        goes(bob, sealed(100));
    }
    for (const uint32_t id : {201U, 202U, 203U, 204U})
        EXPECT_EQ(goes(host.addr, sealed(id)), text(alice)) << id;
    now += 1;
    goes(alice, sealed(205));
    EXPECT_EQ(goes(host.addr, sealed(201)), text(bob));
    EXPECT_EQ(goes(host.addr, sealed(205)), text(alice));
}

TEST_F(Server, BindingLivesSixtySecondsAndTrafficKeepsIt) {
    enrol(host);
    const pair_up a = connect(host, alice), b = connect(host, bob, 2);
    EXPECT_EQ(goes(host.addr, sealed(9)), text(bob));
    goes(alice, sealed(100));
    for (int i = 0; i < 10;
         i++) { // the host keeps only its newest allocation up; the first lives by its traffic
        wait(15 * second);
        ask(host.addr, host.message());
        ask(alice, bind(a.client, 1));
        ask(host.addr, bind(b.host, 0));
        EXPECT_EQ(goes(alice, sealed(100)), text(host.addr)) << i;
        EXPECT_EQ(goes(host.addr, sealed(100)), text(alice)) << i;
        // The second client is quiet from the start: after 60 s its binding is not live, and after that gone.
        EXPECT_EQ(goes(host.addr, sealed(9)), text(i < 4 ? bob : alice)) << i;
    }
    EXPECT_EQ(server->allocations(), 2U);
    wait(50 * second);
    EXPECT_NE(goes(host.addr, sealed(100)), "");
    wait(10 * second);
    EXPECT_EQ(goes(host.addr, sealed(100)), text(alice));
    now += 1;
    EXPECT_EQ(goes(alice, sealed(100)), "") << "the client's end was quiet for 60 s";
    EXPECT_EQ(goes(host.addr, sealed(100)), "");
}

TEST_F(Server, EverythingEndsAndAHostIsKeptAsLongAsItsRelay) {
    enrol(host);
    const pair_up p = connect(host, alice);
    for (int i = 0; i < 8; i++) { // registrations are lost for two minutes, relayed traffic isn't
        wait(15 * second);
        ask(alice, bind(p.client, 1));
        ask(host.addr, bind(p.host, 0));
    }
    EXPECT_EQ(ask(bob, lookup(host, 1)).status, status_unknown_host);
    EXPECT_EQ(goes(alice, sealed(1)), text(host.addr));
    EXPECT_EQ(server->hosts(), 1U);
    now += 100000 * second; // and a long silence without ticks
    EXPECT_EQ(goes(alice, sealed(1)), "");
    EXPECT_EQ(ask(host.addr, bind(p.host, 0)).status, status_no_allocation);
    wait(2 * second);
    EXPECT_EQ(server->hosts(), 0U);
    EXPECT_EQ(server->allocations(), 0U);
    EXPECT_EQ(enrol(host).type, TARN_RV_REGISTERED);
    EXPECT_NE(look_up(host, alice, 1).client.allocation, p.client.allocation);
}

// ---- Limits

TEST_F(Server, EveryRateHoldsBySourceAndInTotal) {
    constexpr uint32_t burst = 3;
    uint32_t fresh = 0;
    // One request of a kind from the n-th source; true if it was let through.
    const struct {
        budget_kind kind;
        std::function<bool(uint32_t source)> act;
    } rows[] = {
        {budget_challenge,
         [&](uint32_t s) { return ask(at(s), peer_host(50, at(s)).message()).type == TARN_RV_CHALLENGE; }},
        {budget_proof,
         [&](uint32_t s) {
             peer_host h(100 + fresh++, at(s));
             return enrol(h).type == TARN_RV_REGISTERED;
         }},
        {budget_refresh,
         [&](uint32_t s) {
             if (s != 1) { // a host of its own
                 peer_host h(60 + s, at(s));
                 enrol(h);
                 return ask(h.addr, h.message()).type == TARN_RV_REGISTERED;
             }
             return ask(host.addr, host.message()).type == TARN_RV_REGISTERED;
         }},
        {budget_lookup, [&](uint32_t s) { return ask(at(s), lookup(host, 1)).type != 0; }},
        {budget_bind, [&](uint32_t s) { return ask(at(s), bind(tarn_rv_msg{}, 1)).type != 0; }},
        {budget_bytes,
         [&](uint32_t s) {
             const pair_up p = look_up(host, at(s), 1);
             ask(at(s), bind(p.client, 1));
             ask(host.addr, bind(p.host, 0));
             return !goes(at(s), bytes(1000)).empty();
         }},
    };
    for (const auto &row : rows) {
        for (const bool total : {false, true}) {
            SCOPED_TRACE(testing::Message() << row.kind << (total ? " total" : " source"));
            for (budget &b : config.limits.budgets)
                b = {};
            const uint32_t unit = row.kind == budget_bytes ? 1000 : 1;
            (total ? config.limits.budgets[row.kind].total
                   : config.limits.budgets[row.kind].source) = {2 * unit, burst * unit};
            config.limits.introductions = {};
            start();
            host.addr = at(1);
            host.addr.port = 9000;
            enrol(host);
            now += 10 * second;
            for (uint32_t i = 0; i < burst; i++)
                EXPECT_TRUE(row.act(total ? 1 + i : 1)) << i;
            const uint64_t limited = server->counters().limited;
            EXPECT_FALSE(row.act(total ? 9 : 1)) << "one beyond the burst";
            EXPECT_EQ(server->counters().limited, limited + 1);
            EXPECT_EQ(row.act(8), !total) << "another source";
            now += second / 2; // what one more takes to be earned
            EXPECT_TRUE(row.act(1));
            EXPECT_FALSE(row.act(1));
        }
    }
}

TEST_F(Server, SourceIsAnAddressWhateverThePortAndASiteOfIpv6) {
    for (budget &b : config.limits.budgets)
        b = {};
    config.limits.budgets[budget_lookup].source = {1, 1};
    const struct {
        const char *first, *second;
        bool same;
    } rows[] = {
        {"198.51.100.1:1", "198.51.100.1:2", true},
        {"198.51.100.1:1", "198.51.101.1:1", false},
        {"[2001:db8:0:100::1]:1", "[2001:db8:0:1ff:1::2]:1", true},
        {"[2001:db8:0:100::1]:1", "[2001:db8:0:200::1]:1", false},
    };
    for (const auto &row : rows) {
        start();
        EXPECT_NE(ask(ep(row.first), lookup(host, 1)).type, 0);
        EXPECT_EQ(ask(ep(row.second), lookup(host, 1)).type == 0, row.same) << row.second;
    }
}

TEST_F(Server, HostIsIntroducedOnlySoOften) {
    config.limits.introductions = {1, 2};
    start();
    enrol(host);
    EXPECT_EQ(give(at(1), lookup(host, 1)).size(), 2U);
    EXPECT_EQ(give(at(2), lookup(host, 1)).size(), 2U);
    EXPECT_EQ(give(at(3), lookup(host, 1)).size(), 0U);
    EXPECT_EQ(server->allocations(), 2U);
    now += second;
    EXPECT_EQ(give(at(3), lookup(host, 1)).size(), 2U);
}

TEST_F(Server, FullTablesRefuseWhatIsNew) {
    config.limits.hosts = 3;
    config.limits.hosts_per_source = 2;
    start();
    peer_host a(1, at(1, 1)), b(2, at(1, 2)), c(3, at(1, 3)), d(4, at(2)), e(5, at(3));
    EXPECT_EQ(enrol(a).type, TARN_RV_REGISTERED);
    EXPECT_EQ(enrol(b).type, TARN_RV_REGISTERED);
    EXPECT_EQ(enrol(c).status, status_full) << "its source has two";
    EXPECT_EQ(enrol(d).type, TARN_RV_REGISTERED);
    EXPECT_EQ(enrol(e).status, status_full) << "the table has three";
    EXPECT_EQ(server->counters().full, 2U);
    EXPECT_EQ(ask(a.addr, a.message()).type, TARN_RV_REGISTERED);
    b.addr = at(4); // a host that moves takes its share along
    EXPECT_EQ(enrol(b).type, TARN_RV_REGISTERED);
    d.addr = at(1, 4);
    EXPECT_EQ(enrol(d).type, TARN_RV_REGISTERED);
    EXPECT_EQ(enrol(c).status, status_full);
    b.addr = at(1, 5);
    EXPECT_EQ(enrol(b).status, status_full);
    wait(70 * second);
    EXPECT_EQ(server->hosts(), 0U);
    EXPECT_EQ(enrol(b).type, TARN_RV_REGISTERED);
    EXPECT_EQ(enrol(c).type, TARN_RV_REGISTERED) << "what lapsed is nobody's share";
    EXPECT_EQ(enrol(e).type, TARN_RV_REGISTERED);
}

TEST_F(Server, FullAllocationTables) {
    config.limits.introductions = {};
    config.limits.budgets[budget_lookup] = {};
    const auto begin = [&](uint32_t all, uint32_t source, uint32_t per_host, uint32_t own, uint32_t end) {
        config.limits.allocations = all;
        config.limits.allocations_per_source = source;
        config.limits.allocations_per_host = per_host;
        config.limits.allocations_per_host_and_client = own;
        config.limits.allocations_per_end = end;
        start();
        enrol(host);
    };
    const auto works = [&](uint32_t client, uint32_t tag) {
        now += 1;
        return ask(at(client), lookup(host, tag)).type == TARN_RV_LOOKUP_REPLY;
    };
    begin(2, 9, 9, 9, 9);
    EXPECT_TRUE(works(1, 1) && works(2, 1));
    EXPECT_FALSE(works(3, 1));
    EXPECT_TRUE(works(1, 1)) << "a repeat needs no room";
    wait(40 * second);
    EXPECT_TRUE(works(3, 1)) << "what nobody bound has ended";

    begin(9, 2, 9, 9, 9);
    EXPECT_TRUE(works(1, 1) && works(1, 2));
    EXPECT_FALSE(works(1, 3));
    EXPECT_TRUE(works(2, 1));
    wait(40 * second);
    EXPECT_TRUE(works(1, 3));

    // A host's share: the oldest that isn't bound at both ends gives way, and what is in use stays.
    for (const bool own : {false, true}) {
        SCOPED_TRACE(own ? "of one client" : "of all");
        begin(9, 9, own ? 9 : 3, own ? 3 : 9, 9);
        const auto who = [&](uint32_t n) { return own ? at(1, static_cast<uint16_t>(n)) : at(n); };
        const pair_up first = connect(host, who(1));
        now += 1;
        const pair_up second_one = look_up(host, who(2), 1);
        now += 1;
        const pair_up third = look_up(host, who(3), 1);
        const pair_up fourth = look_up(host, who(4), 1);
        EXPECT_EQ(server->allocations(), 3U);
        EXPECT_EQ(ask(who(2), bind(second_one.client, 1)).status, status_no_allocation);
        EXPECT_EQ(ask(who(1), bind(first.client, 1)).status, status_ok);
        bind_both(third);
        bind_both(fourth);
        EXPECT_EQ(ask(who(5), lookup(host, 1)).status, status_full);
        EXPECT_EQ(ask(at(77), lookup(host, 1)).type == TARN_RV_LOOKUP_REPLY, own);
    }

    begin(9, 9, 9, 9, 2);
    connect(host, at(1));
    const pair_up two = connect(host, at(2)), three = look_up(host, at(3), 1);
    EXPECT_EQ(ask(at(3), bind(three.client, 1)).status, status_ok);
    EXPECT_EQ(ask(host.addr, bind(three.host, 0)).status, status_full);
    EXPECT_EQ(ask(host.addr, bind(two.host, 0)).status, status_ok) << "a repeat needs no room";
}

// ---- Hostile bytes

TEST_F(Server, GarbageAnswersNothingAndChangesNothing) {
    enrol(host);
    const pair_up p = connect(host, alice);
    config.limits.budgets[budget_lookup].source = {1, 1};
    const bytes valid[] = {encode(host.message()), encode(lookup(host, 1)), encode(bind(p.client, 1)),
                           encode(bind(p.host, 0)), encode(p.client)};
    server_counters before = server->counters();
    const auto unchanged = [&] {
        const server_counters &after = server->counters();
        for (const server_counter_name &c : server_counter_names) {
            if (c.value == &server_counters::garbage || c.value == &server_counters::unroutable) continue;
            EXPECT_EQ(after.*c.value, before.*c.value) << c.name;
        }
        EXPECT_EQ(server->hosts(), 1U);
        EXPECT_EQ(server->allocations(), 1U);
    };
    for (const bytes &whole : valid) {
        for (size_t bit = 0; bit < 8 * whole.size(); bit++) {
            bytes flipped = whole;
            flipped[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
            ASSERT_TRUE(give(bob, flipped).empty())
                << bit; // from an end, what is no message any more is forwarded
        }
        for (size_t size = 8; size < whole.size(); size++)
            ASSERT_TRUE(
                give(host.addr, bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)))
                    .empty());
        bytes longer = whole;
        longer.push_back(0);
        EXPECT_TRUE(give(host.addr, longer).empty());
    }
    test_random random(4);
    for (int i = 0; i < 20000; i++) {
        bytes noise(random.below(300));
        random.fill(noise.data(), noise.size());
        const bool message = noise.size() >= 8 && i % 2 == 0;
        if (message) {
            noise[0] = TARN_MAGIC;
            noise[1] = 1;
            noise[2] = static_cast<uint8_t>(96 + random.below(16));
            noise[3] = 0;
        }
        ASSERT_TRUE(give(message ? host.addr : bob, noise).empty()) << i;
    }
    tarn_addr nowhere = alice;
    nowhere.port = 0;
    EXPECT_TRUE(give(nowhere, lookup(host, 1)).empty());
    EXPECT_TRUE(give(tarn_addr{}, lookup(host, 1)).empty());
    EXPECT_TRUE(give(alice, p.client).empty()) << "a server's message to a server";
    unchanged();
    before = server->counters();
    EXPECT_EQ(ask(host.addr, host.message()).type, TARN_RV_REGISTERED);
    EXPECT_EQ(goes(alice, sealed(1)), text(host.addr));
}

// Whatever a holder of the link asks, from whatever state: at most one datagram comes back to it, and of what an
// unproved address can make the server send, nothing but a lookup reply is larger than the request and two bytes.
TEST_F(Server, NothingAmplifies) {
    config.limits.introductions = {};
    for (budget &b : config.limits.budgets)
        b = {};
    start();
    host.lan.assign(4, ep("192.168.1.2:9000"));
    enrol(host);
    const pair_up p = look_up(host, alice, 1);
    tarn_rv_msg wrong = host.message(), moved = host.message(), bare = host.message();
    wrong.proof[0] ^= 1;
    moved.token[0] ^= 1;
    bare.count = 0;
    tarn_rv_msg unknown = lookup(host, 1);
    unknown.lookup_id[0] ^= 1;
    unknown.count = 0;
    for (const tarn_rv_msg &m : {host.message(), wrong, moved, bare, unknown, lookup(host, 3),
                                 bind(p.client, 1), bind(p.client, 0), bind(p.host, 0)}) {
        for (const tarn_addr &from : {host.addr, alice, bob}) {
            const bytes request = encode(m);
            size_t back = 0;
            for (const sent &s : give(from, request)) {
                if (s.m.type == TARN_RV_INTRODUCE || !tarn_rv_endpoint_equal(&s.to, &from)) continue;
                back++;
                const size_t bound = m.type == TARN_RV_BIND ? 3 : 2; // a bind's reply names the endpoint, too
                if (s.m.type == TARN_RV_LOOKUP_REPLY) continue;
                EXPECT_LE(s.data.size(), request.size() + bound) << int{m.type};
            }
            EXPECT_LE(back, 1U);
        }
    }
}

// A record is looked at once in its time, also when it went early and came back under its number.
TEST(ExpiryWheel, LooksOnceAtEachRecordWhenItsTimeHasCome) {
    struct record {
        uint32_t due_s;
    };
    slab<record> records(2);
    expiry_wheel wheel;
    texts seen;
    const auto advance = [&](uint64_t to_s) {
        wheel.advance(to_s * second, records,
                      [&](uint32_t i) { seen.push_back(std::to_string(i) + "@" + std::to_string(to_s)); });
        return std::exchange(seen, {});
    };
    EXPECT_EQ(advance(1000), texts{});
    const uint32_t a = records.take(), b = records.take();
    EXPECT_EQ(records.take(), no_record);
    wheel.add(a, records[a], 1004 * second);
    records.give_back(a);
    EXPECT_EQ(records.take(), a);
    wheel.add(a, records[a], 1050 * second);
    wheel.add(b, records[b], 1010 * second - 1);
    EXPECT_EQ(advance(1009), texts{});
    EXPECT_EQ(advance(1010), texts{"1@1010"});
    EXPECT_EQ(advance(1050), texts{}) << "not before the time is over";
    EXPECT_EQ(advance(1051), texts{"0@1051"});
    wheel.add(a, records[a], 9000 * second);
    EXPECT_EQ(advance(1051 + 126), texts{});
    EXPECT_EQ(advance(1051 + 127), texts{"0@1178"}) << "it reaches no further, and asks again";
}

TEST_F(Server, SaysWhatItDid) {
    enrol(host);
    EXPECT_EQ(report_line(*server, server_counters{}), "hosts 1, allocations 0; registered 1, challenged 1");
    const server_counters before = server->counters();
    EXPECT_EQ(report_line(*server, before), "hosts 1, allocations 0; nothing happened");
    connect(host, alice);
    EXPECT_EQ(report_line(*server, before), "hosts 1, allocations 1; lookups 1, bound 2");
}

} // namespace
