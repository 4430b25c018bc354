// The status numbers of rendezvous servers in plain words.
#pragma once

#include <string>

namespace app {

// What a server's error to a host or a client means, for the person who reads it.
std::string server_error_text(int status);

} // namespace app
