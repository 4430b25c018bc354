// The command "serve" of tarn-host. One thread: the loop of run_loop drives the engine, and the streams with it.
#include "host/serve.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include <tarnglider/clock.h>
#include <tarnglider/conn_host.h>
#include <tarnglider/protocol.h>

#include "common/loss.h"
#include "common/platform.h"
#include "common/stream_protocol.h"
#include "common/text.h"
#include "common/udp_loop.h"

namespace app {
namespace {

// A client that says nothing for so long is gone: its engine probes twice a second.
constexpr int64_t silence_max_us = 10000000;
// How long a host that is being stopped waits for its clients to notice.
constexpr int64_t farewell_us = 1000000;
// Room for any sealed packet.
constexpr size_t sealed_max = 1500;

struct host_end {
    void operator()(tarn_host *h) const { tarn_host_destroy(h); }
};

struct served_session {
    video_stream stream;
    loss_injector loss;
};

struct serve_totals {
    uint64_t streams = 0;
    stream_totals sent;
    uint64_t dropped = 0;
};

class host_server {
public:
    host_server(const directory &store, const serve_options &options);
    int run();

private:
    void announce(const identity &self) const;
    void receive(std::span<uint8_t> data, const tarn_addr &from);
    std::optional<int64_t> pass();
    void take_events();
    void begin_stream(const conn_event &event);
    void send(uint32_t id, served_session &session, std::span<const uint8_t> packet, bool shard);
    void end_stream(uint32_t id, const served_session &session, const char *how);
    void finish();
    void note(const std::string &line) const {
        if (!options_.quiet) say("tarn-host: " + line);
    }

