// One UDP socket and the loop that drives an engine on it: one thread, which waits for datagrams for as long as the
// engine's tick allows. Others may send.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>

#include <tarnglider/conn_addr.h>
#include <tarnglider/netsock.h>

namespace app {

// Owns a socket. Move-only.
class udp_socket {
public:
    // `address` null: all addresses, IPv6 and IPv4 where the system has both. Port 0: any free one. Throws.
    udp_socket(const tarn_addr *address, uint16_t port);
    ~udp_socket() { tarn_udp_close(handle_); }
    udp_socket(const udp_socket &) = delete;
    udp_socket &operator=(const udp_socket &) = delete;

    uint16_t port() const { return tarn_udp_local_port(handle_); }
    uint64_t handle() const { return handle_; }

    // A datagram that the system doesn't take is lost, as any datagram may be. Any thread.
    void send(const tarn_addr &to, std::span<const uint8_t> data) const {
        const std::lock_guard held(sending_);
        tarn_udp_send(handle_, &to, data.data(), static_cast<int>(data.size()));
    }

private:
    uint64_t handle_ = TARN_SOCKET_NONE;
    mutable std::mutex sending_; // one thread of those that send
};

struct loop_hooks {
    // One datagram, in a buffer that the hook may write to.
    std::function<void(std::span<uint8_t> data, const tarn_addr &from)> datagram;
    // Everything that is due by time. Returns the microseconds after which to be called again at the latest, or
    // nothing to end the loop.
    std::function<std::optional<int64_t>()> pass;
};

// Runs until `pass` returns nothing. Throws if the socket fails.
void run_loop(const udp_socket &socket, const loop_hooks &hooks);

} // namespace app
