// The packet codec against golden bytes, every truncation, every flipped bit, every foreign type, and the
// limits of each variable part.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/packet_rows.h"

namespace {

const std::vector<packet_row> rows = packet_rows();
constexpr size_t room = 1024;
uint8_t scratch[room];

// Types that one decoder serves together.
uint8_t served_as(uint8_t type) { return type == 34 || type == 50 ? 7 : type; }

} // namespace

TEST(Protocol, WritesTheGoldenBytesAndNothingWithoutRoom) {
    for (const packet_row &r : rows) {
        SCOPED_TRACE(int{r.type});
        EXPECT_EQ(hex(r.echo(r.golden)), hex(r.golden));
        for (size_t cap = 0; cap <= r.golden.size(); cap++) {
            bytes small(cap);
            small.resize(r.encode(small.data(), cap, &packet_head));
            EXPECT_EQ(hex(small), cap < r.golden.size() ? "" : hex(r.golden)) << cap;
        }
        EXPECT_EQ(r.encode(nullptr, room, &packet_head) + r.encode(scratch, room, nullptr), 0u);
    }
}

TEST(Protocol, RefusesCutAndForeignPackets) {
    for (const packet_row &r : rows) {
        SCOPED_TRACE(int{r.type});
        const size_t minimum = r.type == 1 ? 39 : r.golden.size() - (r.what == chunk ? 3 : 0);
        for (size_t n = 0; n <= r.golden.size(); n++) {
            bytes expected = prefix(r.golden, n < minimum ? 0 : n);
            if (r.type == 1 && n >= minimum) expected.resize(41); // older hellos lack their tail
            EXPECT_EQ(hex(r.echo(prefix(r.golden, n))), hex(expected)) << n;
        }
        bytes p = r.golden;
        for (unsigned type = 0; type < 256; type++) {
            p[2] = static_cast<uint8_t>(type);
            // A ping is too short for a pong; a pong read as a ping is one.
            const bool served = served_as(p[2]) == served_as(r.type) || (r.type == 4 && type == 3);
            EXPECT_EQ(!r.echo(p).empty(), served) << type;
        }
        bytes longer = r.golden;
        longer.push_back(0xFF);
        EXPECT_TRUE(r.what == chunk || r.echo(longer) == r.golden) << "what follows is ignored";
    }
}

// A flipped bit is refused, or it comes out as the field it is in: no field is read twice, and none is lost.
TEST(Protocol, EveryFlippedBitIsRefusedOrKept) {
    for (const packet_row &r : rows) {
        for (size_t bit = 0; bit < 8 * r.golden.size(); bit++) {
            if (bit / 8 == 2) continue; // the type has a test of its own
            bytes p = r.golden;
            p[bit / 8] ^= static_cast<uint8_t>(1u << bit % 8);
            const bytes back = r.echo(p);
            const size_t due = bit < 16 ? 0 : r.what == fixed || bit < 64 ? p.size() : back.size();
            EXPECT_EQ(hex(back), hex(prefix(p, due))) << int{r.type} << ", bit " << bit;
        }
    }
}

// Whether a packet of this body and so many zeros behind it is taken, by the one row of its type.
static bool taken(uint8_t type, const std::string &body, size_t zeros) {
    bytes p = packet(type, body);
    p.resize(p.size() + zeros);
    p.shrink_to_fit();
    const auto row =
        std::find_if(rows.begin(), rows.end(), [=](const packet_row &r) { return r.type == type; });
    const bytes back = row->echo(p);
    EXPECT_TRUE(back.empty() || back == p) << hex(back);
    return !back.empty();
}

static std::string wire(size_t value, size_t size) { // little-endian
    uint8_t le[4];
    put_u32(le, static_cast<uint32_t>(value));
    return hex(le, size);
}

TEST(Protocol, LimitsOfCountsAndNames) {
    const struct {
        uint8_t type;
        std::string body; // in front of the count
        size_t max, item, behind;
    } limits[] = {{10, std::string(30, '0'), 63, 1, 0},
                  {13, "0000000000", 64, 8, 0},
                  {14, "0000", 4, 4, 1},
                  {14, "000004" + std::string(32, '0'), 63, 1, 0},
                  {48, "00000000", 64, 12, 0}};
    for (const auto &l : limits) {
        for (size_t count = 0; count < 256; count++) {
            const std::string body = l.body + wire(count, 1);
            const size_t size = count * l.item + l.behind;
            EXPECT_EQ(taken(l.type, body, size), count <= l.max) << int{l.type} << ", " << count;
            EXPECT_FALSE(size > 0 && taken(l.type, body, size - 1)) << int{l.type} << ", " << count;
        }
    }
}

