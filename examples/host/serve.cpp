// The command "serve" of tarn-host. One thread: the loop of run_loop drives the engine, and the sessions with it; beside
// it each session's clipboard sends from a thread of its own, through the engine and the socket, which allow that.
#include "host/serve.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include <tarnglider/clock.h>
#include <tarnglider/conn_host.h>
#include <tarnglider/protocol.h>

#include "common/loss.h"
#include "common/platform.h"
#include "common/program.h"
#include "common/stream_protocol.h"
#include "common/text.h"
#include "common/udp_loop.h"
#include "host/pairing_desk.h"
#include "host/reach.h"

namespace app {
namespace {

// A client that says nothing for so long is gone: its engine probes twice a second.
constexpr int64_t silence_max_us = 10000000;
// How long a host that is being stopped waits for its clients to notice.
constexpr int64_t farewell_us = 1000000;
// Room for any sealed packet.
constexpr size_t sealed_max = 1500;
constexpr int64_t second_us = 1000000;

struct host_end {
    void operator()(tarn_host *h) const { tarn_host_destroy(h); }
};

struct served_session {
    std::optional<video_stream> stream; // none: the host has no video, or the client wants none
    loss_injector loss;
    bool left = false; // the client said so
    std::unique_ptr<clip_link> clips;
};

struct serve_totals {
    uint64_t sessions = 0;
    stream_totals sent;
    uint64_t dropped = 0;
    uint64_t clips_sent = 0;
    uint64_t clips_received = 0;
    uint64_t clips_failed = 0;
};

class host_server {
public:
    host_server(const directory &store, const serve_options &options);
    int run();

private:
    void announce(const identity &self) const;
    void create_engine(const identity &self);
    void receive(std::span<uint8_t> data, const tarn_addr &from);
    void take_stats(uint32_t id, served_session &session, std::span<const uint8_t> packet);
    std::optional<int64_t> pass();
    void stop(int64_t now_us);
    const char *advance(uint32_t id, served_session &session, int64_t now_us, int64_t *wait_us);
    void take_events();
    void begin_session(const conn_event &event);
    void send(uint32_t id, loss_injector &loss, std::span<const uint8_t> packet, bool may_drop);
    void end_session(uint32_t id, const served_session &session, const char *how);
    void finish();
    void note(const std::string &line) const {
        if (!options_.quiet) say("tarn-host: " + line);
    }

