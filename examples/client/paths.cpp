// The command "paths" of tarn-client.
#include "client/paths.h"

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include <tarnglider/clock.h>
#include <tarnglider/protocol.h>
#include <tarnglider/rendezvous.h>

#include "common/platform.h"
#include "common/program.h"
#include "common/stream_protocol.h"

namespace app {
namespace {

constexpr int64_t second_us = 1000000;

class paths_program {
public:
    paths_program(const directory &store, const paths_options &options)
        : options_(options), link_(store, options.link, find_host(store.hosts(), options.host, options.key)) {
        if (tarn_client_connect(link_.engine()) != 0)
            throw std::runtime_error("the engine refused to connect");
    }
    int run();

private:
    std::optional<int64_t> pass(int64_t now_us, const tarn_client_status &status);
    void print(int64_t now_us, const tarn_client_status &status) const;
    void tell_host(uint32_t state);
    std::string server_of(const tarn_path_status &path) const;

    const paths_options &options_;
    host_link link_;
    int64_t printed_us_ = 0;
    std::string error_;
};

int paths_program::run() {
    link_.run({[this](const conn_event &event) {
                   if (event.kind == TARN_EV_SESSION_UP) tell_host(stats_no_video);
               },
               [](auto, auto) {},
               [this](int64_t now_us, const tarn_client_status &status) { return pass(now_us, status); }});
    if (link_.up_us()) {
        for (int i = 0; i < 3; i++) // unacknowledged
            tell_host(stats_no_video | stats_done);
    }
    if (!error_.empty()) say("tarn-client: " + error_);
    return error_.empty() && link_.up_us() ? 0 : 1;
}

std::optional<int64_t> paths_program::pass(int64_t now_us, const tarn_client_status &status) {
    if (stop_requested()) return std::nullopt;
    if (const auto failure = link_.failure(now_us, status)) {
        error_ = *failure;
        return std::nullopt;
    }
    if (!link_.up_us()) return second_us;
    if (options_.seconds > 0 && now_us - *link_.up_us() >= static_cast<int64_t>(options_.seconds * 1e6))
        return std::nullopt;
    if (now_us - printed_us_ < second_us) return printed_us_ + second_us - now_us;
    printed_us_ = now_us;
    print(now_us, status);
    tell_host(stats_no_video); // again, should the first word have been lost
    return second_us;
}

std::string paths_program::server_of(const tarn_path_status &path) const {
    if (path.server < 0 || path.server >= link_.relays().count) return "";
    char name[300];
    tarn_relay_server_name(name, sizeof name, &link_.relays().servers[path.server]);
    return name;
}

void paths_program::print(int64_t now_us, const tarn_client_status &status) const {
    const double seconds = static_cast<double>((now_us - *link_.up_us()) / 1000) / 1000;
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    if (!options_.link.json) std::printf("%.0f s\n", seconds);
    for (int i = 0; i < status.path_count; i++) {
        const tarn_path_status &path = status.paths[i];
        const bool active = status.connected != 0 && tarn_rv_endpoint_equal(&path.addr, &status.addr) != 0;
        const std::string server = server_of(path);
        if (options_.link.json) {
            list.push_back({{"path", tarn_path_name(path.path)},
                            {"endpoint", addr_text(path.addr)},
                            {"alive", path.alive != 0},
                            {"active", active},
                            {"rtt_us", path.rtt_us},
                            {"server", server}});
        } else {
            std::printf("  %c %-6s %-28s %s", active ? '*' : ' ', tarn_path_name(path.path),
                        addr_text(path.addr).c_str(), path.alive != 0 ? "alive " : "silent");
            std::printf(path.rtt_us > 0 ? "  %7.1f ms" : "         -  ", path.rtt_us / 1000.0);
            std::printf("%s%s\n", server.empty() ? "" : "  by ", server.c_str());
        }
    }
    if (options_.link.json) print_json({{"seconds", seconds}, {"paths", list}});
    std::fflush(stdout);
}

void paths_program::tell_host(uint32_t state) {
    std::array<uint32_t, TARN_CLIENT_STATS_WORDS> words{};
    words[stats_state] = state;
    std::array<uint8_t, TARN_CLIENT_STATS_SIZE> packet;
    const tarn_header header{};
    tarn_encode_client_stats(packet.data(), packet.size(), &header, words.data());
    link_.send(packet);
}

} // namespace

int show_paths(const directory &store, const paths_options &options) {
    return paths_program(store, options).run();
}

} // namespace app
