// Both engines and their rendezvous servers, played by hand: registration and its timing, lookup, punching,
// relay bindings, and what becomes of all that when servers fall silent, move or are replaced.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>

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
tarn_rv_msg read(const bytes &packet, const char *link = link_s) {
    tarn_rv_msg m;
    const bool punch = packet[2] == TARN_RV_PUNCH || packet[2] == TARN_RV_PUNCH_ACK;
    EXPECT_EQ(tarn_rv_decode(packet.data(), packet.size(), punch ? nullptr : net_key(link).data(), &m), 0);
    return m;
}
// Runs an engine for a time as its ticks ask for it. Returns what it sent of a type, as milliseconds since
// the start, by target; counts its ticks.
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

// The places by the letters that scripts use.
const std::map<char, tarn_addr> places = {{'S', at_s},
                                          {'T', at_t},
                                          {'U', at_u},
                                          {'N', ep("203.0.113.7:9877")},
                                          {'V', ep("198.51.100.96:9877")},
                                          {'P', at_peer},
                                          {'Q', ep("203.0.113.8:1")},
                                          {'L', at_lan},
                                          {'M', at_lan2},
                                          {'-', {}}};
std::string short_of(std::string in) {
    for (const auto &[letter, at] : places)
        for (size_t i; letter != '-' && (i = in.find(text(at))) != std::string::npos;)
            in.replace(i, text(at).size(), 1, letter);
    return in;
}
std::string joined(const texts &all) {
    std::string out;
    for (const std::string &s : all)
        out += (out.empty() ? "" : "; ") + s;
    return short_of(out);
}
const char *const names[] = {"register", "challenge", "registered", "lookup", "found", "introduce",
                             "punch",    "ack",       "bind",       "bound",  "error"};
