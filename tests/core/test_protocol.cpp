// The packet codec against golden bytes, every truncation, every flipped bit, every foreign type, and the limits of
// each variable part. One row per packet; the bytes were computed by a script of struct.pack calls.
#include <gtest/gtest.h>

#include <tarnglider/protocol.h>

#include <tuple>

#include "bytes_internal.h"
#include "support/hex_bytes.h"

namespace {

constexpr size_t room = 1024;
uint8_t scratch[room];
constexpr tarn_header head = {0, 0xA5, 0x44332211};

// Packets whose fields are passed one by one or are built elsewhere, as records, so that one row serves all.
struct stats {
    uint32_t words[6];
};
struct batch {
    uint32_t seq;
    int count;
    tarn_input_event events[64];
};

size_t encode_stats(uint8_t *out, size_t cap, const tarn_header *h, const stats *s) {
    return tarn_encode_client_stats(out, cap, h, s ? s->words : nullptr);
}
int decode_stats(const uint8_t *p, size_t n, stats *s) {
    return tarn_decode_client_stats(p, n, s ? s->words : nullptr);
}
size_t encode_batch(uint8_t *out, size_t cap, const tarn_header *h, const batch *b) {
    return b ? tarn_encode_input(out, cap, h, b->seq, b->events, b->count) : 0;
}
int decode_batch(const uint8_t *p, size_t n, batch *b) {
    return b ? tarn_decode_input(p, n, &b->seq, b->events, &b->count) : -1;
}
size_t encode_shard(uint8_t *out, size_t cap, const tarn_header *h, const tarn_video_shard *s,
                    const uint8_t *from, size_t size) {
    if (!out || !h || !s || (!from && size)) return 0;
    const tarn_header mine = {TARN_PKT_VIDEO_SHARD, h->flags, h->session};
    uint8_t start[8];
    byte_writer w(out, cap);
    w.bytes(start, tarn_encode_header(start, 8, &mine));
    w.u32(s->frame_id), w.u16(s->group), w.u16(s->group_count), w.u8(s->shard), w.u8(s->data_shards);
    w.u8(s->parity_shards), w.u8(s->frame_flags), w.u16(s->shard_size), w.u32(s->frame_size);
    w.u32(s->group_offset), w.u64(s->frame_time), w.u32(s->frame_aux);
    w.bytes(from, size);
    return w.size();
}
// The encoder of single values takes the type from the header.
template <uint8_t type>
size_t encode_value(uint8_t *out, size_t cap, const tarn_header *h, uint32_t value) {
    const tarn_header mine = h ? tarn_header{type, h->flags, h->session} : tarn_header{};
    return tarn_encode_u32_packet(out, cap, h ? &mine : nullptr, value);
}

constexpr stats words = {{0x01020304, 0x11121314, 0x21222324, 0x31323334, 0x41424344, 0x51525354}};
// clang-format off
constexpr tarn_hello hello = {"\xA0\xA1\xA2\xA3\xA4\xA5\xA6\xA7\xA8\xA9\xAA\xAB\xAC\xAD\xAE",
                              0x0102, 0x0304, 0x0506, 0x0708090A, 0x0B0C, 13, 14, 15, 16, 17};
// clang-format on
constexpr tarn_hello_ack hello_ack = {3, 4, 0x0605, 0x0807, 0x0A09, 0x0C0B, 0x100F0E0D};
constexpr tarn_ping ping = {0x04030201, 0x1817161514131211, 0x2827262524232221};
constexpr tarn_discover_reply found = {0x01020304, 0x05060708, 0x090A, 0x0B0C, 0x0D0E, 15, 5, "study"};
constexpr tarn_clipboard_chunk clip = {0x01020304, 5, 0x0A0B0C, 0x020304};
constexpr tarn_clipboard_ack clip_ack = {
    0x01020304, 5, 2, {{0x11121314, 0x15161718}, {0x21222324, 0x25262728}}};
constexpr tarn_pair_back back = {0x0102, 2, {0x11121314, 0x21222324, 0, 0}, 4, "desk"};
constexpr tarn_video_shard shard = {
    0x01020304,         0x0506,    0x0708, 9, 10, 11, 12, 0x0D0E, 0x0F101112, 0x13141516,
    0x1718191A1B1C1D1E, 0x1F202122};
constexpr tarn_cursor_shape shape = {0x01020304, 3, 5, 0x0506, 0x0708, 60, 57};
constexpr batch input = {
    0x01020304, 2, {{1, 2, 0x0304, 0x05060708, 0x090A0B0C}, {17, 18, 0x1314, 0x15161718, 0x191A1B1C}}};
constexpr tarn_ping audio = {0x01020304, 0x1112131415161718, 0};
constexpr uint8_t data[] = {0xF1, 0xF2, 0xF3};

// How the variable part behaves.
enum kind {
    fixed,  // bytes behind are ignored
    judged, // some fields may be refused; bytes behind are ignored
    chunk,  // everything behind the fixed part belongs to the packet
};

struct row {
    const char *name;
    uint8_t type;
    kind what;
    size_t minimum;   // shortest prefix of the golden packet that decodes
    const char *body; // from offset 8
    size_t (*encode)(uint8_t *out, size_t cap, const tarn_header *h);
    // Decodes, then encodes what came out; 0 if the decoder refused.
    size_t (*echo)(const uint8_t *p, size_t n, uint8_t *out, const tarn_header *h);
    // Whether every required output, and the encoder's record, is missed when null.
    bool (*nulls_refused)(const uint8_t *p, size_t n);
};

// A row whose fields are one record.
template <auto encode, auto decode, const auto &record>
constexpr row whole(const char *name, uint8_t type, kind what, size_t minimum, const char *body) {
    row r = {name, type, what, minimum, body, nullptr, nullptr, nullptr};
    r.encode = [](uint8_t *o, size_t c, const tarn_header *h) { return encode(o, c, h, &record); };
    r.echo = [](const uint8_t *p, size_t n, uint8_t *o, const tarn_header *h) {
        auto out = record;
        memset(&out, 0xEE, sizeof out);
        if (decode(p, n, &out) != 0) return size_t{0};
        const size_t size = encode(o, room, h, &out);
        EXPECT_NE(size, 0u) << "the decoder takes what no encoder makes";
        return size;
    };
    r.nulls_refused = [](const uint8_t *p, size_t n) {
        return decode(p, n, nullptr) == -1 && encode(scratch, room, &head, nullptr) == 0;
    };
    return r;
}

// A row of a record and a chunk.
template <auto encode, auto decode, const auto &record>
constexpr row chunked(const char *name, uint8_t type, size_t minimum, const char *body) {
    row r = {name, type, chunk, minimum, body, nullptr, nullptr, nullptr};
    r.encode = [](uint8_t *o, size_t c, const tarn_header *h) {
        return encode(o, c, h, &record, data, sizeof data);
    };
    r.echo = [](const uint8_t *p, size_t n, uint8_t *o, const tarn_header *h) {
        auto out = record;
        const uint8_t *d = nullptr;
        size_t s = 0;
        if (decode(p, n, &out, &d, &s) != 0) return size_t{0};
        EXPECT_EQ(d + s, p + n) << "the chunk lies in the caller's packet";
        const size_t size = encode(o, room, h, &out, d, s);
        EXPECT_NE(size, 0u) << "the decoder takes what no encoder makes";
        return size;
    };
    r.nulls_refused = [](const uint8_t *p, size_t n) {
        auto out = record;
        return decode(p, n, nullptr, nullptr, nullptr) == -1 && decode(p, n, &out, nullptr, nullptr) == 0 &&
               encode(scratch, room, &head, nullptr, data, 1) == 0 &&
               encode(scratch, room, &head, &record, nullptr, 1) == 0 &&
               encode(scratch, room, &head, &record, nullptr, 0) != 0;
    };
    return r;
}

// A row whose fields are passed one by one.
template <auto encode, auto decode, auto... values>
constexpr row scalars(const char *name, uint8_t type, size_t minimum, const char *body) {
    using tuple = std::tuple<decltype(values)...>;
    row r = {name, type, fixed, minimum, body, nullptr, nullptr, nullptr};
    r.encode = [](uint8_t *o, size_t c, const tarn_header *h) { return encode(o, c, h, values...); };
    r.echo = [](const uint8_t *p, size_t n, uint8_t *o, const tarn_header *h) {
        tuple v;
        if (std::apply([&](auto &...out) { return decode(p, n, &out...); }, v) != 0) return size_t{0};
        const size_t size = std::apply([&](auto... in) { return encode(o, room, h, in...); }, v);
        // A switch is read as it stands and written as 0 or 1.
        if (size == 9) o[8] = static_cast<uint8_t>(std::get<0>(v));
        return size;
    };
    r.nulls_refused = [](const uint8_t *p, size_t n) {
        bool refused = true;
        for (size_t missing = 0; missing < sizeof...(values); missing++) {
            tuple v;
            auto call = [&](auto &...out) {
                const void *const at[] = {&out...};
                return decode(p, n, (&out == at[missing] ? nullptr : &out)...);
            };
            refused &= std::apply(call, v) == -1;
        }
        return refused;
    };
    return r;
}

const row rows[] = {
    whole<tarn_encode_hello, tarn_decode_hello, hello>(
        "hello", 1, fixed, 39, "a0a1a2a3a4a5a6a7a8a9aaabacadae000201040306050a0908070c0b0d0e0f1011"),
    whole<tarn_encode_hello_ack, tarn_decode_hello_ack, hello_ack>("hello ack", 2, fixed, 22,
                                                                   "030405060708090a0b0c0d0e0f10"),
    whole<tarn_encode_ping, tarn_decode_ping, ping>("ping", 3, fixed, 20, "010203041112131415161718"),
    whole<tarn_encode_pong, tarn_decode_ping, ping>("pong", 4, fixed, 28,
                                                    "0102030411121314151617182122232425262728"),
    whole<encode_stats, decode_stats, words>("client stats", 6, fixed, 32,
                                             "040302011413121124232221343332314443424154535251"),
    scalars<encode_value<7>, tarn_decode_u32_packet, 0xDDCCBBAA>("value a", 7, 12, "aabbccdd"),
    scalars<encode_value<34>, tarn_decode_u32_packet, 0xDDCCBBAA>("value b", 34, 12, "aabbccdd"),
    scalars<encode_value<50>, tarn_decode_u32_packet, 0xDDCCBBAA>("value c", 50, 12, "aabbccdd"),
    scalars<tarn_encode_discover, tarn_decode_discover, 0xDDCCBBAA>("discover", 9, 12, "aabbccdd"),
    whole<tarn_encode_discover_reply, tarn_decode_discover_reply, found>(
        "discover reply", 10, judged, 29, "04030201080706050a090c0b0e0d0f057374756479"),
    scalars<tarn_encode_audio_control, tarn_decode_audio_control, uint8_t{1}>("audio control", 11, 9, "01"),
    chunked<tarn_encode_clipboard, tarn_decode_clipboard, clip>("clipboard", 12, 21,
                                                                "04030201050c0b0a0004030200f1f2f3"),
    whole<tarn_encode_clipboard_ack, tarn_decode_clipboard_ack, clip_ack>(
        "clipboard ack", 13, judged, 30, "04030201050214131211181716152423222128272625"),
    whole<tarn_encode_pair_back, tarn_decode_pair_back, back>("pair back", 14, judged, 24,
                                                              "0201021413121124232221046465736b"),
    scalars<tarn_encode_pair_back_ack, tarn_decode_pair_back_ack, uint8_t{1}>("pair back ack", 15, 9, "01"),
    chunked<encode_shard, tarn_decode_video_shard, shard>(
        "video shard", 16, 42, "0403020106050807090a0b0c0e0d1211100f161514131e1d1c1b1a1918172221201ff1f2f3"),
    scalars<tarn_encode_cursor_pos, tarn_decode_cursor_pos, uint16_t{0x0102}, uint16_t{0x0304}, 0x05060708u>(
        "cursor position", 32, 16, "0201040308070605"),
    chunked<tarn_encode_cursor_shape, tarn_decode_cursor_shape, shape>(
        "cursor shape", 33, 28, "0403020103000500060508073c00000039000000f1f2f3"),
    whole<encode_batch, decode_batch, input>("input", 48, judged, 37,
                                             "040302010201020403080706050c0b0a0911121413181716151c1b1a19"),
    scalars<tarn_encode_mouse_abs, tarn_decode_mouse_abs, 0x01020304u, uint16_t{0x0506}, uint16_t{0x0708}>(
        "mouse", 49, 16, "0403020106050807"),
    chunked<tarn_encode_audio, tarn_decode_audio, audio>("audio", 64, 20, "040302011817161514131211f1f2f3"),
};

// A packet of this type with the shared flags and session.
bytes packet(uint8_t type, const std::string &body) {
    return unhex("5001" + hex(&type, 1) + "a511223344" + body);
}

bytes echo(const row &r, const bytes &p) {
    uint8_t out[room];
    tarn_header h = {};
    if (tarn_decode_header(p.data(), p.size(), &h) != 0) h = head;
    return bytes(out, out + r.echo(p.data(), p.size(), out, &h));
}

// Types that one decoder serves together.
bool same_decoder(uint8_t a, uint8_t b) {
    auto group = [](uint8_t t) { return t == 34 || t == 50 ? 7 : t == 4 ? 3 : t; };
    return group(a) == group(b);
}

} // namespace

