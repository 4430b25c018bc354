// Clipboard transfer, receiving side: one blob at a time, with a bit for each byte of it, so that any division into
// chunks, in any order and with any overlap, comes out exact. All state is under the receive lock; answers go out with
// it held, so that they leave in the order of what they answer.
#include <string.h>

#include <bit>

#include "clipboard_internal.h"

static_assert(TARN_CLIPBOARD_ACK_SIZE + 8 * TARN_CLIPBOARD_RANGES_MAX == 526);

// How many ranges an answer can hold on this path.
static int ack_ranges(const tarn_clip *clip) {
    if (clip->rx_max_packet < TARN_CLIPBOARD_ACK_SIZE + 8) return 1;
    const uint64_t fit = (clip->rx_max_packet - TARN_CLIPBOARD_ACK_SIZE) / 8;
    return fit < TARN_CLIPBOARD_RANGES_MAX ? static_cast<int>(fit) : TARN_CLIPBOARD_RANGES_MAX;
}

// The first byte at or behind `pos` that has arrived, or hasn't; rx_size if there is none.
static uint32_t find_byte(const tarn_clip *clip, uint32_t pos, bool arrived) {
    const uint8_t other = arrived ? 0x00 : 0xFF; // eight bytes that are not looked for
    while (pos < clip->rx_size) {
        const uint8_t bits = clip->rx_bitmap[pos / 8];
        if (pos % 8 == 0 && bits == other) {
            pos += 8;
        } else if ((bits >> pos % 8 & 1) == arrived) {
            return pos;
        } else {
            pos++;
        }
    }
    return clip->rx_size;
}

static void list_gaps(const tarn_clip *clip, tarn_clipboard_ack *ack) {
    const int most = ack_ranges(clip);
    uint32_t start = find_byte(clip, 0, false);
    while (start < clip->rx_size && ack->count < most) {
        const uint32_t end = find_byte(clip, start, true);
        ack->ranges[ack->count++] = {start, end - start};
        start = find_byte(clip, end, false);
    }
}

static void send_ack(const tarn_clip *clip, uint32_t id, uint32_t status) {
    tarn_clipboard_ack ack;
    ack.id = id;
    ack.status = static_cast<uint8_t>(status);
    ack.count = 0;
    if (status == TARN_CLIP_MISSING) list_gaps(clip, &ack);
    uint8_t packet[TARN_CLIPBOARD_ACK_SIZE + 8 * TARN_CLIPBOARD_RANGES_MAX];
    const tarn_header header = {TARN_PKT_CLIPBOARD_ACK, 0, clip->rx_session};
    const size_t len = tarn_encode_clipboard_ack(packet, sizeof packet, &header, &ack);
    clip->config.send(clip->config.context, packet, len);
}

// Ends the transfer of this number: from now on it is only answered.
static void finish(tarn_clip *clip, uint32_t id, uint32_t status) {
    clip->rx_active = 0;
    clip->done_valid = 1;
    clip->done_id = id;
    clip->done_status = status;
    send_ack(clip, id, status);
}

static void drop(tarn_clip *clip, clip_garbage *garbage) {
    clip->rx_active = 0;
    garbage->take(clip->rx_data);
    garbage->take(clip->rx_bitmap);
}

void clip_receive_session(tarn_clip *clip, uint32_t session, uint64_t max_packet) {
    clip_garbage garbage;
    const conn_guard held(&clip->receive_lock);
    if (clip->rx_session == session && clip->rx_max_packet == max_packet) return;
    clip->rx_session = session;
    clip->rx_max_packet = max_packet;
    clip->done_valid = 0;
    drop(clip, &garbage);
}

// False if the blob can't be taken, which ends the transfer.
static bool begin(tarn_clip *clip, const tarn_clipboard_chunk &chunk) {
    if (chunk.total > clip_kind_limit(chunk.kind)) {
        clip_log(clip, "clipboard: rejecting #%u: %s of %u B", chunk.id, clip_kind_name(chunk.kind),
                 chunk.total);
        finish(clip, chunk.id, TARN_CLIP_REJECTED);
        return false;
    }
    auto *data = static_cast<uint8_t *>(malloc(chunk.total));
    auto *bitmap = static_cast<uint8_t *>(calloc((chunk.total + 7) / 8, 1));
    if (!data || !bitmap) {
        free(data);
        free(bitmap);
        clip_log(clip, "clipboard: rejecting #%u: out of memory for %u B", chunk.id, chunk.total);
        finish(clip, chunk.id, TARN_CLIP_REJECTED);
        return false;
    }
    clip->rx_active = 1;
    clip->rx_id = chunk.id;
    clip->rx_kind = chunk.kind;
    clip->rx_size = chunk.total;
    clip->rx_have = 0;
    clip->rx_data = data;
    clip->rx_bitmap = bitmap;
    clip->rx_started_us = clip_now();
    return true;
}

