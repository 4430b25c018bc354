// A running host.
#include "host/host_server.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include <tarnglider/clock.h>
#include <tarnglider/protocol.h>

#include "common/platform.h"
#include "common/stream_protocol.h"
#include "common/text.h"

namespace app {
namespace {

// A client that says nothing for so long is gone: its engine probes twice a second.
constexpr int64_t silence_max_us = 10000000;
// How long a host that is being stopped waits for its clients to notice.
constexpr int64_t farewell_us = 1000000;
// Room for any sealed packet.
constexpr size_t sealed_max = 1500;
constexpr int64_t second_us = 1000000;

} // namespace

host_server::host_server(host_store &store, host_voice &voice, const server_settings &settings)
    : store_(store), voice_(voice), settings_(settings),
      name_(settings.name.empty() ? machine_name() : settings.name),
      socket_(settings.address ? &*settings.address : nullptr, settings.port),
      clip_loss_(settings.loss, settings.seed) {
    identity self;
    store_.load_identity(self);
    create_engine(self);
    voice_.listening(socket_.port(), self.keys.public_key);
    if (settings_.video)
        voice_.note(format("%u frames at %.2f frames a second",
                           static_cast<unsigned>(settings_.video->units.size()),
                           settings_.stream.frame_rate));
}

void host_server::create_engine(const identity &self) {
    const tarn_client_list clients = store_.clients();
    relay_list relays;
    store_.relays(relays);
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
    config.log = [](void *user, const char *line) { static_cast<host_server *>(user)->voice_.note(line); };
    engine_.reset(tarn_host_create(&config, &clients, password.text.c_str()));
    tarn_secure_wipe(&config, sizeof config);
    if (!engine_) throw std::runtime_error("not enough memory for the host engine");
    desk_.emplace(engine_.get(), store_, voice_);
    reach_.emplace(engine_.get(), socket_, voice_, settings_.address, name_, lan_id_of(self.keys.public_key));
    reach_->start(relays.config);
}

void host_server::run(const std::function<bool()> &stop_wanted) {
    run_loop(socket_, {[this](std::span<uint8_t> data, const tarn_addr &from) { receive(data, from); },
                       [&] {
                           if (!stopping_us_ && stop_wanted()) stop();
                           return pass();
                       }});
    finish();
}

void host_server::receive(std::span<uint8_t> data, const tarn_addr &from) {
    size_t length = 0;
    tarn_recv_info info{};
    const int result = tarn_host_receive(engine_.get(), data.data(), data.size(), &from, data.data(),
                                         data.size(), &length, &info);
    take_events();
    if (result == TARN_RECV_PLAIN && settings_.searches) reach_->search(data, from, tarn_now_us());
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
        voice_.note(format("session %08x: the client has %u frames; %u lost, %u shards repaired", id,
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
    for (auto next = sessions_.begin(); next != sessions_.end();) {
        const auto at = next++;
        const char *how = advance(at->first, at->second, now_us, &wait_us);
        if (how == nullptr) continue;
        end_session(at->first, at->second, how);
        sessions_.erase(at);
        sessions_now_ = sessions_.size();
    }
    const bool enough = settings_.sessions_max > 0 && ended_ >= settings_.sessions_max;
    if (enough || (stopping_us_ && (sessions_.empty() || now_us - *stopping_us_ > farewell_us)))
        return std::nullopt;
    return wait_us;
}

// A stream says goodbye to its client; without one there is nothing to say.
void host_server::stop() {
    const int64_t now_us = tarn_now_us();
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
    const size_t payload = std::min(tarn_path_payload(info.path), settings_.payload_max);
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
        voice_.stranger(event.key);
    }
}

void host_server::begin_session(const conn_event &event) {
    const int64_t now_us = tarn_now_us();
    const uint32_t id = event.session;
    // Every stream draws from the seed anew, so that each client misses the same packets.
    served_session session{std::nullopt, loss_injector(settings_.loss, settings_.seed), false, nullptr};
    if (settings_.video) session.stream.emplace(*settings_.video, settings_.stream, now_us);
    if (settings_.clips.any())
        session.clips = std::make_unique<clip_link>(
            settings_.clips,
            [this, id](std::span<const uint8_t> packet) {
                const std::lock_guard held(clip_loss_lock_);
                send(id, clip_loss_, packet, true);
            },
            [this](const std::string &line) { voice_.note(line); });
    sessions_.try_emplace(id, std::move(session));
    sessions_now_ = sessions_.size();
    totals_.sessions++;
    voice_.note(
        format("session %08x: %s \"%s\"", id, settings_.video ? "streaming to" : "serving", event.name));
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
    voice_.note(format("session %08x: %s; %llu frames in %llu datagrams, %llu of them dropped on purpose", id,
                       how, static_cast<unsigned long long>(sent.frames),
                       static_cast<unsigned long long>(sent.packets),
                       static_cast<unsigned long long>(session.loss.dropped())));
    totals_.frames += sent.frames;
    totals_.bytes += sent.bytes;
    totals_.datagrams += sent.packets;
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
    voice_.ended(totals_);
}

} // namespace app
