// A running host: the engine on a socket, and for each session a video stream and a clipboard. One thread runs its loop,
// with run_loop; beside it each session's clipboard sends from a thread of its own, through the engine and the socket,
// which allow that. The program around it brings the store, the voice, and the decision when to stop.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include <tarnglider/conn_addr.h>
#include <tarnglider/conn_host.h>

#include "common/clip_link.h"
#include "common/loss.h"
#include "common/udp_loop.h"
#include "host/host_store.h"
#include "host/host_voice.h"
#include "host/pairing_desk.h"
#include "host/reach.h"
#include "host/video_stream.h"

namespace app {

struct server_settings {
    std::string name;                 // to show to clients; empty: the machine's
    std::optional<tarn_addr> address; // to bind to; all addresses without it
    uint16_t port = 0;
    std::optional<video_file> video; // without it the host only pairs and exchanges clipboards
    stream_settings stream;
    size_t payload_max = SIZE_MAX; // bytes of a packet, where the session's path would take more
    clip_options clips;
    bool searches = true; // answers searches on the LAN
    double loss = 0;      // percent of the video and clipboard datagrams to drop
    uint64_t seed = 1;
    uint64_t sessions_max = 0; // end when so many are over; 0: never
};

class host_server {
public:
    // All three outlive the server. Throws std::runtime_error if the socket or the store fails.
    host_server(host_store &store, host_voice &voice, const server_settings &settings);

    // Serves until `stop_wanted` says so, or the settings' number of sessions are over. It is asked at each turn of the
    // loop, some four times a second at least; clients are told then, and have a second to notice. Throws if the
    // socket fails.
    void run(const std::function<bool()> &stop_wanted);

    // Any thread.
    tarn_host *engine() const { return engine_.get(); }
    pairing_desk &desk() { return *desk_; }
    uint16_t port() const { return socket_.port(); }
    size_t sessions() const { return sessions_now_; }

private:
    struct served_session {
        std::optional<video_stream> stream; // none: the host has no video, or the client wants none
        loss_injector loss;
        bool left = false; // the client said so
        std::unique_ptr<clip_link> clips;
    };
    struct host_end {
        void operator()(tarn_host *h) const { tarn_host_destroy(h); }
    };

    void create_engine(const identity &self);
    void receive(std::span<uint8_t> data, const tarn_addr &from);
    void take_stats(uint32_t id, served_session &session, std::span<const uint8_t> packet);
    std::optional<int64_t> pass();
    void stop();
    const char *advance(uint32_t id, served_session &session, int64_t now_us, int64_t *wait_us);
    void take_events();
    void begin_session(const conn_event &event);
    void send(uint32_t id, loss_injector &loss, std::span<const uint8_t> packet, bool may_drop);
    void end_session(uint32_t id, const served_session &session, const char *how);
    void finish();

    host_store &store_;
    host_voice &voice_;
    const server_settings &settings_;
    std::string name_;
    udp_socket socket_;
    std::unique_ptr<tarn_host, host_end> engine_;
    std::optional<pairing_desk> desk_;
    std::optional<host_reach> reach_;
    std::map<uint32_t, served_session> sessions_;
    std::atomic<size_t> sessions_now_ = 0;
    std::mutex clip_loss_lock_; // clipboards draw on threads of their own
    loss_injector clip_loss_;
    serve_totals totals_;
    int64_t next_second_us_ = 0;
    std::string hinted_key_; // the last stranger's, so that a persistent one is hinted at once
    std::optional<int64_t> stopping_us_;
    uint64_t ended_ = 0; // sessions
};

} // namespace app
