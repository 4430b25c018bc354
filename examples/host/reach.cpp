// Where a running host can be reached.
#include "host/reach.h"

#include <algorithm>
#include <utility>

#include <tarnglider/protocol.h>
#include <tarnglider/rendezvous.h>

#include "common/server_text.h"
#include "common/stream_protocol.h"
#include "common/text.h"

namespace app {
namespace {

// Searches answered a second: an answer is some seven times its question, which may carry a false source.
constexpr int answers_max = 20;
constexpr int64_t second_us = 1000000;

std::string server_name(const tarn_server_status &s) {
    const bool literal6 = std::string(s.host).find(':') != std::string::npos;
    return format(literal6 ? "[%s]:%u" : "%s:%u", s.host, static_cast<unsigned>(s.port));
}

} // namespace

host_reach::host_reach(tarn_host *engine, const udp_socket &socket, host_voice &voice,
                       const std::optional<tarn_addr> &address, std::string name, uint32_t lan_id)
    : engine_(engine), socket_(socket), voice_(voice), address_(address), name_(std::move(name)),
      lan_id_(lan_id) {
    offer_lan();
}

void host_reach::start(const tarn_relay_config &relays) {
    told_.fill(TARN_SERVER_REGISTERING);
    for (int i = 0; i < relays.count; i++) {
        char name[300];
        tarn_relay_server_name(name, sizeof name, &relays.servers[i]);
        voice_.note(format("server %s: registering", name));
    }
    resolver_.reset(tarn_resolver_start_host(engine_, &relays));
}

void host_reach::event(const conn_event &event) {
    tarn_server_status status{};
    if (event.kind != TARN_EV_SERVER_REGISTERED ||
        tarn_host_server_status(engine_, event.server, &status) != 0)
        return;
    told_[static_cast<size_t>(event.server)] = TARN_SERVER_REGISTERED;
    voice_.registered(server_name(status), addr_text(event.addr), event.rtt_us);
}

void host_reach::watch() {
    tarn_server_status status{};
    for (int i = 0; tarn_host_server_status(engine_, i, &status) == 0; i++) {
        int32_t &told = told_[static_cast<size_t>(i)];
        if (status.status == told) continue;
        told = status.status;
        const std::string server = "server " + server_name(status) + ": ";
        if (told == TARN_SERVER_UNRESOLVED) voice_.note(server + "its name can't be resolved; trying on");
        if (told == TARN_SERVER_SILENT)
            voice_.note(server + "no answer; is it running, and does the link hold its key? Trying on");
        if (told == TARN_SERVER_ERROR) voice_.note(server + "it refuses: " + server_error_text(status.error));
    }
    offer_lan();
}

void host_reach::offer_lan() {
    std::array<tarn_addr, TARN_LAN_MAX> now{};
    int count = 1;
    if (address_) {
        now[0] = *address_;
        now[0].port = socket_.port();
    } else {
        count = tarn_net_local_endpoints(now.data(), TARN_LAN_MAX, socket_.port());
    }
    const bool same = count == lan_count_ && std::equal(now.begin(), now.end(), lan_.begin(),
                                                        [](const tarn_addr &a, const tarn_addr &b) {
                                                            return tarn_rv_endpoint_equal(&a, &b) != 0;
                                                        });
    if (same) return;
    lan_ = now;
    lan_count_ = count;
    tarn_host_set_lan_endpoints(engine_, lan_.data(), lan_count_);
}

void host_reach::search(std::span<const uint8_t> packet, const tarn_addr &from, int64_t now_us) {
    tarn_discover_reply reply{};
    if (tarn_decode_discover(packet.data(), packet.size(), &reply.nonce) != 0) return;
    if (tarn_addr_path_class(&from) != TARN_PATH_LAN) return;
    if (now_us - answers_since_us_ >= second_us) {
        answers_since_us_ = now_us;
        answers_ = 0;
    }
    if (++answers_ > answers_max) return;
    tarn_host_pairing_state state{};
    tarn_host_pairing_status(engine_, &state);
    reply.reply_a = lan_id_;
    reply.reply_b = socket_.port();
    reply.reply_e = static_cast<uint8_t>((state.open != 0 ? discover_window : 0) |
                                         (state.password_set != 0 ? discover_password : 0));
    tarn_secure_wipe(&state, sizeof state);
    reply.name_len = static_cast<uint8_t>(name_.copy(reply.name, TARN_PKT_NAME_MAX));
    std::array<uint8_t, size_t{TARN_DISCOVER_REPLY_SIZE} + TARN_PKT_NAME_MAX> out;
    const tarn_header header = {TARN_PKT_DISCOVER_REPLY, 0, 0};
    const size_t size = tarn_encode_discover_reply(out.data(), out.size(), &header, &reply);
    socket_.send(from, {out.data(), size});
}

} // namespace app
