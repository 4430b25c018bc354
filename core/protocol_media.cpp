// The plain packets that carry a screen, its sound, its input and its clipboard. Chunks are never copied on
// the way in: a decoder hands back a pointer into the packet. Pure functions; any thread.
#include <tarnglider/protocol.h>

#include "protocol_internal.h"

// Bounds of a chunk's data before any sum is formed, so that fixed part + data_size can't wrap.
static bool data_ok(const uint8_t *data, size_t data_size, size_t capacity) {
    return (data || data_size == 0) && data_size <= capacity;
}

// True if a chunk of `size` bytes at `offset` ends within `total`.
static bool chunk_fits(uint32_t total, uint32_t offset, size_t size) {
    return offset <= total && size <= total - offset;
}

static bool clipboard_ok(const tarn_clipboard_chunk &c, size_t size) {
    return c.total > 0 && c.total <= TARN_CLIPBOARD_TOTAL_MAX && chunk_fits(c.total, c.offset, size);
}

// The rest of a packet is its chunk: pointer and length go out where the caller wants them.
static void hand_out(const byte_reader &r, const uint8_t **data, size_t *data_size) {
    if (data) *data = r.here();
    if (data_size) *data_size = r.left();
}

size_t tarn_encode_clipboard(uint8_t *buffer, size_t capacity, const tarn_header *header,
                             const tarn_clipboard_chunk *info, const uint8_t *data, size_t data_size) {
    if (!info || !data_ok(data, data_size, capacity) || !clipboard_ok(*info, data_size)) return 0;
    byte_writer w =
        packet_start(buffer, capacity, header, TARN_PKT_CLIPBOARD, TARN_CLIPBOARD_HEADER + data_size);
    w.u32(info->id);
    w.u8(info->kind);
    w.u32(info->total);
    w.u32(info->offset);
    w.bytes(data, data_size);
    return w.size();
}

int tarn_decode_clipboard(const uint8_t *packet, size_t length, tarn_clipboard_chunk *info,
                          const uint8_t **data, size_t *data_size) {
    byte_reader r = packet_open(packet, length, TARN_PKT_CLIPBOARD, TARN_CLIPBOARD_HEADER);
    if (!r.ok() || !info) return -1;
    info->id = r.u32();
    info->kind = r.u8();
    info->total = r.u32();
    info->offset = r.u32();
    if (!clipboard_ok(*info, r.left())) return -1;
    hand_out(r, data, data_size);
    return 0;
}

size_t tarn_encode_clipboard_ack(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                 const tarn_clipboard_ack *ack) {
    if (!ack || ack->count > TARN_CLIPBOARD_RANGES_MAX) return 0;
    byte_writer w = packet_start(buffer, capacity, header, TARN_PKT_CLIPBOARD_ACK,
                                 TARN_CLIPBOARD_ACK_SIZE + size_t{8} * ack->count);
    w.u32(ack->id);
    w.u8(ack->status);
    w.u8(ack->count);
    for (int i = 0; i < ack->count; i++) {
        w.u32(ack->ranges[i].start);
        w.u32(ack->ranges[i].length);
    }
    return w.size();
}

int tarn_decode_clipboard_ack(const uint8_t *packet, size_t length, tarn_clipboard_ack *ack) {
    byte_reader r = packet_open(packet, length, TARN_PKT_CLIPBOARD_ACK, TARN_CLIPBOARD_ACK_SIZE);
    if (!r.ok() || !ack) return -1;
    ack->id = r.u32();
    ack->status = r.u8();
    ack->count = r.u8();
    if (ack->count > TARN_CLIPBOARD_RANGES_MAX || r.left() < size_t{8} * ack->count) return -1;
    for (int i = 0; i < ack->count; i++) {
        ack->ranges[i].start = r.u32();
        ack->ranges[i].length = r.u32();
    }
    return 0;
}

int tarn_decode_video_shard(const uint8_t *packet, size_t length, tarn_video_shard *info,
                            const uint8_t **data, size_t *data_size) {
    byte_reader r = packet_open(packet, length, TARN_PKT_VIDEO_SHARD, TARN_VIDEO_SHARD_HEADER);
    if (!r.ok() || !info) return -1;
    info->frame_id = r.u32();
    info->group = r.u16();
    info->group_count = r.u16();
    info->shard = r.u8();
    info->data_shards = r.u8();
    info->parity_shards = r.u8();
    info->frame_flags = r.u8();
    info->shard_size = r.u16();
    info->frame_size = r.u32();
    info->group_offset = r.u32();
    info->frame_time = r.u64();
    info->frame_aux = r.u32();
    hand_out(r, data, data_size);
    return 0;
}

size_t tarn_encode_cursor_pos(uint8_t *buffer, size_t capacity, const tarn_header *header, uint16_t x,
                              uint16_t y, uint32_t shape_id) {
    byte_writer w = packet_start(buffer, capacity, header, TARN_PKT_CURSOR_POS, TARN_CURSOR_POS_SIZE);
    w.u16(x);
    w.u16(y);
    w.u32(shape_id);
    return w.size();
}