TEST(Protocol, WritesTheGoldenBytesAndNothingWithoutRoom) {
    for (const row &r : rows) {
        SCOPED_TRACE(r.name);
        const bytes golden = packet(r.type, r.body);
        EXPECT_EQ(hex(echo(r, golden)), hex(golden));
        EXPECT_TRUE(r.nulls_refused(golden.data(), golden.size()));
        EXPECT_EQ(r.echo(nullptr, golden.size(), scratch, &head), 0u);
        bytes out(golden.size());
        EXPECT_EQ(r.encode(out.data(), out.size(), &head), golden.size());
        EXPECT_EQ(hex(out), hex(golden));
        for (size_t cap = 0; cap < golden.size(); cap++) {
            bytes small(cap);
            EXPECT_EQ(r.encode(small.data(), cap, &head), 0u) << cap;
        }
        EXPECT_EQ(r.encode(nullptr, room, &head), 0u);
        EXPECT_EQ(r.encode(scratch, room, nullptr), 0u);
    }
}

TEST(Protocol, RefusesCutAndForeignPackets) {
    for (const row &r : rows) {
        SCOPED_TRACE(r.name);
        const bytes golden = packet(r.type, r.body);
        for (size_t n = 0; n <= golden.size(); n++) {
            EXPECT_EQ(!echo(r, prefix(golden, n)).empty(), n >= r.minimum) << n;
        }
        for (unsigned type = 0; type < 256; type++) {
            bytes p = golden;
            p[2] = static_cast<uint8_t>(type);
            const bool served = same_decoder(r.type, p[2]) && !(r.type == 3 && type == 4);
            EXPECT_EQ(!echo(r, p).empty(), served) << type;
        }
        bytes longer = golden;
        longer.push_back(0xFF);
        EXPECT_TRUE(r.what == chunk || echo(r, longer) == golden) << "what follows is ignored";
    }
}

