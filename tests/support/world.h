// A simulated world on the network of netsim.h: rendezvous servers, a host, two clients and their people, in the open or
// behind NATs, with faults and wishes at given times. The people do what the programs would tell them to: they read a new
// PIN when one failed, and start a program anew when it found no session, or heard nothing, for ten seconds. A program pings on each session.
#ifndef TEST_WORLD_H
#define TEST_WORLD_H

#include <memory>

#include "server/rendezvous_server.h"
#include "support/netsim.h"

namespace netsim {

constexpr int in_the_open = -1; // beside the values of nat_kind
constexpr int clients_max = 2;

struct plan {
    struct person {
        int nat = in_the_open;
        bool shares_lan = false; // is behind the host's NAT, not one of its own
        bool told = false;       // knows the host's address: on the LAN, or of a host in the open
        bool listed =
            true; // the host knows the key; else the first client pairs by PIN, and the second is refused
        uint32_t route_mode = TARN_ROUTE_ANY;
    };
    int host_nat = in_the_open;
    bool hairpin = false;  // the host's NAT lets its own people reach each other by its public address
    bool isolated = false; // the host's LAN carries nothing from one device to another
    bool by_code = true;   // whoever pairs knows the key code
    bool route_by_session = true;
    int servers = 1;
    uint16_t interval_s = 5;
    unsigned loss = 0;
    int64_t jitter_us = 0;
    person clients[clients_max];
};

class server_node : public node {
public:
    server_node(network &net, const char *at, uint8_t number, const plan &p, texts &wrong);
    void restart();
    void receive(const datagram &d) override;
    void tick() override;
    const tarn_addr at;
    bool deaf = false;

private:
    network &net_;
    texts &wrong_;
    app::server_config config_;
    std::unique_ptr<app::rendezvous_server> server_;
    const datagram *request_ = nullptr;
    int answers_ = 0;
};

// What an unauthenticated stranger can make a host send: so many a second, and so many at once.
struct reply_limit {
    uint8_t type;
    double per_second, burst;
    double level = 0;
    int64_t last_us = 0;
};

class world {
public:
    world(uint64_t seed, const plan &p);

    // What people do.
    void start(int client); // the program, from another port than before; pairs if it must, and connects
    void stop(int client);
    void second_session(int client);
    void rekey(int client);
    // What goes wrong.
    void forget(int site) {
        if (sites_[site_index(site)].box >= 0) net.forget(sites_[site_index(site)].box);
    }
    void renumber(int site) {
        move_site(sites_[site_index(site)]);
    } // another public address, unless it is in the open
    void block(int site, bool on) {
        sites_[site_index(site)].blocked = on;
    }                       // all UDP but to and from servers
    void flood(int64_t us); // by a stranger who can reach the host directly
    void calm();            // the end of all faults and of what was to come
    // The host's site is -1, a client's its number.
    void at(int64_t after_us, std::function<void()> what) {
        agenda_.insert({tarn_now_us() + after_us, std::move(what)});
    }

    bool run_until(const std::function<bool()> &done, int64_t us);
    void run(int64_t us) {
        run_until([] { return false; }, us);
    }

    // The best class that topology and route mode allow this client, 0 for none.
    int best_class(int client) const;
    // The class on which the client's session is, 0 without one.
    int path(int client) { return people[client].node->status().path; }
    // A person's wishes are met: every session up, on both sides and on one path, every rekey done; or the program said
    // why not. `exact`: on the best class; else at least on no better class than that, with no better
    // path alive.
    bool content(int client, bool exact);
    // Sends `count` numbered packets each way over each session at 20 ms, waits a second, and returns the fewest that
    // arrived whole in one direction of one session.
    size_t talk(int client, uint32_t count);

    struct person {
        std::unique_ptr<client_node> node;
        tarn_client_config config; // of the next start
        bool wants = false, pairing = false, rejected = false, pair_failed = false;
        size_t wanted_sessions = 0;
        int64_t lived_us = 0, next_ping_us = 0;
        int starts = 0;
        std::vector<uint32_t> sessions;
        std::set<uint32_t> rekeys; // asked for
    };

    network net;
    texts wrong; // rules that were broken, in words
    std::unique_ptr<host_node> host;
    std::vector<std::unique_ptr<server_node>> servers;
    person people[clients_max];
    uint64_t trace = 0;         // digest of all that was sent, and of all events
    bool guesses_first = false; // whoever pairs types a wrong PIN first

private:
    struct place {
        int nat = in_the_open;
        int box = -1;
        uint8_t lan = 0; // tells its addresses
        tarn_addr ip;    // public
        bool blocked = false;
        std::map<node *, std::string> devices;
    };
    struct stranger : node {
        void receive(const datagram &) override {}
        void tick() override { due = INT64_MAX; }
    };

    size_t site_index(int who) const {
        return who < 0 || plan_.clients[who].shares_lan ? 0 : static_cast<size_t>(who) + 1;
    }
    std::string address_in(const place &s, int device, int port) const;
    void move_site(place &s);
    void settle(place &s, node &n, const std::string &address);
    bool carries(const datagram &d);
    void watch(const bytes &data);
    void pump();
    void on_event(int client, const conn_event &e);
    void pair(int client);
    void digest(std::initializer_list<uint64_t> what);
    void note(const conn_event &e);
    bool alone(int client) const;

    const plan plan_;
    std::string code_;
    place sites_[1 + clients_max];
    int addresses_ = 0; // public ones given out by NATs
    stranger stranger_;
    std::multimap<int64_t, std::function<void()>> agenda_;
    std::vector<reply_limit> limits_;
    std::set<bytes> responses_;
};

} // namespace netsim

#endif