uint8_t type_of(const std::string &name) {
    for (uint8_t i = 0; i < std::size(names); i++)
        if (name == names[i]) return static_cast<uint8_t>(TARN_RV_REGISTER + i);
    return 0;
}
// What was sent, type and target of each, and then what was logged and reported.
template <class Rig>
std::string outcome(Rig &rig) {
    texts all;
    for (const auto &p : rig.take()) {
        const bool rv = p.data[1] == 1 && p.data[2] >= TARN_RV_REGISTER && p.data[2] <= TARN_RV_BIND;
        all.push_back((rv ? names[p.data[2] - TARN_RV_REGISTER] : "packet") + std::string(" ") + text(p.to));
    }
    for (const std::string &s : rig.told())
        all.push_back(s);
    return joined(all);
}
// A message of a server or a peer played by hand: its name, fields (t token, u punch token, a allocation, p
// peer, l endpoints, k key, i interval, x status, g how much the tag is off), and after @ whence it comes.
// The keyed ones have the key that the engine shares with that server.
template <class Rig>
void tell(Rig &rig, const std::string &line) {
    std::istringstream words(line);
    std::string word;
    words >> word;
    const uint8_t type = type_of(word);
    std::map<char, int> number = {{'t', type == TARN_RV_CHALLENGE ? 7 : -1},
                                  {'k', type == TARN_RV_CHALLENGE ? 50 : 200}};
    tarn_rv_msg m = message(type);
    char from = 'S';
    m.seen = m.peer = at_peer;
    while (words >> word) {
        const std::string value = word.substr(word.find_first_of("=@") + 1);
        if (word[0] == '@')
            from = value[0];
        else if (word[0] == 'p')
            m.seen = m.peer = places.at(value[0]);
        else if (word[0] == 'l') {
            for (char letter : value)
                m.endpoints[m.count++] = places.at(letter);
        } else
            number[word[0]] = std::stoi(value);
    }
    m.allocation = static_cast<uint32_t>(number['a']), m.status = static_cast<uint8_t>(number['x']);
    m.interval = static_cast<uint16_t>(number['i']), m.tag = rig.tag() + static_cast<uint32_t>(number['g']);
    memcpy(m.key, test_key(static_cast<uint8_t>(number['k'])).public_key, number['k'] ? 32 : 0);
    memset(m.token, number['t'] < 0 ? number['a'] : number['t'], 16);
    memset(m.punch_token, number.count('u') ? number['u'] : number['a'] + 100, 16);
    const bool punch = type == TARN_RV_PUNCH || type == TARN_RV_PUNCH_ACK;
    const bytes key = net_key(from == 'U' ? link_u : link_s);
    EXPECT_EQ(rig.receive(encode(m, punch ? nullptr : &key), places.at(from)).result, TARN_RECV_NONE);
}
// Plays "action | outcome", one a line or several with " / " between them. An action is a message of `tell`,
// or
//   run MS TYPE   time; the outcome has, for each target, when a message of this type went there (or "*5": how often)
//   skip ...      as `tell`, but whatever comes of it is thrown away
template <class Rig>
void play(Rig &rig, std::string table) {
    for (size_t i; (i = table.find(" / ")) != std::string::npos;)
        table.replace(i, 3, "\n");
    std::istringstream in(table);
    for (std::string row, verb, type; std::getline(in, row);) {
        const size_t bar = row.find('|'), from = row.find_first_not_of("| ", bar);
        if (bar == std::string::npos) continue;
        std::string expected = from == std::string::npos ? "" : row.substr(from), got;
        expected.resize(expected.find_last_not_of(' ') + 1);
        std::istringstream words(row.substr(0, bar));
        words >> verb;
        if (verb == "run") {
            int64_t time;
            words >> time >> type;
            for (const auto &[to, at] : run(rig, time * ms, type_of(type))) {
                got += (got.empty() ? "" : "; ") + short_of(to);
                const bool count = expected.find('*') != std::string::npos;
                if (count) got += " *" + std::to_string(at.size());
                for (size_t i = 0; !count && i < at.size(); i++)
                    got += " " + std::to_string(at[i]);
            }
            const std::string more = outcome(rig);
            got += (got.empty() || more.empty() ? "" : "; ") + more;
        } else {
            const size_t at = row.find(verb) + (verb == "skip" ? 5 : 0);
            tell(rig, row.substr(at, bar - at));
            got = outcome(rig);
        }
        if (verb == "skip") continue;
        EXPECT_EQ(got, expected) << row;
    }
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
    uint32_t tag() const { return 0; }
    tarn_server_status status(int server = 0) {
        tarn_server_status s;
        EXPECT_EQ(tarn_host_server_status(h, server, &s), 0);
        return s;
    }
    // Registers with a server; what that says and sends is thrown away.
    void enter(const std::string &from = "@S") {
        tick();
        play(*this, "skip challenge " + from + " | / skip registered " + from + " |");
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
// A registration carries the host's key and endpoints and, with a cookie, the proof that the server can
// check.
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
    served_host host;
    int ticks = 0;
    const auto first = run(host, 25 * second, TARN_RV_REGISTER, &ticks);
    EXPECT_EQ(first.at(text(at_s)), (std::vector<int64_t>{0, 1000, 3000, 7000, 15000, 23000}));
    EXPECT_LE(ticks, 25 * 4 + 10); // nothing at rest asks to be called at once
    EXPECT_EQ(host.status().status, TARN_SERVER_SILENT);
    const auto challenged = [&](const char *line, uint8_t cookie) {
        tell(host, line);
        expect_register(host.take().at(0).data, cookie);
    };
    challenged("challenge", 7);
    EXPECT_TRUE(host.status().status == TARN_SERVER_REGISTERING && host.status().registered == 0);
    challenged("challenge t=8", 8); // another one: its cookie counts
    virtual_clock::advance(35 * ms);
    play(host, "registered | registered with S as P (rtt 35.0 ms); 8 server=0 rtt=35000 addr=P");
    const tarn_server_status s = host.status();
    EXPECT_TRUE(s.registered == 1 && s.status == TARN_SERVER_REGISTERED && s.error == 0 &&
                s.rtt_us == 35000 && s.port == 9877);
    EXPECT_EQ(text(s.addr) + text(s.public_addr) + s.host, text(at_s) + text(at_peer) + "198.51.100.99");
    // The same again is nothing new, but another address is. A lost server comes back; two refreshes lost are
    // not yet the end, and the third one has its proof still.
    play(host, R"(
        registered i=300 |
        registered p=L i=300 | registered with S as L (rtt 35.0 ms); 8 server=0 rtt=35000 addr=L
        run 360000 register  | S 300000 320000 340000 344000 352000 360000; server S stopped answering; 9 server=0
        skip registered p=L | / run 21000 register | S 20000 / registered p=L | / run 59000 register | S 20000 40000
        registered p=L | / run 59000 register | S 20000 40000)");
    for (const auto &[wait, cookie] :
         {std::pair{second, 8}, {4 * second, 0}}) { // then a challenge is asked for
        virtual_clock::advance(wait);
        host.tick();
        expect_register(host.take().at(0).data, static_cast<uint8_t>(cookie));
    }
}

TEST_F(Rendezvous, ErrorsOfTheServer) {
    const std::tuple<int, bool, uint32_t, int> rows[] = {{0, false, LINK_CHALLENGED, TARN_SERVER_ERROR},
                                                         {1, false, LINK_CHALLENGED, TARN_SERVER_ERROR},
                                                         {2, true, LINK_IDLE, TARN_SERVER_ERROR},
                                                         {7, true, LINK_REGISTERED, TARN_SERVER_REGISTERED}};
    for (const auto &[error, registered, state, shown] : rows) {
        served_host host;
        host.tick();
        play(host, std::string("skip challenge |") + (registered ? " / skip registered |" : ""));
        run(host, 3 * second, 0);
        const std::string n = std::to_string(error);
        play(host, "error x=" + n + " | server S: error " + n);
        EXPECT_TRUE(host.h->server_links[0].state == state && host.h->server_links[0].tries == 0 &&
                    host.status().status == shown && host.status().error == error);
        play(host, "run 5500 register | S 5000 / skip challenge |");
        EXPECT_TRUE(host.status().error == 0 && host.h->server_links[0].tries == 1);
    }
    served_host host; // a key of low order: no proof can be made
    tell(host, "challenge k=0");
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
        bytes longer = encode(m, &key_s);
        longer.push_back(0);
        host.receive(encode(m, nullptr), at_s);
        host.receive(longer, at_s);
        EXPECT_TRUE(host.quiet()) << int{type};
        host.receive(encode(m, &key_s), at_s);
        const bool for_hosts = type == TARN_RV_CHALLENGE || type == TARN_RV_REGISTERED ||
                               type == TARN_RV_INTRODUCE || type == TARN_RV_BIND_REPLY ||
                               type == TARN_RV_ERROR;
        EXPECT_NE(host.quiet(), for_hosts) << int{type};
    }
}

