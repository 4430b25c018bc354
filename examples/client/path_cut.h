// Cuts every path but those through a server for a while, on purpose, to show what a session does then.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <tarnglider/conn_client.h>

namespace app {

struct cut_window {
    double at_s = 0; // after the session came up
    double for_s = 0;
};

// Reads "AT:SECONDS"; throws usage_error.
cut_window parse_cut(const std::string &text);

class path_cut {
public:
    explicit path_cut(cut_window window) : window_(window) {}

    // To be called again and again with what is known: seconds since the session came up, and the paths.
    void update(double session_s, const tarn_client_status &status);

    // Is a datagram to or from this endpoint lost? Any thread.
    bool drops(const tarn_addr &addr) const;

private:
    cut_window window_;
    mutable std::mutex lock_; // guards the rest
    bool active_ = false;
    std::vector<tarn_addr> spared_;
};

} // namespace app
