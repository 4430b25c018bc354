// The command "serve" of tarn-host: a running host whose store is a folder and whose voice are standard output and error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "common/directory.h"
#include "host/host_server.h"

namespace app {

struct serve_options {
    server_settings server;                     // but for the video
    std::optional<std::filesystem::path> video; // without it the host only pairs and exchanges files
    std::optional<double> frame_rate;           // in place of the video's own
    std::optional<uint32_t> pair_s;             // opens a pairing window for so long
    relay_list relays;                          // beside those of the folder
    bool json = false;
    bool quiet = false;
};

// Serves until it is stopped, or until its options' number of sessions are over. Prints a line on standard output when it
// listens, for each PIN and for each registration. Returns the exit code; throws std::runtime_error.
int serve(const directory &folder, serve_options &options);

} // namespace app