TEST_F(Rendezvous, PunchingTowardsAClient) {
    served_host host({link_s}, 2);
    host.enter();
    tell(host, "introduce a=171 u=9 l=LP-M");
    const auto packets = host.take();
    ASSERT_EQ(packets.size(), 4u); // at once: each candidate once, and the relay
    EXPECT_EQ(joined(host.told()), "client P via S: punching 5 candidates, relay allocation 000000ab");
    tarn_rv_msg m = read(packets[0].data);
    const uint32_t counter = m.tag;
    EXPECT_TRUE(m.type == TARN_RV_PUNCH && m.side == 0 && m.punch_token[5] == 9);
    EXPECT_EQ(packets[2].data, packets[0].data);
    m = read(packets[3].data);
    EXPECT_TRUE(m.type == TARN_RV_BIND && m.side == 0 && m.allocation == 171 && m.token[3] == 171);
    EXPECT_EQ(joined({text(packets[0].to), text(packets[1].to), text(packets[2].to)}), "P; L; M");
    virtual_clock::advance(50 * ms);
    host.tick();
    EXPECT_EQ(read(host.take().at(0).data).tag, counter + 1);
    int ticks = 0;
    auto at = run(host, 5 * second, TARN_RV_PUNCH, &ticks);
    const auto &lan = at[text(at_lan2)];
    EXPECT_TRUE(at.size() == 3 && lan.size() == 48 && lan.front() == 50 && lan.back() == 2400); // 50 in all
    EXPECT_LE(ticks, 50 + 12 + 6);
    const uint64_t created = host.h->punch_jobs[0].created_us;
    play(host, "introduce a=171 p=Q | punch Q / run 3000 punch | Q *49");
    EXPECT_EQ(host.h->punch_jobs[0].created_us, created);        // refreshed
    play(host, R"(
        introduce a=5 p=- l=L | punch L; bind S; client - via S: punching 2 candidates, relay allocation 00000005
        skip introduce a=9 l=L | / punch @T | / ack a=9 @T |)"); // no token of ours
    // Punches are answered by their token, whatever their source.
    m = message(TARN_RV_PUNCH);
    m.tag = 77, m.side = 1, memset(m.punch_token, 109, 16);
    host.receive(encode(m, nullptr), at_t);
    const auto answer = host.take();
    ASSERT_EQ(answer.size(), 1u);
    m.type = TARN_RV_PUNCH_ACK, m.side = 0;
    EXPECT_TRUE(answer[0].data == encode(m, nullptr) && text(answer[0].to) == text(at_t));
    // The class of a session's path: relay, LAN, a candidate of a running job, anything else. A refused job
    // is over, and its candidate is an address like any other.
    hand_client client;
    ASSERT_TRUE(client.shake(host, at_t, 1));
    std::string classes;
    for (char from : {'P', 'L', 'S', 'T', 'x', 'P'}) {
        if (from == 'x')
            play(host, "skip bound a=9 x=4 | / skip bound a=171 x=4 | / skip bound a=5 x=4 |");
        else
            classes += std::to_string(
                host.receive(seal(client.keys, plain(TARN_PKT_PING)), places.at(from)).info.path);
    }
    EXPECT_EQ(classes, "31422");
    host.told();
    play(host, "punch a=9 @T |");
    EXPECT_EQ(host.jobs(), "");
}

