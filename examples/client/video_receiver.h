// The client's end of a video stream: packets of the session in, whole frames in order out, and the account of what
// was lost. It knows no clock, no socket and no keys: time is passed in. One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include <tarnglider/video_transport.h>

#include "client/shard_tally.h"

namespace app {

struct receiver_figures {
    uint64_t frames = 0; // delivered
    uint64_t bytes = 0;  // of video
    uint64_t frames_lost = 0;
    uint64_t packets = 0;  // video packets that came
    uint64_t repaired = 0; // shards rebuilt from parity
    uint64_t bad = 0;      // packets that contradict themselves
    uint64_t sent = 0;     // of the frames that are settled: packets that the host sent,
    uint64_t came = 0;     //   and those of them that came
    bool ended = false;    // the host told the end of the stream, and all that could come has come
};

class video_receiver {
public:
    using frame_sink = std::function<void(std::span<const uint8_t> frame)>;

    explicit video_receiver(frame_sink sink);

    // Takes one opened packet; whatever is no part of a stream is ignored.
    void packet(std::span<const uint8_t> data, int64_t now_us);

    // True once the stream is over: its last frame came, or half a second passed since the host first told the end,
    // in which stragglers may come.
    bool over(int64_t now_us) const;

    // Settles the account; no packet is to come afterwards.
    void close();

    receiver_figures figures() const;

    // Number of the frame that the sink is being given.
    uint32_t frame_id() const { return next_id_ - 1; }

private:
    void deliver();

    struct reassembler_end {
        void operator()(tarn_reassembler *r) const { tarn_reassembler_destroy(r); }
    };

    frame_sink sink_;
    std::unique_ptr<tarn_reassembler, reassembler_end> reassembler_;
    shard_tally tally_;
    uint64_t frames_ = 0;
    uint64_t bytes_ = 0;
    uint64_t packets_ = 0;
    uint32_t next_id_ = 0; // behind the last frame that the sink was given
    bool closed_ = false;
    std::optional<uint32_t> total_; // frames of the stream, once the host told them
    int64_t total_us_ = 0;          // when it first did
};

} // namespace app
