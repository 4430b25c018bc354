// The command "serve" of tarn-host: the host engine on a socket, and for each session a video stream and a clipboard.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include <tarnglider/conn_addr.h>

#include "common/clip_link.h"
#include "common/directory.h"
#include "host/video_stream.h"

namespace app {

struct serve_options {
    std::optional<std::filesystem::path> video; // without it the host only pairs and exchanges files
    std::string name;                           // to show to clients; empty: the machine's
    std::optional<uint32_t> pair_s;             // opens a pairing window for so long
    relay_list relays;                          // beside those of the folder
    clip_options clips;
    std::optional<tarn_addr> address; // to bind to; all addresses without it
    uint16_t port = 0;
    stream_settings stream;
    std::optional<double> frame_rate; // in place of the video's own
    double loss = 0;                  // percent of the video and clipboard datagrams to drop
    uint64_t seed = 1;
    uint64_t sessions = 0; // end when so many are over; 0: never
    bool json = false;
    bool quiet = false;
};

// Serves until it is stopped, or until its options' number of sessions are over. Prints a line on standard output when it
// listens, for each PIN and for each registration. Returns the exit code; throws std::runtime_error.
int serve(const directory &store, const serve_options &options);

} // namespace app