TEST_F(Rendezvous, RelayBindingsOfTheHost) {
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
        tell(host, "introduce a=1");
        host.told();
        play(host,
             "run 2500 bind | S 0 1000 2000 / bound a=2 | / bound a=1 @T |"); // another one, another sender
        EXPECT_EQ(host.h->punch_jobs[0].bound, 0u);
        play(host, "bound a=1 | relay allocation 00000001 bound / bound a=1 |");
        int ticks = 0;
        EXPECT_EQ(run(host, 27500 * ms, TARN_RV_BIND, &ticks)[text(at_s)], std::vector<int64_t>{15000});
        EXPECT_LE(ticks, 120);
        host.h->punch_jobs[0].next_bind_us = conn_now();
        host.told();
        play(host, "run 0 bind | S 0"); // thirty seconds are not yet too old
        keep();
        EXPECT_EQ(run(host, 15500 * ms, TARN_RV_BIND).count(text(at_s)), linked); // nobody came
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
    for (int i = 1; i <= 8; i++) {
        tell(host, "introduce a=" + std::to_string(i));
        virtual_clock::advance(i == 1 ? 0 : ms); // of the two oldest the first one gives way
    }
    EXPECT_EQ(host.jobs(), "0:1 0:2 0:3 0:4 0:5 0:6 0:7 0:8* ");
    host.told(), host.take();
    play(host, "run 1500 bind | S 999"); // only the newest one's binding is kept
    const std::pair<const char *, const char *> rows[] = {
        {"2", "0:1 0:2* 0:3 0:4 0:5 0:6 0:7 0:8 "},
        {"9", "0:9* 0:2 0:3 0:4 0:5 0:6 0:7 0:8 "},    // the oldest gives way
        {"10", "0:9 0:10* 0:3 0:4 0:5 0:6 0:7 0:8 "}}; // refreshed, but still the older one
    for (const auto &[allocation, jobs] : rows) {
        tell(host, std::string("introduce a=") + allocation);
        EXPECT_EQ(host.jobs(), jobs);
    }
    hand_client client;
    host.take();
    ASSERT_TRUE(client.shake(host, at_t, 1));
    for (const auto &[time, jobs] : {std::pair{58400 * ms, rows[2].second}, {2 * second, "0:10* "}}) {
        host.receive(seal(client.keys, plain(TARN_PKT_PING)), at_t);
        run(host, time, 0);
        EXPECT_EQ(host.jobs(), jobs); // over 60 seconds old and not current
    }
}

