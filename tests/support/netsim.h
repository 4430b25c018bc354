// A simulated network for the engines: nodes, links with a quality for each direction, and NATs, on the virtual clock.
// Time goes from event to event: what is due is delivered, then the clock jumps to the earliest datagram or tick.
// All chance comes from one seed, so a run with the same seed is the same run.
#ifndef TEST_NETSIM_H
#define TEST_NETSIM_H

#include <map>
#include <set>

#include "support/engine_rig.h"
#include "support/seeded_random.h"

namespace netsim {

// One direction of a link. Chances are in percent.
struct quality {
    int64_t delay_us = 10000;
    int64_t jitter_us = 0; // up to this much more, evenly
    unsigned loss = 0;
    unsigned duplicate = 0;
    unsigned reorder = 0; // held back by a further one to three delays
};
inline quality dead() {
    quality q;
    q.loss = 100;
    return q;
}

struct datagram {
    tarn_addr from;
    tarn_addr to;
    bytes data;
};

enum class nat_kind { full_cone, restricted, port_restricted, symmetric };

// Anything with an address. By itself it only keeps what arrives: an attacker, a bystander.
class node {
public:
    virtual ~node() = default;
    virtual void receive(const datagram &d) { inbox.push_back(d); }
    // When tick wants to be called, by tarn_now_us.
    virtual int64_t due() const { return INT64_MAX; }
    virtual void tick() {}

    std::vector<datagram> inbox;
};

class network {
public:
    // Sets clock and random source of the library to their beginnings.
    explicit network(uint64_t seed);

    // Gives a node an address, alone in the open or behind a NAT.
    void attach(node &n, const char *at, int nat = -1);
    void detach(const char *at) { homes_.erase(at); }
    int add_nat(nat_kind kind, const char *public_ip);
    // The NAT loses its mappings, as by a restart: whoever sends next appears from a new port.
    void forget(int nat) { nats_[static_cast<size_t>(nat)].mappings.clear(); }

    // Joins two addresses by a link of their own; all others use `any`. A node sends from its address that is linked
    // to the target, else from the one that was attached first.
    void link(const char *a, const char *b, const quality &both);
    void one_way(const char *from, const char *to, const quality &q) { links_[{from, to}] = q; }
    quality any;

    void send(node &n, const tarn_addr &to, const bytes &data);
    void send_from(const tarn_addr &from, const tarn_addr &to, const bytes &data);
    // Sees each datagram as it is sent, may keep or alter it, and drops it by returning false.
    std::function<bool(datagram &)> hook;

    // Runs for a time, or until a condition holds; the latter returns whether it came to hold.
    void run(int64_t us) {
        run_until([] { return false; }, us);
    }
    bool run_until(const std::function<bool()> &done, int64_t us);

    uint64_t ticks = 0;     // calls of any tick
    uint64_t delivered = 0; // datagrams that reached a node
    uint64_t trace = 0;     // digest of what was delivered where, and when
    test_random random;

private:
    struct place {
        node *who;
        int nat;
    };
    struct mapping {
        std::string inside;
        std::string remote; // of a symmetric NAT, else empty
        uint16_t port;
        std::set<std::string> contacted; // as the kind of NAT looks at it
    };
    struct nat_box {
        nat_kind kind;
        tarn_addr ip;
        uint16_t next_port;
        std::vector<mapping> mappings;
    };

    tarn_addr translate(nat_box &nat, const std::string &inside, const tarn_addr &to);
    bool admit(nat_box &nat, const tarn_addr &from, uint16_t port, std::string *inside);
    void transmit(const quality &q, const datagram &d);
    void deliver(const datagram &d);

    std::vector<node *> nodes_;
    std::vector<std::pair<std::string, node *>> order_; // addresses as attached
    std::map<std::string, place> homes_;
    std::map<std::pair<std::string, std::string>, quality> links_;
    std::vector<nat_box> nats_;
    std::map<std::pair<int64_t, uint64_t>, datagram> queue_; // by time, then by order of sending
    uint64_t serial_ = 0;
};

// The engines as nodes. Data and plain packets for the caller are kept in `got`.
class host_node : public node, public host_rig {
public:
    explicit host_node(network &net, int trusted = 1,
                       const std::function<void(tarn_host_config &)> &tweak = nullptr);
    void receive(const datagram &d) override;
    int64_t due() const override { return due_; }
    void tick() override;
    // Seals and sends a data packet; false if the session is gone.
    bool say(uint32_t session, const bytes &packet);
    std::vector<received> got;

private:
    network &net_;
    int64_t due_;
};

class client_node : public node, public client_rig {
public:
    explicit client_node(network &net, const std::function<void(tarn_client_config &)> &tweak = nullptr);
    void receive(const datagram &d) override;
    int64_t due() const override { return due_; }
    void tick() override;
    bool say(const bytes &packet);
    // Lets the next tick run at once, as a caller does that has just asked for something.
    void poke();
    tarn_client_status status();
    std::vector<received> got;

private:
    network &net_;
    int64_t due_;
};

// The seeds of a randomised test: 1 to `count`, or the one of the environment variable TARN_SEED, with which a failure
// is run again.
std::vector<uint64_t> seeds(int count);
#define TRACE_SEED(seed) SCOPED_TRACE("TARN_SEED=" + std::to_string(seed))

} // namespace netsim

#endif