// A flipped bit is refused, or it comes out as the field it is in: no field is read twice, and none is lost.
TEST(Protocol, EveryFlippedBitIsRefusedOrKept) {
    for (const row &r : rows) {
        const bytes golden = packet(r.type, r.body);
        for (size_t bit = 0; bit < 8 * golden.size(); bit++) {
            if (bit / 8 == 2) continue; // the type has a test of its own
            SCOPED_TRACE(std::string(r.name) + ", bit " + std::to_string(bit));
            bytes p = golden;
            p[bit / 8] ^= static_cast<uint8_t>(1u << bit % 8);
            const bytes out = echo(r, p);
            if (bit < 16) {
                EXPECT_TRUE(out.empty());
            } else if (r.what == fixed || bit < 64) {
                EXPECT_EQ(hex(out), hex(p));
            } else {
                EXPECT_EQ(hex(out), hex(prefix(p, out.size())));
            }
        }
    }
}

// The limits of what follows a fixed part, and one past each: `body`, then zeros up to `size` bytes.
TEST(Protocol, LimitsOfCountsNamesAndChunks) {
    const std::string id = "01020304", fixed_reply = id + "00000000" + "000000000000" + "00",
                      hot = "00000000", four = "000004" + std::string(32, '0');
    const struct {
        uint8_t type;
        std::string body;
        size_t size;
        bool good;
        const char *why;
    } limits[] = {
        {10, fixed_reply + "3f", 87, true, "a name of 63"},
        {10, fixed_reply + "3f", 86, false, "a name of 63 cut short"},
        {10, fixed_reply + "40", 88, false, "a name of 64"},
        {12, id + "00" + "00000001" + "00000000", 21, true, "a blob of 16 MiB"},
        {12, id + "00" + "01000001" + "00000000", 21, false, "a blob of 16 MiB and 1"},
        {12, id + "00" + "00000000" + "00000000", 21, false, "an empty blob"},
        {12, id + "00" + "04000000" + "04000000", 21, true, "an empty chunk at the end"},
        {12, id + "00" + "04000000" + "05000000", 21, false, "a chunk behind the end"},
        {12, id + "00" + "04000000" + "01000000", 24, true, "a chunk up to the end"},
        {12, id + "00" + "04000000" + "01000000", 25, false, "a chunk across the end"},
        {12, id + "00" + "04000000" + "ffffffff", 26, false, "an offset that would wrap"},
        {13, id + "00" + "40", 526, true, "64 ranges"},
        {13, id + "00" + "40", 525, false, "64 ranges cut short"},
        {13, id + "00" + "41", 534, false, "65 ranges"},
        {14, four + "3f", 91, true, "4 words and a name of 63"},
        {14, four + "3f", 90, false, "a name of 63 cut short"},
        {14, four + "40", 92, false, "a name of 64"},
        {14, "000004", 28, true, "4 words and no name"},
        {14, "000004", 27, false, "4 words without the name's length"},
        {14, "000005", 40, false, "5 words"},
        {33, id + "01000100" + hot + "04000000" + "04000000", 28, true, "an empty chunk at the end"},
        {33, id + "01000100" + hot + "04000000" + "05000000", 28, false, "a chunk behind the end"},
        {33, id + "01000100" + hot + "05000000" + "04000000", 28, false, "a total beyond the pixels"},
        {33, id + "01000100" + hot + "03000000" + "00000000", 28, false, "a total short of the pixels"},
        {33, id + "01000100" + hot + "04000000" + "01000000", 31, true, "a chunk up to the end"},
        {33, id + "01000100" + hot + "04000000" + "01000000", 32, false, "a chunk across the end"},
        {33, id + "00000000" + hot + "00000000" + "00000000", 28, true, "no pixels"},
        {33, id + "ffffffff" + hot + "0400f8ff" + "00000000", 28, false, "a product that wraps at 32 bits"},
        {48, id + "40", 781, true, "64 events"},
        {48, id + "40", 780, false, "64 events cut short"},
        {48, id + "41", 793, false, "65 events"},
        {48, id + "00", 13, true, "no event"},
    };
    for (const auto &l : limits) {
        SCOPED_TRACE(std::to_string(l.type) + ": " + l.why);
        bytes p = packet(l.type, l.body);
        p.resize(l.size);
        p.shrink_to_fit();
        for (const row &r : rows) {
            if (r.type != l.type) continue;
            EXPECT_EQ(hex(echo(r, p)), l.good ? hex(p) : "");
        }
        if (l.type != 12) continue;
        // The clipboard's encoder makes the same checks.
        const tarn_clipboard_chunk c = {1, 0, get_u32(&p[13]), get_u32(&p[17])};
        EXPECT_EQ(tarn_encode_clipboard(scratch, room, &head, &c, data, l.size - 21), l.good ? l.size : 0);
    }
}