TEST_F(Rendezvous, NewLanEndpointsAndServerAddresses) {
    served_host host({link_n});
    play(host, "run 30000 register |");
    EXPECT_EQ(host.status().status, TARN_SERVER_NO_ADDRESS);
    const auto resolved = [&](const char *name, uint16_t port, const tarn_addr *addr) {
        tarn_host_server_resolved(host.h, name, port, addr);
        return outcome(host); // nothing is sent within the call
    };
    const tarn_addr none = {}, other_port = ep("198.51.100.99:1");
    EXPECT_EQ(resolved("relay.test", 9877, nullptr), "server relay.test:9877: name did not resolve");
    EXPECT_EQ(resolved("relay.test", 9877, &none) + resolved("relay.test", 9876, &at_s), "");
    EXPECT_EQ(host.status().status, TARN_SERVER_UNRESOLVED);
    EXPECT_EQ(resolved("RELAY.test", 9877, &other_port), "server relay.test:9877 is at S");
    EXPECT_EQ(host.status().status, TARN_SERVER_REGISTERING);
    host.enter();
    EXPECT_EQ(host.status().status, TARN_SERVER_REGISTERED);
    play(host, "skip introduce a=1 |");
    EXPECT_EQ(resolved("relay.test", 9877, &at_s), ""); // the same address disturbs nothing
    EXPECT_NE(resolved("relay.test", 9877, nullptr), "");
    EXPECT_TRUE(host.status().registered == 1 && host.jobs() == "0:1* ");

    const tarn_addr lan[] = {at_peer, at_lan, at_lan2, at_s, at_t};
    tarn_host_set_lan_endpoints(host.h, lan, 5);
    EXPECT_TRUE(host.take().empty() && host.status().registered == 0);
    host.tick();
    for (const auto &p : host.take()) {
        if (p.data[2] == TARN_RV_REGISTER) expect_register(p.data, 7, {at_peer, at_lan, at_lan2, at_s});
    }
    tell(host, "registered");
    EXPECT_EQ(host.told().size(), 2u);
    tarn_host_set_lan_endpoints(host.h, lan, -1);
    EXPECT_EQ(host.h->base.lan_count, 0);

    EXPECT_EQ(resolved("relay.test", 9877, &at_t), "server relay.test:9877 is at T"); // all begins anew
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
    const tarn_addr at_n = places.at('N');
    tarn_host_server_resolved(host.h, "relay.test", 9877, &at_n);
    tarn_host_server_resolved(host.h, "relay.test", 9877, nullptr);
    const char *const introductions[] = {"@S a=1", "@T a=2", "@U a=3", "@N a=4"};
    for (const std::string line : introductions) {
        host.enter(line.substr(0, 2));
        play(host, "skip introduce p=L " + line + " |");
    }
    EXPECT_EQ(host.jobs(), "0:1* 1:2* 2:3* 3:4* ");
    const tarn_relay_config next = relays_of({link_n, link_u, link_t2, "tarnglider-relay://198.51.100.96#k"});
    tarn_host_set_relay(host.h, &next); // one gone, two moved, one with another key, one new
    EXPECT_EQ(outcome(host) + host.jobs(), "relay servers: 41:3* 0:4* ");
    const int expected[] = {TARN_SERVER_REGISTERED, TARN_SERVER_REGISTERED, TARN_SERVER_REGISTERING,
                            TARN_SERVER_REGISTERING};
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(host.status(i).status, expected[i]) << i;
    // An address that was resolved is kept, and the failure, too.
    EXPECT_TRUE(text(host.status(0).addr) == text(at_n) && host.h->base.servers[0].resolve_failed == 1);
    play(host, "run 0 register | V 0; T 0");
    tell(host, "introduce a=3 p=L @U"); // the moved server still speaks for its job
    EXPECT_EQ(host.jobs(), "1:3* 0:4* ");
    tarn_host_set_relay(host.h, nullptr);
    EXPECT_EQ(joined(host.told()) + host.jobs(), "relay servers: 0");
    EXPECT_TRUE(all_zero(host.h->base.servers, sizeof host.h->base.servers));
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
    uint32_t tag() const { return lookup().tag; }
    // Connects, and 20 ms later it is time for an answer.
    void search() {
        tarn_client_connect(c);
        tick();
        virtual_clock::advance(20 * ms);
        take(), told();
    }
};

