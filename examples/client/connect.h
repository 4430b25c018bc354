// The command "connect" of tarn-client: the client engine on a socket, and the video that comes out of its session.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "common/directory.h"
#include "common/text.h"

namespace app {

struct connect_options {
    std::string host; // address or name, with or without a port
    public_key key{};
    std::optional<std::filesystem::path> save;
    double timeout_s = 10; // to wait for a session, and for a host that fell silent
    double seconds = 0;    // to receive; 0: to the stream's end
    bool json = false;
    bool quiet = false;
};

// Receives until the stream ends, the time is over or the program is stopped. Returns the exit code: 0, or 1 if there
// never was a session or the host fell silent. Throws std::runtime_error.
int connect(const directory &store, const connect_options &options);

} // namespace app
