// One row for each plain packet: its golden bytes, computed by a script of struct.pack calls, and the way
// there and back. The codec's tests, its fuzzer and the fuzzer's seeds read the same rows.
#ifndef TEST_PACKET_ROWS_H
#define TEST_PACKET_ROWS_H

#include <string.h>

#include <array>
#include <functional>
#include <tuple>
#include <type_traits>

#include <tarnglider/protocol.h>

#include "bytes_internal.h"
#include "support/hex_bytes.h"

constexpr tarn_header packet_head = {0, 0xA5, 0x44332211};
constexpr uint8_t packet_chunk[] = {0xF1, 0xF2, 0xF3};

// A packet of this type with the flags and the session above.
inline bytes packet(uint8_t type, const std::string &body) {
    return unhex("5001" + hex(&type, 1) + "a511223344" + body);
}

// How the variable part behaves.
enum packet_kind {
    fixed,  // any value is taken; bytes behind are ignored
    judged, // some values are refused; bytes behind are ignored
    chunk,  // everything behind the fixed part belongs to the packet
};

struct packet_row {
    uint8_t type;
    packet_kind what;
    bytes golden;
    std::function<size_t(uint8_t *out, size_t cap, const tarn_header *)> encode = {};
    // Decodes, then encodes what came out: empty if the decoder refused, `broken` if one of the two went
    // astray or took a null argument.
    std::function<bytes(const bytes &, const tarn_header *)> echo_with = {};

    bytes echo(const bytes &p) const {
        tarn_header h = packet_head;
        tarn_decode_header(p.data(), p.size(), &h);
        return echo_with(p, &h);
    }
};
inline const bytes broken(1);

// A field as encoders take it, and as decoders do.
template <class T>
auto in(const T &v) {
    if constexpr (std::is_class_v<T>)
        return &v;
    else
        return v;
}
template <class T, size_t n>
const T *in(const std::array<T, n> &v) {
    return v.data();
}
template <class T>
T *out(T &v) {
    return &v;
}
template <class T, size_t n>
T *out(std::array<T, n> &v) {
    return v.data();
}

template <class T>
T rubbish() {
    T t;
    memset(&t, 0xEE, sizeof t);
    return t;
}

// A row whose fields are one record or are passed one by one.
template <class Encode, class Decode, class... V>
packet_row fields(uint8_t type, packet_kind what, const char *body, Encode encode, Decode decode,
                  V... values) {
    packet_row r = {type, what, packet(type, body)};
    r.encode = [=](uint8_t *to, size_t cap, const tarn_header *h) {
        return encode(to, cap, h, in(values)...);
    };
    r.echo_with = [=](const bytes &p, const tarn_header *h) {
        std::tuple<V...> v(rubbish<V>()...);
        bytes o(p.size() + 1024);
        for (size_t missing = 0; missing <= sizeof...(V); missing++) {
            const auto call = [&](auto &...f) {
                const void *const at[] = {&f..., nullptr};
                return decode(p.data(), p.size(), (&f == at[missing] ? nullptr : out(f))...);
            };
            const int result = std::apply(call, v);
            if (result != -1 && (result != 0 || missing < sizeof...(V))) return broken;
            if (result != 0 && missing == sizeof...(V)) return bytes();
        }
        if constexpr (std::is_invocable_v<Encode, uint8_t *, size_t, const tarn_header *, std::nullptr_t>) {
            if (encode(o.data(), o.size(), h, nullptr) != 0) return broken;
        }
        o.resize(std::apply([&](auto &...f) { return encode(o.data(), o.size(), h, in(f)...); }, v));
        return o.empty() ? broken : o;
    };
    return r;
}