    const directory &store_;
    const serve_options &options_;
    stream_settings settings_;
    std::optional<video_file> video_;
    std::string name_;
    udp_socket socket_;
    std::unique_ptr<tarn_host, host_end> engine_;
    std::optional<pairing_desk> desk_;
    std::optional<host_reach> reach_;
    std::map<uint32_t, served_session> sessions_;
    std::mutex clip_loss_lock_; // clipboards draw on threads of their own
    loss_injector clip_loss_;
    serve_totals totals_;
    int64_t next_second_us_ = 0;
    std::string hinted_key_; // the last stranger's, so that a persistent one is hinted at once
    std::optional<int64_t> stopping_us_;
    uint64_t ended_ = 0; // sessions
};

host_server::host_server(const directory &store, const serve_options &options)
    : store_(store), options_(options), settings_(options.stream),
      name_(options.name.empty() ? machine_name() : options.name),
      socket_(options.address ? &*options.address : nullptr, options.port),
      clip_loss_(options.loss, options.seed) {
    if (options.video) video_ = load_video(*options.video);
    if (options.frame_rate) {
        settings_.frame_rate = *options.frame_rate;
    } else if (video_ && video_->frame_rate) {
        settings_.frame_rate = *video_->frame_rate;
    }
    identity self;
    store.load_identity(self);
    create_engine(self);
    announce(self);
}

void host_server::create_engine(const identity &self) {
    const tarn_client_list clients = store_.clients();
    relay_list relays;
    store_.relays(relays);
    for (int i = 0; i < options_.relays.config.count; i++) {
        if (tarn_relay_config_add(&relays.config, &options_.relays.config.servers[i]) < 0)
            throw usage_error("there can be no more than 8 relay servers, those of the folder included");
    }
    secret_text password;
    store_.password(password);
    tarn_host_config config{};
    config.identity = self.keys;
    config.name = name_.c_str();
    config.relays = relays.config;
    config.user = this;
    config.send = [](void *user, const tarn_addr *to, const uint8_t *data, size_t size) {
        static_cast<host_server *>(user)->socket_.send(*to, {data, size});
    };
    config.log = [](void *user, const char *line) { static_cast<host_server *>(user)->note(line); };
    engine_.reset(tarn_host_create(&config, &clients, password.text.c_str()));
    tarn_secure_wipe(&config, sizeof config);
    if (!engine_) throw std::runtime_error("not enough memory for the host engine");
    const auto note_line = [this](const std::string &line) { note(line); };
    desk_.emplace(engine_.get(), store_, options_.json, note_line);
    reach_.emplace(engine_.get(), socket_, options_.address, name_, lan_id_of(self.keys.public_key));
    reach_->start(relays.config, options_.json, note_line);
}

void host_server::announce(const identity &self) const {
    const unsigned port = socket_.port();
    const std::string key = key_text(self.keys.public_key);
    const std::string code = key_code(self.keys.public_key);
    if (options_.json) {
        print_json({{"event", "listening"}, {"port", port}, {"key", key}, {"key_code", code}});
    } else {
        std::printf("listening port=%u key=%s code=%s\n", port, key.c_str(), code.c_str());
        std::fflush(stdout);
    }
    if (video_)
        note(format("%u frames at %.2f frames a second", static_cast<unsigned>(video_->units.size()),
                    settings_.frame_rate));
}

int host_server::run() {
    catch_stop_signals();
    desk_->open(options_.pair_s);
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
    if (result == TARN_RECV_PLAIN) reach_->search(data, from, tarn_now_us());
    if (result != TARN_RECV_DATA) return;
    const auto found = sessions_.find(info.session);
    if (found == sessions_.end()) return;
    const std::span<const uint8_t> packet = data.first(length);
    if (found->second.clips && found->second.clips->packet(packet, tarn_now_us())) return;
    take_stats(found->first, found->second, packet);
}

void host_server::take_stats(uint32_t id, served_session &session, std::span<const uint8_t> packet) {
    std::array<uint32_t, TARN_CLIENT_STATS_WORDS> words{};
    if (tarn_decode_client_stats(packet.data(), packet.size(), words.data()) != 0) return;
    if ((words[stats_state] & stats_no_video) != 0) session.stream.reset();
    if ((words[stats_state] & stats_done) == 0 || session.left) return;
    session.left = true;
    if (session.stream)
        note(format("session %08x: the client has %u frames; %u lost, %u shards repaired", id,
                    words[stats_frames], words[stats_lost], words[stats_repaired]));
}

std::optional<int64_t> host_server::pass() {
    int64_t wait_us = tarn_host_tick(engine_.get());
    take_events();
    const int64_t now_us = tarn_now_us();
    if (now_us >= next_second_us_) {
        desk_->follow_list();
        reach_->watch();
        next_second_us_ = now_us + second_us;
    }
    if (stop_requested() && !stopping_us_) stop(now_us);
    for (auto next = sessions_.begin(); next != sessions_.end();) {
        const auto at = next++;
        const char *how = advance(at->first, at->second, now_us, &wait_us);
        if (how == nullptr) continue;
        end_session(at->first, at->second, how);
        sessions_.erase(at);
    }
    const bool enough = options_.sessions > 0 && ended_ >= options_.sessions;
    if (enough || (stopping_us_ && (sessions_.empty() || now_us - *stopping_us_ > farewell_us)))
        return std::nullopt;
    return wait_us;
}

// A stream says goodbye to its client; without one there is nothing to say.
void host_server::stop(int64_t now_us) {
    stopping_us_ = now_us;
    for (auto &[id, session] : sessions_) {
        if (session.stream) session.stream->stop(now_us);
    }
}

// What a session has due. Returns why it is over, or null.
const char *host_server::advance(uint32_t id, served_session &session, int64_t now_us, int64_t *wait_us) {
    tarn_session_info info{};
    if (session.left) return "over";
    if (tarn_host_session_info_get(engine_.get(), id, &info) != 0 ||
        now_us - static_cast<int64_t>(info.last_rx_us) > silence_max_us)
        return "the client is gone";
    const size_t payload = tarn_path_payload(info.path);
    if (session.clips) session.clips->advance(id, payload, now_us);
    if (!session.stream) return stopping_us_ ? "stopped" : nullptr;
    if (session.stream->done())
        return session.clips && session.clips->busy(now_us) && !stopping_us_ ? nullptr : "over";
    const int64_t stream_wait_us = session.stream->advance(
        now_us, payload, [&](auto packet, bool shard) { send(id, session.loss, packet, shard); });
    *wait_us = std::min(*wait_us, stream_wait_us);
    return nullptr;
}

void host_server::take_events() {
    conn_event event{};
    while (tarn_host_poll_event(engine_.get(), &event) != 0) {
        desk_->event(event);
        reach_->event(event);
        if (event.kind == TARN_EV_SESSION_CONNECTED && !stopping_us_) begin_session(event);
        if (event.kind != TARN_EV_UNKNOWN_DEVICE || key_text(event.key) == hinted_key_) continue;
        hinted_key_ = key_text(event.key);
        note("to let that device in, pair with it, or run: tarn-host allow " + hinted_key_ + " NAME");
    }
}

void host_server::begin_session(const conn_event &event) {
    const int64_t now_us = tarn_now_us();
    const uint32_t id = event.session;
    // Every stream draws from the seed anew, so that each client misses the same packets.
    served_session session{std::nullopt, loss_injector(options_.loss, options_.seed), false, nullptr};
    if (video_) session.stream.emplace(*video_, settings_, now_us);
    if (options_.clips.any())
        session.clips = std::make_unique<clip_link>(
            options_.clips,
            [this, id](std::span<const uint8_t> packet) {
                const std::lock_guard held(clip_loss_lock_);
                send(id, clip_loss_, packet, true);
            },
            [this](const std::string &line) { note(line); });
    sessions_.try_emplace(id, std::move(session));
    totals_.sessions++;
    note(format("session %08x: %s \"%s\"", id, video_ ? "streaming to" : "serving", event.name));
}

void host_server::send(uint32_t id, loss_injector &loss, std::span<const uint8_t> packet, bool may_drop) {
    std::array<uint8_t, sealed_max> sealed;
    tarn_addr to{};
    const size_t size =
        tarn_host_seal(engine_.get(), id, packet.data(), packet.size(), sealed.data(), sealed.size(), &to);
    // Dropped behind the seal, as a network would: the counter of a lost packet is used up.
    if (size == 0 || (may_drop && loss.drop())) return;
    socket_.send(to, {sealed.data(), size});
}

void host_server::end_session(uint32_t id, const served_session &session, const char *how) {
    const stream_totals sent = session.stream ? session.stream->totals() : stream_totals{};
    note(format("session %08x: %s; %llu frames in %llu datagrams, %llu of them dropped on purpose", id, how,
                static_cast<unsigned long long>(sent.frames), static_cast<unsigned long long>(sent.packets),
                static_cast<unsigned long long>(session.loss.dropped())));
    totals_.sent.frames += sent.frames;
    totals_.sent.bytes += sent.bytes;
    totals_.sent.packets += sent.packets;
    totals_.dropped += session.loss.dropped();
    if (session.clips) {
        totals_.clips_sent += session.clips->sent();
        totals_.clips_received += session.clips->received();
        totals_.clips_failed += session.clips->failed();
    }
    // The client says nothing any more; its place is free for the next one.
    tarn_host_session_close(engine_.get(), id);
    ended_++;
}

void host_server::finish() {
    for (const auto &[id, session] : sessions_)
        end_session(id, session, "stopped");
    if (!options_.json) return;
    print_json({{"event", "ended"},
                {"sessions", totals_.sessions},
                {"frames", totals_.sent.frames},
                {"bytes", totals_.sent.bytes},
                {"datagrams", totals_.sent.packets},
                {"dropped", totals_.dropped},
                {"clips_sent", totals_.clips_sent},
                {"clips_received", totals_.clips_received},
                {"clips_failed", totals_.clips_failed}});
}

} // namespace

int serve(const directory &store, const serve_options &options) { return host_server(store, options).run(); }

} // namespace app
