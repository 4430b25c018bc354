// The command "paths" of tarn-client: every way to a host, live.
#pragma once

#include <string>

#include "client/host_link.h"

namespace app {

struct paths_options {
    link_options link;
    std::string host; // as find_host takes them
    std::string key;
    double seconds = 0; // 0: until stopped
};

// Prints a table once a second. Returns the exit code; throws std::runtime_error.
int show_paths(const directory &store, const paths_options &options);

} // namespace app
