// The command "connect" of tarn-client. One thread: the loop of run_loop drives the engine.
#include "client/connect.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include <tarnglider/clock.h>
#include <tarnglider/conn_client.h>
#include <tarnglider/protocol.h>

#include "client/video_receiver.h"
#include "common/platform.h"
#include "common/stream_protocol.h"
#include "common/udp_loop.h"

namespace app {
namespace {

constexpr int64_t second_us = 1000000;

struct client_end {
    void operator()(tarn_client *c) const { tarn_client_destroy(c); }
};

const char *reject_text(int reason) {
    switch (reason) {
    case TARN_HS_REJECT_UNKNOWN:
        return "it doesn't know this client's key; on the host run: tarn-host allow KEY NAME, with the KEY "
               "that "
               "tarn-client key prints";
    case TARN_HS_REJECT_BUSY:
        return "it is busy with another client; try again later";
    default:
        return "for an unknown reason";
    }
}

class client_program {
public:
    client_program(const directory &store, const connect_options &options);
    int run();

private:
    void create_engine();
    void receive(std::span<uint8_t> data, const tarn_addr &from);
    std::optional<int64_t> pass();
    void take_events();
    bool finished(int64_t now_us, const tarn_client_status &status);
    void each_second(int64_t now_us, const tarn_client_status &status);
    void report(int64_t now_us, const tarn_client_status &status, const receiver_figures &figures);
    void tell_host(const receiver_figures &figures, bool done);
    void remember_host();
    int finish();
    std::string save_name() const { return utf8(*options_.save); }
    void note(const std::string &line) const {
        if (!options_.quiet) say("tarn-client: " + line);
    }

    const directory &store_;
    const connect_options &options_;
    tarn_addr host_{};
    udp_socket socket_;
    std::ofstream file_;
    video_receiver receiver_;
    std::unique_ptr<tarn_client, client_end> engine_;

