// Video transport, end to end: what the packetizer sends, lost, repeated and out of order, and what the
// reassembler makes of it and of packets that lie.
#include <bytes_internal.h>
#include <gtest/gtest.h>
#include <support/seeded_random.h>
#include <tarnglider/protocol.h>
#include <tarnglider/video_transport.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;
constexpr size_t HEADER = TARN_VIDEO_SHARD_HEADER;

struct destroyer {
    void operator()(tarn_packetizer *p) const { tarn_packetizer_destroy(p); }
    void operator()(tarn_reassembler *r) const { tarn_reassembler_destroy(r); }
};
using packetizer = std::unique_ptr<tarn_packetizer, destroyer>;
using reassembler = std::unique_ptr<tarn_reassembler, destroyer>;

bytes content_of(uint64_t seed, size_t size) {
    bytes out(size);
    test_random(seed).fill(out.data(), size);
    return out;
}

void keep(void *context, const uint8_t *packet, size_t len) {
    static_cast<std::vector<bytes> *>(context)->emplace_back(packet, packet + len);
}

tarn_frame_info info_of(uint32_t id) {
    return {id, static_cast<uint8_t>(id * 3 + 1), 0x0102030405060708u + id, 0xF0000000u + id};
}

std::vector<bytes> cut(tarn_packetizer *p, uint32_t id, const bytes &frame) {
    std::vector<bytes> packets;
    const tarn_frame_info info = info_of(id);
    const int sent =
        tarn_packetizer_send_frame(p, 0xA1B2C3D4, &info, frame.data(), frame.size(), keep, &packets);
    EXPECT_EQ(static_cast<size_t>(sent), packets.size());
    return packets;
}

std::vector<bytes> cut(uint32_t id, const bytes &frame, size_t packet_size, int percent, int least) {
    return cut(packetizer(tarn_packetizer_create(packet_size, percent, least)).get(), id, frame);
}

tarn_video_shard fields(const bytes &packet) {
    tarn_video_shard f = {};
    EXPECT_EQ(tarn_decode_video_shard(packet.data(), packet.size(), &f, nullptr, nullptr), 0);
    return f;
}

int push(const reassembler &r, const bytes &packet) {
    const auto exact = std::make_unique<uint8_t[]>(packet.size()); // no byte behind the packet
    std::copy(packet.begin(), packet.end(), exact.get());
    return tarn_reassembler_push(r.get(), exact.get(), packet.size());
}

tarn_reassembler_stats stats_of(const reassembler &r) {
    tarn_reassembler_stats s;
    tarn_reassembler_get_stats(r.get(), &s);
    return s;
}

