// The video reassembler against a sequence of packets of any content. Input: packets, each behind its length
// as u16, little-endian. A length of 0xFFFF pops a frame instead, so that slots are freed at odd moments.
#include <tarnglider/video_transport.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace {

constexpr size_t MAX_FRAME = 20000;

void require(bool holds) {
    if (!holds) abort();
}

// Reads every byte of the frame, so that the sanitizer sees them.
uint8_t sum_of(const tarn_frame &frame) {
    uint8_t sum = 0;
    for (uint64_t i = 0; i < frame.size; i++) {
        sum = static_cast<uint8_t>(sum + frame.data[i]);
    }
    return sum;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    tarn_reassembler *r = tarn_reassembler_create(MAX_FRAME);
    require(r != nullptr);
    uint64_t pushed = 0, popped = 0;
    int waiting = 0;
    volatile uint8_t sink = 0;
    while (size >= 2) {
        size_t length = static_cast<size_t>(data[0] | data[1] << 8);
        const bool pop = length == 0xFFFF;
        data += 2;
        size -= 2;
        if (pop) {
            tarn_frame frame;
            uint32_t lost;
            const int got = tarn_reassembler_pop(r, &frame, &lost);
            require(got == (waiting > 0));
            if (!got) continue;
            popped++;
            require(frame.size >= 1 && frame.size <= MAX_FRAME);
            sink = static_cast<uint8_t>(sink + sum_of(frame));
            waiting = 0; // unknown until the next push; an empty pop shows below that it was the last one
            while (tarn_reassembler_pop(r, &frame, nullptr) == 1) {
                popped++;
                sink = static_cast<uint8_t>(sink + sum_of(frame));
            }
            continue;
        }
        if (length > size) length = size;
        tarn_reassembler_stats before, after;
        tarn_reassembler_get_stats(r, &before);
        const std::unique_ptr<uint8_t[]> packet(new uint8_t[length]); // ends where the packet ends
        for (size_t i = 0; i < length; i++) {
            packet[i] = data[i];
        }
        const int result = tarn_reassembler_push(r, packet.get(), length);
        tarn_reassembler_get_stats(r, &after);
        pushed++;
        require(result >= -1 && result <= 1);
        require((result < 0) == (after.bad_packets == before.bad_packets + 1));
        require(after.bad_packets + after.shards_received <= pushed + before.bad_packets + 1);
        require(after.shards_received - before.shards_received <= 1);
        require(after.frames_completed - before.frames_completed <= 1);
        require(after.frames_completed >= popped);
        if (result >= 0) waiting = result;
        data += length;
        size -= length;
    }
    tarn_reassembler_destroy(r);
    return 0;
}
