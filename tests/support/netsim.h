// A simulated network for the engines: nodes, links with a quality for each direction, and NATs, on the
// virtual clock. Time goes from event to event: what is due is delivered, then the clock jumps to the
// earliest datagram or tick. All chance comes from one seed, so a run with the same seed is the same run.
#ifndef TEST_NETSIM_H
#define TEST_NETSIM_H

#include <stdlib.h>

#include <algorithm>
#include <map>
#include <set>

#include <tarnglider/clock.h>

#include "support/engine_rig.h"
#include "support/virtual_clock.h"

namespace netsim {

// One direction of a link. Chances are in percent.
struct quality {
    int64_t delay_us = 10000, jitter_us = 0;       // up to this much more, evenly
    unsigned loss = 0, duplicate = 0, reorder = 0; // held back by a further one to three delays
};

struct datagram {
    tarn_addr from, to;
    bytes data;
};

enum class nat_kind { full_cone, restricted, port_restricted, symmetric };

// Anything with an address.
class node {
public:
    virtual ~node() = default;
    virtual void receive(const datagram &d) = 0;
    virtual void tick() = 0;
    int64_t due = tarn_now_us(); // when tick wants to be called
};

class network {
public:
    // Sets clock and random source of the library to their beginnings.
    explicit network(uint64_t seed) : random(seed) {
        virtual_clock::reset();
        seeded_random::reset(seed);
    }
    // Gives a node an address, alone in the open or behind a NAT.
    void attach(node &n, const char *at, int nat = -1) {
        homes_[at] = {&n, nat};
        order_.push_back({at, &n});
        if (std::find(nodes_.begin(), nodes_.end(), &n) == nodes_.end()) nodes_.push_back(&n);
    }
    void detach(const char *at) { homes_.erase(at); }
    int add_nat(nat_kind kind, const char *public_ip) {
        nats_.push_back({kind, ep(public_ip), 40000, {}});
        return static_cast<int>(nats_.size()) - 1;
    }
    // The NAT loses its mappings, as by a restart: whoever sends next appears from a new port.
    void forget(int nat) { nats_[static_cast<size_t>(nat)].mappings.clear(); }
    // Joins two addresses by a link of their own; all others use `any`.
    void link(const char *a, const char *b, const quality &both) { links_[{a, b}] = links_[{b, a}] = both; }
    quality any;

    // A node sends from its address that is linked to the target, else from the one that was attached first.
    void send(node &n, const tarn_addr &to, const bytes &data) {
        std::string source;
        for (const auto &[at, who] : order_) {
            if (who != &n || !homes_.count(at)) continue;
            const bool linked = links_.count({at, text(to)}) != 0;
            if (linked || source.empty()) source = at;
            if (linked) break;
        }
        if (!source.empty()) send_from(ep(source.c_str()), to, data);
    }
    std::function<bool(const datagram &)> hook; // sees each datagram as it is sent; false drops it

    // Runs for a time, or until a condition holds; the latter returns whether it came to hold.
    void run(int64_t us) {
        run_until([] { return false; }, us);
    }
    bool run_until(const std::function<bool()> &done, int64_t us) {
        const int64_t end = tarn_now_us() + us;
        while (!done()) {
            int64_t next = queue_.empty() ? INT64_MAX : queue_.begin()->first.first;
            node *who = nullptr;
            for (node *n : nodes_)
                if (n->due < next) next = (who = n)->due;
            virtual_clock::set(std::min(std::max(next, tarn_now_us()), end));
            if (next > end) return done();
            if (who) {
                ticks++;
                who->tick();
                continue;
            }
            const datagram d = queue_.extract(queue_.begin()).mapped();
            deliver(d);
        }
        return true;
    }

    uint64_t ticks = 0;     // calls of any tick
    uint64_t delivered = 0; // datagrams that reached a node
    test_random random;

private:
    struct place {
        node *who;
        int nat;
    };
    struct mapping {
        std::string inside, remote; // remote is of a symmetric NAT, else empty
        uint16_t port;
        std::set<std::string> contacted; // as the kind of NAT looks at it
    };
    struct nat_box {
        nat_kind kind;
        tarn_addr ip;
        uint16_t next_port;
        std::vector<mapping> mappings;
    };

