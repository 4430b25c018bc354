// The packet codec against golden bytes, every truncation, every flipped bit, every foreign type, and the limits of
// each variable part.
#include <gtest/gtest.h>

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

// The limits of what follows a fixed part, and one past each: `body`, then zeros up to a size that is taken and one that
// is not; 0: there is none.
TEST(Protocol, LimitsOfCountsNamesAndChunks) {
    const std::string id = "01020304", reply = id + "00000000" + "000000000000" + "00",
                      four = "000004" + std::string(32, '0'), pixel = id + "01000100" + "00000000";
    const struct {
        uint8_t type;
        std::string body;
        size_t good, bad;
        const char *why;
    } limits[] = {
        {10, reply + "3f", 87, 86, "a name of 63"},
        {10, reply + "40", 0, 88, "a name of 64"},
        {12, id + "00" + "00000001" + "00000000", 21, 0, "a blob of 16 MiB"},
        {12, id + "00" + "01000001" + "00000000", 0, 21, "a blob of 16 MiB and 1"},
        {12, id + "00" + "00000000" + "00000000", 0, 21, "an empty blob"},
        {12, id + "00" + "04000000" + "04000000", 21, 22, "a chunk at the end"},
        {12, id + "00" + "04000000" + "05000000", 0, 21, "a chunk behind the end"},
        {12, id + "00" + "04000000" + "01000000", 24, 25, "a chunk up to the end, and across"},
        {12, id + "00" + "04000000" + "ffffffff", 0, 26, "an offset that would wrap"},
        {13, id + "00" + "40", 526, 525, "64 ranges"},
        {13, id + "00" + "41", 0, 534, "65 ranges"},
        {14, four + "3f", 91, 90, "4 words and a name of 63"},
        {14, four + "40", 0, 92, "a name of 64"},
        {14, "000004", 28, 27, "4 words and no name"},
        {14, "000005", 0, 40, "5 words"},
        {33, pixel + "04000000" + "04000000", 28, 29, "a chunk at the end"},
        {33, pixel + "04000000" + "05000000", 0, 28, "a chunk behind the end"},
        {33, pixel + "05000000" + "04000000", 0, 28, "a total beyond the pixels"},
        {33, pixel + "03000000" + "00000000", 0, 28, "a total short of the pixels"},
        {33, pixel + "04000000" + "01000000", 31, 32, "a chunk up to the end, and across"},
        {33, id + std::string(32, '0'), 28, 0, "no pixels"},
        {33, id + "ffffffff" + "00000000" + "0400f8ff" + "00000000", 0, 28,
         "a product that wraps at 32 bits"},
        {48, id + "40", 781, 780, "64 events"},
        {48, id + "41", 0, 793, "65 events"},
        {48, id + "00", 13, 12, "no event"},
    };
    for (const auto &l : limits) {
        SCOPED_TRACE(std::to_string(l.type) + ": " + l.why);
        for (const size_t size : {l.good, l.bad}) {
            if (size == 0) continue;
            bytes p = packet(l.type, l.body);
            p.resize(size);
            p.shrink_to_fit();
            for (const packet_row &r : rows) {
                if (r.type != l.type) continue;
                EXPECT_EQ(hex(r.echo(p)), size == l.good ? hex(p) : "");
            }
            if (l.type != 12) continue;
            // The clipboard's encoder makes the same checks.
            const tarn_clipboard_chunk c = {1, 0, get_u32(&p[13]), get_u32(&p[17])};
            EXPECT_EQ(tarn_encode_clipboard(scratch, room, &packet_head, &c, p.data(), size - 21),
                      size == l.good ? size : 0);
        }
    }
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
