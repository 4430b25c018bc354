// Searching the LAN for hosts by broadcast. What answers is a hint where a host may be, and no more.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <tarnglider/conn_addr.h>

#include "common/udp_loop.h"

namespace app {

struct found_host {
    std::string name;
    tarn_addr addr{};
    uint32_t lan_id = 0;
    bool window = false;   // its pairing window is open
    bool password = false; // it has a pairing password
};

class lan_search {
public:
    explicit lan_search(uint16_t port);

    // Asks once: this machine, all of the LAN, and the broadcast address of each network of 256 addresses that this
    // machine is in. A system that doesn't let a broadcast out makes the search poorer, not fail.
    void ask(const udp_socket &socket) const;

    // Reads an answer to this search; false if it is none.
    bool answer(std::span<const uint8_t> packet, const tarn_addr &from, found_host &out) const;

private:
    uint16_t port_;
    uint32_t nonce_;
};

// Asks for some 1.5 seconds; each host once.
std::vector<found_host> search_lan(uint16_t port);

} // namespace app
