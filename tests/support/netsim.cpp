#include "support/netsim.h"

#include <stdlib.h>

#include <algorithm>

#include <tarnglider/clock.h>

#include "support/virtual_clock.h"

namespace netsim {

network::network(uint64_t seed) : random(seed) {
    virtual_clock::reset();
    seeded_random::reset(seed);
}

void network::attach(node &n, const char *at, int nat) {
    homes_[at] = {&n, nat};
    order_.push_back({at, &n});
    if (std::find(nodes_.begin(), nodes_.end(), &n) == nodes_.end()) nodes_.push_back(&n);
}

int network::add_nat(nat_kind kind, const char *public_ip) {
    nats_.push_back({kind, ep(public_ip), 40000, {}});
    return static_cast<int>(nats_.size()) - 1;
}

void network::link(const char *a, const char *b, const quality &both) {
    one_way(a, b, both);
    one_way(b, a, both);
}

void network::send(node &n, const tarn_addr &to, const bytes &data) {
    const tarn_addr *source = nullptr;
    tarn_addr found;
    for (const auto &[at, who] : order_) {
        if (who != &n || !homes_.count(at)) continue;
        const bool linked = links_.count({at, text(to)}) != 0;
        if (source && !linked) continue;
        found = ep(at.c_str());
        source = &found;
        if (linked) break;
    }
    if (source) send_from(*source, to, data);
}

void network::send_from(const tarn_addr &from, const tarn_addr &to, const bytes &data) {
    datagram d = {from, to, data};
    if (hook && !hook(d)) return;
    // A link is named by the addresses of the nodes, whatever a NAT makes of them on the way.
    std::string target = text(d.to);
    for (nat_box &nat : nats_) {
        for (const mapping &m : nat.mappings) {
            tarn_addr outside = nat.ip;
            outside.port = m.port;
            if (text(outside) == target) target = m.inside;
        }
    }
    const auto own = links_.find({text(d.from), target});
    const quality q = own == links_.end() ? any : own->second;
    const auto home = homes_.find(text(d.from));
    const auto peer = homes_.find(text(d.to));
    if (home != homes_.end() && home->second.nat >= 0) {
        nat_box &nat = nats_[static_cast<size_t>(home->second.nat)];
        if (peer == homes_.end() || peer->second.nat != home->second.nat)
            d.from = translate(nat, home->first, d.to);
    }
    if (peer != homes_.end() && peer->second.nat >= 0 &&
        (home == homes_.end() || peer->second.nat != home->second.nat)) {
        return; // an address behind a NAT means nothing outside of it
    }
    transmit(q, d);
    if (random.below(100) < q.duplicate) transmit(q, d);
}

void network::transmit(const quality &q, const datagram &d) {
    if (random.below(100) < q.loss) return;
    int64_t delay = q.delay_us;
    if (q.jitter_us > 0) delay += static_cast<int64_t>(random.below(static_cast<uint64_t>(q.jitter_us) + 1));
    if (random.below(100) < q.reorder) delay += q.delay_us * static_cast<int64_t>(1 + random.below(3));
    queue_[{tarn_now_us() + delay, serial_++}] = d;
}

// What a NAT remembers of a remote endpoint: its address, or its address and port.
static std::string contact(nat_kind kind, tarn_addr remote) {
    if (kind == nat_kind::restricted) remote.port = 0;
    return text(remote);
}

tarn_addr network::translate(nat_box &nat, const std::string &inside, const tarn_addr &to) {
    const std::string remote = nat.kind == nat_kind::symmetric ? text(to) : "";
    auto m = std::find_if(nat.mappings.begin(), nat.mappings.end(),
                          [&](const mapping &x) { return x.inside == inside && x.remote == remote; });
    if (m == nat.mappings.end()) m = nat.mappings.insert(m, {inside, remote, nat.next_port++, {}});
    m->contacted.insert(contact(nat.kind, to));
    tarn_addr outside = nat.ip;
    outside.port = m->port;
    return outside;
}

bool network::admit(nat_box &nat, const tarn_addr &from, uint16_t port, std::string *inside) {
    for (const mapping &m : nat.mappings) {
        if (m.port != port) continue;
        *inside = m.inside;
        return nat.kind == nat_kind::full_cone || m.contacted.count(contact(nat.kind, from)) != 0;
    }
    return false;
}

void network::deliver(const datagram &d) {
    std::string target = text(d.to);
    for (nat_box &nat : nats_) {
        tarn_addr ip = nat.ip;
        ip.port = d.to.port;
        if (text(ip) != text(d.to)) continue;
        if (!admit(nat, d.from, d.to.port, &target)) return;
        break;
    }
    const auto home = homes_.find(target);
    if (home == homes_.end()) return;
    delivered++;
    for (uint64_t what : {static_cast<uint64_t>(tarn_now_us()), uint64_t{d.to.port}, uint64_t{d.data.size()}})
        trace = (trace ^ what) * 1099511628211u;
    home->second.who->receive(d);
}

bool network::run_until(const std::function<bool()> &done, int64_t us) {
    const int64_t end = tarn_now_us() + us;
    while (!done()) {
        int64_t next = queue_.empty() ? INT64_MAX : queue_.begin()->first.first;
        node *who = nullptr;
        for (node *n : nodes_) {
            if (n->due() >= next) continue;
            next = n->due();
            who = n;
        }
        if (next > end) {
            virtual_clock::set(end);
            return done();
        }
        if (next > tarn_now_us()) virtual_clock::set(next);
        if (who) {
            ticks++;
            who->tick();
            continue;
        }
        const datagram d = queue_.begin()->second;
        queue_.erase(queue_.begin());
        deliver(d);
    }
    return true;
}

host_node::host_node(network &net, int trusted, const std::function<void(tarn_host_config &)> &tweak)
    : host_rig(trusted, tweak), net_(net), due_(tarn_now_us()) {
    wire = [this](const tarn_addr &to, const bytes &data) { net_.send(*this, to, data); };
}
void host_node::receive(const datagram &d) {
    received r = host_rig::receive(d.data, d.from);
    if (r.result != TARN_RECV_NONE) got.push_back(std::move(r));
}
void host_node::tick() { due_ = tarn_now_us() + tarn_host_tick(h); }
bool host_node::say(uint32_t session, const bytes &packet) {
    bytes out(packet.size() + TARN_SEAL_OVERHEAD);
    tarn_addr to;
    const size_t len = tarn_host_seal(h, session, packet.data(), packet.size(), out.data(), out.size(), &to);
    if (len == out.size()) net_.send(*this, to, out);
    return len == out.size();
}

client_node::client_node(network &net, const std::function<void(tarn_client_config &)> &tweak)
    : client_rig(tweak), net_(net), due_(tarn_now_us()) {
    wire = [this](const tarn_addr &to, const bytes &data) { net_.send(*this, to, data); };
}
void client_node::receive(const datagram &d) {
    received r = client_rig::receive(d.data, d.from);
    if (r.result != TARN_RECV_NONE) got.push_back(std::move(r));
}
void client_node::tick() { due_ = tarn_now_us() + tarn_client_tick(c); }
void client_node::poke() { due_ = tarn_now_us(); }
bool client_node::say(const bytes &packet) {
    bytes out(packet.size() + TARN_SEAL_OVERHEAD);
    tarn_addr to;
    const size_t len = tarn_client_seal(c, 0, packet.data(), packet.size(), out.data(), out.size(), &to);
    if (len == out.size()) net_.send(*this, to, out);
    return len == out.size();
}
tarn_client_status client_node::status() {
    tarn_client_status s;
    tarn_client_status_get(c, &s);
    return s;
}

std::vector<uint64_t> seeds(int count) {
    if (const char *one = getenv("TARN_SEED")) return {strtoull(one, nullptr, 10)};
    std::vector<uint64_t> all;
    for (int i = 1; i <= count; i++)
        all.push_back(static_cast<uint64_t>(i));
    return all;
}

} // namespace netsim
