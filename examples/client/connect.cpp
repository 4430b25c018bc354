// The command "connect" of tarn-client. One thread: the loop of host_link drives the engine; beside it the clipboard
// sends from a thread of its own, through host_link::send, which allows that.
#include "client/connect.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include <tarnglider/clock.h>
#include <tarnglider/conn_client.h>
#include <tarnglider/protocol.h>

#include "client/video_receiver.h"
#include "common/platform.h"
#include "common/program.h"
#include "common/stream_protocol.h"
#include "host/video_file.h"

namespace app {
namespace {

constexpr int64_t second_us = 1000000;

// A path that carried the session's traffic, and when that began.
struct path_move {
    double seconds;
    int path;
    tarn_addr addr;
};

class client_program {
public:
    client_program(const directory &store, const connect_options &options);
    int run();

private:
    void take_frame(std::span<const uint8_t> frame);
    void take_event(const conn_event &event);
    void take_packet(std::span<const uint8_t> packet, size_t datagram_size);
    std::optional<int64_t> pass(int64_t now_us, const tarn_client_status &status);
    bool finished(int64_t now_us, const tarn_client_status &status);
    void each_second(int64_t now_us, const tarn_client_status &status);
    void report(int64_t now_us, const tarn_client_status &status, const receiver_figures &figures);
    void tell_host(const receiver_figures &figures, bool done);
    void remember();
    int finish();
    void print_summary(const receiver_figures &figures, double elapsed_s, double loss) const;
    double session_seconds(int64_t now_us) const {
        return link_.up_us() ? static_cast<double>(now_us - *link_.up_us()) / 1e6 : 0.0;
    }
    std::string save_name() const { return utf8(*options_.save); }

    const directory &store_;
    const connect_options &options_;
    host_target target_;
    host_link link_;
    std::ofstream file_;
    std::optional<video_file> reference_;
    video_receiver receiver_;
    std::unique_ptr<clip_link> clips_; // its thread uses the link, and ends before it