// Whether the counters are exactly these.
::testing::AssertionResult counts(const reassembler &r, auto completed, auto lost, auto received,
                                  auto recovered, auto bad) {
    const tarn_reassembler_stats s = stats_of(r);
    const uint64_t got[] = {s.frames_completed, s.frames_lost, s.shards_received, s.shards_recovered,
                            s.bad_packets};
    const uint64_t due[] = {static_cast<uint64_t>(completed), static_cast<uint64_t>(lost),
                            static_cast<uint64_t>(received), static_cast<uint64_t>(recovered),
                            static_cast<uint64_t>(bad)};
    if (std::equal(got, got + 5, due)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << ::testing::PrintToString(got) << ", not " << ::testing::PrintToString(due);
}

// Pops the next frame and holds all of it against what was sent.
::testing::AssertionResult pops(const reassembler &r, uint32_t id, const bytes &content, uint32_t lost,
                                uint32_t recovered = 0) {
    tarn_frame f;
    uint32_t skipped;
    if (tarn_reassembler_pop(r.get(), &f, &skipped) != 1)
        return ::testing::AssertionFailure() << "none waiting";
    const tarn_frame_info info = info_of(id);
    if (f.frame_id != id) return ::testing::AssertionFailure() << "frame " << f.frame_id << " for " << id;
    if (f.size != content.size() || std::memcmp(f.data, content.data(), content.size()) != 0)
        return ::testing::AssertionFailure() << "content differs";
    if (f.frame_flags != info.frame_flags || f.frame_time != info.frame_time || f.frame_aux != info.frame_aux)
        return ::testing::AssertionFailure() << "info differs";
    if (skipped != lost || f.recovered != recovered)
        return ::testing::AssertionFailure() << "lost " << skipped << ", recovered " << f.recovered;
    return ::testing::AssertionSuccess();
}

// A one-packet frame, for tests of order.
bytes small(uint32_t id) { return content_of(id, 20); }
bytes small_packet(uint32_t id) { return cut(id, small(id), 100, 0, 0).at(0); }

TEST(Packetizer, LayoutOfAPacket) {
    const bytes frame = content_of(1, 100000);
    const packetizer own(tarn_packetizer_create(1218, 20, 0));
    cut(own.get(), 1, content_of(7, 2347)); // leaves bytes where the padding will be
    const std::vector<bytes> packets = cut(own.get(), 0x11223344, frame);
    ASSERT_EQ(packets.size(), 2u * (43 + 9));
    const bytes &p = packets[43 + 9 + 2]; // shard 2 of group 1
    ASSERT_EQ(p.size(), HEADER + 1163);
    const tarn_frame_info info = info_of(0x11223344);
    bytes expected = {0x50, 1, 16, 0, 0xD4, 0xC3, 0xB2, 0xA1, 0x44, 0x33, 0x22, 0x11, 1, 0, 2, 0, 2, 43, 9};
    expected.resize(HEADER);
    expected[19] = info.frame_flags;
    put_u16(&expected[20], 1163);
    put_u32(&expected[22], 100000);
    put_u32(&expected[26], 43 * 1163);
    put_u64(&expected[30], info.frame_time);
    put_u32(&expected[38], info.frame_aux);
    EXPECT_EQ(bytes(p.begin(), p.begin() + HEADER), expected);
    EXPECT_TRUE(std::equal(p.begin() + HEADER, p.end(), frame.begin() + 45 * 1163));
    const bytes &last = packets[43 + 9 + 42]; // 18 bytes short: 86 x 1163 is 100018
    EXPECT_TRUE(std::equal(last.begin() + HEADER, last.end() - 18, frame.end() - (1163 - 18)));
    EXPECT_EQ(bytes(last.end() - 18, last.end()), bytes(18, 0));
    for (size_t i = 0; i < packets.size(); i++) {
        EXPECT_EQ(packets[i].size(), HEADER + 1163);
        EXPECT_EQ(fields(packets[i]).shard, i % 52);
    }
}

TEST(Packetizer, DivisionAndParity) {
    const struct {
        size_t packet_size, size;
        int percent, least;
        std::vector<std::pair<int, int>> groups; // data and parity shards of each
        int shard_size;
    } rows[] = {
        {1218, 1, 0, 0, {{1, 0}}, 1},
        {43, 1, 0, 0, {{1, 0}}, 1},
        {43, 1, 1, 0, {{1, 1}}, 1}, // 0.01 is rounded up
        {142, 6400, 1000, 0, {{64, 191}}, 100},
        {142, 6400, 1001, -1, {{64, 191}}, 100}, // clamped
        {142, 100, 1001, 0, {{1, 10}}, 100},
        {142, 6400, -1, 256, {{64, 191}}, 100},
        {142, 6401, 0, 0, {{33, 0}, {32, 0}}, 99}, // 65 shards: 6401 / 65 is 98.5
        {142, 12900, 10, 0, {{43, 5}, {43, 5}, {43, 5}}, 100},
        {142, 13000, 10, 0, {{44, 5}, {43, 5}, {43, 5}}, 100},
        {142, 1000, 20, 2, {{10, 2}}, 100},
        {142, 1000, 21, 2, {{10, 3}}, 100},
        {142, 1000, 20, 3, {{10, 3}}, 100},
        {142, 100, 0, 255, {{1, 254}}, 100},
        {1472, 1430, 0, 0, {{1, 0}}, 1430},
        {1472, 1431, 0, 0, {{2, 0}}, 716},
        {142, 4999, 0, 0, {{50, 0}}, 100},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.packet_size) + " " + std::to_string(row.size) + " " +
                     std::to_string(row.percent));
        const std::vector<bytes> packets =
            cut(5, content_of(2, row.size), row.packet_size, row.percent, row.least);
        size_t at = 0, offset = 0;
        for (size_t g = 0; g < row.groups.size(); g++) {
            const auto [k, p] = row.groups[g];
            for (int i = 0; i < k + p; i++, at++) {
                ASSERT_LT(at, packets.size());
                const tarn_video_shard f = fields(packets[at]);
                EXPECT_EQ(f.group, g);
                EXPECT_EQ(f.group_count, row.groups.size());
                EXPECT_EQ(f.shard, i);
                EXPECT_EQ(f.data_shards, k);
                EXPECT_EQ(f.parity_shards, p);
                EXPECT_EQ(f.shard_size, row.shard_size);
                EXPECT_EQ(f.group_offset, offset);
            }
            offset += static_cast<size_t>(k * row.shard_size);
        }
        EXPECT_EQ(at, packets.size());
        EXPECT_EQ(fields(packets[0]).frame_size, row.size);
    }
}

