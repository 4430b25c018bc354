// One video on its way into one session: what is due when, cut into packets, and how it ends. It knows no clock, no
// socket and no keys: time is passed in, packets are handed out. One thread.
//
//   playing   frames go out at their times; packets of one frame leave at the line rate, so that a large frame
//             doesn't flood the buffers on its way
//   ending    all is sent; the end is told again and again until the client knows, or for 5 seconds
//   finished
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include <tarnglider/video_transport.h>

#include "host/video_file.h"

namespace app {

struct stream_settings {
    double frame_rate = 30; // frames a second
    double speed = 1;       // times the frame rate
    double bitrate = 0;     // Mbit/s; above 0 the frames go out at this rate in place of their frame rate
    // Parity. 30 percent and no fewer than 5 shards in a group: at 3 % loss a group of 1 shard is lost once in a
    // thousand million times, one of 15 shards once in some 40,000 times.
    int fec_percent = 30;
    int min_parity = 5;
    bool loop = false; // from the beginning again, for ever
};

struct stream_totals {
    uint64_t frames = 0;
    uint64_t bytes = 0;   // of video
    uint64_t packets = 0; // parity included
};

class video_stream {
public:
    // Takes one plain packet; `shard` says whether it is a part of a frame.
    using packet_sink = std::function<void(std::span<const uint8_t> packet, bool shard)>;

    // The file outlives the stream. The first frame is due at `now_us`.
    video_stream(const video_file &video, const stream_settings &settings, int64_t now_us);

    // Hands out what is due. `payload` is the largest packet that the session's path takes; it may change at any
    // time. Returns the microseconds until something is due again.
    int64_t advance(int64_t now_us, size_t payload, const packet_sink &sink);

    // No further frame; the end is told at once.
    void stop(int64_t now_us);
    // The client needs nothing more.
    void client_done() { state_ = finished; }

    bool done() const { return state_ == finished; }
    const stream_totals &totals() const { return totals_; }

private:
    enum state { playing, ending, finished };

    void cut_frame(size_t payload);
    void send_packets(const packet_sink &sink);
    void begin_end(int64_t now_us);
    int64_t play(int64_t now_us, size_t payload, const packet_sink &sink);
    int64_t tell_end(int64_t now_us, const packet_sink &sink);

    struct packetizer_end {
        void operator()(tarn_packetizer *p) const { tarn_packetizer_destroy(p); }
    };

    const video_file &video_;
    stream_settings settings_;
    stream_totals totals_;
    state state_ = playing;

    size_t next_unit_ = 0;
    uint32_t next_id_ = 0;
    int64_t start_us_;
    double due_us_; // of the next frame; a fraction, so that 29.97 frames a second stay that

    std::unique_ptr<tarn_packetizer, packetizer_end> packetizer_;
    size_t payload_ = 0;
    std::vector<uint8_t> queue_; // packets of one frame, all of the same size
    size_t packet_size_ = 0;
    size_t queue_sent_ = 0; // bytes

    double rate_ = 0; // of packets, in bytes a microsecond
    double credit_;   // bytes that may leave now
    int64_t credit_us_;
    int64_t end_us_ = 0;
    int64_t next_end_us_ = 0;
};

} // namespace app
