// How a frame is divided: the arithmetic that packetizer and reassembler share. Everything follows from the
// frame's size and the size of a shard, so that the receiver can hold a packet against it. Pure functions.
// All sums are of 64 bits: a frame may have 0xFFFFFFFF bytes.
#ifndef TARN_VIDEO_INTERNAL_H
#define TARN_VIDEO_INTERNAL_H

#include <stddef.h>
#include <stdint.h>
#include <tarnglider/fec.h>
#include <tarnglider/protocol.h>
#include <tarnglider/video_transport.h>

// The longest shard, 1430 bytes.
constexpr uint32_t VIDEO_MAX_SHARD = uint32_t{TARN_VIDEO_MAX_PACKET} - uint32_t{TARN_VIDEO_SHARD_HEADER};

// From this many shards on (less 63) the number of groups wouldn't fit its 16 bits.
constexpr uint64_t VIDEO_SHARDS_LIMIT = 0x400000;

constexpr uint64_t divide_up(uint64_t a, uint64_t b) { return (a + b - 1) / b; }

// Groups of nearly equal size: the first `extra` have base + 1 data shards, the others `base`.
struct video_division {
    uint32_t shard_size; // bytes
    uint32_t shards;     // in the frame
    uint32_t groups;
    uint32_t base;
    uint32_t extra;

    uint32_t data_shards(uint32_t group) const { return base + (group < extra ? 1 : 0); }
    uint64_t first_shard(uint32_t group) const {
        return uint64_t{base} * group + (group < extra ? group : extra);
    }
    // Byte offset in the frame. It is below the frame's size, since every group has a shard that begins
    // there.
    uint64_t offset(uint32_t group) const { return first_shard(group) * shard_size; }
};

// Divides a frame of 1 to 0xFFFFFFFF bytes into shards of `shard_size`, above 0. Returns false for too many
// shards.
inline bool video_divide(uint64_t frame_size, uint32_t shard_size, video_division *out) {
    const uint64_t shards = divide_up(frame_size, shard_size);
    if (shards + 63 >= VIDEO_SHARDS_LIMIT) return false;
    out->shard_size = shard_size;
    out->shards = static_cast<uint32_t>(shards);
    out->groups = (out->shards + 63) / TARN_FEC_MAX_DATA;
    out->base = out->shards / out->groups;
    out->extra = out->shards % out->groups;
    return true;
}

#endif