TEST(Packetizer, Arguments) {
    EXPECT_EQ(tarn_packetizer_create(42, 0, 0), nullptr);
    EXPECT_EQ(tarn_packetizer_create(1473, 0, 0), nullptr);
    const packetizer p(tarn_packetizer_create(43, 0, 0));
    const tarn_frame_info info = info_of(1);
    std::vector<bytes> out;
    const uint8_t byte = 1;
    EXPECT_EQ(tarn_packetizer_send_frame(nullptr, 1, &info, &byte, 1, keep, &out), -1);
    EXPECT_EQ(tarn_packetizer_send_frame(p.get(), 1, nullptr, &byte, 1, keep, &out), -1);
    EXPECT_EQ(tarn_packetizer_send_frame(p.get(), 1, &info, nullptr, 1, keep, &out), -1);
    EXPECT_EQ(tarn_packetizer_send_frame(p.get(), 1, &info, &byte, 0, keep, &out), -1);
    const packetizer large(tarn_packetizer_create(1472, 0, 0));
    EXPECT_EQ(tarn_packetizer_send_frame(large.get(), 1, &info, &byte, 0x100000000u, keep, &out), -1);
    EXPECT_EQ(tarn_packetizer_send_frame(p.get(), 1, &info, &byte, 1, nullptr, &out), -1);
    const bytes most(0x400000 - 64);
    const auto count = [](void *context, const uint8_t *packet, size_t) {
        ++*static_cast<int *>(context);
        EXPECT_EQ(get_u16(packet + 14), 65535);
    };
    int sent = 0;
    EXPECT_EQ(tarn_packetizer_send_frame(p.get(), 1, &info, most.data(), most.size() + 1, count, &sent), -1);
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(tarn_packetizer_send_frame(p.get(), 1, &info, most.data(), most.size(), count, &sent),
              0x400000 - 64);
    tarn_packetizer_set_fec(p.get(), 100, 0); // holds from the next frame on
    EXPECT_EQ(cut(p.get(), 1, content_of(1, 5)).size(), 10u);
    tarn_packetizer_set_fec(nullptr, 1, 1);
    tarn_packetizer_destroy(nullptr);
}

TEST(Reassembler, RebuildsFromWhatArrives) {
    const bytes frame = content_of(3, 100000);
    const std::vector<bytes> packets = cut(7, frame, 1218, 20, 0);
    for (const char *order : {"sent", "reversed"}) {
        SCOPED_TRACE(order);
        std::vector<bytes> in = packets;
        if (*order == 'r') std::reverse(in.begin(), in.end()); // parity comes first and is used
        const reassembler r(tarn_reassembler_create(100000));
        for (size_t i = 0; i < in.size(); i++) {
            const bool complete = i >= 52 + 42; // k shards of the second group
            EXPECT_EQ(push(r, in[i]), complete) << i;
        }
        const uint64_t rebuilt = *order == 'r' ? 18 : 0;
        // What comes behind the frame's last necessary shard is too late, what comes behind a group's counts.
        EXPECT_TRUE(counts(r, 1, 0, 52 + 43, rebuilt, 0));
        EXPECT_TRUE(pops(r, 7, frame, 0, static_cast<uint32_t>(rebuilt)));
    }
    const reassembler r(tarn_reassembler_create(100000));
    for (size_t i = 0; i < packets.size(); i++) {
        if (i % 52 > 12) push(r, packets[i]); // 13 lost: 4 too many
    }
    EXPECT_TRUE(counts(r, 0, 0, 2 * 39, 0, 0));
    for (size_t i : {0u, 5u, 6u, 52u, 53u, 54u}) {
        EXPECT_EQ(push(r, packets[i]), 0); // one too many
        EXPECT_EQ(push(r, packets[i]), 0); // twice is as good as once
    }
    EXPECT_EQ(push(r, packets[7]), 0);
    EXPECT_EQ(push(r, packets[55]), 1); // exactly p lost in both groups
    EXPECT_TRUE(counts(r, 1, 0, 2 * 43, 18, 0));
    EXPECT_TRUE(pops(r, 7, frame, 0, 18));
}

