// One video on its way into one session.
#include "host/video_stream.h"

#include <algorithm>
#include <array>
#include <new>
#include <stdexcept>

#include <tarnglider/protocol.h>

#include "common/stream_protocol.h"

namespace app {
namespace {

// The line rate of a frame's packets, unless the stream itself needs more, and the most that leaves at once: some 48
// datagrams, which fit the receive buffer that an ordinary system gives to a socket.
constexpr double line_rate = 25;    // bytes a microsecond: 200 Mbit/s
constexpr double burst = 64 * 1024; // bytes
constexpr int64_t end_period_us = 100000;
constexpr int64_t end_patience_us = 5000000;

} // namespace

video_stream::video_stream(const video_file &video, const stream_settings &settings, int64_t now_us)
    : video_(video), settings_(settings), start_us_(now_us), due_us_(static_cast<double>(now_us)),
      credit_(burst), credit_us_(now_us) {}

int64_t video_stream::advance(int64_t now_us, size_t payload, const packet_sink &sink) {
    if (state_ == playing) return play(now_us, payload, sink);
    if (state_ == ending) return tell_end(now_us, sink);
    return end_period_us;
}

void video_stream::stop(int64_t now_us) {
    if (state_ == playing) begin_end(now_us);
}

void video_stream::begin_end(int64_t now_us) {
    state_ = ending;
    end_us_ = now_us;
    next_end_us_ = now_us;
}

int64_t video_stream::play(int64_t now_us, size_t payload, const packet_sink &sink) {
    // 20 ms of the rate may gather: some systems wake a program no more often.
    const double most = std::max(burst, rate_ > line_rate ? rate_ * 20000 : 0);
    credit_ = std::min(most, credit_ + rate_ * static_cast<double>(now_us - credit_us_));
    credit_us_ = now_us;
    for (;;) {
        send_packets(sink);
        if (queue_sent_ < queue_.size()) return 1000; // the credit of a millisecond is some packets
        if (next_unit_ == video_.units.size()) {
            begin_end(now_us);
            return tell_end(now_us, sink);
        }
        const auto due = static_cast<int64_t>(due_us_);
        if (due > now_us) return due - now_us;
        cut_frame(payload);
    }
}

void video_stream::cut_frame(size_t payload) {
    if (payload != payload_) {
        packetizer_.reset(tarn_packetizer_create(payload, settings_.fec_percent, settings_.min_parity));
        if (!packetizer_) throw std::bad_alloc();
        payload_ = payload;
    }
    const access_unit &unit = video_.units[next_unit_];
    tarn_frame_info info{};
    info.frame_id = next_id_;
    info.frame_flags = unit.key ? frame_key : 0;
    info.frame_time = static_cast<uint64_t>(due_us_ - static_cast<double>(start_us_));
    queue_.clear();
    queue_sent_ = 0;
    const auto collect = [](void *self, const uint8_t *packet, size_t size) {
        auto &stream = *static_cast<video_stream *>(self);
        stream.queue_.insert(stream.queue_.end(), packet, packet + size);
        stream.packet_size_ = size;
    };
    if (tarn_packetizer_send_frame(packetizer_.get(), 0, &info, video_.bytes.data() + unit.offset, unit.size,
                                   collect, this) < 0)
        throw std::logic_error("the packetizer refused a frame");
    totals_.frames++;
    totals_.bytes += unit.size;
    next_id_++;
    next_unit_++;
    if (settings_.loop && next_unit_ == video_.units.size()) next_unit_ = 0;
    const double interval_us = settings_.bitrate > 0 ? static_cast<double>(unit.size) * 8 / settings_.bitrate
                                                     : 1e6 / (settings_.frame_rate * settings_.speed);
    due_us_ += interval_us;
    // A frame has left before the next one is due, with a quarter to spare.
    rate_ = std::max(line_rate, 1.25 * static_cast<double>(queue_.size()) / interval_us);
}

void video_stream::send_packets(const packet_sink &sink) {
    while (queue_sent_ < queue_.size() && credit_ >= static_cast<double>(packet_size_)) {
        sink({queue_.data() + queue_sent_, packet_size_}, true);
        queue_sent_ += packet_size_;
        credit_ -= static_cast<double>(packet_size_);
        totals_.packets++;
    }
}

int64_t video_stream::tell_end(int64_t now_us, const packet_sink &sink) {
    if (now_us - end_us_ > end_patience_us) {
        state_ = finished;
        return end_period_us;
    }
    if (now_us >= next_end_us_) {
        std::array<uint8_t, TARN_U32_PACKET_SIZE> packet{};
        const tarn_header header = {TARN_PKT_VALUE_A, 0, 0};
        tarn_encode_u32_packet(packet.data(), packet.size(), &header, next_id_);
        sink(packet, false);
        next_end_us_ = now_us + end_period_us;
    }
    return next_end_us_ - now_us;
}

} // namespace app