// A chunk of a blob on the clipboard, and of a cursor of one pixel.
TEST(Protocol, LimitsOfChunks) {
    for (const uint32_t total : {0u, 3u, 4u, 5u, 1u << 24, (1u << 24) + 1}) {
        for (const uint32_t offset : {0u, 1u, 4u, 5u, 1u << 24, UINT32_MAX}) {
            for (uint32_t size = 0; size < 7; size++) {
                const std::string place = wire(total, 4) + wire(offset, 4);
                SCOPED_TRACE(place + ", " + std::to_string(size));
                const bool fits = uint64_t{offset} + size <= total,
                           clipboard = fits && total > 0 && total <= 1 << 24;
                EXPECT_EQ(taken(33, "010203040100010000000000" + place, size), fits && total == 4);
                EXPECT_EQ(taken(12, "0102030400" + place, size), clipboard);
                // The clipboard's encoder makes the same checks.
                const tarn_clipboard_chunk c = {1, 0, total, offset};
                EXPECT_EQ(tarn_encode_clipboard(scratch, room, &packet_head, &c, scratch, size),
                          clipboard ? 21 + size : 0);
            }
        }
    }
    EXPECT_TRUE(taken(33, "01020304", 16)) << "no pixels";
    EXPECT_FALSE(taken(33, "01020304ffffffff000000000400f8ff", 4)) << "a product that wraps at 32 bits";
}

template <class Record>
void longer_names_are_cut(size_t (*encode)(uint8_t *, size_t, const tarn_header *, const Record *),
                          int (*decode)(const uint8_t *, size_t, Record *), Record r, size_t size) {
    for (const int len : {64, 255}) {
        r.name_len = static_cast<uint8_t>(len);
        memset(r.name, 'x', sizeof r.name);
        ASSERT_EQ(encode(scratch, room, &packet_head, &r), size);
        memset(r.name, 'y', sizeof r.name);
        ASSERT_EQ(decode(scratch, size, &r), 0);
        EXPECT_EQ(r.name, std::string(63, 'x'));
    }
}

TEST(Protocol, EncodersKeepTheirLimits) {
    tarn_pair_back desk = {};
    desk.count = 4;
    longer_names_are_cut(tarn_encode_pair_back, tarn_decode_pair_back, desk, 91);
    longer_names_are_cut(tarn_encode_discover_reply, tarn_decode_discover_reply, {}, 87);
    desk.count = 5;
    EXPECT_EQ(tarn_encode_pair_back(scratch, room, &packet_head, &desk), 0u);
    tarn_clipboard_ack ack = {};
    ack.count = 65;
    EXPECT_EQ(tarn_encode_clipboard_ack(scratch, room, &packet_head, &ack), 0u);
    const tarn_input_event many[65] = {};
    for (const auto &[events, count, size] :
         {std::tuple{many, 64, 781u}, {many, 65, 0u}, {many, -1, 0u}, {nullptr, 1, 0u}, {nullptr, 0, 13u}})
        EXPECT_EQ(tarn_encode_input(scratch, room, &packet_head, 1, events, count), size) << count;

    // A length at which the sum with the fixed part wraps to something small.
    const size_t huge = SIZE_MAX - 10;
    const tarn_cursor_shape odd = {1, 1, 1, 0, 0, 5, 9};
    const tarn_ping audio = {};
    EXPECT_EQ(tarn_encode_cursor_shape(scratch, room, &packet_head, &odd, packet_chunk, huge), 0u);
    EXPECT_EQ(tarn_encode_audio(scratch, room, &packet_head, &audio, packet_chunk, huge), 0u);

    // A sender's cursor is trusted; single values go out under three types and no other.
    EXPECT_EQ(tarn_encode_cursor_shape(scratch, room, &packet_head, &odd, packet_chunk, 3), 31u);
    for (unsigned type = 0; type < 256; type++) {
        const tarn_header h = {static_cast<uint8_t>(type), 0, 0};
        EXPECT_EQ(tarn_encode_u32_packet(scratch, room, &h, 1), served_as(h.type) == 7 ? 12u : 0u) << type;
    }
    for (const int on : {0, 1, 256, -256}) {
        for (const auto encode : {tarn_encode_audio_control, tarn_encode_pair_back_ack}) {
            EXPECT_EQ(encode(scratch, room, &packet_head, on), 9u);
            EXPECT_EQ(scratch[8], on ? 1 : 0) << on;
        }
    }
}

TEST(Protocol, ClearsTheSecondTimeWhereThereIsNone) {
    tarn_ping p = rubbish<tarn_ping>(), a = p;
    ASSERT_EQ(tarn_decode_ping(packet(3, std::string(24, '1')).data(), 20, &p), 0);
    ASSERT_EQ(tarn_decode_audio(packet(64, std::string(24, '1')).data(), 20, &a, nullptr, nullptr), 0);
    EXPECT_EQ(p.time2 | a.time2, 0u);
}

TEST(Protocol, HeaderAlone) {
    const tarn_header sent = {200, 0xA5, 0x44332211};
    uint8_t out[8];
    ASSERT_EQ(tarn_encode_header(out, 8, &sent), 8u);
    EXPECT_EQ(hex(out, 8), "5001c8a511223344");
    EXPECT_EQ(tarn_encode_header(out, 7, &sent) + tarn_encode_header(nullptr, 8, &sent) +
                  tarn_encode_header(out, 8, nullptr),
              0u);
    tarn_header got = {};
    EXPECT_EQ(tarn_decode_header(out, 8, &got), 0);
    EXPECT_TRUE(got.type == 200 && got.flags == 0xA5 && got.session == 0x44332211);
    EXPECT_EQ(tarn_decode_header(out, 8, nullptr), 0);
    EXPECT_EQ(tarn_decode_header(out, 7, &got), -1);
    EXPECT_EQ(tarn_decode_header(nullptr, 8, &got), -1);
    out[1] = 2;
    EXPECT_EQ(tarn_decode_header(out, 8, &got), -1) << "a sealed packet is opened first";
}
