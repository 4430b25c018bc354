// The command "connect" of tarn-client: a session with a host, the video that comes out of it, and a clipboard on it.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "client/host_link.h"
#include "common/clip_link.h"

namespace app {

struct connect_options {
    link_options link;
    std::string host; // as find_host takes them
    std::string key;
    std::optional<std::filesystem::path> save;
    std::optional<std::filesystem::path> compare; // the video that the host sends
    clip_options clips;
    double seconds = 0; // to receive; 0: to the stream's end
};

// Receives until the stream ends and the clipboard's files are through, the time is over or the program is stopped.
// Returns the exit code: 0, or 1 if there never was a session, the host fell silent, a file of the clipboard couldn't be
// sent or a frame differs. Throws std::runtime_error.
int connect(const directory &store, const connect_options &options);

} // namespace app