TEST_F(Rendezvous, LookupByKeyOrCodeAndItsPatience) {
    const std::string code = code_of(test_key(200).public_key);
    uint8_t id[16];
    tarn_key_id(id, test_key(200).public_key);
    for (const bool by_key : {true, false}) {
        served_client rig(TARN_ROUTE_ANY, by_key, code.c_str());
        EXPECT_EQ(rig.tick(), 250000);
        play(rig, "found a=1 |"); // nothing was asked
        tarn_client_pair(rig.c, "123456", 0);
        play(rig, "found a=1 |");
        rig.tick();
        const tarn_rv_msg m = read(rig.take().at(0).data);
        EXPECT_EQ(bytes(m.lookup_id, m.lookup_id + m.id_len), bytes(id, id + (by_key ? 16 : 5)));
        EXPECT_TRUE(m.type == TARN_RV_LOOKUP && m.tag == rig.tag() && m.count == 1);
        EXPECT_EQ(text(m.endpoints[0]), text(at_lan2));
        play(rig, "run 5000 lookup | S 1000 2000 3000 4000 5000");
        EXPECT_EQ(rig.tag(), m.tag);
        const std::string failed = by_key ? "error x=3" : "found x=3"; // told once, and only of this question
        play(rig, failed + " g=1 | / " + failed +
                      " | lookup on S failed (status 3); 16 detail=3 server=0 / " +
                      "run 3500 lookup | S 3000 / " + failed + " |");
        const auto late = run(rig, 30 * second, TARN_RV_LOOKUP)[text(at_s)];
        EXPECT_EQ(late, (std::vector<int64_t>{3000, 4000, 5000, 6000})); // until pairing ends
        int ticks = 0;
        tarn_client_pair(rig.c, "123456", 0); // a new search has a new number
        EXPECT_EQ(run(rig, 60 * second, TARN_RV_LOOKUP, &ticks)[text(at_s)].size(), 12u);
        EXPECT_NE(rig.tag(), m.tag);
        EXPECT_LE(ticks, 15 * 20 + 45 * 4 + 40); // pairing hurries for 15 s, then all rests
    }
    served_client blind(TARN_ROUTE_ANY, false), local(TARN_ROUTE_LOCAL_ONLY);
    tarn_client_pair(blind.c, "123456", 0);
    tarn_client_connect(local.c);
    play(blind, "run 5000 lookup |");
    play(local, "run 5000 lookup |");
}

TEST_F(Rendezvous, LookupRepliesAndWhatFollows) {
    served_client rig;
    rig.search();
    play(
        rig,
        "found a=1 k=199 | lookup on S returned another host key: ignored / found a=1 @T | / found a=1 @U |");
    EXPECT_EQ(rig.lookup().state, uint32_t{LOOKUP_ASKED});
    tell(rig, "found a=171 u=4 l=LP");
    EXPECT_EQ(joined(rig.told()), "lookup on S: host at P (+2 LAN), allocation 000000ab, rtt 20.0 ms");
    const auto packets = rig.take();
    ASSERT_EQ(packets.size(), 3u);
    tarn_rv_msg m = read(packets[0].data);
    EXPECT_TRUE(m.type == TARN_RV_PUNCH && m.side == 1 && m.punch_token[0] == 4);
    m = read(packets[2].data);
    EXPECT_TRUE(m.type == TARN_RV_BIND && m.side == 1 && m.allocation == 171 && m.token[9] == 171);
    EXPECT_EQ(joined({text(packets[0].to), text(packets[1].to), text(packets[2].to)}), "P; L; S");
    virtual_clock::advance(
        10 * ms); // again: dropped, and the round trip stands; a fresh allocation: fresh punching
    play(rig, R"(
        found a=171 l=LP | / run 5000 punch | L *49; P *49
        found a=172 l=LP | punch P; punch L; bind S; lookup on S: host at P (+2 LAN), allocation 000000ac, rtt 20.0 ms
        run 5000 punch | L *49; P *49)");
    EXPECT_EQ(rig.lookup().rtt_us, 20000u);
    tarn_client_server_resolved(rig.c, "198.51.100.99", 9877, &at_t); // the server moved
    EXPECT_TRUE(rig.lookup().state == LOOKUP_IDLE && rig.lookup().candidate_count == 0);
    rig.told();
    play(rig, "run 0 lookup | T 0");
    served_client two(TARN_ROUTE_ANY, true, nullptr, {link_s, link_t});
    two.search();
    tell(two, "found a=1 l=LP");
    tarn_client_connect(two.c); // what stays found isn't asked anew by a connect
    EXPECT_TRUE(two.c->lookups[0].state == LOOKUP_FOUND && two.c->lookups[1].state == LOOKUP_IDLE);
    tarn_session keys = {};
    two.take();
    const tarn_addr direct = ep("203.0.113.5:9000");
    tarn_client_add_candidate(two.c, &direct, 0);
    two.receive(hand_respond(two.take().at(0).data, 0x11223344, &keys), direct);
    const auto lookups = run(two, 20 * second, TARN_RV_LOOKUP); // now only the other search goes on
    EXPECT_TRUE(!lookups.count(text(at_s)) && lookups.at(text(at_t)).size() == 12);
}