// A row of a record and a chunk.
template <class Encode, class Record>
packet_row chunked(uint8_t type, const char *body, Encode encode,
                   int (*decode)(const uint8_t *, size_t, Record *, const uint8_t **, size_t *),
                   Record record) {
    packet_row r = {type, chunk, packet(type, body)};
    r.encode = [=](uint8_t *to, size_t cap, const tarn_header *h) {
        return encode(to, cap, h, &record, packet_chunk, 3);
    };
    r.echo_with = [=](const bytes &p, const tarn_header *h) {
        Record v = rubbish<Record>();
        const uint8_t *data = nullptr;
        size_t size = 0;
        bytes o(p.size() + 1024);
        if (decode(p.data(), p.size(), nullptr, &data, &size) != -1) return broken;
        const int result = decode(p.data(), p.size(), &v, nullptr, nullptr);
        if (result != 0) return result == -1 ? bytes() : broken;
        decode(p.data(), p.size(), &v, &data, &size);
        if (data + size != p.data() + p.size() || encode(o.data(), o.size(), h, nullptr, data, size) != 0 ||
            encode(o.data(), o.size(), h, &v, nullptr, size) != (size ? 0 : p.size())) {
            return broken;
        }
        o.resize(encode(o.data(), o.size(), h, &v, data, size));
        return o.empty() ? broken : o;
    };
    return r;
}

// Single values take their type from the header; switches are read as they stand and written as 0 or 1.
inline auto value_encoder(uint8_t type) {
    return [=](uint8_t *to, size_t cap, const tarn_header *h, uint32_t value) {
        const tarn_header mine = h ? tarn_header{type, h->flags, h->session} : tarn_header{};
        return tarn_encode_u32_packet(to, cap, h ? &mine : nullptr, value);
    };
}
inline auto switch_encoder(size_t (*encode)(uint8_t *, size_t, const tarn_header *, int)) {
    return [=](uint8_t *to, size_t cap, const tarn_header *h, uint8_t on) {
        const size_t size = encode(to, cap, h, on);
        if (size != 0 && on > 1) to[8] = on;
        return size;
    };
}
// The library itself writes shards in the packetizer alone.
inline size_t encode_shard(uint8_t *to, size_t cap, const tarn_header *h, const tarn_video_shard *s,
                           const uint8_t *from, size_t size) {
    if (!to || !h || !s || (!from && size)) return 0;
    byte_writer w(to, cap);
    w.u8(0x50), w.u8(1), w.u8(TARN_PKT_VIDEO_SHARD), w.u8(h->flags), w.u32(h->session);
    w.u32(s->frame_id), w.u16(s->group), w.u16(s->group_count), w.u8(s->shard), w.u8(s->data_shards);
    w.u8(s->parity_shards), w.u8(s->frame_flags), w.u16(s->shard_size), w.u32(s->frame_size);
    w.u32(s->group_offset), w.u64(s->frame_time), w.u32(s->frame_aux), w.bytes(from, size);
    return w.size();
}