// Sets the bits of [pos, end), which lies in the blob, and counts those that were 0.
static void mark(tarn_clip *clip, uint32_t pos, uint32_t end) {
    while (pos < end) {
        uint8_t *bits = &clip->rx_bitmap[pos / 8];
        const bool whole = pos % 8 == 0 && end - pos >= 8;
        const uint8_t mask = whole ? uint8_t{0xFF} : static_cast<uint8_t>(1u << pos % 8);
        clip->rx_have += static_cast<uint32_t>(std::popcount(static_cast<uint8_t>(mask & ~*bits)));
        *bits |= mask;
        pos += whole ? 8 : 1;
    }
}

// True if the local user has copied something since the incoming transfer began.
static bool outdated(tarn_clip *clip) {
    const conn_guard held(&clip->send_lock);
    return clip->last_offer_us > clip->rx_started_us;
}

namespace {
// A blob to hand to the caller once the lock is released.
struct delivery {
    uint32_t id;
    uint8_t kind;
    uint8_t *data; // null: nothing to hand over
    uint32_t size;
};
} // namespace

static void complete(tarn_clip *clip, delivery *out, clip_garbage *garbage) {
    const bool applied = !outdated(clip);
    clip_log(clip, "clipboard: received #%u %s, %u B in %.0f ms%s", clip->rx_id,
             clip_kind_name(clip->rx_kind), clip->rx_size, clip_ms(clip->rx_started_us, clip_now()),
             applied ? "" : "; not applied (something newer was copied here meanwhile)");
    if (applied && clip->config.deliver) {
        *out = {clip->rx_id, clip->rx_kind, clip->rx_data, clip->rx_size};
        clip->rx_data = nullptr;
    }
    drop(clip, garbage);
    finish(clip, clip->rx_id, TARN_CLIP_COMPLETE);
}

// One chunk of the right session, which the decoder has found to lie within its total.
static void take_chunk(tarn_clip *clip, const tarn_clipboard_chunk &chunk, const uint8_t *data, uint32_t size,
                       delivery *out, clip_garbage *garbage) {
    const bool asks = chunk.offset + size == chunk.total;
    if (clip->done_valid) {
        const int32_t order = clip_order(chunk.id, clip->done_id);
        if (order == 0 && asks) send_ack(clip, chunk.id, clip->done_status); // our answer was lost
        if (order <= 0) return;
    }
    if (clip->rx_active) {
        const int32_t order = clip_order(chunk.id, clip->rx_id);
        if (order < 0) return;
        if (order > 0) {
            clip_log(clip, "clipboard: incoming #%u (%u of %u B) replaced by #%u", clip->rx_id, clip->rx_have,
                     clip->rx_size, chunk.id);
            drop(clip, garbage);
        }
    }
    if (!clip->rx_active && !begin(clip, chunk)) return;
    if (chunk.kind != clip->rx_kind || chunk.total != clip->rx_size) return;
    if (size > 0) memcpy(clip->rx_data + chunk.offset, data, size);
    mark(clip, chunk.offset, chunk.offset + size);
    if (clip->rx_have == clip->rx_size) {
        complete(clip, out, garbage);
    } else if (asks) {
        send_ack(clip, chunk.id, TARN_CLIP_MISSING);
    }
}

void clip_receive_chunk(tarn_clip *clip, uint32_t session, const uint8_t *packet, size_t length) {
    tarn_clipboard_chunk chunk;
    const uint8_t *data;
    size_t size;
    if (tarn_decode_clipboard(packet, length, &chunk, &data, &size) != 0) return;
    delivery out = {};
    {
        clip_garbage garbage;
        const conn_guard held(&clip->receive_lock);
        if (clip->rx_session == 0 || session != clip->rx_session) return;
        take_chunk(clip, chunk, data, static_cast<uint32_t>(size), &out, &garbage);
    }
    if (out.data) clip->config.deliver(clip->config.context, out.id, out.kind, out.data, out.size);
}
