// Searching the LAN for hosts by broadcast.
#include "client/lan_search.h"

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>

#include <tarnglider/clock.h>
#include <tarnglider/protocol.h>
#include <tarnglider/rendezvous.h>
#include <tarnglider/secure.h>

#include "common/platform.h"
#include "common/stream_protocol.h"

namespace app {
namespace {

constexpr int64_t search_us = 1500000;
constexpr int64_t repeat_us = 500000;

tarn_addr address4(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint16_t port) {
    tarn_addr addr{};
    addr.family = 4;
    addr.port = port;
    addr.ip[0] = a;
    addr.ip[1] = b;
    addr.ip[2] = c;
    addr.ip[3] = d;
    return addr;
}

} // namespace

lan_search::lan_search(uint16_t port) : port_(port), nonce_(0) {
    if (tarn_random_bytes(&nonce_, sizeof nonce_) != TARN_OK)
        throw std::runtime_error("the system gives no random numbers");
}

void lan_search::ask(const udp_socket &socket) const {
    std::array<uint8_t, TARN_DISCOVER_SIZE> packet{};
    const tarn_header header = {TARN_PKT_DISCOVER, 0, 0};
    tarn_encode_discover(packet.data(), packet.size(), &header, nonce_);
    std::array<tarn_addr, 16> own{};
    const int count = tarn_net_local_endpoints(own.data(), static_cast<int>(own.size()), port_);
    socket.send(address4(127, 0, 0, 1, port_), packet);
    socket.send(address4(255, 255, 255, 255, port_), packet);
    for (int i = 0; i < count; i++) {
        const uint8_t *ip = own[static_cast<size_t>(i)].ip;
        socket.send(address4(ip[0], ip[1], ip[2], 255, port_), packet);
    }
}

bool lan_search::answer(std::span<const uint8_t> packet, const tarn_addr &from, found_host &out) const {
    tarn_discover_reply reply{};
    tarn_header header{};
    if (tarn_decode_header(packet.data(), packet.size(), &header) != 0 ||
        header.type != TARN_PKT_DISCOVER_REPLY ||
        tarn_decode_discover_reply(packet.data(), packet.size(), &reply) != 0 || reply.nonce != nonce_)
        return false;
    out.name = reply.name;
    // A name is shown to a person; what could move a cursor isn't.
    std::replace_if(
        out.name.begin(), out.name.end(), [](char c) { return (c >= 0 && c < ' ') || c == 127; }, ' ');
    out.addr = from;
    out.lan_id = reply.reply_a;
    out.window = (reply.reply_e & discover_window) != 0;
    out.password = (reply.reply_e & discover_password) != 0;
    return true;
}

std::vector<found_host> search_lan(uint16_t port) {
    const udp_socket socket(nullptr, 0);
    const lan_search search(port);
    std::vector<found_host> hosts;
    const int64_t end_us = tarn_now_us() + search_us;
    int64_t next_us = 0;
    const auto take = [&](std::span<uint8_t> packet, const tarn_addr &from) {
        found_host host;
        if (!search.answer(packet, from, host)) return;
        // One host answers on several of its addresses; the first is the quickest.
        const bool known = std::any_of(hosts.begin(), hosts.end(),
                                       [&](const found_host &h) { return h.lan_id == host.lan_id; });
        if (!known && hosts.size() < 64) hosts.push_back(host);
    };
    run_loop(socket, {take, [&]() -> std::optional<int64_t> {
                          const int64_t now_us = tarn_now_us();
                          if (now_us >= end_us || stop_requested()) return std::nullopt;
                          if (now_us >= next_us) {
                              search.ask(socket);
                              next_us = now_us + repeat_us;
                          }
                          return std::min(next_us, end_us) - now_us;
                      }});
    return hosts;
}

} // namespace app
