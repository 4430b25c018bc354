// How much of a video stream the network lost, told from the packets that did arrive: each says how many its group
// has. One thread.
#pragma once

#include <bitset>
#include <cstdint>
#include <map>
#include <vector>

#include <tarnglider/protocol.h>

namespace app {

class shard_tally {
public:
    // Takes the fixed part of one packet; repeats and stragglers of frames long settled change nothing.
    void add(const tarn_video_shard &shard);

    // Settles the frames that are still open. Nothing is to be added afterwards.
    void close();

    // Packets of settled frames: those that the host sent, and those that came. A frame of which nothing came isn't
    // in either number.
    uint64_t sent() const { return sent_; }
    uint64_t came() const { return came_; }

private:
    struct group {
        std::bitset<256> seen;
        uint32_t size = 0; // data and parity; 0 while nothing of it came
    };

    void settle(const std::vector<group> &groups);

    std::map<uint32_t, std::vector<group>> open_; // by frame id, the newest few
    bool any_settled_ = false;
    uint32_t settled_to_ = 0; // newest settled id
    uint64_t sent_ = 0;
    uint64_t came_ = 0;
};

} // namespace app