TEST(Protocol, EncodersKeepTheirLimits) {
    tarn_discover_reply reply = found;
    reply.name_len = 64;
    memset(reply.name, 'x', sizeof reply.name);
    ASSERT_EQ(tarn_encode_discover_reply(scratch, room, &head, &reply), 87u);
    EXPECT_EQ(scratch[23], 63) << "a longer name is cut";
    memset(reply.name, 'y', sizeof reply.name);
    ASSERT_EQ(tarn_decode_discover_reply(scratch, 87, &reply), 0);
    EXPECT_EQ(reply.name, std::string(63, 'x'));

    tarn_pair_back desk = back;
    desk.name_len = 255;
    desk.count = 4;
    memset(desk.name, 'x', sizeof desk.name);
    ASSERT_EQ(tarn_encode_pair_back(scratch, room, &head, &desk), 91u);
    memset(desk.name, 'y', sizeof desk.name);
    ASSERT_EQ(tarn_decode_pair_back(scratch, 91, &desk), 0);
    EXPECT_EQ(desk.name, std::string(63, 'x'));
    desk.count = 5;
    EXPECT_EQ(tarn_encode_pair_back(scratch, room, &head, &desk), 0u);

    tarn_clipboard_ack ack = clip_ack;
    ack.count = 65;
    EXPECT_EQ(tarn_encode_clipboard_ack(scratch, room, &head, &ack), 0u);
    const tarn_input_event many[65] = {};
    EXPECT_EQ(tarn_encode_input(scratch, room, &head, 1, many, 64), 781u);
    EXPECT_EQ(tarn_encode_input(scratch, room, &head, 1, many, 65), 0u);
    EXPECT_EQ(tarn_encode_input(scratch, room, &head, 1, many, -1), 0u);
    EXPECT_EQ(tarn_encode_input(scratch, room, &head, 1, nullptr, 1), 0u);
    batch b;
    ASSERT_EQ(tarn_encode_input(scratch, room, &head, 1, nullptr, 0), 13u);
    EXPECT_EQ(tarn_decode_input(scratch, 13, nullptr, b.events, &b.count), -1);
    EXPECT_EQ(tarn_decode_input(scratch, 13, &b.seq, nullptr, &b.count), -1);
    EXPECT_EQ(tarn_decode_input(scratch, 13, &b.seq, b.events, nullptr), -1);

    // A length at which the sum with the fixed part wraps to something small.
    const size_t huge = SIZE_MAX - 10;
    EXPECT_EQ(tarn_encode_cursor_shape(scratch, room, &head, &shape, data, huge), 0u);
    EXPECT_EQ(tarn_encode_audio(scratch, room, &head, &audio, data, huge), 0u);

    // A sender's cursor is trusted; single values go out under three types and no other.
    const tarn_cursor_shape odd = {1, 1, 1, 0, 0, 5, 9};
    EXPECT_EQ(tarn_encode_cursor_shape(scratch, room, &head, &odd, data, 3), 31u);
    for (unsigned type = 0; type < 256; type++) {
        const tarn_header h = {static_cast<uint8_t>(type), 0, 0};
        const bool known = type == 7 || type == 34 || type == 50;
        EXPECT_EQ(tarn_encode_u32_packet(scratch, room, &h, 1), known ? 12u : 0u) << type;
    }
    for (const int on : {0, 1, 256, -256}) {
        EXPECT_EQ(tarn_encode_audio_control(scratch, room, &head, on), 9u);
        EXPECT_EQ(scratch[8], on ? 1 : 0) << on;
        EXPECT_EQ(tarn_encode_pair_back_ack(scratch, room, &head, on), 9u);
        EXPECT_EQ(scratch[8], on ? 1 : 0) << on;
    }
}

