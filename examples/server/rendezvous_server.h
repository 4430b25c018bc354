// The rendezvous and relay server without its socket: datagrams and the time go in, datagrams come out.
//
// Hosts register with a proof of their key; clients look hosts up, and both are introduced to each other with a relay
// allocation for the case that they find no direct way. Everything but rendezvous messages is forwarded between the
// two ends of an allocation.
//
// What holds whatever arrives:
//   without a valid trailer nothing is answered, kept or counted against anybody
//   a request earns its sender at most one datagram, and only so many a second
//   to an address that has not shown that it is there goes nothing but a lookup reply that is more than three bytes
//   larger than its request (a challenge: two), and no relay can be bound to it
//   every table has a limit (server_limits), and rendezvous messages are never forwarded: all holders of a link share
//   its key, so a peer could speak in the server's name
// One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include <tarnglider/conn_addr.h>
#include <tarnglider/rendezvous.h>

#include "server/host_registry.h"
#include "server/relay_table.h"
#include "server/server_config.h"
#include "server/sources.h"

namespace app {

class rendezvous_server {
public:
    using send_hook = std::function<void(const tarn_addr &to, const uint8_t *data, size_t len)>;

    // `send` is called from within receive and must not call back. Throws if a limit is out of range or the system
    // gives no randomness.
    rendezvous_server(const server_config &config, send_hook send);
    ~rendezvous_server();
    rendezvous_server(const rendezvous_server &) = delete;
    rendezvous_server &operator=(const rendezvous_server &) = delete;

    // One datagram. `now_us` is a monotonic time, the same clock for all calls.
    void receive(const tarn_addr &from, const uint8_t *data, size_t len, uint64_t now_us);
    // Lets go of what is over. Wanted once a second; what is over takes no effect even before.
    void tick(uint64_t now_us);

    const server_counters &counters() const { return counters_; }
    uint32_t hosts() const { return hosts_.count(); }
    uint32_t allocations() const { return relay_.count(); }

private:
    struct secrets {
        uint8_t net_key[32];
        uint8_t cookie_key[32];
        uint8_t identity[32];
        uint64_t seed;
    };
    struct request;

    static secrets draw_secrets(const server_config &config);
    void on_register(const request &q);
    void on_lookup(const request &q);
    void on_bind(const request &q);
    void forward(const tarn_addr &from, const uint8_t *data, size_t len, uint64_t now_us);

    void make_cookie(uint8_t cookie[16], const tarn_addr &from, uint32_t slot) const;
    bool own_cookie(const request &q, uint32_t *slot) const;
    bool derive_proof_key(uint8_t key[32], const uint8_t host_public[32]) const;
    static bool proof_fits(const request &q, const uint8_t proof_key[32]);
    void challenge(const request &q);
    void renew(const request &q, host_record &host) const;
    void refresh(const request &q, host_record &host);
    void prove(const request &q, const uint8_t id[16], uint32_t index, uint32_t slot);
    uint8_t settle(const request &q, const uint8_t id[16], uint32_t *index);
    void confirm(const request &q);
    void introduce(const request &q, const host_record &host, const allocation &a);

    bool take(budget_kind kind, uint32_t source, uint64_t now_us, uint64_t cost = 1);
    void refuse(const request &q, server_status status);
    void answer(const tarn_addr &to, const tarn_rv_msg &m);

    server_limits limits_;
    uint16_t interval_s_;
    send_hook send_;
    secrets secrets_;
    uint8_t public_key_[32];
    source_table sources_;
    host_registry hosts_;
    relay_table relay_;
    rate_meter totals_[budget_kinds];
    server_counters counters_;
};

// What a server did between two looks at its counters, in one line: "hosts 12, allocations 3; refreshed 36, ..."
std::string report_line(const rendezvous_server &server, const server_counters &before);

} // namespace app
