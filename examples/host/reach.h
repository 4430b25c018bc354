// Where a running host can be reached: its rendezvous servers, whose names are looked up in the background, and its LAN
// endpoints, which come and go with the network; and its answer to a client that searches the LAN. One thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include <tarnglider/conn_host.h>
#include <tarnglider/netsock.h>

#include "common/udp_loop.h"
#include "host/host_voice.h"

namespace app {

class host_reach {
public:
    // Engine, socket and voice outlive this. `address`: the one address that the socket is bound to, if it is. `name`:
    // what clients that search are told.
    host_reach(tarn_host *engine, const udp_socket &socket, host_voice &voice,
               const std::optional<tarn_addr> &address, std::string name, uint32_t lan_id);

    // Says which servers there are, and starts to look up their names.
    void start(const tarn_relay_config &relays);

    void event(const conn_event &event);

    // Tells of servers that can't be reached, and follows the network; to be called about once a second.
    void watch();

    // Answers a plain packet that is a search.
    void search(std::span<const uint8_t> packet, const tarn_addr &from, int64_t now_us);

private:
    void offer_lan();

    struct resolver_end {
        void operator()(tarn_resolver *r) const { tarn_resolver_stop(r); }
    };

    tarn_host *engine_;
    const udp_socket &socket_;
    host_voice &voice_;
    std::optional<tarn_addr> address_;
    std::string name_;
    uint32_t lan_id_;
    std::array<tarn_addr, TARN_LAN_MAX> lan_{};
    int lan_count_ = -1;                                 // none offered yet
    std::array<int32_t, TARN_RELAY_MAX_SERVERS> told_{}; // state of each server that was last told
    int64_t answers_since_us_ = 0;                       // of the second in which
    int answers_ = 0;                                    //   so many searches were answered
    std::unique_ptr<tarn_resolver, resolver_end> resolver_;
};

} // namespace app
