// Both engines and their rendezvous servers, played by hand: registration and its timing, lookup, punching, relay
// bindings, and what becomes of all that when servers fall silent, move or are replaced.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "bytes_internal.h"
#include "conn_client_internal.h"
#include "conn_host_internal.h"
#include "support/engine_rig.h"
#include "support/virtual_clock.h"

namespace {

constexpr int64_t ms = 1000, second = 1000000;
const tarn_addr at_s = ep("198.51.100.99:9877"), at_t = ep("198.51.100.98:9877"),
                at_u = ep("198.51.100.97:9877");
const tarn_addr at_peer = ep("203.0.113.7:4000"), at_lan = ep("192.168.1.5:7000"),
                at_lan2 = ep("10.0.0.5:7000");
const char *const link_s = "tarnglider-relay://198.51.100.99#k",
                  *const link_t = "tarnglider-relay://198.51.100.98#k",
                  *const link_u = "tarnglider-relay://198.51.100.97#other",
                  *const link_t2 = "tarnglider-relay://198.51.100.98#2",
                  *const link_n = "tarnglider-relay://relay.test#k";
const tarn_keypair server_key = test_key(50);
const char *const name_s = "198.51.100.99:9877";

bytes net_key(const char *link) {
    const std::string text = strchr(link, '#') + 1;
    bytes key(32);
    tarn_rv_net_key(key.data(), reinterpret_cast<const uint8_t *>(text.data()), text.size());
    return key;
}
tarn_relay_config relays_of(const std::vector<const char *> &links) {
    tarn_relay_config c = {};
    for (const char *link : links)
        tarn_relay_config_add_link(&c, link);
    return c;
}
tarn_rv_msg message(uint8_t type) {
    tarn_rv_msg m = {};
    m.type = type;
    return m;
}
bytes encode(const tarn_rv_msg &m, const bytes *key) {
    bytes out(TARN_RV_MAX_SIZE);
    out.resize(tarn_rv_encode(out.data(), out.size(), key ? key->data() : nullptr, &m));
    return out;
}
template <class Rig>
void tell(Rig &rig, const tarn_rv_msg &m, const tarn_addr &from = at_s, const char *link = link_s) {
    const bool punch = m.type == TARN_RV_PUNCH || m.type == TARN_RV_PUNCH_ACK;
    const bytes key = net_key(link);
    EXPECT_EQ(rig.receive(encode(m, punch ? nullptr : &key), from).result, TARN_RECV_NONE);
}
tarn_rv_msg read(const bytes &packet, const char *link = link_s) {
    tarn_rv_msg m;
    const bool punch = packet[2] == TARN_RV_PUNCH || packet[2] == TARN_RV_PUNCH_ACK;
    EXPECT_EQ(tarn_rv_decode(packet.data(), packet.size(), punch ? nullptr : net_key(link).data(), &m), 0);
    return m;
}
// Runs an engine for a time as its ticks ask for it. Returns what it sent of a type, as milliseconds since the start, by
// target; counts its ticks.
template <class Rig>
std::map<std::string, std::vector<int64_t>> run(Rig &rig, int64_t us, uint8_t type, int *ticks = nullptr) {
    std::map<std::string, std::vector<int64_t>> at;
    const int64_t start = tarn_now_us(), end = start + us;
    for (int64_t next = start; next <= end;) {
        virtual_clock::set(next);
        next += rig.tick();
        if (ticks) ++*ticks;
        for (const auto &p : rig.take())
            if (p.data[1] == 1 && p.data[2] == type) at[text(p.to)].push_back((tarn_now_us() - start) / ms);
    }
    virtual_clock::set(end);
    return at;
}
using times = std::vector<int64_t>;
// What was sent since the last look: type and target of each.
template <class Rig>
texts sent(Rig &rig) {
    texts all;
    for (const auto &p : rig.take()) {
        const bool rv = p.data[1] == 1 && p.data[2] >= TARN_RV_REGISTER && p.data[2] <= TARN_RV_BIND;
        const char *const names[] = {"register", "", "", "lookup", "", "", "punch", "ack", "bind"};
        all.push_back((rv ? names[p.data[2] - TARN_RV_REGISTER] : "packet") + std::string(" ") + text(p.to));
    }
    return all;
}

class Rendezvous : public testing::Test {
protected:
    Rendezvous() {
        virtual_clock::reset();
        seeded_random::reset(1);
    }
};

// ---- The host

struct served_host : host_rig {
    explicit served_host(const std::vector<const char *> &links = {link_s}, int trusted = 1)
        : host_rig(trusted, [&](tarn_host_config &c) {
              c.relays = relays_of(links);
              c.lan_count = 2, c.lan[0] = at_lan, c.lan[1] = at_lan2;
          }) {}
    tarn_server_status status(int server = 0) {
        tarn_server_status s;
        EXPECT_EQ(tarn_host_server_status(h, server, &s), 0);
        return s;
    }
    void challenge(const tarn_addr &from = at_s, const char *link = link_s, uint8_t cookie = 7) {
        tarn_rv_msg m = message(TARN_RV_CHALLENGE);
        memset(m.token, cookie, 16);
        memcpy(m.key, server_key.public_key, 32);
        tell(*this, m, from, link);
    }
    void registered(const tarn_addr &seen = at_peer, uint16_t interval = 0, const tarn_addr &from = at_s,
                    const char *link = link_s) {
        tarn_rv_msg m = message(TARN_RV_REGISTERED);
        m.seen = seen, m.interval = interval;
        tell(*this, m, from, link);
    }
    // Registers with a server; what that says and sends is thrown away.
    void enter(const tarn_addr &from = at_s, const char *link = link_s) {
        tick();
        challenge(from, link);
        registered(at_peer, 0, from, link);
        told();
        take();
    }
    void introduce(uint32_t allocation, const tarn_addr &peer = at_peer,
                   const std::vector<tarn_addr> &lan = {}, const tarn_addr &from = at_s,
                   const char *link = link_s) {
        tarn_rv_msg m = message(TARN_RV_INTRODUCE);
        m.allocation = allocation, m.peer = peer, m.count = static_cast<uint8_t>(lan.size());
        std::copy(lan.begin(), lan.end(), m.endpoints);
        memset(m.token, static_cast<int>(allocation), 16);
        memset(m.punch_token, static_cast<int>(allocation + 100), 16);
        tell(*this, m, from, link);
    }
    void bind_reply(uint32_t allocation, uint8_t status = 0, const tarn_addr &from = at_s,
                    const char *link = link_s) {
        tarn_rv_msg m = message(TARN_RV_BIND_REPLY);
        m.allocation = allocation, m.status = status;
        tell(*this, m, from, link);
    }
    // Numbers of the allocations that have a job, with "*" behind a current one.
    std::string jobs() const {
        std::string all;
        for (const punch_job &job : h->punch_jobs)
            if (job.active)
                all += std::to_string(job.server) + ":" + std::to_string(job.allocation) +
                       (job.current ? "* " : " ");
        return all;
    }
};
// A registration carries the host's key and endpoints and, with a cookie, the proof that the server can check.
void expect_register(const bytes &packet, uint8_t cookie,
                     const std::vector<tarn_addr> &lan = {at_lan, at_lan2}) {
    const tarn_rv_msg m = read(packet);
    const tarn_keypair host = test_key(200);
    EXPECT_TRUE(m.type == TARN_RV_REGISTER && memcmp(m.key, host.public_key, 32) == 0);
    EXPECT_EQ(bytes(m.token, m.token + 16), bytes(16, cookie));
    ASSERT_EQ(m.count, lan.size());
    for (size_t i = 0; i < lan.size(); i++)
        EXPECT_EQ(text(m.endpoints[i]), text(lan[i]));
    bytes proof(16);
    if (cookie)
        tarn_rv_register_proof(proof.data(), server_key.secret, host.public_key, m.token, host.public_key,
                               lan.data(), static_cast<int>(lan.size()));
    EXPECT_EQ(bytes(m.proof, m.proof + 16), proof);
}

TEST_F(Rendezvous, RegistrationFromFirstWordToLossAndReturn) {
    host_rig none;
    EXPECT_EQ(run(none, 60 * second, TARN_RV_REGISTER).size(), 0u);
    EXPECT_EQ(none.tick(), 250000);
    served_host host;
    host.tick();
    expect_register(host.take().at(0).data, 0);
    virtual_clock::reset();
    host.h->server_links[0] = {};
    host.h->server_links[0].next_us = conn_now();
    int ticks = 0;
    EXPECT_EQ(run(host, 25 * second, TARN_RV_REGISTER, &ticks)[text(at_s)],
              (times{0, 1000, 3000, 7000, 15000, 23000}));
    EXPECT_LE(ticks, 25 * 4 + 10); // nothing at rest asks to be called at once
    EXPECT_EQ(host.status().status, TARN_SERVER_SILENT);

    host.challenge();
    expect_register(host.take().at(0).data, 7);
    EXPECT_TRUE(host.status().status == TARN_SERVER_REGISTERING && host.status().registered == 0);
    host.challenge(at_s, link_s, 8); // another one: its cookie counts
    expect_register(host.take().at(0).data, 8);
    virtual_clock::advance(35 * ms);
    host.registered();
    const std::string peer = text(at_peer);
    EXPECT_EQ(host.told(), (texts{std::string("registered with ") + name_s + " as " + peer + " (rtt 35.0 ms)",
                                  "8 server=0 rtt=35000 addr=" + peer}));
    const tarn_server_status s = host.status();
    EXPECT_TRUE(s.registered == 1 && s.status == TARN_SERVER_REGISTERED && s.error == 0 &&
                s.rtt_us == 35000 && s.port == 9877);
    EXPECT_EQ(text(s.addr) + text(s.public_addr) + s.host, name_s + peer + "198.51.100.99");
    host.registered(at_peer, 300);
    EXPECT_EQ(host.told(), texts{}); // nothing new,
    host.registered(at_lan, 300);
    EXPECT_EQ(host.told().size(), 2u); // but another address is
    EXPECT_EQ(run(host, 360 * second, TARN_RV_REGISTER)[text(at_s)],
              (times{300000, 320000, 340000, 344000, 352000, 360000}));
    EXPECT_EQ(host.told(), (texts{std::string("server ") + name_s + " stopped answering", "9 server=0"}));
    host.registered(at_lan); // the lost server is back
    EXPECT_EQ(host.told().size(), 2u);
    EXPECT_EQ(run(host, 21 * second, TARN_RV_REGISTER)[text(at_s)], times{20000});
    host.registered(at_lan);
    run(host, 59 * second, TARN_RV_REGISTER);
    host.registered(at_lan); // two refreshes lost are not yet the end
    EXPECT_EQ(host.told(), texts{});
    run(host, 59 * second, TARN_RV_REGISTER);
    virtual_clock::advance(second);
    host.tick();
    expect_register(host.take().at(0).data, 8); // the third one has its proof still,
    virtual_clock::advance(4 * second);
    host.tick();
    expect_register(host.take().at(0).data, 0); // the next one asks for a challenge
}

TEST_F(Rendezvous, ErrorsOfTheServer) {
    const struct {
        uint8_t status;
        bool registered;
        uint32_t state;
        int shown, error;
    } rows[] = {{0, false, LINK_CHALLENGED, TARN_SERVER_ERROR, 0},
                {0, true, LINK_REGISTERED, TARN_SERVER_REGISTERED, 0},
                {1, false, LINK_CHALLENGED, TARN_SERVER_ERROR, 1},
                {2, false, LINK_IDLE, TARN_SERVER_ERROR, 2},
                {2, true, LINK_IDLE, TARN_SERVER_ERROR, 2},
                {7, true, LINK_REGISTERED, TARN_SERVER_REGISTERED, 7}};
    for (const auto &row : rows) {
        served_host host;
        host.tick();
        host.challenge();
        if (row.registered) host.registered();
        run(host, 3 * second, 0);
        host.told();
        tarn_rv_msg m = message(TARN_RV_ERROR);
        m.status = row.status;
        tell(host, m);
        EXPECT_EQ(host.told(),
                  texts{std::string("server ") + name_s + ": error " + std::to_string(row.status)});
        EXPECT_EQ(host.h->server_links[0].state, row.state);
        EXPECT_TRUE(host.h->server_links[0].tries == 0 && host.status().status == row.shown &&
                    host.status().error == row.error);
        EXPECT_EQ(run(host, 5500 * ms, TARN_RV_REGISTER)[text(at_s)], times{5000});
        host.challenge();
        EXPECT_TRUE(host.status().error == 0 && host.h->server_links[0].tries == 1);
    }
    served_host host; // a key of low order: no proof can be made
    tarn_rv_msg m = message(TARN_RV_CHALLENGE);
    memset(m.token, 7, 16);
    tell(host, m);
    expect_register(host.take().at(0).data, 0);
    EXPECT_EQ(host.h->server_links[0].state, LINK_IDLE);
    tarn_server_status s;
    for (int number : {-1, 1, 8}) {
        memset(&s, 0xA5, sizeof s);
        EXPECT_EQ(tarn_host_server_status(host.h, number, &s), -1);
        EXPECT_TRUE(all_zero(&s, sizeof s));
    }
}

TEST_F(Rendezvous, OnlyAKnownServerWithTheKeyIsHeard) {
    served_host host({link_s, link_u});
    run(host, second, 0);
    const bytes key_s = net_key(link_s), key_u = net_key(link_u);
    for (uint8_t type = TARN_RV_REGISTER; type <= TARN_RV_ERROR + 1; type++) {
        tarn_rv_msg m = message(type);
        m.allocation = 1, m.peer = at_peer, m.id_len = 5;
        m.punch_token[0] = type == TARN_RV_INTRODUCE;
        for (const auto &[from, key] : {std::pair{at_peer, key_s}, {at_s, key_u}, {at_u, key_s}})
            host.receive(encode(m, &key), from);
        host.receive(encode(m, nullptr), at_s);
        bytes longer = encode(m, &key_s);
        longer.push_back(0);
        host.receive(longer, at_s);
        const bool for_hosts = type == TARN_RV_CHALLENGE || type == TARN_RV_REGISTERED ||
                               type == TARN_RV_INTRODUCE || type == TARN_RV_BIND_REPLY ||
                               type == TARN_RV_ERROR;
        EXPECT_TRUE(host.quiet()) << int{type};
        host.receive(encode(m, &key_s), at_s);
        EXPECT_NE(host.quiet(), for_hosts) << int{type};
    }
}

TEST_F(Rendezvous, PunchingTowardsAClient) {
    served_host host;
    host.enter();
    const std::string peer = text(at_peer), lan = text(at_lan), lan2 = text(at_lan2), server = text(at_s);
    host.introduce(0xABC, at_peer, {at_lan, at_peer, tarn_addr{}, at_lan2});
    EXPECT_EQ(host.told(), texts{"client " + peer + " via " + server +
                                 ": punching 5 candidates, relay allocation 00000abc"});
    auto packets = host.take();
    ASSERT_EQ(packets.size(), 4u); // at once: each candidate once, and the relay
    tarn_rv_msg m = read(packets[0].data);
    EXPECT_TRUE(m.type == TARN_RV_PUNCH && m.side == 0 && m.punch_token[5] == ((0xABC + 100) & 0xFF));
    EXPECT_EQ(text(packets[0].to) + text(packets[1].to) + text(packets[2].to), peer + lan + lan2);
    EXPECT_EQ(packets[2].data, packets[0].data);
    const uint32_t counter = m.tag;
    m = read(packets[3].data);
    EXPECT_TRUE(m.type == TARN_RV_BIND && m.side == 0 && m.allocation == 0xABC && m.token[3] == 0xBC);
    virtual_clock::advance(50 * ms);
    host.tick();
    EXPECT_EQ(read(host.take().at(0).data).tag, counter + 1);
    int ticks = 0;
    auto at = run(host, 5 * second, TARN_RV_PUNCH, &ticks);
    EXPECT_EQ(at.size(), 3u);
    EXPECT_TRUE(at[lan2].size() == 48 && at[lan2].front() == 50 && at[lan2].back() == 2400); // 50 in all
    EXPECT_LE(ticks, 50 + 12 + 6);
    const uint64_t created = host.h->punch_jobs[0].created_us;
    host.introduce(0xABC, ep("203.0.113.8:1"));
    EXPECT_TRUE(host.told().empty() && host.h->punch_jobs[0].created_us == created); // refreshed
    host.take();
    at = run(host, 3 * second, TARN_RV_PUNCH);
    EXPECT_EQ(at.size(), 1u);
    EXPECT_EQ(at["203.0.113.8:1"].size(), 49u);
    host.introduce(5, tarn_addr{}, {at_lan});
    EXPECT_EQ(host.told().at(0).substr(0, 10), "client - v");
    EXPECT_EQ(sent(host), (texts{"punch " + lan, "bind " + server}));
}

TEST_F(Rendezvous, PunchesAreAnsweredByTokenAndMakeP2P) {
    served_host host({link_s}, 2);
    host.enter();
    host.introduce(9, at_peer, {at_lan});
    host.take();
    tarn_rv_msg m = message(TARN_RV_PUNCH);
    m.tag = 77, m.side = 1;
    tell(host, m, at_t); // no token of ours
    memset(m.punch_token, 109, 16);
    m.type = TARN_RV_PUNCH_ACK;
    tell(host, m, at_t);
    EXPECT_TRUE(host.take().empty());
    m.type = TARN_RV_PUNCH;
    tell(host, m, at_t); // from any source
    const auto answer = host.take();
    ASSERT_EQ(answer.size(), 1u);
    m.type = TARN_RV_PUNCH_ACK, m.side = 0;
    EXPECT_EQ(answer[0].data, encode(m, nullptr));
    EXPECT_EQ(text(answer[0].to), text(at_t));
    // The class of a session's path: relay, LAN, a candidate of a running job, anything else.
    const std::tuple<tarn_addr, uint32_t> rows[] = {
        {at_peer, TARN_PATH_P2P}, {at_lan, TARN_PATH_LAN}, {at_s, TARN_PATH_RELAY}, {at_t, TARN_PATH_DIRECT}};
    hand_client client;
    ASSERT_TRUE(client.shake(host, at_t, 1));
    for (const auto &[from, path] : rows)
        EXPECT_EQ(host.receive(seal(client.keys, plain(TARN_PKT_PING)), from).info.path, path) << text(from);
    host.bind_reply(9, 4); // refused: the job is over, and its candidate is an address like any other
    EXPECT_EQ(host.receive(seal(client.keys, plain(TARN_PKT_PING)), at_peer).info.path, 2u);
    m.type = TARN_RV_PUNCH;
    tell(host, m, at_t);
    EXPECT_TRUE(host.take().empty() && host.jobs().empty());
}

TEST_F(Rendezvous, RelayBindingsOfTheHost) {
    const std::string server = text(at_s);
    for (const bool linked : {false, true}) {
        served_host host;
        host.enter();
        hand_client client;
        ASSERT_TRUE(client.shake(host, at_t, 1));
        const auto keep = [&] {
            if (linked) host.receive(seal(client.keys, plain(TARN_PKT_PING)), at_t);
        };
        keep();
        host.told();
        host.introduce(1);
        EXPECT_EQ(run(host, 2500 * ms, TARN_RV_BIND)[server],
                  (times{0, 1000, 2000})); // the first one at once
        host.bind_reply(2);
        host.bind_reply(1, 0, at_t); // another allocation, another sender
        EXPECT_EQ(host.h->punch_jobs[0].bound, 0u);
        host.told();
        host.bind_reply(1);
        host.bind_reply(1);
        EXPECT_EQ(host.told(), texts{"relay allocation 00000001 bound"});
        int ticks = 0;
        EXPECT_EQ(run(host, 27500 * ms, TARN_RV_BIND, &ticks)[server], times{15000}); // now 30 s old
        EXPECT_LE(ticks, 120);
        host.h->punch_jobs[0].next_bind_us = conn_now();
        EXPECT_EQ(run(host, 0, TARN_RV_BIND)[server], times{0}); // thirty seconds are not yet too old
        keep();
        EXPECT_EQ(run(host, 15500 * ms, TARN_RV_BIND)[server],
                  linked ? times{15000} : times{}); // nobody came
        keep();
        run(host, 14500 * ms, 0);
        EXPECT_EQ(host.jobs(), "0:1* ");
        keep();
        run(host, 500 * ms, 0);
        EXPECT_EQ(host.jobs(), linked ? "0:1* " : ""); // sixty seconds without any link
        ticks = 0;
        run(host, 60 * second, 0, &ticks);
        EXPECT_LE(ticks, 260);
    }
    served_host host;
    host.enter();
    for (uint32_t i = 1; i <= 8; i++) {
        host.introduce(i);
        virtual_clock::advance(i == 1 ? 0 : ms); // of the two oldest the first one gives way
    }
    EXPECT_EQ(host.jobs(), "0:1 0:2 0:3 0:4 0:5 0:6 0:7 0:8* ");
    host.take();
    EXPECT_EQ(run(host, 1500 * ms, TARN_RV_BIND)[server].size(), 1u); // only the newest one's binding is kept
    host.introduce(2);
    EXPECT_EQ(host.jobs(), "0:1 0:2* 0:3 0:4 0:5 0:6 0:7 0:8 ");
    host.introduce(9); // the oldest gives way
    EXPECT_EQ(host.jobs(), "0:9* 0:2 0:3 0:4 0:5 0:6 0:7 0:8 ");
    host.introduce(10);
    EXPECT_EQ(host.jobs(), "0:9 0:10* 0:3 0:4 0:5 0:6 0:7 0:8 "); // refreshed, but still the older one
    hand_client client;
    host.take();
    ASSERT_TRUE(client.shake(host, at_t, 1));
    const auto ping = [&] { host.receive(seal(client.keys, plain(TARN_PKT_PING)), at_t); };
    ping();
    run(host, 58400 * ms, 0);
    ping();
    EXPECT_EQ(host.jobs(), "0:9 0:10* 0:3 0:4 0:5 0:6 0:7 0:8 ");
    run(host, 2 * second, 0);
    EXPECT_EQ(host.jobs(), "0:10* "); // over 60 seconds old and not current
}

TEST_F(Rendezvous, NewLanEndpointsAndServerAddresses) {
    served_host host({link_n});
    EXPECT_EQ(run(host, 30 * second, TARN_RV_REGISTER).size(), 0u);
    EXPECT_EQ(host.status().status, TARN_SERVER_NO_ADDRESS);
    const auto resolved = [&](const char *name, uint16_t port, const tarn_addr *addr) {
        tarn_host_server_resolved(host.h, name, port, addr);
        EXPECT_TRUE(host.take().empty()); // nothing is sent within the call
        return host.told();
    };
    const tarn_addr none = {}, other_port = ep("198.51.100.99:1");
    EXPECT_EQ(resolved("relay.test", 9877, nullptr), texts{"server relay.test:9877: name did not resolve"});
    EXPECT_EQ(resolved("relay.test", 9877, &none), texts{});
    EXPECT_EQ(host.status().status, TARN_SERVER_UNRESOLVED);
    EXPECT_EQ(resolved("relay.test", 9876, &at_s), texts{});
    EXPECT_EQ(resolved(nullptr, 9877, &at_s), texts{});
    EXPECT_EQ(resolved("RELAY.test", 9877, &other_port),
              texts{std::string("server relay.test:9877 is at ") + name_s});
    EXPECT_EQ(host.status().status, TARN_SERVER_REGISTERING);
    host.enter();
    EXPECT_EQ(host.status().status, TARN_SERVER_REGISTERED);
    host.introduce(1);
    host.take();
    host.told();
    EXPECT_EQ(resolved("relay.test", 9877, &at_s), texts{}); // the same address disturbs nothing
    EXPECT_EQ(resolved("relay.test", 9877, nullptr).size(), 1u);
    EXPECT_TRUE(host.status().registered == 1 && host.jobs() == "0:1* ");

    const tarn_addr lan[] = {at_peer, at_lan, at_lan2, at_s, at_t};
    tarn_host_set_lan_endpoints(host.h, lan, 5);
    EXPECT_TRUE(host.take().empty() && host.status().registered == 0);
    host.tick();
    for (const auto &p : host.take()) {
        if (p.data[2] == TARN_RV_REGISTER) expect_register(p.data, 7, {at_peer, at_lan, at_lan2, at_s});
    }
    host.registered();
    EXPECT_EQ(host.told().size(), 2u);
    tarn_host_set_lan_endpoints(host.h, lan, -1);
    EXPECT_EQ(host.h->base.lan_count, 0);

    EXPECT_EQ(resolved("relay.test", 9877, &at_t).size(), 1u); // moved: all of it begins anew
    EXPECT_TRUE(host.status().registered == 0 && host.status().public_addr.family == 0 &&
                host.jobs().empty());
    host.tick();
    const auto anew = host.take();
    EXPECT_EQ(text(anew.at(0).to), text(at_t));
    expect_register(anew[0].data, 0, {});
    tarn_host_set_lan_endpoints(host.h, lan, 1);
    EXPECT_EQ(host.h->server_links[0].state, LINK_IDLE); // without a challenge there is nothing to prove
}

TEST_F(Rendezvous, ReplacingTheServersKeepsWhatStays) {
    served_host host({link_s, link_t, link_u, link_n});
    const tarn_addr at_n = ep("203.0.113.7:9877");
    tarn_host_server_resolved(host.h, "relay.test", 9877, &at_n);
    tarn_host_server_resolved(host.h, "relay.test", 9877, nullptr);
    const std::tuple<tarn_addr, const char *> places[] = {
        {at_s, link_s}, {at_t, link_t}, {at_u, link_u}, {at_n, link_n}};
    uint32_t number = 1;
    for (const auto &[from, link] : places) {
        host.enter(from, link);
        host.introduce(number++, at_lan, {}, from, link);
    }
    host.told(), host.take();
    EXPECT_EQ(host.jobs(), "0:1* 1:2* 2:3* 3:4* ");
    const tarn_relay_config next = relays_of({link_n, link_u, link_t2, "tarnglider-relay://198.51.100.96#k"});
    tarn_host_set_relay(host.h, &next); // one gone, two moved, one with another key, one new
    EXPECT_EQ(host.told(), texts{"relay servers: 4"});
    EXPECT_TRUE(host.take().empty());
    EXPECT_EQ(host.jobs(), "1:3* 0:4* ");
    const int expected[] = {TARN_SERVER_REGISTERED, TARN_SERVER_REGISTERED, TARN_SERVER_REGISTERING,
                            TARN_SERVER_REGISTERING};
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(host.status(i).status, expected[i]) << i;
    EXPECT_EQ(text(host.status(0).addr),
              text(at_n)); // an address that was resolved is kept, and the failure, too
    EXPECT_EQ(host.h->base.servers[0].resolve_failed, 1u);
    host.tick();
    texts all = sent(host);
    EXPECT_EQ(std::count(all.begin(), all.end(), "register " + text(at_t)), 1);
    EXPECT_EQ(std::count(all.begin(), all.end(), "register 198.51.100.96:9877"), 1);
    EXPECT_EQ(std::count_if(all.begin(), all.end(), [](auto &s) { return s[0] == 'r'; }), 2);
    host.introduce(3, at_lan, {}, at_u, link_u); // the moved server still speaks for its job
    EXPECT_EQ(host.jobs(), "1:3* 0:4* ");
    tarn_host_set_relay(host.h, nullptr);
    EXPECT_EQ(host.told(), texts{"relay servers: 0"});
    EXPECT_TRUE(host.jobs().empty() && all_zero(host.h->base.servers, sizeof host.h->base.servers));
    tarn_server_status s;
    EXPECT_EQ(tarn_host_server_status(host.h, 0, &s), -1);
}

// ---- The client

struct served_client : client_rig {
    explicit served_client(uint32_t route = TARN_ROUTE_ANY, bool by_key = true, const char *code = nullptr,
                           const std::vector<const char *> &links = {link_s})
        : client_rig([&](tarn_client_config &config) {
              config.relays = relays_of(links);
              config.lan_count = 1, config.lan[0] = at_lan2;
              config.route_mode = route, config.host_key_known = by_key, config.host_code = code;
          }) {}
    const server_lookup &lookup() const { return c->lookups[0]; }
    tarn_rv_msg reply(uint32_t allocation = 1, uint8_t host = 200) const {
        tarn_rv_msg m = message(TARN_RV_LOOKUP_REPLY);
        m.tag = lookup().tag, m.allocation = allocation, m.peer = at_peer;
        m.count = 2, m.endpoints[0] = at_lan, m.endpoints[1] = at_peer;
        memcpy(m.key, test_key(host).public_key, 32);
        memset(m.token, 3, 16), memset(m.punch_token, 4, 16);
        return m;
    }
    // Connects, and finds the host 20 ms later.
    void find() {
        tarn_client_connect(c);
        tick();
        virtual_clock::advance(20 * ms);
        take(), told();
        tell(*this, reply());
    }
};

TEST_F(Rendezvous, LookupByKeyOrCodeAndItsPatience) {
    const std::string code = code_of(test_key(200).public_key);
    uint8_t id[16];
    tarn_key_id(id, test_key(200).public_key);
    for (const bool by_key : {true, false}) {
        served_client rig(TARN_ROUTE_ANY, by_key, code.c_str());
        EXPECT_EQ(rig.tick(), 250000);
        EXPECT_TRUE(rig.take().empty()); // idle
        tell(rig, rig.reply());
        EXPECT_TRUE(rig.quiet()); // nothing was asked
        tarn_client_pair(rig.c, "123456", 0);
        tell(rig, rig.reply());
        EXPECT_TRUE(rig.quiet());
        rig.tick();
        const tarn_rv_msg m = read(rig.take().at(0).data);
        EXPECT_EQ(bytes(m.lookup_id, m.lookup_id + m.id_len), bytes(id, id + (by_key ? 16 : 5)));
        EXPECT_TRUE(m.type == TARN_RV_LOOKUP && m.tag == rig.lookup().tag && m.count == 1);
        EXPECT_EQ(text(m.endpoints[0]), text(at_lan2));
        EXPECT_EQ(run(rig, 5 * second, TARN_RV_LOOKUP)[text(at_s)], (times{1000, 2000, 3000, 4000, 5000}));
        EXPECT_EQ(rig.lookup().tag, m.tag);
        tarn_rv_msg failed = message(by_key ? TARN_RV_ERROR : TARN_RV_LOOKUP_REPLY);
        failed.status = 3, failed.tag = m.tag + 1;
        tell(rig, failed);
        EXPECT_EQ(rig.told(), texts{}); // an answer to another question
        failed.tag = m.tag;
        tell(rig, failed);
        EXPECT_EQ(rig.told(),
                  (texts{std::string("lookup on ") + name_s + " failed (status 3)", "16 detail=3 server=0"}));
        EXPECT_EQ(run(rig, 3500 * ms, TARN_RV_LOOKUP)[text(at_s)], times{3000});
        tell(rig, failed);
        EXPECT_EQ(rig.told(), texts{}); // told once
        EXPECT_EQ(run(rig, 30 * second, TARN_RV_LOOKUP)[text(at_s)],
                  (times{3000, 4000, 5000, 6000})); // until pairing ends
        int ticks = 0;
        tarn_client_pair(rig.c, "123456", 0); // a new search has a new number
        EXPECT_EQ(run(rig, 60 * second, TARN_RV_LOOKUP, &ticks)[text(at_s)].size(), 12u);
        EXPECT_NE(rig.lookup().tag, m.tag);
        EXPECT_LE(ticks, 15 * 20 + 45 * 4 + 40); // pairing hurries for 15 s, then all rests
        rig.told();
    }
    served_client blind(TARN_ROUTE_ANY, false), local(TARN_ROUTE_LOCAL_ONLY);
    tarn_client_pair(blind.c, "123456", 0);
    tarn_client_connect(local.c);
    EXPECT_TRUE(run(blind, 5 * second, TARN_RV_LOOKUP).empty() &&
                run(local, 5 * second, TARN_RV_LOOKUP).empty());
}

TEST_F(Rendezvous, LookupRepliesAndWhatFollows) {
    const std::string peer = text(at_peer), lan = text(at_lan), server = text(at_s);
    served_client rig;
    tarn_client_connect(rig.c);
    rig.tick();
    virtual_clock::advance(20 * ms);
    rig.take();
    tell(rig, rig.reply(1, 199));
    EXPECT_EQ(rig.told(), texts{std::string("lookup on ") + name_s + " returned another host key: ignored"});
    tell(rig, rig.reply(), at_t);
    tell(rig, rig.reply(), at_s, link_u);
    EXPECT_TRUE(rig.quiet() && rig.lookup().state == LOOKUP_ASKED);
    tell(rig, rig.reply(0xAB));
    EXPECT_EQ(rig.told(), texts{std::string("lookup on ") + name_s + ": host at " + peer +
                                " (+2 LAN), allocation 000000ab, rtt 20.0 ms"});
    auto packets = rig.take();
    ASSERT_EQ(packets.size(), 3u);
    tarn_rv_msg m = read(packets[0].data);
    EXPECT_TRUE(m.type == TARN_RV_PUNCH && m.side == 1 && m.punch_token[0] == 4);
    EXPECT_EQ(text(packets[0].to) + text(packets[1].to) + text(packets[2].to), peer + lan + server);
    m = read(packets[2].data);
    EXPECT_TRUE(m.type == TARN_RV_BIND && m.side == 1 && m.allocation == 0xAB && m.token[9] == 3);
    virtual_clock::advance(10 * ms);
    tell(rig, rig.reply(0xAB)); // again: dropped, and the round trip stands
    EXPECT_TRUE(rig.quiet());
    EXPECT_EQ(rig.lookup().rtt_us, 20000u);
    auto at = run(rig, 5 * second, TARN_RV_PUNCH);
    EXPECT_TRUE(at[lan].size() == 49 && at[lan].back() == 2440);
    tell(rig, rig.reply(0xAC)); // a fresh allocation: fresh punching
    EXPECT_EQ(rig.told().size(), 1u);
    EXPECT_TRUE(rig.lookup().allocation == 0xAC && rig.lookup().rtt_us == 20000);
    rig.take();
    EXPECT_EQ(run(rig, 5 * second, TARN_RV_PUNCH)[lan].size(), 49u);
    tarn_client_server_resolved(rig.c, "198.51.100.99", 9877, &at_t); // the server moved
    EXPECT_TRUE(rig.lookup().state == LOOKUP_IDLE && rig.lookup().candidate_count == 0);
    EXPECT_EQ(run(rig, 0, TARN_RV_LOOKUP)[text(at_t)], times{0});
    served_client two(TARN_ROUTE_ANY, true, nullptr,
                      {link_s, link_t}); // what stays found isn't asked anew by a connect
    two.find();
    tarn_client_connect(two.c);
    EXPECT_TRUE(two.c->lookups[0].state == LOOKUP_FOUND && two.c->lookups[1].state == LOOKUP_IDLE);
    tarn_session keys = {};
    two.take();
    tell(two, message(TARN_RV_PUNCH), at_peer); // unknown token
    EXPECT_TRUE(two.take().empty());
    const tarn_addr direct = ep("203.0.113.5:9000");
    tarn_client_add_candidate(two.c, &direct, 0);
    two.receive(hand_respond(two.take().at(0).data, 0x11223344, &keys), direct);
    const auto lookups =
        run(two, 20 * second, TARN_RV_LOOKUP); // with a session only the other search goes on
    EXPECT_TRUE(!lookups.count(text(at_s)) && lookups.at(text(at_t)).size() == 12);
}

TEST_F(Rendezvous, RouteModes) {
    const std::string peer = text(at_peer), lan = text(at_lan), server = text(at_s);
    const struct {
        uint32_t route;
        texts found;      // sent on a good reply
        texts punched;    // sent on punches from the host
        std::string path; // the classes that come of punches and a confirmed binding
    } rows[] = {
        {TARN_ROUTE_ANY,
         {"punch " + peer, "punch " + lan, "bind " + server},
         {"ack " + peer, "packet " + peer, "ack " + lan, "packet " + lan},
         "314"},
        {TARN_ROUTE_NO_RELAY,
         {"punch " + peer, "punch " + lan},
         {"ack " + peer, "packet " + peer, "ack " + lan, "packet " + lan},
         "314"},
        {TARN_ROUTE_RELAY_ONLY, {"bind " + server}, {}, "4"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.route);
        served_client rig(row.route);
        rig.find();
        EXPECT_EQ(sent(rig), row.found);
        tarn_rv_msg m = message(TARN_RV_PUNCH);
        m.tag = 5;
        tell(rig, m, at_peer); // no token of ours
        EXPECT_EQ(sent(rig), texts{});
        memset(m.punch_token, 4, 16);
        rig.told();
        tell(rig, m, at_peer);
        tell(rig, m, at_lan);
        EXPECT_EQ(sent(rig), row.punched);
        EXPECT_EQ(rig.told(), row.punched.empty() ? texts{} : (texts{"path P2P " + peer, "path LAN " + lan}));
        tell(rig, m, at_peer); // a known path is answered, not kicked
        m.type = TARN_RV_PUNCH_ACK;
        tell(rig, m, at_peer);
        EXPECT_EQ(sent(rig), row.punched.empty() ? texts{} : texts{"ack " + peer});
        m = message(TARN_RV_BIND_REPLY);
        m.allocation = 1;
        tell(rig, m);
        EXPECT_EQ(rig.told(), texts{"path Relay " + server});
        EXPECT_EQ(sent(rig), row.route == TARN_ROUTE_NO_RELAY ? texts{} : texts{"packet " + server});
        tarn_client_status s;
        tarn_client_status_get(rig.c, &s);
        std::string classes;
        for (int i = 0; i < s.path_count; i++) {
            classes += std::to_string(s.paths[i].path);
            EXPECT_EQ(s.paths[i].server, 0);
        }
        EXPECT_EQ(classes, row.path);
        int ticks = 0;
        const auto binds = run(rig, 40 * second, TARN_RV_BIND, &ticks);
        EXPECT_EQ(binds.empty(), row.route == TARN_ROUTE_NO_RELAY);
        EXPECT_LE(ticks, 850); // 50 ms apart while it connects
    }
}

TEST_F(Rendezvous, RelayBindingsOfTheClient) {
    served_client rig;
    const std::string server = text(at_s);
    const tarn_addr known = at_s;
    path_add(rig.c, &known, TARN_PATH_DIRECT, -1);
    rig.find();
    rig.take();
    EXPECT_EQ(run(rig, 3500 * ms, TARN_RV_BIND)[server], (times{1000, 2000, 3000}));
    tarn_rv_msg m = message(TARN_RV_BIND_REPLY);
    m.allocation = 2;
    tell(rig, m);
    EXPECT_EQ(rig.lookup().bound, 0u);
    m.allocation = 1;
    tell(rig, m);
    tell(rig, m);
    EXPECT_EQ(rig.c->paths[0].server, 0); // the path was known, but now it leads through the server
    EXPECT_EQ(rig.c->paths[0].path, TARN_PATH_DIRECT);
    EXPECT_EQ(run(rig, 31 * second, TARN_RV_BIND)[server], (times{15000, 30000}));
    rig.c->lookups[0].tries = 12;
    const uint32_t tag = rig.lookup().tag;
    m.status = 9;
    tell(rig, m); // the allocation is gone: a new search, with the same number
    EXPECT_TRUE(rig.lookup().state == LOOKUP_IDLE && rig.lookup().bound == 0 && rig.lookup().tag == tag);
    EXPECT_EQ(run(rig, 12500 * ms, TARN_RV_LOOKUP)[server].size(), 12u);
    tell(rig, m); // and a late refusal changes nothing
    EXPECT_EQ(rig.lookup().tries, 12);
    tell(rig, rig.reply(7));
    m.status = 0, m.allocation = 7;
    tell(rig, m);
    EXPECT_TRUE(rig.lookup().state == LOOKUP_FOUND && rig.lookup().bound);
    tell(rig, rig.reply(8)); // another allocation is bound anew
    EXPECT_FALSE(rig.lookup().bound);
}

} // namespace
