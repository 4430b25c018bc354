// The command "serve" of tarn-host: the host engine on a socket, and one video stream for each session.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include <tarnglider/conn_addr.h>

#include "common/directory.h"
#include "host/video_stream.h"

namespace app {

struct serve_options {
    std::filesystem::path video;
    std::optional<tarn_addr> address; // to bind to; all addresses without it
    uint16_t port = 0;
    stream_settings stream;
    std::optional<double> frame_rate; // in place of the video's own
    double loss = 0;                  // percent of the video datagrams to drop
    uint64_t seed = 1;
    bool once = false; // end with the first stream that is over
    bool json = false;
    bool quiet = false;
};

// Serves until it is stopped, or until the first stream's end if `once` is set. Prints one line on standard output
// when it listens. Returns the exit code; throws std::runtime_error.
int serve(const directory &store, const serve_options &options);

} // namespace app