    int64_t start_us_ = tarn_now_us();
    std::optional<int64_t> up_us_; // when the session came up
    int64_t alive_us_ = 0;         // when a path was last seen alive
    int64_t report_us_ = 0;        // when the last report was made,
    receiver_figures reported_;    //   and what it knew
    uint64_t session_bytes_ = 0;   // datagrams of the session
    uint64_t reported_bytes_ = 0;
    int reject_ = 0; // the host's last refusal
    tarn_client_status last_status_{};
    std::string error_;
};

client_program::client_program(const directory &store, const connect_options &options)
    : store_(store), options_(options), socket_(nullptr, 0),
      receiver_([this](std::span<const uint8_t> frame) {
          if (!options_.save) return;
          file_.write(reinterpret_cast<const char *>(frame.data()),
                      static_cast<std::streamsize>(frame.size()));
          if (!file_) throw std::runtime_error("can't write " + save_name() + ": is the disk full?");
      }) {
    if (tarn_net_resolve(options.host.c_str(), default_port, &host_) != 0)
        throw std::runtime_error(
            "can't find the host \"" + options.host +
            "\": give ADDRESS, ADDRESS:PORT, NAME or NAME:PORT, an IPv6 address as [ADDRESS]:PORT");
    if (options.save) {
        file_.open(*options.save, std::ios::binary | std::ios::trunc);
        if (!file_)
            throw std::runtime_error("can't write " + save_name() + ": check the folder and its permissions");
    }
    create_engine();
}

void client_program::create_engine() {
    identity self;
    store_.load_identity(self);
    tarn_client_config config{};
    config.identity = self.keys;
    config.user = this;
    config.send = [](void *user, const tarn_addr *to, const uint8_t *data, size_t size) {
        static_cast<client_program *>(user)->socket_.send(*to, {data, size});
    };
    config.log = [](void *user, const char *line) { static_cast<client_program *>(user)->note(line); };
    config.host_key_known = 1;
    std::copy(options_.key.begin(), options_.key.end(), config.host_key);
    engine_.reset(tarn_client_create(&config));
    tarn_secure_wipe(&config, sizeof config);
    if (!engine_) throw std::runtime_error("not enough memory for the client engine");
    tarn_client_add_candidate(engine_.get(), &host_, TARN_PATH_NONE);
    if (tarn_client_connect(engine_.get()) != 0) throw std::runtime_error("the engine refused to connect");
}

int client_program::run() {
    catch_stop_signals();
    note("connecting to " + addr_text(host_));
    run_loop(socket_, {[this](std::span<uint8_t> data, const tarn_addr &from) { receive(data, from); },
                       [this] { return pass(); }});
    return finish();
}

void client_program::receive(std::span<uint8_t> data, const tarn_addr &from) {
    size_t length = 0;
    tarn_recv_info info{};
    const int result = tarn_client_receive(engine_.get(), data.data(), data.size(), &from, data.data(),
                                           data.size(), &length, &info);
    take_events();
    if (result != TARN_RECV_DATA) return;
    session_bytes_ += data.size();
    receiver_.packet(data.first(length), tarn_now_us());
}

std::optional<int64_t> client_program::pass() {
    const int64_t wait_us = tarn_client_tick(engine_.get());
    take_events();
    const int64_t now_us = tarn_now_us();
    tarn_client_status status{};
    tarn_client_status_get(engine_.get(), &status);
    if (status.connected != 0) last_status_ = status;
    for (int i = 0; i < status.path_count; i++) {
        if (status.paths[i].alive != 0) alive_us_ = now_us;
    }
    if (finished(now_us, status)) return std::nullopt;
    if (!up_us_) return wait_us;
    const int64_t report_in_us = report_us_ + second_us - now_us;
    if (report_in_us > 0) return std::min(wait_us, report_in_us);
    each_second(now_us, status);
    return wait_us;
}

void client_program::take_events() {
    conn_event event{};
    while (tarn_client_poll_event(engine_.get(), &event) != 0) {
        if (event.kind == TARN_EV_HANDSHAKE_REJECTED) {
            if (reject_ != event.detail) note(std::string("the host refuses: ") + reject_text(event.detail));
            reject_ = event.detail;
        }
        if (event.kind != TARN_EV_SESSION_UP || up_us_) continue;
        up_us_ = alive_us_ = report_us_ = tarn_now_us();
    }
}

bool client_program::finished(int64_t now_us, const tarn_client_status &status) {
    const auto timeout_us = static_cast<int64_t>(options_.timeout_s * 1e6);
    if (stop_requested() || receiver_.over(now_us)) return true;
    if (!up_us_) {
        if (now_us - start_us_ <= timeout_us) return false;
        error_ = format("no session with %s within %g s: ", addr_text(host_).c_str(), options_.timeout_s);
        error_ += reject_ != 0 ? std::string("the host refuses: ") + reject_text(reject_)
                               : "no answer; check the address, the port and the host's key";
        return true;
    }
    if (options_.seconds > 0 && now_us - *up_us_ >= static_cast<int64_t>(options_.seconds * 1e6)) return true;
    if (now_us - alive_us_ <= timeout_us) return false;
    error_ =
        format("the host at %s fell silent for %g s", addr_text(status.addr).c_str(), options_.timeout_s);
    return true;
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
    note(format(
        "%4.0f s  %s %s  rtt %.1f ms  %.2f Mbit/s  %.1f fps  loss %.1f %%  repaired %llu  frames lost %llu",
        static_cast<double>(now_us - *up_us_) / 1e6, tarn_path_name(status.path),
        addr_text(status.addr).c_str(), status.rtt_us / 1000.0,
        static_cast<double>(session_bytes_ - reported_bytes_) * 8 / elapsed_us,
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
    std::array<uint8_t, size_t{TARN_CLIENT_STATS_SIZE} + TARN_SEAL_OVERHEAD> packet;
    const tarn_header header{};
    const size_t plain = tarn_encode_client_stats(packet.data(), packet.size(), &header, words.data());
    tarn_addr to{};
    const size_t size =
        tarn_client_seal(engine_.get(), 0, packet.data(), plain, packet.data(), packet.size(), &to);
    if (size > 0) socket_.send(to, {packet.data(), size});
}

// Keeps where the host was met. The stream matters more: a list that can't be kept is told and no error.
void client_program::remember_host() {
    try {
        tarn_host_list list = store_.hosts();
        const int index = tarn_host_list_find(&list, options_.key.data());
        tarn_host_entry entry{};
        if (index >= 0) {
            entry = list.entries[index];
        } else {
            std::copy(options_.key.begin(), options_.key.end(), entry.key);
            options_.host.copy(entry.name, sizeof entry.name - 1);
        }
        (last_status_.path == TARN_PATH_LAN ? entry.lan_addr : entry.direct_addr) = last_status_.addr;
        entry.last_seen = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(
                                                    std::chrono::system_clock::now().time_since_epoch())
                                                    .count());
        if (tarn_host_list_put(&list, &entry) < 0) throw std::runtime_error("the list of hosts is full");
        store_.save(list);
    } catch (const std::exception &error) {
        note(std::string("this host is not remembered: ") + error.what());
    }
}

int client_program::finish() {
    receiver_.close();
    const receiver_figures figures = receiver_.figures();
    const double elapsed_s = up_us_ ? static_cast<double>(tarn_now_us() - *up_us_) / 1e6 : 0.0;
    if (up_us_) {
        // Unacknowledged, so told three times: a host that misses it repeats the end for some seconds.
        for (int i = 0; i < 3; i++)
            tell_host(figures, true);
        remember_host();
    }
    if (options_.save) {
        file_.close();
        if (!file_ && error_.empty()) error_ = "can't write " + save_name() + ": is the disk full?";
    }
    const double mbits = elapsed_s > 0 ? static_cast<double>(session_bytes_) * 8 / 1e6 / elapsed_s : 0.0;
    const double fps = elapsed_s > 0 ? static_cast<double>(figures.frames) / elapsed_s : 0.0;
    const double loss = loss_percent(figures.sent, figures.came);
    if (up_us_)
        note(format(
            "%s: %llu frames, %llu bytes in %.1f s; %llu frames lost; loss %.1f %%, %llu shards repaired",
            figures.ended ? "the stream has ended" : "stopped",
            static_cast<unsigned long long>(figures.frames), static_cast<unsigned long long>(figures.bytes),
            elapsed_s, static_cast<unsigned long long>(figures.frames_lost), loss,
            static_cast<unsigned long long>(figures.repaired)));
    if (options_.json) {
        const nlohmann::ordered_json summary = {{"connected", up_us_.has_value()},
                                                {"ended", figures.ended},
                                                {"error", error_},
                                                {"path", tarn_path_name(last_status_.path)},
                                                {"endpoint", addr_text(last_status_.addr)},
                                                {"rtt_us", last_status_.rtt_us},
                                                {"seconds", rounded(elapsed_s)},
                                                {"frames", figures.frames},
                                                {"bytes", figures.bytes},
                                                {"fps", rounded(fps)},
                                                {"mbit_s", rounded(mbits)},
                                                {"frames_lost", figures.frames_lost},
                                                {"datagrams", figures.packets},
                                                {"loss_percent", rounded(loss)},
                                                {"shards_repaired", figures.repaired},
                                                {"bad_packets", figures.bad}};
        std::printf("%s\n", summary.dump().c_str());
    }
    if (!error_.empty()) say("tarn-client: " + error_);
    return error_.empty() && up_us_ ? 0 : 1;
}

} // namespace

int connect(const directory &store, const connect_options &options) {
    return client_program(store, options).run();
}

} // namespace app