TEST(Reassembler, AFrameThatLosesTooMuchIsAGap) {
    const bytes first = content_of(1, 900), second = content_of(2, 900), third = content_of(3, 500);
    const reassembler r(tarn_reassembler_create(1000));
    for (const bytes &p : cut(1, first, 142, 0, 2)) {
        push(r, p);
    }
    const std::vector<bytes> packets = cut(2, second, 142, 0, 2);
    for (size_t i = 3; i < packets.size(); i++) {
        EXPECT_EQ(push(r, packets[i]), 1);
    }
    for (const bytes &p : cut(3, third, 142, 0, 0)) {
        push(r, p);
    }
    EXPECT_EQ(push(r, packets[0]), 1); // would have completed frame 2
    EXPECT_TRUE(counts(r, 2, 1, 9 + 8 + 5, 0, 0));
    EXPECT_TRUE(pops(r, 1, first, 0));
    EXPECT_TRUE(pops(r, 3, third, 1));
    tarn_frame none;
    uint32_t lost = 77;
    EXPECT_EQ(tarn_reassembler_pop(r.get(), &none, &lost), 0);
    EXPECT_EQ(lost, 77u);
    EXPECT_EQ(push(r, small_packet(4)), 1);
    EXPECT_EQ(tarn_reassembler_pop(r.get(), &none, nullptr), 1);
    EXPECT_EQ(push(r, small_packet(4)), 0);
}

TEST(Reassembler, OrderOfIds) {
    const uint32_t base = 0xFFFFFFFD; // the ids wrap
    const reassembler r(tarn_reassembler_create(100));
    for (uint32_t i : {0u, 1u, 4u, 2u, 3u, 5u}) {
        EXPECT_EQ(push(r, small_packet(base + i)), 1);
    }
    EXPECT_TRUE(counts(r, 4, 2, 4, 0, 0)); // 2 and 3 came behind the complete 4
    EXPECT_TRUE(pops(r, base, small(base), 0));
    EXPECT_TRUE(pops(r, base + 1, small(base + 1), 0));
    EXPECT_TRUE(pops(r, base + 4, small(base + 4), 2));
    EXPECT_TRUE(pops(r, base + 5, small(base + 5), 0));
}

TEST(Reassembler, TheStartMovesBackBySevenAtMost) {
    const bytes frame = content_of(4, 200);
    for (uint32_t back : {7u, 8u}) {
        SCOPED_TRACE(back);
        const reassembler r(tarn_reassembler_create(1000));
        EXPECT_EQ(push(r, cut(3, frame, 142, 0, 0)[0]), 0); // half a frame
        EXPECT_EQ(push(r, small_packet(3 - back)), back == 7);
        EXPECT_TRUE(counts(r, back == 7, 0, back == 7 ? 2 : 1, 0, 0));
        if (back == 7) {
            EXPECT_EQ(push(r, small_packet(3u - 9)), 1); // a frame has been completed: nothing older any more
            EXPECT_TRUE(pops(r, 3u - 7, small(3u - 7), 0));
        }
        EXPECT_EQ(push(r, cut(3, frame, 142, 0, 0)[1]), 1);
        EXPECT_TRUE(pops(r, 3, frame, back == 7 ? 6 : 0));
        EXPECT_TRUE(counts(r, back == 7 ? 2 : 1, back == 7 ? 6 : 0, back == 7 ? 3 : 2, 0, 0));
    }
}