    const serve_options &options_;
    stream_settings settings_;
    video_file video_;
    udp_socket socket_;
    std::unique_ptr<tarn_host, host_end> engine_;
    std::map<uint32_t, served_session> sessions_;
    serve_totals totals_;
    std::string hinted_key_; // the last stranger's, so that a persistent one is hinted at once
    std::optional<int64_t> stopping_us_;
    bool over_ = false;
};

host_server::host_server(const directory &store, const serve_options &options)
    : options_(options), settings_(options.stream), video_(load_video(options.video)),
      socket_(options.address ? &*options.address : nullptr, options.port) {
    if (options.frame_rate) {
        settings_.frame_rate = *options.frame_rate;
    } else if (video_.frame_rate) {
        settings_.frame_rate = *video_.frame_rate;
    }
    identity self;
    store.load_identity(self);
    const tarn_client_list clients = store.clients();
    if (clients.count == 0) note("no client is allowed yet; first run: tarn-host allow KEY NAME");
    tarn_host_config config{};
    config.identity = self.keys;
    config.user = this;
    config.send = [](void *user, const tarn_addr *to, const uint8_t *data, size_t size) {
        static_cast<host_server *>(user)->socket_.send(*to, {data, size});
    };
    config.log = [](void *user, const char *line) { static_cast<host_server *>(user)->note(line); };
    engine_.reset(tarn_host_create(&config, &clients, nullptr));
    tarn_secure_wipe(&config, sizeof config);
    if (!engine_) throw std::runtime_error("not enough memory for the host engine");
    announce(self);
}

void host_server::announce(const identity &self) const {
    const unsigned port = socket_.port();
    const std::string key = key_text(self.keys.public_key);
    if (options_.json) {
        std::printf(
            "%s\n",
            nlohmann::ordered_json{{"event", "listening"}, {"port", port}, {"key", key}}.dump().c_str());
    } else {
        std::printf("listening port=%u key=%s\n", port, key.c_str());
    }
    std::fflush(stdout);
    note(
        format("%u frames at %.2f frames a second; a client connects with: tarn-client connect ADDRESS:%u %s",
               static_cast<unsigned>(video_.units.size()), settings_.frame_rate, port, key.c_str()));
}

int host_server::run() {
    catch_stop_signals();
    run_loop(socket_, {[this](std::span<uint8_t> data, const tarn_addr &from) { receive(data, from); },
                       [this] { return pass(); }});
    finish();
    return 0;
}

void host_server::receive(std::span<uint8_t> data, const tarn_addr &from) {
    size_t length = 0;
    tarn_recv_info info{};
    const int result = tarn_host_receive(engine_.get(), data.data(), data.size(), &from, data.data(),
                                         data.size(), &length, &info);
    take_events();
    if (result != TARN_RECV_DATA) return;
    const auto found = sessions_.find(info.session);
    std::array<uint32_t, TARN_CLIENT_STATS_WORDS> words{};
    if (found == sessions_.end() || tarn_decode_client_stats(data.data(), length, words.data()) != 0) return;
    if ((words[stats_state] & stats_done) == 0 || found->second.stream.done()) return;
    note(format("session %08x: the client has %u frames; %u lost, %u shards repaired", info.session,
                words[stats_frames], words[stats_lost], words[stats_repaired]));
    found->second.stream.client_done();
}

std::optional<int64_t> host_server::pass() {
    int64_t wait_us = tarn_host_tick(engine_.get());
    take_events();
    const int64_t now_us = tarn_now_us();
    if (stop_requested() && !stopping_us_) {
        stopping_us_ = now_us;
        for (auto &[id, session] : sessions_)
            session.stream.stop(now_us);
    }
    for (auto next = sessions_.begin(); next != sessions_.end();) {
        const auto at = next++;
        served_session &session = at->second;
        tarn_session_info info{};
        const bool known = tarn_host_session_info_get(engine_.get(), at->first, &info) == 0;
        const char *how = nullptr;
        if (session.stream.done()) {
            how = "over";
        } else if (!known || now_us - static_cast<int64_t>(info.last_rx_us) > silence_max_us) {
            how = "the client is gone";
        } else {
            const int64_t stream_wait_us =
                session.stream.advance(now_us, tarn_path_payload(info.path), [&](auto packet, bool shard) {
                    send(at->first, session, packet, shard);
                });
            wait_us = std::min(wait_us, stream_wait_us);
        }
        if (how == nullptr) continue;
        end_stream(at->first, session, how);
        sessions_.erase(at);
    }
    if (over_ || (stopping_us_ && (sessions_.empty() || now_us - *stopping_us_ > farewell_us)))
        return std::nullopt;
    return wait_us;
}

void host_server::take_events() {
    conn_event event{};
    while (tarn_host_poll_event(engine_.get(), &event) != 0) {
        if (event.kind == TARN_EV_SESSION_CONNECTED && !stopping_us_) begin_stream(event);
        if (event.kind != TARN_EV_UNKNOWN_DEVICE || key_text(event.key) == hinted_key_) continue;
        hinted_key_ = key_text(event.key);
        note("to let that device in, stop this host and run: tarn-host allow " + key_text(event.key) +
             " NAME");
    }
}

void host_server::begin_stream(const conn_event &event) {
    const int64_t now_us = tarn_now_us();
    // Every stream draws from the seed anew, so that each client misses the same packets.
    sessions_.try_emplace(event.session, served_session{video_stream(video_, settings_, now_us),
                                                        loss_injector(options_.loss, options_.seed)});
    totals_.streams++;
    note(format("session %08x: streaming to \"%s\"", event.session, event.name));
}

void host_server::send(uint32_t id, served_session &session, std::span<const uint8_t> packet, bool shard) {
    std::array<uint8_t, sealed_max> sealed;
    tarn_addr to{};
    const size_t size =
        tarn_host_seal(engine_.get(), id, packet.data(), packet.size(), sealed.data(), sealed.size(), &to);
    // Dropped behind the seal, as a network would: the counter of a lost packet is used up.
    if (size == 0 || (shard && session.loss.drop())) return;
    socket_.send(to, {sealed.data(), size});
}

void host_server::end_stream(uint32_t id, const served_session &session, const char *how) {
    const stream_totals &sent = session.stream.totals();
    note(format("session %08x: %s; %llu frames in %llu datagrams, %llu of them dropped on purpose", id, how,
                static_cast<unsigned long long>(sent.frames), static_cast<unsigned long long>(sent.packets),
                static_cast<unsigned long long>(session.loss.dropped())));
    totals_.sent.frames += sent.frames;
    totals_.sent.bytes += sent.bytes;
    totals_.sent.packets += sent.packets;
    totals_.dropped += session.loss.dropped();
    // The client says nothing any more; its place is free for the next one.
    tarn_host_session_close(engine_.get(), id);
    over_ |= options_.once;
}

void host_server::finish() {
    for (const auto &[id, session] : sessions_)
        end_stream(id, session, "stopped");
    if (!options_.json) return;
    const nlohmann::ordered_json summary = {{"event", "ended"},
                                            {"streams", totals_.streams},
                                            {"frames", totals_.sent.frames},
                                            {"bytes", totals_.sent.bytes},
                                            {"datagrams", totals_.sent.packets},
                                            {"dropped", totals_.dropped}};
    std::printf("%s\n", summary.dump().c_str());
}

} // namespace

int serve(const directory &store, const serve_options &options) { return host_server(store, options).run(); }

} // namespace app
