/* Video transport: cuts encoded frames into packets with parity, and rebuilds the frames from whatever
 * arrives.
 *
 * A frame is cut into shards of equal size, the shards into groups of at most 64 that differ by at most one
 * shard, and each group gets parity shards (<tarnglider/fec.h>). Every packet is a TARN_PKT_VIDEO_SHARD: 42
 * bytes that describe the whole division, then one shard. Nothing is retransmitted: a group that loses more
 * shards than it has parity loses the frame. Packets may arrive in any order and more than once; frames come
 * out whole and in order.
 *
 * The caller seals and sends each packet, and opens each received one before it pushes it. Choose the packet
 * size so that a sealed packet fits the path (tarn_path_payload).
 *
 * Neither object has a thread, a lock or a timer: one thread at a time for each object. Frame ids are
 * compared by signed 32-bit difference, so they may wrap. */
#ifndef TARNGLIDER_VIDEO_TRANSPORT_H
#define TARNGLIDER_VIDEO_TRANSPORT_H

#include <stddef.h>
#include <stdint.h>

#include <tarnglider/api.h>

TARN_BEGIN_DECLS

enum {
    TARN_VIDEO_MIN_PACKET = 43,   /* the fixed part and one byte */
    TARN_VIDEO_MAX_PACKET = 1472, /* UDP payload of a 1500-byte IPv4 datagram */
    TARN_VIDEO_SLOTS = 8          /* frames under construction or waiting at one time */
};

/* What travels unchanged with a frame. Flags, time and aux mean what the two programs agree on. */
typedef struct tarn_frame_info {
    uint32_t frame_id; /* one more for each frame */
    uint8_t frame_flags;
    uint64_t frame_time;
    uint32_t frame_aux;
} tarn_frame_info;

/* One delivered frame. */
typedef struct tarn_frame {
    const uint8_t *data; /* owned by the reassembler, valid until its next push or its end */
    uint64_t size;       /* bytes */
    uint32_t frame_id;
    uint8_t frame_flags;
    uint64_t frame_time;
    uint32_t frame_aux;
    uint32_t recovered; /* data shards of this frame that parity rebuilt */
} tarn_frame;

typedef struct tarn_reassembler_stats {
    uint64_t frames_completed;
    uint64_t frames_lost;      /* sum of the gaps in frame ids, counted when a frame completes */
    uint64_t shards_received;  /* new ones; duplicates don't count */
    uint64_t shards_recovered; /* data shards that parity rebuilt */
    uint64_t bad_packets;      /* malformed or contradictory */
} tarn_reassembler_stats;

typedef struct tarn_packetizer tarn_packetizer;
typedef struct tarn_reassembler tarn_reassembler;

/* Takes one packet of `len` bytes, which is valid only during the call. */
typedef void (*tarn_packet_fn)(void *context, const uint8_t *packet, size_t len);

/* Makes a packetizer, with all the memory that it will ever need (some 256 packets).
 *   packet_size   the largest packet in bytes, 43 to 1472
 *   fec_percent   parity shards in percent of the data shards, rounded up; clamped to 0 to 1000
 *   min_parity    least parity shards of a group; clamped to 0 to 255
 * A group never has more than 255 shards in all; parity gives way.
 * Returns null if packet_size is out of range or memory fails. */
TARN_API tarn_packetizer *tarn_packetizer_create(size_t packet_size, int fec_percent, int min_parity);

/* Changes the amount of parity, with the same clamps, from the next frame on. */
TARN_API void tarn_packetizer_set_fec(tarn_packetizer *packetizer, int fec_percent, int min_parity);

/* Cuts one frame and hands each packet to `send`, synchronously, group by group, data before parity, as fast
 * as `send` takes them. Allocates nothing.
 *   session   word of the packet header
 *   info      copied into every packet
 *   data      `size` bytes, 1 to 0xFFFFFFFF, only read
 *   send      called once for each packet, with `context`
 * Returns the number of packets; -1 for a null argument (`context` may be null), a size out of range, or a
 * frame of more than 4,194,240 shards, and then has sent nothing. */
TARN_API int tarn_packetizer_send_frame(tarn_packetizer *packetizer, uint32_t session,
                                        const tarn_frame_info *info, const uint8_t *data, size_t size,
                                        tarn_packet_fn send, void *context);

/* Accepts null. */
TARN_API void tarn_packetizer_destroy(tarn_packetizer *packetizer);

/* Makes a reassembler.
 *   max_frame   largest frame in bytes that it accepts, 1 to 0xFFFFFFFF
 * Each of its 8 slots grows, on demand and for good, up to two buffers of max_frame + 1430 bytes and one
 * record for each group of the frame. Once the buffers fit the stream, nothing is allocated any more.
 * Returns null if max_frame is out of range or memory fails. */
TARN_API tarn_reassembler *tarn_reassembler_create(size_t max_frame);

/* Takes one opened packet; it may hold anything.
 * Returns -1 for a packet that is malformed, contradicts its own arithmetic or the packets of its frame
 * before it, which counts as bad; else 1 if at least one complete frame is waiting, else 0. Packets that are
 * too late, repeated, or find no memory are ignored. A frame that completes releases the older incomplete
 * ones: they can't be shown any more. */
TARN_API int tarn_reassembler_push(tarn_reassembler *reassembler, const uint8_t *packet, size_t len);

/* Takes out the oldest complete frame.
 *   frame   filled on success; its data is valid until the next push
 *   lost    may be null; on success the number of frame ids skipped since the frame delivered last
 * Returns 1; 0 with both untouched if nothing is waiting. */
TARN_API int tarn_reassembler_pop(tarn_reassembler *reassembler, tarn_frame *frame, uint32_t *lost);

/* Copies the counters. */
TARN_API void tarn_reassembler_get_stats(const tarn_reassembler *reassembler, tarn_reassembler_stats *stats);

/* Accepts null. */
TARN_API void tarn_reassembler_destroy(tarn_reassembler *reassembler);

TARN_END_DECLS

#endif