TEST(Reassembler, SlotsGoToNewerFrames) {
    const bytes frame = content_of(5, 200);
    std::map<uint32_t, std::vector<bytes>> halves;
    for (uint32_t id = 90; id <= 120; id++) {
        halves[id] = cut(id, frame, 142, 0, 0);
    }
    const reassembler r(tarn_reassembler_create(1000));
    for (uint32_t id = 100; id < 108; id++) {
        push(r, halves[id][0]);
    }
    push(r, halves[99][0]); // older than all eight: ignored
    push(r, halves[99][1]);
    EXPECT_TRUE(counts(r, 0, 0, 8, 0, 0));
    push(r, halves[108][0]); // takes the slot of 100
    EXPECT_EQ(push(r, halves[100][1]), 0);
    EXPECT_TRUE(counts(r, 0, 0, 9, 0, 0));
    EXPECT_EQ(push(r, halves[101][1]), 1);
    EXPECT_TRUE(pops(r, 101, frame, 2)); // the ignored 99 moved the start, too
    for (uint32_t id = 102; id <= 108; id++) {
        EXPECT_EQ(push(r, halves[id][1]), 1);
    }
    for (uint32_t id = 109; id <= 111; id++) {
        EXPECT_EQ(push(r, halves[id][0]), 1); // the first is free, 102 and 103 are displaced though complete
    }
    EXPECT_TRUE(counts(r, 8, 2, 9 + 8 + 3, 0, 0));
    for (uint32_t id = 104; id <= 108; id++) {
        EXPECT_TRUE(pops(r, id, frame, id == 104 ? 2 : 0));
    }
    EXPECT_EQ(push(r, halves[109][0]), 0); // nothing waits any more
    EXPECT_EQ(push(r, halves[111][1]), 1);
    EXPECT_EQ(push(r, halves[109][1]), 1); // released by the newer frame
    EXPECT_TRUE(pops(r, 111, frame, 2));
}

