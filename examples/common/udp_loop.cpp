// One UDP socket and the loop that drives an engine on it.
#include "common/udp_loop.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "common/text.h"

namespace app {
namespace {

// Datagrams taken in a row before time gets its turn again.
constexpr int burst_max = 256;

} // namespace

udp_socket::udp_socket(const tarn_addr *address, uint16_t port) {
    // A system without IPv6 still serves IPv4.
    handle_ = tarn_udp_open(address != nullptr ? address->family : 6, address, port);
    if (handle_ == TARN_SOCKET_NONE && address == nullptr) handle_ = tarn_udp_open(4, nullptr, port);
    if (handle_ != TARN_SOCKET_NONE) return;
    const std::string where = address != nullptr ? addr_text(*address) : "port " + std::to_string(port);
    throw std::runtime_error("can't open UDP " + where +
                             ": it is in use, or the address is not of this machine");
}

void run_loop(const udp_socket &socket, const loop_hooks &hooks) {
    std::array<uint8_t, 2048> buffer;
    for (;;) {
        const std::optional<int64_t> wait_us = hooks.pass();
        if (!wait_us) return;
        const uint64_t handle = socket.handle();
        const int64_t wait_ms = (std::clamp<int64_t>(*wait_us, 0, 1000000) + 999) / 1000;
        if (tarn_udp_wait(&handle, 1, static_cast<int>(wait_ms)) < 0)
            throw std::runtime_error("the network socket failed");
        for (int i = 0; i < burst_max; i++) {
            tarn_addr from{};
            const int length = tarn_udp_recv(handle, buffer.data(), buffer.size(), &from);
            if (length < 0) break;
            hooks.datagram({buffer.data(), static_cast<size_t>(length)}, from);
        }
    }
}

} // namespace app