int tarn_decode_cursor_pos(const uint8_t *packet, size_t length, uint16_t *x, uint16_t *y,
                           uint32_t *shape_id) {
    byte_reader r = packet_open(packet, length, TARN_PKT_CURSOR_POS, TARN_CURSOR_POS_SIZE);
    if (!r.ok() || !x || !y || !shape_id) return -1;
    *x = r.u16();
    *y = r.u16();
    *shape_id = r.u32();
    return 0;
}

size_t tarn_encode_cursor_shape(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                const tarn_cursor_shape *info, const uint8_t *data, size_t data_size) {
    if (!info || !data_ok(data, data_size, capacity)) return 0;
    byte_writer w =
        packet_start(buffer, capacity, header, TARN_PKT_CURSOR_SHAPE, TARN_CURSOR_SHAPE_HEADER + data_size);
    w.u32(info->shape_id);
    w.u16(info->width);
    w.u16(info->height);
    w.u16(info->hot_x);
    w.u16(info->hot_y);
    w.u32(info->total);
    w.u32(info->offset);
    w.bytes(data, data_size);
    return w.size();
}

int tarn_decode_cursor_shape(const uint8_t *packet, size_t length, tarn_cursor_shape *info,
                             const uint8_t **data, size_t *data_size) {
    byte_reader r = packet_open(packet, length, TARN_PKT_CURSOR_SHAPE, TARN_CURSOR_SHAPE_HEADER);
    if (!r.ok() || !info) return -1;
    info->shape_id = r.u32();
    info->width = r.u16();
    info->height = r.u16();
    info->hot_x = r.u16();
    info->hot_y = r.u16();
    info->total = r.u32();
    info->offset = r.u32();
    // 65535 x 65535 x 4 needs 34 bits.
    if (uint64_t{info->width} * info->height * 4 != info->total) return -1;
    if (!chunk_fits(info->total, info->offset, r.left())) return -1;
    hand_out(r, data, data_size);
    return 0;
}

size_t tarn_encode_input(uint8_t *buffer, size_t capacity, const tarn_header *header, uint32_t seq,
                         const tarn_input_event *events, int count) {
    if (count < 0 || count > TARN_INPUT_MAX || (!events && count > 0)) return 0;
    byte_writer w = packet_start(buffer, capacity, header, TARN_PKT_INPUT,
                                 TARN_INPUT_SIZE + TARN_INPUT_EVENT_SIZE * static_cast<size_t>(count));
    w.u32(seq);
    w.u8(static_cast<uint8_t>(count));
    for (int i = 0; i < count; i++) {
        w.u8(events[i].event_type);
        w.u8(events[i].event_flags);
        w.u16(events[i].event_code);
        w.u32(events[i].event_a);
        w.u32(events[i].event_b);
    }
    return w.size();
}

int tarn_decode_input(const uint8_t *packet, size_t length, uint32_t *seq, tarn_input_event events[64],
                      int *count) {
    byte_reader r = packet_open(packet, length, TARN_PKT_INPUT, TARN_INPUT_SIZE);
    if (!r.ok() || !seq || !events || !count) return -1;
    *seq = r.u32();
    *count = r.u8();
    if (*count > TARN_INPUT_MAX || r.left() < TARN_INPUT_EVENT_SIZE * static_cast<size_t>(*count)) return -1;
    for (int i = 0; i < *count; i++) {
        events[i].event_type = r.u8();
        events[i].event_flags = r.u8();
        events[i].event_code = r.u16();
        events[i].event_a = r.u32();
        events[i].event_b = r.u32();
    }
    return 0;
}

size_t tarn_encode_mouse_abs(uint8_t *buffer, size_t capacity, const tarn_header *header, uint32_t seq,
                             uint16_t x, uint16_t y) {
    byte_writer w = packet_start(buffer, capacity, header, TARN_PKT_MOUSE_ABS, TARN_MOUSE_ABS_SIZE);
    w.u32(seq);
    w.u16(x);
    w.u16(y);
    return w.size();
}

int tarn_decode_mouse_abs(const uint8_t *packet, size_t length, uint32_t *seq, uint16_t *x, uint16_t *y) {
    byte_reader r = packet_open(packet, length, TARN_PKT_MOUSE_ABS, TARN_MOUSE_ABS_SIZE);
    if (!r.ok() || !seq || !x || !y) return -1;
    *seq = r.u32();
    *x = r.u16();
    *y = r.u16();
    return 0;
}

size_t tarn_encode_audio(uint8_t *buffer, size_t capacity, const tarn_header *header, const tarn_ping *info,
                         const uint8_t *data, size_t data_size) {
    if (!info || !data_ok(data, data_size, capacity)) return 0;
    byte_writer w = packet_start(buffer, capacity, header, TARN_PKT_AUDIO, TARN_AUDIO_HEADER + data_size);
    w.u32(info->seq);
    w.u64(info->time);
    w.bytes(data, data_size);
    return w.size();
}

int tarn_decode_audio(const uint8_t *packet, size_t length, tarn_ping *info, const uint8_t **data,
                      size_t *data_size) {
    byte_reader r = packet_open(packet, length, TARN_PKT_AUDIO, TARN_AUDIO_HEADER);
    if (!r.ok() || !info) return -1;
    info->seq = r.u32();
    info->time = r.u64();
    info->time2 = 0;
    hand_out(r, data, data_size);
    return 0;
}
