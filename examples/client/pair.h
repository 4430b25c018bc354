// The command "pair" of tarn-client: proves a PIN or password to a host, and keeps the host.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "client/host_link.h"

namespace app {

struct pair_options {
    link_options link;
    std::string address;   // where the host is, or
    bool discover = false; // search for it on the LAN, or by its code on the servers
    uint16_t port = 0;     // of the search
    std::string code;      // the host's key code
    int kind = TARN_PAIR_AUTOMATIC;
    std::optional<std::filesystem::path> secret_file;
    std::string as; // the name to keep the host under; empty: its own
};

// Returns the exit code; throws std::runtime_error.
int pair(const directory &store, const pair_options &options);

} // namespace app