TEST(Protocol, OlderHellosLackTheirTail) {
    const bytes golden = packet(rows[0].type, rows[0].body);
    for (size_t size = 39; size <= 41; size++) {
        bytes expected = prefix(golden, size);
        expected.resize(41);
        EXPECT_EQ(hex(echo(rows[0], prefix(golden, size))), hex(expected));
    }
}

TEST(Protocol, ClearsTheSecondTimeWhereThereIsNone) {
    const std::string body = "010203041112131415161718";
    tarn_ping p = ping, a = ping;
    ASSERT_EQ(tarn_decode_ping(packet(3, body).data(), 20, &p), 0);
    ASSERT_EQ(tarn_decode_audio(packet(64, body).data(), 20, &a, nullptr, nullptr), 0);
    EXPECT_EQ(p.time2 | a.time2, 0u);
}

TEST(Protocol, HeaderAlone) {
    const tarn_header sent = {200, 0xA5, 0x44332211};
    uint8_t out[8];
    ASSERT_EQ(tarn_encode_header(out, 8, &sent), 8u);
    EXPECT_EQ(hex(out, 8), "5001c8a511223344");
    EXPECT_EQ(tarn_encode_header(out, 7, &sent), 0u);
    EXPECT_EQ(tarn_encode_header(nullptr, 8, &sent), 0u);
    EXPECT_EQ(tarn_encode_header(out, 8, nullptr), 0u);
    tarn_header got = {};
    EXPECT_EQ(tarn_decode_header(out, 8, &got), 0);
    EXPECT_EQ(got.type, 200);
    EXPECT_EQ(got.flags, 0xA5);
    EXPECT_EQ(got.session, 0x44332211u);
    EXPECT_EQ(tarn_decode_header(out, 8, nullptr), 0);
    EXPECT_EQ(tarn_decode_header(out, 7, &got), -1);
    EXPECT_EQ(tarn_decode_header(nullptr, 8, &got), -1);
    out[1] = 2;
    EXPECT_EQ(tarn_decode_header(out, 8, &got), -1) << "a sealed packet is opened first";
}