inline std::vector<packet_row> packet_rows() {
    tarn_hello hello = {{}, 0x0102, 0x0304, 0x0506, 0x0708090A, 0x0B0C, 13, 14, 15, 16, 17};
    for (size_t i = 0; i < 15; i++)
        hello.hello_id[i] = static_cast<uint8_t>(0xA0 + i);
    const tarn_ping ping = {0x04030201, 0x1817161514131211, 0x2827262524232221};
    return {
        fields(1, fixed, "a0a1a2a3a4a5a6a7a8a9aaabacadae000201040306050a0908070c0b0d0e0f1011",
               tarn_encode_hello, tarn_decode_hello, hello),
        fields(2, fixed, "030405060708090a0b0c0d0e0f10", tarn_encode_hello_ack, tarn_decode_hello_ack,
               tarn_hello_ack{3, 4, 0x0605, 0x0807, 0x0A09, 0x0C0B, 0x100F0E0D}),
        fields(3, fixed, "010203041112131415161718", tarn_encode_ping, tarn_decode_ping, ping),
        fields(4, fixed, "0102030411121314151617182122232425262728", tarn_encode_pong, tarn_decode_ping,
               ping),
        fields(
            6, fixed, "040302011413121124232221343332314443424154535251", tarn_encode_client_stats,
            tarn_decode_client_stats,
            std::array<uint32_t, 6>{0x01020304, 0x11121314, 0x21222324, 0x31323334, 0x41424344, 0x51525354}),
        fields(7, fixed, "aabbccdd", value_encoder(7), tarn_decode_u32_packet, 0xDDCCBBAA),
        fields(34, fixed, "aabbccdd", value_encoder(34), tarn_decode_u32_packet, 0xDDCCBBAA),
        fields(50, fixed, "aabbccdd", value_encoder(50), tarn_decode_u32_packet, 0xDDCCBBAA),
        fields(9, fixed, "aabbccdd", tarn_encode_discover, tarn_decode_discover, 0xDDCCBBAA),
        fields(10, judged, "04030201080706050a090c0b0e0d0f057374756479", tarn_encode_discover_reply,
               tarn_decode_discover_reply,
               tarn_discover_reply{0x01020304, 0x05060708, 0x090A, 0x0B0C, 0x0D0E, 15, 5, "study"}),
        fields(11, fixed, "01", switch_encoder(tarn_encode_audio_control), tarn_decode_audio_control,
               uint8_t{1}),
        chunked(12, "04030201050c0b0a0004030200f1f2f3", tarn_encode_clipboard, tarn_decode_clipboard,
                tarn_clipboard_chunk{0x01020304, 5, 0x0A0B0C, 0x020304}),
        fields(13, judged, "04030201050214131211181716152423222128272625", tarn_encode_clipboard_ack,
               tarn_decode_clipboard_ack,
               tarn_clipboard_ack{0x01020304, 5, 2, {{0x11121314, 0x15161718}, {0x21222324, 0x25262728}}}),
        fields(14, judged, "0201021413121124232221046465736b", tarn_encode_pair_back, tarn_decode_pair_back,
               tarn_pair_back{0x0102, 2, {0x11121314, 0x21222324, 0, 0}, 4, "desk"}),
        fields(15, fixed, "01", switch_encoder(tarn_encode_pair_back_ack), tarn_decode_pair_back_ack,
               uint8_t{1}),
        chunked(16, "0403020106050807090a0b0c0e0d1211100f161514131e1d1c1b1a1918172221201ff1f2f3",
                encode_shard, tarn_decode_video_shard,
                tarn_video_shard{0x01020304, 0x0506, 0x0708, 9, 10, 11, 12, 0x0D0E, 0x0F101112, 0x13141516,
                                 0x1718191A1B1C1D1E, 0x1F202122}),
        fields(32, fixed, "0201040308070605", tarn_encode_cursor_pos, tarn_decode_cursor_pos,
               uint16_t{0x0102}, uint16_t{0x0304}, 0x05060708u),
        chunked(33, "0403020103000500060508073c00000039000000f1f2f3", tarn_encode_cursor_shape,
                tarn_decode_cursor_shape, tarn_cursor_shape{0x01020304, 3, 5, 0x0506, 0x0708, 60, 57}),
        fields(48, judged, "040302010201020403080706050c0b0a0911121413181716151c1b1a19", tarn_encode_input,
               tarn_decode_input, 0x01020304u,
               std::array<tarn_input_event, 64>{
                   {{1, 2, 0x0304, 0x05060708, 0x090A0B0C}, {17, 18, 0x1314, 0x15161718, 0x191A1B1C}}},
               2),
        fields(49, fixed, "0403020106050807", tarn_encode_mouse_abs, tarn_decode_mouse_abs, 0x01020304u,
               uint16_t{0x0506}, uint16_t{0x0708}),
        chunked(64, "040302011817161514131211f1f2f3", tarn_encode_audio, tarn_decode_audio,
                tarn_ping{0x01020304, 0x1112131415161718, 0}),
    };
}

#endif