// Packets that break one rule each; all are refused and change nothing but the counter of bad packets.
TEST(Reassembler, RefusesContradictions) {
    const bytes frame = content_of(6, 13000); // groups of 44, 43 and 43 shards of 100 bytes, 5 parity each
    const std::vector<bytes> packets = cut(9, frame, 142, 10, 0);
    const auto with = [](bytes p, size_t at, int size, uint64_t value) {
        for (int i = 0; i < size; i++) {
            p[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> 8 * i);
        }
        return p;
    };
    const bytes &p = packets[49], &q = packets[0]; // the first ones of groups 1 and 0
    bytes long_one = with(p, 20, 2, 101), empty = with(p, 20, 2, 0), shorter = p;
    long_one.push_back(0);
    empty.resize(HEADER);
    shorter.pop_back();
    const bytes huge = cut(9, content_of(1, 1430), 1472, 0, 0)[0];
    bytes beyond = with(with(huge, 20, 2, 1431), 22, 4, 1431);
    beyond.push_back(0);
    const struct {
        bytes packet;
        const char *why;
    } rows[] = {
        {empty, "shard of no bytes"},
        {beyond, "shard of 1431 bytes"},
        {shorter, "a byte short"},
        {with(p, 20, 2, 99), "shard_size below the length"},
        {long_one, "shards of another size"},
        {with(with(p, 22, 4, 0), 14, 2, 0), "empty frame of no groups"},
        {cut(9, content_of(1, 13001), 142, 10, 0)[0], "frame above max_frame"},
        {with(p, 17, 1, 0), "no data shard"},
        {with(p, 17, 1, 65), "65 data shards"},
        {with(p, 17, 1, 44), "data shards of another group"},
        {with(q, 17, 1, 43), "data shards of another group"},
        {with(p, 18, 1, 213), "256 shards"},
        {with(p, 16, 1, 48), "shard beyond the last"},
        {with(p, 14, 2, 2), "fewer groups"},
        {with(p, 14, 2, 4), "more groups"},
        {with(with(p, 12, 2, 3), 26, 4, 13000), "group beyond the last"},
        {with(p, 12, 2, 2), "offset of another group"},
        {with(p, 26, 4, 4399), "offset"},
        {with(p, 26, 4, 0), "offset"},
        {with(p, 0, 1, 0x51), "magic"},
        {with(p, 1, 1, 2), "version"},
        {with(p, 2, 1, 17), "type"},
    };
    const reassembler r(tarn_reassembler_create(13000));
    uint64_t bad = 0;
    for (int round = 0; round < 2; round++) { // before the frame is known, and while it is under construction
        for (const auto &row : rows) {
            EXPECT_EQ(push(r, row.packet), -1) << row.why;
            EXPECT_TRUE(counts(r, 0, 0, round, 0, ++bad));
        }
        if (round == 0) {
            EXPECT_EQ(push(r, p), 0);
        }
    }
    // Each of these is sound in itself, but not of this frame.
    const bytes other_size = with(packets[1], 22, 4, 12999);
    for (const bytes &lie :
         {other_size, with(packets[1], 19, 1, 200), with(packets[1], 30, 8, 5), with(packets[1], 38, 4, 5),
          with(packets[50], 18, 1, 6), with(p, 18, 1, 4), cut(9, frame, 144, 10, 0)[1]}) {
        EXPECT_EQ(push(r, lie), -1);
        EXPECT_TRUE(counts(r, 0, 0, 1, 0, ++bad));
    }
    EXPECT_EQ(push(r, with(q, 18, 1, 211)), 0); // another group may have other parity: 44 + 211 is 255
    EXPECT_TRUE(counts(r, 0, 0, 2, 0, bad));
    EXPECT_EQ(tarn_reassembler_push(r.get(), nullptr, 100), -1);
    EXPECT_EQ(tarn_reassembler_push(nullptr, p.data(), p.size()), -1);
    EXPECT_TRUE(counts(r, 0, 0, 2, 0, bad + 1));
}

TEST(Reassembler, EveryTruncationAndFlippedBit) {
    const bytes frame = content_of(8, 300), good = cut(4, frame, 142, 0, 1)[1];
    const reassembler r(tarn_reassembler_create(1000));
    for (size_t n = 0; n < good.size(); n++) {
        EXPECT_EQ(push(r, bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(n))), -1);
    }
    EXPECT_TRUE(counts(r, 0, 0, 0, 0, good.size()));
    for (size_t bit = 0; bit < HEADER * 8; bit++) {
        bytes flipped = good;
        flipped[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
        const reassembler fresh(tarn_reassembler_create(1000));
        const size_t at = bit / 8, i = bit % 8;
        // Nobody judges flags, session, frame id and what the frame carries; another shard, another number of
        // parity shards and another frame size of three shards are as good.
        const bool sound = (at >= 3 && at < 12) || at == 18 || at == 19 || at >= 30 || (at == 16 && i < 2) ||
                           (at == 22 && (i == 2 || i == 3 || i == 5));
        const int got = push(fresh, flipped);
        EXPECT_EQ(got, sound ? 0 : -1) << "bit " << bit;
        EXPECT_EQ(stats_of(fresh).shards_received, got == 0);
    }
}

TEST(Reassembler, Limits) {
    EXPECT_EQ(tarn_reassembler_create(0), nullptr);
    EXPECT_EQ(tarn_reassembler_create(0x100000000u), nullptr);
    const reassembler r(tarn_reassembler_create(0xFFFFFFFF));
    ASSERT_NE(r, nullptr);
    bytes p = small_packet(1);
    put_u32(&p[22], 0xFFFFFFFF); // 214,748,365 shards of 20 bytes
    EXPECT_EQ(push(r, p), -1);
    // With 1-byte shards the number of groups ends at 65535.
    bytes tiny = cut(1, content_of(1, 64), 43, 0, 0)[0];
    put_u32(&tiny[22], 0x400000 - 63);
    put_u16(&tiny[14], 0);
    EXPECT_EQ(push(r, tiny), -1);
    put_u32(&tiny[22], 0x400000 - 64);
    put_u16(&tiny[14], 65535);
    EXPECT_EQ(push(r, tiny), 0);
    tarn_frame frame;
    tarn_reassembler_stats s;
    EXPECT_EQ(tarn_reassembler_pop(nullptr, &frame, nullptr), 0);
    EXPECT_EQ(tarn_reassembler_pop(r.get(), nullptr, nullptr), 0);
    tarn_reassembler_get_stats(nullptr, &s);
    tarn_reassembler_get_stats(r.get(), nullptr);
    tarn_reassembler_destroy(nullptr);
}

