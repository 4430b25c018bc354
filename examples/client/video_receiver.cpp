// The client's end of a video stream.
#include "client/video_receiver.h"

#include <new>
#include <utility>

#include <tarnglider/protocol.h>

#include "common/stream_protocol.h"

namespace app {
namespace {

constexpr int64_t stragglers_us = 500000;

} // namespace

video_receiver::video_receiver(frame_sink sink)
    : sink_(std::move(sink)), reassembler_(tarn_reassembler_create(frame_size_max)) {
    if (!reassembler_) throw std::bad_alloc();
}

void video_receiver::packet(std::span<const uint8_t> data, int64_t now_us) {
    tarn_header header{};
    if (tarn_decode_header(data.data(), data.size(), &header) != 0) return;
    uint32_t total = 0;
    if (header.type == TARN_PKT_VALUE_A && tarn_decode_u32_packet(data.data(), data.size(), &total) == 0 &&
        !total_) {
        total_ = total;
        total_us_ = now_us;
    }
    if (header.type != TARN_PKT_VIDEO_SHARD) return;
    packets_++;
    const int result = tarn_reassembler_push(reassembler_.get(), data.data(), data.size());
    tarn_video_shard shard{};
    if (result < 0 || tarn_decode_video_shard(data.data(), data.size(), &shard, nullptr, nullptr) != 0)
        return;
    tally_.add(shard);
    if (result == 1) deliver();
}

void video_receiver::deliver() {
    tarn_frame frame{};
    while (tarn_reassembler_pop(reassembler_.get(), &frame, nullptr) == 1) {
        next_id_ = frame.frame_id + 1;
        sink_({frame.data, static_cast<size_t>(frame.size)});
        frames_++;
        bytes_ += frame.size;
    }
}

bool video_receiver::over(int64_t now_us) const {
    return total_ && (next_id_ >= *total_ || now_us - total_us_ > stragglers_us);
}

void video_receiver::close() {
    tally_.close();
    closed_ = true;
}

receiver_figures video_receiver::figures() const {
    tarn_reassembler_stats stats{};
    tarn_reassembler_get_stats(reassembler_.get(), &stats);
    receiver_figures out;
    out.frames = frames_;
    out.bytes = bytes_;
    // Ids count from 0, so every id below the last one delivered that wasn't delivered is a lost frame; those behind
    // it are lost only when the stream is over.
    const uint64_t ids = closed_ && total_ && *total_ > next_id_ ? *total_ : next_id_;
    out.frames_lost = ids - frames_;
    out.packets = packets_;
    out.repaired = stats.shards_recovered;
    out.bad = stats.bad_packets;
    out.sent = tally_.sent();
    out.came = tally_.came();
    out.ended = closed_ && total_.has_value();
    return out;
}

} // namespace app