    int64_t report_us_ = 0;      // when the last report was made,
    receiver_figures reported_;  //   and what it knew
    uint64_t session_bytes_ = 0; // datagrams of the session
    uint64_t reported_bytes_ = 0;
    uint64_t frames_differ_ = 0;
    std::vector<path_move> moves_;
    tarn_client_status last_status_{};
    std::string error_;
};

client_program::client_program(const directory &store, const connect_options &options)
    : store_(store), options_(options), target_(find_host(store.hosts(), options.host, options.key)),
      link_(store, options.link, target_),
      receiver_([this](std::span<const uint8_t> frame) { take_frame(frame); }) {
    if (target_.candidates.empty() && link_.relays().count == 0 && target_.lan_id == 0)
        throw std::runtime_error("no way to this host is known");
    if (options.compare) reference_ = load_video(*options.compare);
    if (options.save) {
        file_.open(*options.save, std::ios::binary | std::ios::trunc);
        if (!file_)
            throw std::runtime_error("can't write " + save_name() + ": check the folder and its permissions");
    }
    if (options.clips.any())
        clips_ = std::make_unique<clip_link>(
            options.clips, [this](std::span<const uint8_t> packet) { link_.send(packet); },
            [this](const std::string &line) { link_.note(line); });
    if (tarn_client_connect(link_.engine()) != 0) throw std::runtime_error("the engine refused to connect");
}

int client_program::run() {
    link_.note("connecting to " + target_.label);
    link_.run({[this](const conn_event &event) { take_event(event); },
               [this](std::span<const uint8_t> packet, size_t size) { take_packet(packet, size); },
               [this](int64_t now_us, const tarn_client_status &status) { return pass(now_us, status); }});
    return finish();
}

void client_program::take_frame(std::span<const uint8_t> frame) {
    if (reference_) {
        const access_unit &unit = reference_->units[receiver_.frame_id() % reference_->units.size()];
        const std::span<const uint8_t> sent = std::span(reference_->bytes).subspan(unit.offset, unit.size);
        if (!std::equal(frame.begin(), frame.end(), sent.begin(), sent.end())) frames_differ_++;
    }
    if (!options_.save) return;
    file_.write(reinterpret_cast<const char *>(frame.data()), static_cast<std::streamsize>(frame.size()));
    if (!file_) throw std::runtime_error("can't write " + save_name() + ": is the disk full?");
}

void client_program::take_event(const conn_event &event) {
    if (event.kind == TARN_EV_SESSION_UP && moves_.empty()) {
        report_us_ = tarn_now_us();
        moves_.push_back({0, event.path, event.addr});
    }
    if (event.kind == TARN_EV_PATH_CHANGED)
        moves_.push_back({session_seconds(tarn_now_us()), event.path, event.addr});
}

void client_program::take_packet(std::span<const uint8_t> packet, size_t datagram_size) {
    const int64_t now_us = tarn_now_us();
    session_bytes_ += datagram_size;
    if (clips_ && clips_->packet(packet, now_us)) return;
    receiver_.packet(packet, now_us);
}

std::optional<int64_t> client_program::pass(int64_t now_us, const tarn_client_status &status) {
    if (status.connected != 0) last_status_ = status;
    if (clips_) clips_->advance(status.connected != 0 ? status.session : 0, status.payload, now_us);
    if (finished(now_us, status)) return std::nullopt;
    if (!link_.up_us()) return second_us;
    const int64_t report_in_us = report_us_ + second_us - now_us;
    if (report_in_us > 0) return report_in_us;
    each_second(now_us, status);
    return second_us;
}

bool client_program::finished(int64_t now_us, const tarn_client_status &status) {
    if (stop_requested()) return true;
    if (receiver_.over(now_us) && !(clips_ && clips_->busy(now_us))) return true;
    if (const auto failure = link_.failure(now_us, status)) {
        error_ = *failure;
        return true;
    }
    return options_.seconds > 0 && link_.up_us() &&
           now_us - *link_.up_us() >= static_cast<int64_t>(options_.seconds * 1e6);
}

void client_program::each_second(int64_t now_us, const tarn_client_status &status) {
    const receiver_figures figures = receiver_.figures();
    report(now_us, status, figures);
    tell_host(figures, false);
    reported_ = figures;
    reported_bytes_ = session_bytes_;
    report_us_ = now_us;
}

// Three decimals are all that these figures are good for.
double rounded(double value) { return std::round(value * 1000) / 1000; }

double loss_percent(uint64_t sent, uint64_t came) {
    return sent > 0 ? 100.0 * static_cast<double>(sent - came) / static_cast<double>(sent) : 0.0;
}

void client_program::report(int64_t now_us, const tarn_client_status &status,
                            const receiver_figures &figures) {
    const auto elapsed_us = static_cast<double>(now_us - report_us_);
    link_.note(format(
        "%4.0f s  %s %s  rtt %.1f ms  %.2f Mbit/s  %.1f fps  loss %.1f %%  repaired %llu  frames lost %llu",
        session_seconds(now_us), tarn_path_name(status.path), addr_text(status.addr).c_str(),
        status.rtt_us / 1000.0, static_cast<double>(session_bytes_ - reported_bytes_) * 8 / elapsed_us,
        static_cast<double>(figures.frames - reported_.frames) * 1e6 / elapsed_us,
        loss_percent(figures.sent - reported_.sent, figures.came - reported_.came),
        static_cast<unsigned long long>(figures.repaired - reported_.repaired),
        static_cast<unsigned long long>(figures.frames_lost - reported_.frames_lost)));
}

void client_program::tell_host(const receiver_figures &figures, bool done) {
    std::array<uint32_t, TARN_CLIENT_STATS_WORDS> words{};
    words[stats_frames] = static_cast<uint32_t>(figures.frames);
    words[stats_lost] = static_cast<uint32_t>(figures.frames_lost);
    words[stats_received] = static_cast<uint32_t>(figures.packets);
    words[stats_repaired] = static_cast<uint32_t>(figures.repaired);
    words[stats_bad] = static_cast<uint32_t>(figures.bad);
    words[stats_state] = done ? stats_done : 0;
    std::array<uint8_t, TARN_CLIENT_STATS_SIZE> packet;
    const tarn_header header{};
    tarn_encode_client_stats(packet.data(), packet.size(), &header, words.data());
    link_.send(packet);
}

// Keeps where the host was met. The stream matters more: a list that can't be kept is told and no error.
void client_program::remember() {
    try {
        const bool known = !options_.key.empty();
        remember_host(store_, *target_.key, known ? target_.label : "", last_status_.path, last_status_.addr);
    } catch (const std::exception &error) {
        link_.note(std::string("this host is not remembered: ") + error.what());
    }
}

int client_program::finish() {
    receiver_.close();
    const receiver_figures figures = receiver_.figures();
    const double elapsed_s = session_seconds(tarn_now_us());
    const bool was_up = link_.up_us().has_value();
    if (was_up) {
        // Unacknowledged, so told three times: a host that misses it repeats the end for some seconds.
        for (int i = 0; i < 3; i++)
            tell_host(figures, true);
        remember();
    }
    if (options_.save) {
        file_.close();
        if (!file_ && error_.empty()) error_ = "can't write " + save_name() + ": is the disk full?";
    }
    if (clips_ && clips_->failed() > 0 && error_.empty()) error_ = "a file of the clipboard was not sent";
    if (frames_differ_ > 0 && error_.empty())
        error_ = format("%llu frames differ from those of %s",
                        static_cast<unsigned long long>(frames_differ_), utf8(*options_.compare).c_str());
    const double loss = loss_percent(figures.sent, figures.came);
    if (was_up)
        link_.note(format(
            "%s: %llu frames, %llu bytes in %.1f s; %llu frames lost; loss %.1f %%, %llu shards repaired",
            figures.ended ? "the stream has ended" : "stopped",
            static_cast<unsigned long long>(figures.frames), static_cast<unsigned long long>(figures.bytes),
            elapsed_s, static_cast<unsigned long long>(figures.frames_lost), loss,
            static_cast<unsigned long long>(figures.repaired)));
    if (options_.link.json) print_summary(figures, elapsed_s, loss);
    if (!error_.empty()) say("tarn-client: " + error_);
    return error_.empty() && was_up ? 0 : 1;
}

void client_program::print_summary(const receiver_figures &figures, double elapsed_s, double loss) const {
    nlohmann::ordered_json moves = nlohmann::ordered_json::array();
    for (const path_move &move : moves_)
        moves.push_back({{"seconds", rounded(move.seconds)},
                         {"path", tarn_path_name(move.path)},
                         {"endpoint", addr_text(move.addr)}});
    const double mbits = elapsed_s > 0 ? static_cast<double>(session_bytes_) * 8 / 1e6 / elapsed_s : 0.0;
    const double fps = elapsed_s > 0 ? static_cast<double>(figures.frames) / elapsed_s : 0.0;
    print_json({{"connected", link_.up_us().has_value()},
                {"ended", figures.ended},
                {"error", error_},
                {"moves", moves},
                {"path", tarn_path_name(last_status_.path)},
                {"endpoint", addr_text(last_status_.addr)},
                {"rtt_us", last_status_.rtt_us},
                {"seconds", rounded(elapsed_s)},
                {"frames", figures.frames},
                {"bytes", figures.bytes},
                {"fps", rounded(fps)},
                {"mbit_s", rounded(mbits)},
                {"frames_lost", figures.frames_lost},
                {"frames_differ", frames_differ_},
                {"datagrams", figures.packets},
                {"loss_percent", rounded(loss)},
                {"shards_repaired", figures.repaired},
                {"bad_packets", figures.bad},
                {"clips_sent", clips_ ? clips_->sent() : 0},
                {"clips_received", clips_ ? clips_->received() : 0}});
}

} // namespace

int connect(const directory &store, const connect_options &options) {
    return client_program(store, options).run();
}

} // namespace app