// What should happen to a stream, told by shard numbers alone. Frames count from the first one of the stream.
struct model {
    struct group {
        std::set<int> shards;
        int data = 0;
        bool done = false;
    };
    struct frame {
        std::map<int, group> groups;
        int done = 0;
        uint32_t recovered = 0;
    };
    std::map<uint32_t, frame> frames; // under construction, 8 at most
    uint32_t next = 0;
    tarn_reassembler_stats stats = {};

    // Whether this packet completes its frame, `out`.
    bool take(uint32_t id, const tarn_video_shard &f, frame &out) {
        if (id < next) return false;
        if (!frames.count(id) && frames.size() == TARN_VIDEO_SLOTS) {
            if (frames.begin()->first > id) return false;
            frames.erase(frames.begin());
        }
        frame &own = frames[id];
        group &g = own.groups[f.group];
        if (!g.shards.insert(f.shard).second) return false;
        stats.shards_received++;
        if (g.done) return false;
        g.data += f.shard < f.data_shards;
        if (static_cast<int>(g.shards.size()) < f.data_shards) return false;
        g.done = true;
        own.recovered += static_cast<uint32_t>(f.data_shards - g.data);
        stats.shards_recovered += static_cast<uint64_t>(f.data_shards - g.data);
        if (++own.done < f.group_count) return false;
        out = own;
        stats.frames_completed++;
        stats.frames_lost += id - next;
        next = id + 1;
        frames.erase(frames.begin(), frames.upper_bound(id));
        return true;
    }
};

TEST(Reassembler, StreamsThroughLossAsTheModelSays) {
    for (uint64_t seed = 1; seed <= 60; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        test_random random(seed);
        const packetizer p(tarn_packetizer_create(43 + random.below(200), 0, 0));
        const reassembler r(tarn_reassembler_create(20000));
        const auto first = static_cast<uint32_t>(seed % 2 ? random.next() : 0 - random.below(30));
        std::vector<std::pair<uint64_t, bytes>> wire; // with the time of arrival
        std::map<uint32_t, bytes> sent;
        const uint64_t loss = random.below(25), spread = 1 + random.below(80);
        uint64_t now = 0;
        for (uint32_t id = first; id != first + 40; id++) {
            tarn_packetizer_set_fec(p.get(), static_cast<int>(random.below(60)),
                                    static_cast<int>(random.below(4)));
            sent[id] = content_of(seed + id, 1 + random.below(random.below(4) ? 3000 : 20000));
            for (const bytes &packet : cut(p.get(), id, sent[id])) {
                now++;
                if (random.below(20) == 0) wire.emplace_back(now + spread + random.below(spread), packet);
                if (now > 1 && random.below(100) < loss) continue;
                wire.emplace_back(now == 1 ? 0 : now + random.below(spread), packet);
            }
        }
        std::stable_sort(wire.begin(), wire.end(), [](auto &a, auto &b) { return a.first < b.first; });
        model expected;
        for (const auto &arrival : wire) {
            const tarn_video_shard f = fields(arrival.second);
            const uint32_t before = expected.next;
            model::frame complete;
            const bool due = expected.take(f.frame_id - first, f, complete);
            ASSERT_EQ(push(r, arrival.second), due);
            if (!due) continue;
            ASSERT_TRUE(
                pops(r, f.frame_id, sent[f.frame_id], f.frame_id - first - before, complete.recovered));
        }
        EXPECT_TRUE(counts(r, expected.stats.frames_completed, expected.stats.frames_lost,
                           expected.stats.shards_received, expected.stats.shards_recovered, 0));
    }
}

} // namespace
