#include "support/world.h"

#include <tarnglider/secure_pair.h>

namespace netsim {

constexpr int64_t ms = 1000, second = 1000000;
constexpr uint16_t stranger_port = 6666;

// ---- Servers

server_node::server_node(network &net, const char *address, uint8_t number, const plan &p, texts &wrong)
    : at(ep(address)), net_(net), wrong_(wrong) {
    config_.link_key = {'k', 'e', 'y'};
    config_.identity = test_key(number);
    config_.interval_s = p.interval_s;
    config_.route_by_session = p.route_by_session;
    net.attach(*this, address);
    restart();
}

void server_node::restart() {
    server_ = std::make_unique<app::rendezvous_server>(
        config_, [this](const tarn_addr &to, const uint8_t *data, size_t len) {
            if (request_ && tarn_rv_endpoint_equal(&to, &request_->from)) answers_++;
            net_.send(*this, to, bytes(data, data + len));
        });
}

void server_node::receive(const datagram &d) {
    if (deaf) return;
    request_ = &d;
    answers_ = 0;
    server_->receive(d.from, d.data.data(), d.data.size(), static_cast<uint64_t>(tarn_now_us()));
    if (answers_ > 1) wrong_.push_back("a server gave two answers to one request");
    request_ = nullptr;
}

void server_node::tick() {
    server_->tick(static_cast<uint64_t>(tarn_now_us()));
    due = tarn_now_us() + second;
}

// ---- Making the world

world::world(uint64_t seed, const plan &p)
    : net(seed), plan_(p), limits_{{TARN_PKT_HS_REJECT, 5, 10},  {TARN_PKT_PAIR_FAIL, 5, 10},
                                   {TARN_PKT_HOST_INFO, 20, 40}, {TARN_PKT_PAIR_RESP, 10, 20},
                                   {TARN_PKT_HELLO_ACK, 5, 10},  {TARN_PKT_HS_RESP, 20, 40}} {
    net.any.loss = p.loss;
    net.any.jitter_us = p.jitter_us;
    net.hook = [this](const datagram &d) { return carries(d); };
    tarn_relay_config relays = {};
    for (int i = 0; i < p.servers; i++) {
        const std::string address = "198.51.100." + std::to_string(i + 1) + ":9877";
        servers.push_back(
            std::make_unique<server_node>(net, address.c_str(), static_cast<uint8_t>(100 + i), p, wrong));
        tarn_relay_config_add_link(&relays, ("tarnglider-relay://" + address + "#key").c_str());
    }
    for (int i = 0; i <= clients_max; i++) {
        sites_[i].nat = i == 0 ? p.host_nat : p.clients[i - 1].nat;
        sites_[i].ip = ep(("203.0.113." + std::to_string(i + 1)).c_str());
        sites_[i].lan = static_cast<uint8_t>(i + 1);
        move_site(sites_[i]);
    }
    const std::string host_at = address_in(sites_[0], 10, 9000);
    const int listed = p.clients[0].listed ? (p.clients[1].listed ? 2 : 1) : 0;
    host = std::make_unique<host_node>(net, listed, [&](tarn_host_config &c) {
        c.relays = relays;
        c.lan_count = p.host_nat != in_the_open;
        c.lan[0] = ep(host_at.c_str());
    });
    host->wire = [this](const tarn_addr &to, const bytes &data) {
        watch(data);
        net.send(*host, to, data);
    };
    settle(sites_[0], *host, host_at);
    settle(sites_[0], stranger_, address_in(sites_[0], 66, stranger_port));
    code_ = code_of(host->key.public_key);
    for (int i = 0; i < clients_max; i++) {
        person &who = people[i];
        who.pairing = !p.clients[i].listed && i == 0;
        who.node = std::make_unique<client_node>(net, [&](tarn_client_config &c) {
            c.identity = test_key(static_cast<uint8_t>(i + 1));
            c.relays = relays;
            c.route_mode = p.clients[i].route_mode;
            c.host_key_known = !who.pairing;
            c.host_code = who.pairing && p.by_code ? code_.c_str() : nullptr;
            who.config = c;
        });
    }
}

// An address in a site: on its LAN, or its own in the open.
std::string world::address_in(const place &s, int device, int port) const {
    const std::string lan = "192.168." + std::to_string(s.lan) + "." + std::to_string(device);
    return (s.nat == in_the_open ? "203.0.113." + std::to_string(s.lan) : lan) + ":" + std::to_string(port);
}

void world::move_site(place &s) {
    if (s.nat == in_the_open) return;
    if (s.box >= 0) net.forget(s.box);
    const std::string ip = "203.0.113." + std::to_string(100 + addresses_++);
    s.ip = ep(ip.c_str());
    s.box = net.add_nat(static_cast<nat_kind>(s.nat), ip.c_str());
    for (const auto &[n, address] : s.devices)
        net.attach(*n, address.c_str(), s.box);
}

void world::settle(place &s, node &n, const std::string &address) {
    s.devices[&n] = address;
    net.attach(n, address.c_str(), s.box);
}

// ---- The network between them

static bool same_ip(const tarn_addr &a, const tarn_addr &b) { return memcmp(a.ip, b.ip, sizeof a.ip) == 0; }

bool world::carries(const datagram &d) {
    digest({static_cast<uint64_t>(tarn_now_us()), d.from.port, d.to.port, d.data.size(), d.data[2]});
    const auto is_server = [&](const tarn_addr &a) {
        return std::any_of(servers.begin(), servers.end(), [&](const auto &s) { return same_ip(s->at, a); });
    };
    const auto inside = [](const place &s, const tarn_addr &a) {
        return s.nat == in_the_open ? same_ip(s.ip, a) : a.ip[0] == 192 && a.ip[2] == s.lan;
    };
    const bool served = is_server(d.from) || is_server(d.to);
    for (const place &s : sites_) {
        const bool from_here = inside(s, d.from), to_here = inside(s, d.to);
        const bool crosses = from_here ? !to_here : to_here || same_ip(s.ip, d.to);
        if (s.blocked && !served && crosses) return false;
        if (s.nat == in_the_open || !from_here) continue;
        if (same_ip(s.ip, d.to) && !plan_.hairpin) return false;
        if (to_here && plan_.isolated && d.from.port != stranger_port && d.to.port != stranger_port)
            return false;
    }
    return true;
}

// Holds what the host sends to whoever asks against what strangers may get out of it.
void world::watch(const bytes &data) {
    if (data[1] != TARN_VERSION_PLAIN) return;
    if (data[2] == TARN_PKT_HS_RESP && !responses_.insert(data).second) return; // a repeat answers a repeat
    if (data[2] == TARN_PKT_PAIR_FAIL && data[24] != TARN_PAIR_FAIL_UNAVAILABLE) return; // ends an attempt
    for (reply_limit &l : limits_) {
        if (l.type != data[2]) continue;
        const int64_t now = tarn_now_us();
        const double since = static_cast<double>(now - std::exchange(l.last_us, now)) / 1e6;
        l.level = std::max(0.0, l.level - l.per_second * since) + 1;
        if (l.level > l.burst + 1e-6) wrong.push_back("too many replies of type " + std::to_string(l.type));
    }
}

void world::flood(int64_t us) {
    bytes init(TARN_HS_INIT_SIZE), query(64), exchange(TARN_PAIR_INIT_SIZE);
    tarn_noise_ik noise;
    size_t size;
    const tarn_keypair key = test_key(99);
    tarn_hs_client_start(&noise, &key, host->key.public_key, 1, init.data(), init.size(), &size);
    const bytes head = plain(TARN_PKT_HOST_QUERY);
    std::copy(head.begin(), head.end(), query.begin());
    std::copy(head.begin(), head.end(), exchange.begin());
    exchange[2] = TARN_PKT_PAIR_INIT;
    exchange[3] = 1; // by password, which nobody set
    const bytes hello = plain(TARN_PKT_HELLO, bytes(60));
    for (int64_t t = 0; t < us; t += 10 * ms)
        at(t, [=, this] {
            for (const bytes &p : {init, query, exchange, hello})
                net.send(stranger_, ep(sites_[0].devices[host.get()].c_str()), p);
        });
}

void world::calm() {
    agenda_.clear();
    net.any = {};
    net.any.jitter_us = plan_.jitter_us;
    for (place &s : sites_)
        s.blocked = false;
    for (auto &server : servers)
        server->deaf = false;
}

// ---- People

void world::start(int number) {
    stop(number);
    person &who = people[number];
    const plan::person &wish = plan_.clients[number];
    place &s = sites_[site_index(number)];
    const std::string home = address_in(s, 20 + number, 5000 + who.starts++);
    settle(s, *who.node, home);
    who.config.lan_count = s.nat != in_the_open;
    who.config.lan[0] = ep(home.c_str());
    tarn_client_destroy(std::exchange(who.node->c, tarn_client_create(&who.config)));
    who.wants = true;
    who.wanted_sessions = 1;
    who.lived_us = tarn_now_us();
    const tarn_addr host_at = ep(sites_[0].devices[host.get()].c_str());
    if (wish.told) tarn_client_add_candidate(who.node->c, &host_at, TARN_PATH_NONE);
    if (who.pairing)
        pair(number);
    else
        tarn_client_connect(who.node->c);
}

void world::stop(int number) {
    person &who = people[number];
    place &s = sites_[site_index(number)];
    if (s.devices.count(who.node.get())) net.detach(s.devices[who.node.get()].c_str());
    s.devices.erase(who.node.get());
    tarn_client_session_close(who.node->c, 0);
    who.wants = who.rejected = false;
    who.sessions.clear();
    who.rekeys.clear();
}

void world::pair(int number) {
    tarn_host_pairing_open(host->h, 600);
    tarn_host_pairing_state window;
    tarn_host_pairing_status(host->h, &window);
    const char *wrong_pin = window.pin[0] == '1' ? "222222" : "111111";
    tarn_client_pair(people[number].node->c, std::exchange(guesses_first, false) ? wrong_pin : window.pin,
                     TARN_SECRET_PIN);
}

void world::second_session(int number) {
    person &who = people[number];
    if (who.sessions.size() != 1 || tarn_client_open_session(who.node->c) != 0) return;
    who.wanted_sessions = 2;
}

void world::rekey(int number) {
    person &who = people[number];
    who.rekeys.insert(who.sessions.begin(), who.sessions.end());
    tarn_client_rekey(who.node->c);
}

void world::digest(std::initializer_list<uint64_t> what) {
    for (const uint64_t word : what)
        trace = (trace ^ word) * 1099511628211U;
}

void world::note(const conn_event &e) {
    digest({static_cast<uint64_t>(tarn_now_us()), static_cast<uint64_t>(e.kind),
            static_cast<uint64_t>(e.detail), static_cast<uint64_t>(e.path), e.session});
}

void world::on_event(int number, const conn_event &e) {
    person &who = people[number];
    note(e);
    switch (e.kind) {
    case TARN_EV_SESSION_UP:
        who.sessions.push_back(e.session);
        who.next_ping_us = tarn_now_us();
        break;
    case TARN_EV_REKEYED:
        who.rekeys.erase(e.session);
        break;
    case TARN_EV_HANDSHAKE_REJECTED:
        who.rejected = true;
        break;
    case TARN_EV_CLIENT_PAIRED:
        who.pairing = false;
        who.config.host_key_known = 1;
        memcpy(who.config.host_key, e.key, sizeof e.key);
        break;
    case TARN_EV_PAIR_FAILED:
        who.pair_failed = true;
        if (best_class(number) != TARN_PATH_NONE) pair(number);
        break;
    default:
        break;
    }
}

// Whether there is a session whose path answers.
static bool lives(world::person &who) {
    if (who.sessions.empty()) return false;
    const tarn_client_status s = who.node->status();
    return std::any_of(s.paths, s.paths + s.path_count, [&](const tarn_path_status &p) {
        return p.alive && tarn_rv_endpoint_equal(&p.addr, &s.addr);
    });
}

void world::pump() {
    conn_event e;
    while (tarn_host_poll_event(host->h, &e))
        note(e);
    for (int i = 0; i < clients_max; i++) {
        person &who = people[i];
        while (tarn_client_poll_event(who.node->c, &e))
            on_event(i, e);
        if (lives(who) || who.pairing || (who.rejected && who.sessions.empty())) who.lived_us = tarn_now_us();
        if (who.wants && tarn_now_us() - who.lived_us > 10 * second && best_class(i) != TARN_PATH_NONE)
            start(i);
        if (tarn_now_us() < who.next_ping_us) continue;
        who.next_ping_us = tarn_now_us() + second / 2;
        for (const uint32_t session : who.sessions)
            who.node->say(session, plain(TARN_PKT_PING, bytes(12)));
    }
}

bool world::run_until(const std::function<bool()> &done, int64_t us) {
    const int64_t end = tarn_now_us() + us;
    const auto step = [&] {
        pump();
        return done();
    };
    for (;;) {
        const int64_t next = agenda_.empty() ? end : std::min(end, agenda_.begin()->first);
        if (net.run_until(step, next - tarn_now_us())) return true;
        if (agenda_.empty() || agenda_.begin()->first > end) return false;
        agenda_.extract(agenda_.begin()).mapped()();
    }
}

// ---- What must be

// Whether two NATs can be punched through: what one sends must come from where the other sent to, or the other must not
// mind. Rows and columns: in the open, full cone, restricted, port-restricted, symmetric.
static constexpr bool punchable[5][5] = {
    {true, true, true, true, true},  {true, true, true, true, true},   {true, true, true, true, true},
    {true, true, true, true, false}, {true, true, true, false, false},
};

int world::best_class(int number) const {
    const plan::person &wish = plan_.clients[number];
    const bool knows = !people[number].pairing || plan_.by_code; // for whom to ask the servers
    const bool finds = wish.route_mode != TARN_ROUTE_LOCAL_ONLY && plan_.servers > 0 && knows;
    const int relay = finds && wish.route_mode != TARN_ROUTE_NO_RELAY ? TARN_PATH_RELAY : TARN_PATH_NONE;
    if (wish.route_mode == TARN_ROUTE_RELAY_ONLY) return relay;
    if (wish.shares_lan && !plan_.isolated && (wish.told || finds)) return TARN_PATH_LAN;
    if (sites_[0].blocked || sites_[site_index(number)].blocked) return relay;
    if (wish.told && plan_.host_nat == in_the_open) return TARN_PATH_DIRECT;
    const bool through = punchable[plan_.host_nat + 1][sites_[site_index(number)].nat + 1];
    if (finds && through && (!wish.shares_lan || plan_.hairpin)) return TARN_PATH_P2P;
    return relay;
}

// No other client that the host is serving.
bool world::alone(int number) const {
    for (int i = 0; i < clients_max; i++) {
        if (i != number && !people[i].sessions.empty()) return false;
    }
    return true;
}

bool world::content(int number, bool exact) {
    person &who = people[number];
    const int best = best_class(number);
    if (!who.wants) return true;
    const tarn_client_status s = who.node->status();
    if (best == TARN_PATH_NONE) return !s.connected && (!who.pairing || who.pair_failed);
    if (who.sessions.empty()) return who.rejected;
    if (!lives(who) || (exact ? s.path != best : s.path < best)) return false;
    for (int i = 0; i < s.path_count; i++) {
        if (s.paths[i].alive && s.paths[i].path < s.path) return false;
    }
    for (const uint32_t session : who.sessions) {
        tarn_session_info info;
        if (tarn_host_session_info_get(host->h, session, &info) != 0) return false;
        if ((info.path == TARN_PATH_RELAY) != (s.path == TARN_PATH_RELAY)) return false;
    }
    // While the host serves another client, too, it takes no handshake: second session and rekey wait.
    return !alone(number) || (who.sessions.size() >= who.wanted_sessions && who.rekeys.empty());
}

size_t world::talk(int number, uint32_t count) {
    person &who = people[number];
    std::map<std::pair<bool, uint32_t>, std::set<bytes>> arrived;
    who.node->got.clear();
    host->got.clear();
    for (uint32_t i = 0; i < count; i++) {
        for (const uint32_t session : who.sessions) {
            arrived[{true, session}], arrived[{false, session}];
            who.node->say(session, plain(TARN_PKT_INPUT, le32(i)));
            host->say(session, plain(TARN_PKT_CURSOR_POS, le32(i)));
        }
        run(20 * ms);
    }
    run(second);
    for (const received &r : host->got)
        if (r.data[2] == TARN_PKT_INPUT) arrived[{true, r.info.session}].insert(r.data);
    for (const received &r : who.node->got)
        arrived[{false, r.info.session}].insert(r.data);
    size_t fewest = who.sessions.empty() ? 0 : count;
    for (const uint32_t session : who.sessions)
        fewest = std::min({fewest, arrived[{true, session}].size(), arrived[{false, session}].size()});
    return fewest;
}

} // namespace netsim