TEST_F(Rendezvous, RouteModes) {
    const std::string punched = " | ack P; packet P; path P2P P / punch u=4 @L | ack L; packet L; path LAN L"
                                " / punch u=4 @P | ack P / ack u=4 @P |"; // a known path is not kicked
    const std::tuple<uint32_t, const char *, bool, std::string> rows[] = {
        // what punches and binding make of it
        {TARN_ROUTE_ANY, "punch P; punch L; bind S", true, "314"},
        {TARN_ROUTE_NO_RELAY, "punch P; punch L", true, "314"},
        {TARN_ROUTE_RELAY_ONLY, "bind S", false, "4"}};
    for (const auto &[route, found, direct, path] : rows) {
        SCOPED_TRACE(route);
        served_client rig(route);
        rig.search();
        tell(rig, "found a=1 u=4 l=LP");
        rig.told();
        EXPECT_EQ(outcome(rig), found);
        play(rig, "punch @P | / punch u=4 @P" + (direct ? punched : " |")); // first with no token of ours
        play(rig, std::string("bound a=1 | ") + (route == TARN_ROUTE_NO_RELAY ? "" : "packet S; ") +
                      "path Relay S");
        tarn_client_status s;
        tarn_client_status_get(rig.c, &s);
        std::string classes;
        for (int i = 0; i < s.path_count; i++) {
            classes += std::to_string(s.paths[i].path);
            EXPECT_EQ(s.paths[i].server, 0);
        }
        EXPECT_EQ(classes, path);
        int ticks = 0;
        const auto binds = run(rig, 40 * second, TARN_RV_BIND, &ticks);
        EXPECT_EQ(binds.empty(), route == TARN_ROUTE_NO_RELAY);
        EXPECT_LE(ticks, 850); // 50 ms apart while it connects
    }
}

TEST_F(Rendezvous, RelayBindingsOfTheClient) {
    served_client rig;
    path_add(rig.c, &at_s, TARN_PATH_DIRECT, -1);
    rig.search();
    play(rig, "skip found a=1 | / run 3500 bind | S 1000 2000 3000 / bound a=2 |");
    EXPECT_EQ(rig.lookup().bound, 0u);
    play(rig, "skip bound a=1 | / skip bound a=1 |");
    // The path was known, but now it leads through the server.
    EXPECT_TRUE(rig.c->paths[0].server == 0 && rig.c->paths[0].path == TARN_PATH_DIRECT);
    EXPECT_EQ(run(rig, 31 * second, TARN_RV_BIND)[text(at_s)], (std::vector<int64_t>{15000, 30000}));
    rig.c->lookups[0].tries = 12;
    const uint32_t tag = rig.tag();
    tell(rig, "bound a=1 x=9"); // the allocation is gone: a new search, with the same number
    EXPECT_TRUE(rig.lookup().state == LOOKUP_IDLE && rig.lookup().bound == 0 && rig.tag() == tag);
    EXPECT_EQ(run(rig, 12500 * ms, TARN_RV_LOOKUP)[text(at_s)].size(), 12u);
    tell(rig, "bound a=1 x=9"); // and a late refusal changes nothing
    EXPECT_EQ(rig.lookup().tries, 12);
    play(rig, "skip found a=7 | / skip bound a=7 |");
    EXPECT_TRUE(rig.lookup().state == LOOKUP_FOUND && rig.lookup().bound);
    tell(rig, "found a=8"); // another allocation is bound anew
    EXPECT_FALSE(rig.lookup().bound);
}

} // namespace
