// A client's engine on a socket, with what every command needs around it: servers and their names, the search on the
// LAN, and the reasons why a host can't be had, in plain words. One thread, but for send.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include <tarnglider/conn_client.h>
#include <tarnglider/netsock.h>

#include "client/host_book.h"
#include "client/lan_search.h"
#include "client/path_cut.h"
#include "common/directory.h"
#include "common/udp_loop.h"

namespace app {

struct link_options {
    std::string name;  // to show to the host; empty: the machine's
    relay_list relays; // beside those of the folder
    uint32_t route = TARN_ROUTE_ANY;
    double timeout_s = 10; // to wait for a session, and for a host that fell silent
    std::optional<cut_window> cut;
    bool json = false;
    bool quiet = false;
};

struct link_hooks {
    std::function<void(const conn_event &event)> event;
    // An opened packet of the session, and the size of the datagram that it came in.
    std::function<void(std::span<const uint8_t> packet, size_t datagram_size)> packet;
    // Everything that is due by time. Returns the microseconds until something is due again, or nothing to end.
    std::function<std::optional<int64_t>(int64_t now_us, const tarn_client_status &status)> pass;
};

class host_link {
public:
    // Makes the engine; nothing is sent before run. Folder and options outlive the link. Throws.
    host_link(const directory &store, const link_options &options, const host_target &target);
    host_link(const host_link &) = delete;
    host_link &operator=(const host_link &) = delete;

    tarn_client *engine() const { return engine_.get(); }
    const tarn_relay_config &relays() const { return relays_.config; }

    void run(const link_hooks &hooks);

    // Seals a packet for the session and sends it. Any thread.
    void send(std::span<const uint8_t> plain);

    // When the session first came up; nothing before.
    std::optional<int64_t> up_us() const { return up_us_; }

    // Why the host can't be had, as far as anything told.
    std::string trouble() const;

    // Is a session due or alive? If not, what happened, for a person. Uses the options' time-out.
    std::optional<std::string> failure(int64_t now_us, const tarn_client_status &status) const;

    void note(const std::string &line) const;

private:
    void create_engine(const identity &self);
    void transmit(const tarn_addr &to, std::span<const uint8_t> data) const;
    void receive(std::span<uint8_t> data, const tarn_addr &from, const link_hooks &hooks);
    void take_events(const link_hooks &hooks);
    void take_event(const conn_event &event);
    void search(int64_t now_us, bool connected);
    void ask_who();
    void hear_who(std::span<const uint8_t> data, const tarn_addr &from);

    const link_options &options_;
    host_target target_;
    relay_list relays_;
    std::string name_;
    udp_socket socket_;
    std::optional<path_cut> cut_;
    lan_search lan_;

    struct client_end {
        void operator()(tarn_client *c) const { tarn_client_destroy(c); }
    };
    struct resolver_end {
        void operator()(tarn_resolver *r) const { tarn_resolver_stop(r); }
    };
    std::unique_ptr<tarn_client, client_end> engine_;
    std::unique_ptr<tarn_resolver, resolver_end> resolver_; // ends before the engine

    int64_t start_us_;
    std::optional<int64_t> up_us_;
    int64_t alive_us_ = 0;       // when a path was last seen alive
    int64_t next_search_us_ = 0; // questions to the LAN and to the candidates, while there is no session
    int searches_ = 0;
    uint32_t who_nonce_ = 0;
    int reject_ = 0;           // the host's last refusal
    std::string lookup_error_; // the last server's
    std::string other_key_;    // who is there in the host's place
};

} // namespace app
