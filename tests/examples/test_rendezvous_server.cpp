// The rendezvous and relay server by its datagrams: who may register, be found, bind and be forwarded to;
// what ends when; what a flood, a full table or a hostile peer can't do.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <sstream>

#include <tarnglider/protocol.h>

#include "server/rendezvous_server.h"
#include "support/engine_rig.h"
#include "support/seeded_random.h"

namespace {

using namespace app;

constexpr uint64_t second = 1000000;

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
bool same_end(const tarn_addr &a, const tarn_addr &b) { return tarn_rv_endpoint_equal(&a, &b) != 0; }

struct peer_host {
    tarn_keypair key{};
    tarn_addr addr;
    uint8_t cookie[16] = {}, server_key[32] = {};
    std::vector<tarn_addr> lan = {ep("192.168.1.2:9000")};
    peer_host(uint32_t number, const tarn_addr &a) : addr(a) {
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
        if (!all_zero(cookie, 16))
            tarn_rv_register_proof(m.proof, key.secret, server_key, cookie, m.key, m.endpoints, m.count);
        return m;
    }
};

// A relay allocation as both sides know it.
struct pair_up {
    tarn_rv_msg client{}, host{}; // the reply and the introduction
    tarn_addr client_at, host_at;
    uint32_t number() const { return client.allocation; }
};

class Server : public testing::Test {
protected:
    Server() {
        seeded_random::reset(1);
        config.link_key = {'k', 'e', 'y'};
        config.identity = test_key(9);
        tarn_rv_net_key(net_key, config.link_key.data(), config.link_key.size());
        start();
    }
    void start() {
        server = std::make_unique<rendezvous_server>(
            config, [this](const tarn_addr &to, const uint8_t *data, size_t len) {
                sent s = {to, bytes(data, data + len), {}};
                if (tarn_rv_decode(data, len, net_key, &s.m) != 0) s.m = {};
                out.push_back(s);
            });
        memset(host.cookie, 0, sizeof host.cookie);
    }
    void no_rates() {
        config.limits.introductions = {};
        std::fill_n(config.limits.budgets, budget_kinds, budget{});
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
            if (!same_end(s.to, from) || s.m.type == TARN_RV_INTRODUCE) continue;
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
    int registers(const peer_host &h) { return ask(h.addr, h.message()).type; }
    void take_challenge(peer_host &h) {
        memset(h.cookie, 0, sizeof h.cookie);
        const tarn_rv_msg challenge = ask(h.addr, h.message());
        ASSERT_EQ(challenge.type, TARN_RV_CHALLENGE);
        memcpy(h.cookie, challenge.token, 16);
        memcpy(h.server_key, challenge.key, 32);
    }
    // Registers as a host does from the start; 0 or the status.
    int enrol(peer_host &h) {
        take_challenge(h);
        const tarn_rv_msg reply = ask(h.addr, h.message());
        return reply.type == TARN_RV_REGISTERED ? 0 : reply.type == TARN_RV_ERROR ? reply.status : -1;
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
            (same_end(s.to, client) ? p.client : p.host) = s.m;
        return p;
    }
    // 0 if the host is found, and that one; the status if not.
    int finds(const peer_host &h, uint8_t len = 16, const tarn_addr &client = at(99)) {
        const tarn_rv_msg reply = ask(client, lookup(h, 9, len));
        EXPECT_EQ(reply.tag, 9U);
        if (reply.type == TARN_RV_LOOKUP_REPLY) return memcmp(reply.key, h.key.public_key, 32) ? -1 : 0;
        return reply.status;
    }
    static tarn_rv_msg bind(const tarn_rv_msg &m, uint8_t side) {
        tarn_rv_msg b{};
        b.type = TARN_RV_BIND;
        b.allocation = m.allocation;
        memcpy(b.token, m.token, 16);
        b.side = side;
        return b;
    }
    int client_binds(const pair_up &p) { return ask(p.client_at, bind(p.client, 1)).status; }
    int host_binds(const pair_up &p) { return ask(host.addr, bind(p.host, 0)).status; }
    pair_up connect(const peer_host &h, const tarn_addr &client, uint32_t tag = 1) {
        const pair_up p = look_up(h, client, tag);
        EXPECT_EQ(client_binds(p), 0);
        EXPECT_EQ(ask(h.addr, bind(p.host, 0)).status, 0);
        return p;
    }
    static bytes sealed(uint32_t session) {
        bytes p = {TARN_MAGIC, 2, 16, 0};
        const bytes id = le32(session);
        p.insert(p.end(), id.begin(), id.end());
        p.resize(32, 0x5A);
        return p;
    }
    tarn_addr named(char who) const {
        return who == 'h' ? host.addr : who == 'a' ? alice : who == 'b' ? bob : who == 'o' ? old : at(9);
    }
    // Where a datagram goes: to (h)ost, (a)lice, (b)ob, the host's (o)ld address, the (n)eighbour, or "-"
    // nowhere.
    std::string way(const tarn_addr &from, const bytes &p) {
        const std::vector<sent> all = give(from, p);
        if (all.empty()) return "-";
        EXPECT_EQ(all.size(), 1U);
        EXPECT_EQ(all[0].data, p);
        for (const char who : {'h', 'a', 'b', 'o', 'n'})
            if (same_end(named(who), all[0].to)) return {who};
        return text(all[0].to);
    }
    // Plays a script and checks what comes of each step.
    //   R r F      the host registers anew, with the cookie it has (R or C); is looked for by another
    //   La7 Ca7    alice looks it up with tag 7: a "new" allocation or the "same" as before; and both bind it
    //   Ba7 Ha7    she binds that allocation, the host does
    //   a100 hp89  whom a sealed packet of session 100 from alice reaches, a plain one from the host
    //   +15 >15    15 s go by with ticks; 15 us without
    void play(const std::string &script) {
        std::istringstream in(script);
        for (std::string word; in >> word;) {
            const size_t sign = word.find('=');
            const std::string result = step(word[0], word.substr(1, sign - 1));
            if (sign >= word.size()) continue;
            EXPECT_EQ(result, word.substr(sign + 1)) << word << " in " << script;
        }
    }
    std::string step(char what, const std::string &rest) {
        const auto number = [](const std::string &digits) {
            return static_cast<uint32_t>(std::stoul(digits));
        };
        const pair_up known = pairs[rest];
        if (what == 'R') return std::to_string(enrol(host));
        if (what == 'r') return registers(host) == TARN_RV_REGISTERED ? "R" : "C";
        if (what == 'F') return std::to_string(finds(host));
        if (what == 'B') return std::to_string(client_binds(known));
        if (what == 'H') return std::to_string(host_binds(known));
        if (what == '+') return wait(number(rest) * second), "";
        if (what == '>') return now += number(rest), "";
        if (what == 'L' || what == 'C') {
            const pair_up p = pairs[rest] = look_up(host, named(rest[0]), number(rest.substr(1)));
            EXPECT_EQ(p.host.type, TARN_RV_INTRODUCE) << "a repeat introduces again: the first may be lost";
            if (what == 'C') play("B" + rest + "=0 H" + rest + "=0");
            return p.number() == known.number() && !memcmp(p.client.token, known.client.token, 16) ? "same"
                                                                                                   : "new";
        }
        return way(named(what),
                   rest[0] == 'p' ? plain(uint8_t(number(rest.substr(1)))) : sealed(number(rest)));
    }

    server_config config;
    uint8_t net_key[32];
    std::unique_ptr<rendezvous_server> server;
    std::vector<sent> out;
    uint64_t now = 1000 * second;
    peer_host host{1, ep("203.0.113.5:9000")};
    const tarn_addr alice = ep("198.51.100.1:5000"), bob = ep("198.51.100.2:5000");
    tarn_addr old{};
    std::map<std::string, pair_up> pairs;
};

// ---- Registration

TEST_F(Server, RegistersAndKeepsTheCookieForLife) {
    const bytes first = encode(host.message());
    const std::vector<sent> answer = give(host.addr, first);
    ASSERT_EQ(answer.size(), 1U);
    EXPECT_LE(answer[0].data.size(), first.size() + 2);
    EXPECT_EQ(text(answer[0].m.seen), text(host.addr));
    EXPECT_EQ(memcmp(answer[0].m.key, config.identity.public_key, 32), 0);
    take_challenge(host);
    EXPECT_EQ(server->hosts(), 0U); // nothing is kept for whom has proved nothing
    const tarn_rv_msg done = ask(host.addr, host.message());
    EXPECT_EQ(done.type, TARN_RV_REGISTERED);
    EXPECT_EQ(text(done.seen), text(host.addr));
    for (int i = 0; i < 30; i++) { // ten minutes: the cookie's slots are long past
        wait(20 * second);
        host.lan[0].port = static_cast<uint16_t>(9000 + i);
        ASSERT_EQ(registers(host), TARN_RV_REGISTERED) << i;
    }
    const server_counters before = server->counters();
    EXPECT_EQ(report_line(*server, {}), "hosts 1, allocations 0; registered 1, refreshed 30, challenged 2");
    EXPECT_EQ(report_line(*server, before), "hosts 1, allocations 0; nothing happened");
    EXPECT_EQ(connect(host, alice).client.endpoints[0].port, 9029);
    EXPECT_EQ(report_line(*server, before), "hosts 1, allocations 1; lookups 1, bound 2");
}

TEST_F(Server, RegistrationLivesThreeIntervals) {
    for (const uint16_t interval : {uint16_t{20}, uint16_t{7}}) {
        config.interval_s = interval;
        start();
        play("R");
        EXPECT_EQ(ask(host.addr, host.message()).interval, interval);
        wait(3 * interval * second);
        play(interval == 20 ? "F=0 >1 F=1 r=C" : "F=0 >1 F=1 r=R"); // the cookie's slots are what counts now
        wait(100 * second);
        EXPECT_EQ(server->hosts(), 0U);
        EXPECT_EQ(server->counters().lapsed, 1U);
    }
}

TEST_F(Server, CookieIsForOneSourceAndTwoSlots) {
    const struct {
        const char *from;
        uint64_t later_s;
        uint8_t flip;
    } rows[] = {{"203.0.113.5:9000", 59, 0}, {"203.0.113.5:9000", 60, 0},  {"203.0.113.5:9001", 0, 0},
                {"203.0.113.6:9000", 0, 0},  {"[cb00:7105::]:9000", 0, 0}, {"203.0.113.5:9000", 0, 1}};
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        now = 30 * second * 50; // a slot begins
        start();
        take_challenge(host);
        host.cookie[15] ^= row.flip;
        now += row.later_s * second;
        EXPECT_EQ(ask(ep(row.from), host.message()).type,
                  &row == rows ? TARN_RV_REGISTERED : TARN_RV_CHALLENGE);
        EXPECT_EQ(server->hosts(), &row == rows ? 1U : 0U);
    }
}

TEST_F(Server, ProofCoversKeyCookieAndEndpoints) {
    const std::function<void(tarn_rv_msg &)> changes[] = {
        [](tarn_rv_msg &m) { memset(m.key, 0, 32); }, // of low order
        [](tarn_rv_msg &m) { m.proof[3] ^= 4; },      [](tarn_rv_msg &m) { m.endpoints[0].port++; },
        [](tarn_rv_msg &m) { m.count = 0; },          [](tarn_rv_msg &m) { m.count = 2; },
        [](tarn_rv_msg &m) { m.key[0] ^= 1; },
    };
    for (const bool registered : {false, true}) {
        for (const auto &change : changes) {
            start();
            registered ? void(enrol(host)) : take_challenge(host);
            tarn_rv_msg m = host.message();
            change(m);
            const tarn_rv_msg refused = ask(host.addr, m);
            EXPECT_EQ(refused.type, TARN_RV_ERROR);
            EXPECT_EQ(refused.status, &change == changes ? status_bad_key : status_bad_proof);
            EXPECT_EQ(server->hosts(), registered ? 1U : 0U);
            EXPECT_EQ(server->counters().proofs_refused, 1U);
            if (registered) {
                EXPECT_EQ(look_up(host, alice, 1).client.endpoints[0].port, 9000);
            }
        }
    }
}

TEST_F(Server, LateRepeatOfAnOlderRegistrationTakesNothingBack) {
    play("R");
    const tarn_rv_msg late = host.message();
    host.lan[0].port = 9999;
    play("+30 R");
    EXPECT_EQ(ask(host.addr, late).type, TARN_RV_REGISTERED);
    EXPECT_EQ(look_up(host, alice, 1).client.endpoints[0].port, 9999);
    play("+45 r=R"); // the newer cookie still holds
}

// ---- Lookup

TEST_F(Server, IntroducesBothSides) {
    enrol(host);
    const std::vector<sent> both = give(alice, lookup(host, 77));
    ASSERT_EQ(both.size(), 2U);
    const tarn_rv_msg &intro = both[0].m, &reply = both[1].m;
    const auto line = [](const sent &s) {
        return text(s.to) + " peer " + text(s.m.peer) + " at " + text(s.m.endpoints[0]) + ", tag " +
               std::to_string(s.m.tag);
    };
    EXPECT_EQ(line(both[0]), "203.0.113.5:9000 peer 198.51.100.1:5000 at 192.168.7.7:7000, tag 77");
    EXPECT_EQ(line(both[1]), "198.51.100.1:5000 peer 203.0.113.5:9000 at 192.168.1.2:9000, tag 77");
    EXPECT_EQ(intro.type, TARN_RV_INTRODUCE);
    EXPECT_EQ(memcmp(reply.key, host.key.public_key, 32), 0);
    EXPECT_EQ(text(reply.seen), text(alice));
    EXPECT_EQ(intro.allocation, reply.allocation);
    EXPECT_EQ(memcmp(intro.punch_token, reply.punch_token, 16), 0);
    EXPECT_NE(memcmp(intro.token, reply.token, 16), 0) << "each side binds with its own token";

    seeded_random::fail_at(1); // no randomness, no allocation
    EXPECT_EQ(finds(host), status_full);
    EXPECT_EQ(server->allocations(), 1U);
    seeded_random::fail_at(2);
    EXPECT_THROW(start(), std::runtime_error);
    seeded_random::fail_at(0);
}

TEST_F(Server, FindsByCodeAndRefusesToGuess) {
    no_rates();
    start();
    peer_host one(696248, at(1)), two(777692, at(2)); // the ids begin with the same 48 bits
    enrol(one);
    for (const uint8_t len : {uint8_t{5}, uint8_t{6}, uint8_t{15}, uint8_t{16}})
        EXPECT_EQ(finds(one, len), 0) << int{len};
    EXPECT_EQ(finds(two), status_unknown_host);
    EXPECT_EQ(finds(two, 7), status_unknown_host);
    now += 10 * second;
    enrol(two);
    EXPECT_EQ(finds(one, 5), status_ambiguous);
    EXPECT_EQ(give(alice, lookup(one, 9, 6)).size(), 1U) << "nobody is introduced";
    EXPECT_EQ(finds(one, 7), 0);
    for (peer_host *stays : {&two, &one}) { // the other one lapses, and goes
        wait(30 * second);
        enrol(*stays);
        EXPECT_EQ(finds(*stays), 0);
        wait(32 * second);
        EXPECT_EQ(finds(*stays, 5), 0);
        EXPECT_EQ(server->hosts(), 1U);
        enrol(two);
        enrol(one);
    }
}

TEST_F(Server, RepeatedLookupIsADuplicateOnlyWhileNothingChanged) {
    play("R La7=new La7=same La8 Lb7 +30 r La7=same +30 r La7=same");
    const uint32_t first = pairs["a7"].number();
    for (const char *other : {"a8", "b7"})
        EXPECT_NE(pairs[other].number(), first);
    tarn_addr other_port = alice;
    other_port.port++;
    EXPECT_NE(look_up(host, other_port, 7).number(), first);
    play("+30 >1 Ba7=7 La7=new"); // an allocation that nobody binds ends
    host.addr = ep("203.0.113.77:1");
    play("R La7=new");
    EXPECT_EQ(server->counters().moved, 1U);
    EXPECT_EQ(text(pairs["a7"].client.peer), text(host.addr));
}

// ---- Binding

TEST_F(Server, BindsByNumberTokenSideAndAddress) {
    enrol(host);
    const pair_up p = look_up(host, alice, 1);
    const auto try_bind = [&](const char *from, const tarn_rv_msg &known, uint8_t side, uint8_t token = 0,
                              uint32_t number = 0) { // the last two are flipped
        tarn_rv_msg m = bind(known, side);
        m.token[15] ^= token;
        m.allocation ^= number;
        const tarn_rv_msg reply = ask(ep(from), m);
        if (reply.type == TARN_RV_BIND_REPLY) {
            EXPECT_EQ(text(reply.seen), from);
            EXPECT_EQ(reply.allocation, m.allocation);
        }
        return reply.type == 0 ? "none"
                               : (reply.type == TARN_RV_ERROR ? "E" : "") + std::to_string(reply.status);
    };
    const char *const a = "198.51.100.1:5000", *const h = "203.0.113.5:9000";
    EXPECT_EQ(try_bind(a, p.client, 1), "0");
    EXPECT_EQ(try_bind(h, p.host, 0), "0");
    EXPECT_EQ(try_bind("198.51.100.1:5001", p.client, 1), "0"); // the NAT took another port
    EXPECT_EQ(try_bind(a, p.host, 1), "7");
    EXPECT_EQ(try_bind(h, p.client, 0), "7");
    EXPECT_EQ(try_bind(a, p.client, 1, 1), "7");
    EXPECT_EQ(try_bind(a, p.client, 1, 0, 1), "7");        // no such record
    EXPECT_EQ(try_bind(a, p.client, 1, 0, 1U << 20), "7"); // another use of it
    EXPECT_EQ(try_bind("198.51.100.2:5000", p.client, 1), "9");
    EXPECT_EQ(try_bind("203.0.113.6:9000", p.host, 0), "E2");
    EXPECT_EQ(try_bind(a, p.client, 2), "none");
    // The last good bind of a side is where its datagrams go; the older address is none of this relay any
    // more.
    EXPECT_EQ(way(host.addr, {1, 2, 3}), "198.51.100.1:5001");
    EXPECT_EQ(way(alice, {1, 2, 3}), "-");
}

TEST_F(Server, HostThatMovedRegistersThenBindsAndItsClientsLookUpAgain) {
    play("R Ca1");
    old = std::exchange(host.addr, ep("203.0.113.77:9000"));
    play("Ha1=2 r=C Ba1=0"); // the cookie was for the old address; a client waits
    play(">1 R Ba1=8 Ha1=0 Ba1=0 a5=h o5=- La1=new");
    // A host that drops an allocation but lives: the client looks up again as well.
    play("Ha1=0 Ba1=0 +15 r Ba1=0 +15 r Ba1=0 +15 r Ba1=0 +15 r La1=same >1 Ba1=8 La1=new");
}

// ---- Forwarding

TEST_F(Server, ForwardsWhatIsNotForAServerBetweenTheTwoEnds) {
    play("R La1 a1=- Ba1=0 a1=- Ha1=0");
    tarn_rv_msg forged{};
    forged.type = TARN_RV_INTRODUCE;
    forged.peer = bob;
    bytes sealed_punch = sealed(1);
    sealed_punch[2] = TARN_RV_PUNCH;
    const std::pair<bytes, bool> rows[] = {{{7}, true},
                                           {plain(88, bytes(104)), true},
                                           {sealed_punch, true},
                                           {bytes(1500, 1), true},
                                           {plain(95), true},
                                           {plain(112), true},
                                           {plain(96), false},
                                           {plain(111), false},
                                           {encode(forged), false},
                                           {bytes(1501, 1), false},
                                           {{}, false}};
    for (const auto &[data, passes] : rows) {
        SCOPED_TRACE(data.size());
        EXPECT_EQ(way(alice, data), passes ? "h" : "-");
        EXPECT_EQ(way(host.addr, data), passes ? "a" : "-");
        EXPECT_EQ(way(bob, data), "-");
    }
    EXPECT_EQ(server->counters().forwarded, 12U);
    EXPECT_EQ(server->counters().forwarded_bytes, 2 * (1 + 112 + 32 + 1500 + 8 + 8U));

    const pair_up mirror = look_up(host, host.addr, 5); // an end bound to itself
    client_binds(mirror);
    for (const sent &s : give(host.addr, lookup(host, 5)))
        ask(host.addr, bind(s.m, 0)); // of the two it gets, the introduction fits
    play("h999=-");
}

// A second client binds and is merely turned away. With the rule off it silences the first one.
TEST_F(Server, SecondClientCannotSilenceTheFirst) {
    for (const bool rule : {true, false}) {
        config.route_by_session = rule;
        start();
        play("R Ca1 a100=h h100=a Cb2 bp88=h hp90=b a100=h");
        // The first client's new handshake is answered there, too, and its new session is learned, while the
        // old keys are in flight. What nothing tells goes to the newest binding.
        play(rule ? "h100=a ap88=h hp89=a a101=h h101=a h100=a h999=b >2000000 hp89=a >1 hp89=b"
                  : "h100=b ap88=h hp89=b a101=h h101=b h100=b");
    }
}

TEST_F(Server, HostWhoseNatForgotItTakesAllItsAllocationsAlong) {
    peer_host neighbour(2, host.addr); // from the same endpoint, but it stays
    enrol(neighbour);
    play("R Ca1 Cb2");
    connect(neighbour, at(9));
    play("a100 bp88 >1");
    old = host.addr;
    host.addr.port++;
    play("Hb2=0 a100=h h100=a op89=n n7=o"); // the last question there was for the one that left
    play("Ba1=0 La1=same"); // the registration still names the old port, which isn't news any more
}

TEST_F(Server, ClaimOfARunningSessionIsIgnoredUntilItsClientFallsSilent) {
    play("R Ca1");
    bytes cut = sealed(300);
    for (const size_t size : {31U, 2U}) { // no sealed packet is so short
        cut.resize(size);
        way(alice, cut);
    }
    play("Cb2 h300=b a100=h b100=h h100=a >3000000 b100 h100=a");
    play(">1 b100 h100=b");                                  // the client came back from another address
    play("Cb3 b100 +1 b100 +1 b100 +1 b100 +1 a100 h100=b"); // in its newer allocation it needs no silence
    // A client has room for four sessions, the longest unused goes.
    play(">1 a201 b100 >1 a202 b100 >1 a203 b100 >1 a100 b100 >1 a204 b100 h201=a h202=a h203=a h204=a");
    play(">1 a205 h201=b h205=a");
}

TEST_F(Server, BindingLivesSixtySecondsAndTrafficKeepsIt) {
    play("R Ca1 Cb2 h9=b a100=h");
    // The host keeps only its newest up, the first lives by its traffic. The second client is quiet from the
    // start: after 60 s its binding is not live. Registrations are lost, but a host is kept as long as its
    // relay.
    for (int i = 0; i < 10; i++)
        play(std::string("+15 Ba1=0 Hb2=0 a100=h h100=a h9=") + (i < 4 ? "b" : "a"));
    play("F=1");
    EXPECT_EQ(report_line(*server, server->counters()), "hosts 1, allocations 2; nothing happened");
    play("+50 h100=a +10 h100=a >1 a100=- h100=-"); // the client's end was quiet for 60 s
    now += 100000 * second;                         // and a long silence without ticks
    play("Ha1=7 +2");
    EXPECT_EQ(server->hosts() + server->allocations(), 0U);
    play("R=0 La1=new");
}

// ---- Limits

TEST_F(Server, EveryRateHoldsBySourceAndInTotal) {
    constexpr uint32_t burst = 3;
    uint32_t fresh = 100;
    const auto passes = [&](int kind, uint32_t source) { // one request of a kind from a source
        peer_host h(fresh++, at(source));
        if (kind == budget_challenge) return registers(h) != 0;
        if (kind == budget_proof) return enrol(h) == 0;
        if (kind == budget_refresh) return enrol(h) == 0 && registers(h) != 0;
        if (kind == budget_lookup) return ask(h.addr, lookup(host, 1)).type != 0;
        if (kind == budget_bind) return ask(h.addr, bind(tarn_rv_msg{}, 1)).type != 0;
        connect(host, h.addr);
        return way(h.addr, bytes(1000)) != "-";
    };
    for (int kind = 0; kind < budget_kinds; kind++) {
        for (const bool total : {false, true}) {
            SCOPED_TRACE(testing::Message() << kind << (total ? " total" : " source"));
            no_rates();
            budget &b = config.limits.budgets[kind];
            const uint32_t unit = kind == budget_bytes ? 1000 : 1;
            (total ? b.total : b.source) = {2 * unit, burst * unit};
            start();
            enrol(host);
            now += 10 * second;
            for (uint32_t i = 0; i < burst; i++)
                EXPECT_TRUE(passes(kind, total ? 1 + i : 1)) << i;
            const uint64_t limited = server->counters().limited;
            EXPECT_FALSE(passes(kind, total ? 9 : 1)) << "one beyond the burst";
            EXPECT_EQ(server->counters().limited, limited + 1);
            EXPECT_EQ(passes(kind, 8), !total) << "another source";
            now += second / 2; // what one more takes to be earned
            EXPECT_TRUE(passes(kind, 1));
            EXPECT_FALSE(passes(kind, 1));
        }
    }
    no_rates();
    config.limits.introductions = {1, 2}; // to one host
    start();
    enrol(host);
    for (uint32_t i = 1; i <= 3; i++)
        EXPECT_EQ(give(at(i), lookup(host, 1)).size(), i < 3 ? 2U : 0U);
    EXPECT_EQ(server->allocations(), 2U);
    now += second;
    EXPECT_EQ(give(at(3), lookup(host, 1)).size(), 2U);
}

TEST_F(Server, SourceIsAnAddressWhateverThePortAndASiteOfIpv6) {
    no_rates();
    config.limits.budgets[budget_lookup].source = {1, 1};
    const char *const rows[][2] = {{"198.51.100.1:1", "198.51.100.1:2"},
                                   {"[2001:db8:0:100::1]:1", "[2001:db8:0:1ff:1::2]:1"},
                                   {"198.51.100.1:1", "198.51.100.2:1"}, // from here on they differ
                                   {"[2001:db8:0:100::1]:1", "[2001:db8:0:200::1]:1"}};
    for (const auto &row : rows) {
        start();
        EXPECT_NE(ask(ep(row[0]), lookup(host, 1)).type, 0);
        EXPECT_EQ(ask(ep(row[1]), lookup(host, 1)).type == 0, &row < rows + 2) << row[1];
    }
}

TEST_F(Server, FullTablesRefuseWhatIsNew) {
    config.limits.hosts = 3;
    config.limits.hosts_per_source = 2;
    start();
    peer_host a(1, at(1, 1)), b(2, at(1, 2)), c(3, at(1, 3)), d(4, at(2)), e(5, at(3));
    EXPECT_EQ(enrol(a) + enrol(b), 0);
    EXPECT_EQ(enrol(c), status_full) << "its source has two";
    EXPECT_EQ(enrol(d), 0);
    EXPECT_EQ(enrol(e), status_full) << "the table has three";
    EXPECT_EQ(server->counters().full, 2U);
    EXPECT_EQ(registers(a), TARN_RV_REGISTERED);
    b.addr = at(4); // a host that moves takes its share along
    d.addr = at(1, 4);
    EXPECT_EQ(enrol(b) + enrol(d), 0);
    b.addr = at(1, 5);
    EXPECT_EQ(enrol(b), status_full);
    wait(70 * second);
    EXPECT_EQ(server->hosts(), 0U);
    EXPECT_EQ(enrol(b) + enrol(c) + enrol(e), 0) << "what lapsed is nobody's share";
}

TEST_F(Server, FullAllocationTables) {
    no_rates();
    server_limits &limits = config.limits;
    const auto begin = [&](uint32_t server_limits::*limit, uint32_t value) {
        for (const auto each : {&server_limits::allocations, &server_limits::allocations_per_source,
                                &server_limits::allocations_per_host, &server_limits::allocations_per_end,
                                &server_limits::allocations_per_host_and_client})
            limits.*each = each == limit ? value : 9;
        start();
        enrol(host);
    };
    const auto found = [&](uint32_t client, uint32_t tag = 1) {
        now += 1;
        return ask(at(client), lookup(host, tag)).status == 0;
    };
    for (const auto limit : {&server_limits::allocations, &server_limits::allocations_per_source}) {
        const bool all = limit == &server_limits::allocations; // of two clients, or two of one
        begin(limit, 2);
        EXPECT_TRUE(found(1) && found(all ? 2 : 1, 2));
        EXPECT_FALSE(found(1, 3));
        EXPECT_TRUE(found(1)) << "a repeat needs no room";
        EXPECT_EQ(found(3), !all);
        wait(40 * second);
        EXPECT_TRUE(found(1, 3)) << "what nobody bound has ended";
    }

    // A host's share: the oldest that isn't bound at both ends gives way, and what is in use stays.
    for (const bool own : {false, true}) {
        SCOPED_TRACE(own ? "of one client" : "of all");
        begin(own ? &server_limits::allocations_per_host_and_client : &server_limits::allocations_per_host,
              3);
        const auto next = [&](uint32_t n) {
            now += 1;
            return look_up(host, own ? at(1, static_cast<uint16_t>(n)) : at(n), 1);
        };
        const pair_up p1 = next(1);
        EXPECT_EQ(client_binds(p1) + host_binds(p1), 0);
        const pair_up p2 = next(2), p3 = next(3), p4 = next(4);
        EXPECT_EQ(server->allocations(), 3U);
        EXPECT_EQ(client_binds(p2), status_no_allocation);
        EXPECT_EQ(client_binds(p1), 0);
        EXPECT_EQ(client_binds(p3) + host_binds(p3) + client_binds(p4) + host_binds(p4), 0);
        EXPECT_EQ(next(5).client.status, status_full);
        EXPECT_EQ(found(77), own);
    }

    begin(&server_limits::allocations_per_end, 2);
    connect(host, at(1));
    const pair_up two = connect(host, at(2)), three = look_up(host, at(3), 1);
    EXPECT_EQ(client_binds(three), 0);
    EXPECT_EQ(host_binds(three), status_full);
    EXPECT_EQ(host_binds(two), 0) << "a repeat needs no room";
}

// ---- Hostile bytes

TEST_F(Server, GarbageAnswersNothingAndChangesNothing) {
    enrol(host);
    const pair_up p = connect(host, alice);
    const server_counters before = server->counters();
    const bytes reply = encode(p.client);
    for (const bytes &whole :
         {encode(host.message()), encode(lookup(host, 1)), encode(bind(p.host, 0)), reply}) {
        for (size_t bit = 0; bit < 8 * whole.size(); bit++) {
            bytes flipped = whole;
            flipped[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
            ASSERT_TRUE(give(bob, flipped).empty()) << bit; // an end's non-messages would be forwarded
        }
        for (size_t size = 8; size < whole.size(); size++)
            ASSERT_TRUE(give(host.addr, bytes(whole.data(), whole.data() + size)).empty()) << size;
        bytes longer = whole;
        longer.push_back(0);
        EXPECT_TRUE(give(host.addr, longer).empty());
    }
    tarn_addr portless = alice, odd = alice;
    portless.port = 0;
    odd.family = 5;
    for (const tarn_addr &from : {portless, odd})
        EXPECT_TRUE(give(from, lookup(host, 1)).empty());
    EXPECT_TRUE(give(alice, reply).empty()) << "a server's message to a server";
    for (const server_counter_name &c : server_counter_names) {
        if (c.value == &server_counters::garbage || c.value == &server_counters::unroutable) continue;
        EXPECT_EQ(server->counters().*c.value, before.*c.value) << c.name;
    }
    EXPECT_EQ(server->allocations(), 1U);
    EXPECT_EQ(registers(host), TARN_RV_REGISTERED);
    play("a1=h");
}

// Whatever a holder of the link asks, from whatever state: at most one datagram comes back to it (as ask
// sees), and of what an unproved address can make the server send, nothing but a lookup reply is larger than
// the request and two bytes. A bind's reply names the endpoint, too: three.
TEST_F(Server, NothingAmplifies) {
    no_rates();
    start();
    host.lan.assign(4, ep("192.168.1.2:9000"));
    enrol(host);
    const pair_up p = look_up(host, alice, 1);
    tarn_rv_msg wrong = host.message(), moved = wrong, bare = wrong, unknown = lookup(host, 1);
    wrong.proof[0] ^= 1;
    moved.token[0] ^= 1;
    unknown.lookup_id[0] ^= 1;
    bare.count = unknown.count = 0;
    for (const tarn_rv_msg &m : {host.message(), wrong, moved, bare, unknown, lookup(host, 3),
                                 bind(p.client, 1), bind(p.client, 0), bind(p.host, 0)}) {
        for (const tarn_addr &from : {host.addr, alice, bob}) {
            const tarn_rv_msg back = ask(from, m);
            if (back.type == 0 || back.type == TARN_RV_LOOKUP_REPLY || back.type == TARN_RV_INTRODUCE)
                continue;
            EXPECT_LE(encode(back).size(), encode(m).size() + (m.type == TARN_RV_BIND ? 3 : 2))
                << int{m.type};
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
    std::string seen;
    const auto advance = [&](uint64_t to_s) {
        wheel.advance(to_s * second, records, [&](uint32_t i) { seen += std::to_string(i); });
        return std::exchange(seen, {});
    };
    EXPECT_EQ(advance(1000), "");
    const uint32_t a = records.take(), b = records.take();
    EXPECT_EQ(records.take(), no_record);
    wheel.add(a, records[a], 1004 * second);
    records.give_back(a);
    EXPECT_EQ(records.take(), a);
    wheel.add(a, records[a], 1050 * second);
    wheel.add(b, records[b], 1010 * second - 1);
    EXPECT_EQ(advance(1009), "");
    EXPECT_EQ(advance(1010), "1");
    EXPECT_EQ(advance(1050), "") << "not before the time is over";
    EXPECT_EQ(advance(1051), "0");
    wheel.add(a, records[a], 9000 * second);
    EXPECT_EQ(advance(1051 + 126), "");
    EXPECT_EQ(advance(1051 + 127), "0") << "it reaches no further, and asks again";
}

} // namespace