    static tarn_addr outside(const nat_box &nat, uint16_t port) {
        tarn_addr at = nat.ip;
        at.port = port;
        return at;
    }
    // What a NAT remembers of a remote endpoint: its address, or its address and port.
    static std::string contact(nat_kind kind, tarn_addr remote) {
        if (kind == nat_kind::restricted) remote.port = 0;
        return text(remote);
    }
    static tarn_addr translate(nat_box &nat, const std::string &inside, const tarn_addr &to) {
        const std::string remote = nat.kind == nat_kind::symmetric ? text(to) : "";
        auto m = std::find_if(nat.mappings.begin(), nat.mappings.end(),
                              [&](const mapping &x) { return x.inside == inside && x.remote == remote; });
        if (m == nat.mappings.end()) m = nat.mappings.insert(m, {inside, remote, nat.next_port++, {}});
        m->contacted.insert(contact(nat.kind, to));
        return outside(nat, m->port);
    }
    void send_from(const tarn_addr &from, const tarn_addr &to, const bytes &data) {
        datagram d = {from, to, data};
        if (hook && !hook(d)) return;
        // A link is named by the addresses of the nodes, whatever a NAT makes of them on the way.
        std::string target = text(to);
        for (const nat_box &nat : nats_)
            for (const mapping &m : nat.mappings)
                if (text(outside(nat, m.port)) == text(to)) target = m.inside;
        const auto own = links_.find({text(from), target});
        const quality q = own == links_.end() ? any : own->second;
        const auto home = homes_.find(text(from)), peer = homes_.find(text(to));
        const int near = home == homes_.end() ? -1 : home->second.nat;
        const int far = peer == homes_.end() ? -1 : peer->second.nat;
        if (far >= 0 && near != far) return; // an address behind a NAT means nothing outside of it
        if (near != far) d.from = translate(nats_[static_cast<size_t>(near)], home->first, to);
        transmit(q, d);
        if (random.below(100) < q.duplicate) transmit(q, d);
    }
    void transmit(const quality &q, const datagram &d) {
        if (random.below(100) < q.loss) return;
        int64_t delay = q.delay_us;
        if (q.jitter_us > 0)
            delay += static_cast<int64_t>(random.below(static_cast<uint64_t>(q.jitter_us) + 1));
        if (random.below(100) < q.reorder) delay += q.delay_us * static_cast<int64_t>(1 + random.below(3));
        queue_[{tarn_now_us() + delay, serial_++}] = d;
    }
    void deliver(const datagram &d) {
        std::string target = text(d.to);
        for (const nat_box &nat : nats_) {
            for (const mapping &m : nat.mappings) {
                if (text(outside(nat, m.port)) != text(d.to)) continue;
                if (nat.kind != nat_kind::full_cone && !m.contacted.count(contact(nat.kind, d.from))) return;
                target = m.inside;
            }
        }
        const auto home = homes_.find(target);
        if (home == homes_.end()) return;
        delivered++;
        home->second.who->receive(d);
    }

    std::vector<node *> nodes_;
    std::vector<std::pair<std::string, node *>> order_; // addresses as attached
    std::map<std::string, place> homes_;
    std::map<std::pair<std::string, std::string>, quality> links_;
    std::vector<nat_box> nats_;
    std::map<std::pair<int64_t, uint64_t>, datagram> queue_; // by time, then by order of sending
    uint64_t serial_ = 0;
};

// The engines as nodes. Data and plain packets for the caller are kept in `got`.
template <class Rig>
class engine_node : public node, public Rig {
public:
    template <class... Options>
    explicit engine_node(network &net, const Options &...options) : Rig(options...), net_(net) {
        this->wire = [this](const tarn_addr &to, const bytes &data) { net_.send(*this, to, data); };
    }
    void receive(const datagram &d) override {
        received r = Rig::receive(d.data, d.from);
        if (r.result != TARN_RECV_NONE) got.push_back(std::move(r));
    }
    void tick() override { due = tarn_now_us() + Rig::tick(); }
    // Seals and sends a data packet, unless the session is gone.
    void say(uint32_t session, const bytes &packet) {
        bytes out(packet.size() + TARN_SEAL_OVERHEAD);
        tarn_addr to;
        if (Rig::seal_for(session, packet, out, &to) == out.size()) net_.send(*this, to, out);
    }
    std::vector<received> got;

private:
    network &net_;
};
using host_node = engine_node<host_rig>;
using client_node = engine_node<client_rig>;

// The seeds of a randomised test: 1 to `count`, or the one of the environment variable TARN_SEED, with which
// a failure is run again.
inline std::vector<uint64_t> seeds(uint64_t count) {
    if (const char *one = getenv("TARN_SEED")) return {strtoull(one, nullptr, 10)};
    std::vector<uint64_t> all;
    while (all.size() < count)
        all.push_back(all.size() + 1);
    return all;
}
#define TRACE_SEED(seed) SCOPED_TRACE("TARN_SEED=" + std::to_string(seed))

} // namespace netsim

#endif
