// Video transport, end to end: what the packetizer sends, lost, repeated and out of order, and what the
// reassembler makes of it and of packets that lie.
#include <bytes_internal.h>
#include <gtest/gtest.h>
#include <support/seeded_random.h>
#include <tarnglider/protocol.h>
#include <tarnglider/video_transport.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;
using packets = std::vector<bytes>;
using numbers = std::vector<uint64_t>;
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

tarn_frame_info info_of(uint32_t id) {
    return {id, static_cast<uint8_t>(id * 3 + 1), 0x0102030405060708u + id, 0xF0000000u + id};
}

void keep(void *context, const uint8_t *packet, size_t len) {
    static_cast<packets *>(context)->emplace_back(packet, packet + len);
}

packets cut(tarn_packetizer *p, uint32_t id, const bytes &frame) {
    packets out;
    const tarn_frame_info info = info_of(id);
    const int sent = tarn_packetizer_send_frame(p, 0xA1B2C3D4, &info, frame.data(), frame.size(), keep, &out);
    EXPECT_EQ(static_cast<size_t>(sent), out.size());
    return out;
}

packets cut(uint32_t id, const bytes &frame, size_t packet_size, int percent = 0, int least = 0) {
    return cut(packetizer(tarn_packetizer_create(packet_size, percent, least)).get(), id, frame);
}

// A frame of one packet.
bytes small_packet(uint32_t id) { return cut(id, content_of(id, 20), 100).at(0); }

tarn_video_shard fields(const bytes &packet) {
    tarn_video_shard f = {};
    EXPECT_EQ(tarn_decode_video_shard(packet.data(), packet.size(), &f, nullptr, nullptr), 0);
    return f;
}

int push(const reassembler &r, const bytes &packet) {
    const bytes exact(packet); // no byte behind the packet
    return tarn_reassembler_push(r.get(), exact.data(), exact.size());
}

// Frames completed and lost, shards received and recovered, bad packets.
numbers counts(const reassembler &r) {
    tarn_reassembler_stats s;
    tarn_reassembler_get_stats(r.get(), &s);
    return {s.frames_completed, s.frames_lost, s.shards_received, s.shards_recovered, s.bad_packets};
}

// Pops the next frame and holds all of it against what was sent.
bool pops(const reassembler &r, uint32_t id, const bytes &content, uint32_t lost, uint32_t recovered = 0) {
    tarn_frame f;
    uint32_t skipped;
    const tarn_frame_info info = info_of(id);
    return tarn_reassembler_pop(r.get(), &f, &skipped) == 1 && f.frame_id == id && skipped == lost &&
           bytes(f.data, f.data + f.size) == content && f.frame_flags == info.frame_flags &&
           f.frame_time == info.frame_time && f.frame_aux == info.frame_aux && f.recovered == recovered;
}

TEST(Packetizer, LayoutOfAPacket) {
    const bytes frame = content_of(1, 100000);
    const packetizer own(tarn_packetizer_create(1218, 20, 0));
    cut(own.get(), 1, content_of(7, 2347)); // leaves bytes where the padding will be
    const packets all = cut(own.get(), 0x11223344, frame);
    ASSERT_EQ(all.size(), 2u * (43 + 9));
    const bytes &p = all[43 + 9 + 2], &last = all[43 + 9 + 42];
    const bytes expected = {0x50, 1, 16,   0,    0xD4, 0xC3, 0xB2, 0xA1, 0x44, 0x33, 0x22, 0x11, 1,    0,
                            2,    0, 2,    43,   9,    0xCD, 0x8B, 0x04, 0xA0, 0x86, 0x01, 0,    0x59, 0xC3,
                            0,    0, 0x4C, 0x3A, 0x28, 0x16, 4,    3,    2,    1,    0x44, 0x33, 0x22, 0x01};
    EXPECT_EQ(bytes(p.begin(), p.begin() + HEADER), expected);
    EXPECT_TRUE(std::equal(p.begin() + HEADER, p.end(), frame.begin() + 45 * 1163));
    bytes rest(frame.begin() + 85 * 1163, frame.end());
    rest.resize(1163); // 18 zeros
    EXPECT_EQ(bytes(last.begin() + HEADER, last.end()), rest);
}

TEST(Packetizer, DivisionAndParity) {
    const struct {
        size_t packet_size, size;
        int percent, least;
        std::vector<std::pair<size_t, size_t>> groups; // data and parity shards of each
        size_t shard_size;
    } rows[] = {
        {43, 1, 0, 0, {{1, 0}}, 1},
        {43, 1, 1, 0, {{1, 1}}, 1}, // 0.01 is rounded up
        {142, 6400, 0, 256, {{64, 191}}, 100},
        {142, 100, 1001, 0, {{1, 10}}, 100}, // clamped
        {142, 100, -500, -5, {{1, 0}}, 100},
        {142, 100, 0, 255, {{1, 254}}, 100},
        {142, 6401, 0, 0, {{33, 0}, {32, 0}}, 99}, // 65 shards: 6401 / 65 is 98.5
        {142, 13000, 10, 0, {{44, 5}, {43, 5}, {43, 5}}, 100},
        {142, 1000, 21, 2, {{10, 3}}, 100},
        {142, 1000, 20, 3, {{10, 3}}, 100},
        {1472, 1430, 0, 0, {{1, 0}}, 1430},
        {1472, 1431, 0, 0, {{2, 0}}, 716},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(::testing::Message() << row.packet_size << " " << row.size << " " << row.percent);
        packets got = cut(5, content_of(2, row.size), row.packet_size, row.percent, row.least);
        std::reverse(got.begin(), got.end());
        uint64_t offset = 0;
        for (size_t g = 0; g < row.groups.size(); g++) {
            const auto [k, p] = row.groups[g];
            for (size_t i = 0; i < k + p && !got.empty(); i++, got.pop_back()) {
                const tarn_video_shard f = fields(got.back());
                EXPECT_EQ((numbers{f.group, f.group_count, f.shard, f.data_shards, f.parity_shards,
                                   f.shard_size, f.frame_size, f.group_offset}),
                          (numbers{g, row.groups.size(), i, k, p, row.shard_size, row.size, offset}));
            }
            offset += k * row.shard_size;
        }
        EXPECT_TRUE(got.empty());
    }
}

TEST(Packetizer, Arguments) {
    for (size_t size : {42u, 1473u})
        EXPECT_EQ(tarn_packetizer_create(size, 0, 0), nullptr);
    const packetizer p(tarn_packetizer_create(43, 0, 0)), large(tarn_packetizer_create(1472, 0, 0));
    const tarn_frame_info info = info_of(1);
    const bytes most(0x400000 - 64);
    int sent = 0;
    const auto count = [](void *context, const uint8_t *packet, size_t) {
        ++*static_cast<int *>(context);
        EXPECT_EQ(get_u16(packet + 14), 65535);
    };
    const auto send = [&](const packetizer &by, const bytes &frame, size_t size) {
        return tarn_packetizer_send_frame(by.get(), 1, &info, frame.data(), size, count, &sent);
    };
    for (int refused : {send(p, {}, 1), send(p, most, 0), send(large, most, 1ull << 32),
                        tarn_packetizer_send_frame(p.get(), 1, nullptr, most.data(), 1, count, &sent),
                        tarn_packetizer_send_frame(p.get(), 1, &info, most.data(), 1, nullptr, &sent),
                        send(p, bytes(most.size() + 1), most.size() + 1)})
        EXPECT_EQ(refused, -1);
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(send(p, most, most.size()), 0x400000 - 64);
    tarn_packetizer_set_fec(p.get(), 100, 0); // holds from the next frame on
    EXPECT_EQ(cut(p.get(), 1, content_of(1, 5)).size(), 10u);
}

TEST(Reassembler, TheStartMovesBackBySevenAtMost) {
    const bytes frame = content_of(4, 200);
    const packets halves = cut(3, frame, 142);
    for (uint32_t back : {7u, 8u}) {
        SCOPED_TRACE(back);
        const uint32_t taken = back == 7, older = 3 - back;
        const reassembler r(tarn_reassembler_create(1000));
        EXPECT_EQ(push(r, halves[0]), 0);
        EXPECT_EQ(push(r, small_packet(older)), int(taken));
        if (taken) {
            EXPECT_EQ(push(r, small_packet(older - 2)),
                      1); // nothing older any more, once a frame is complete
            EXPECT_TRUE(pops(r, older, content_of(older, 20), 0));
        }
        EXPECT_EQ(push(r, halves[1]), 1);
        EXPECT_TRUE(pops(r, 3, frame, 6 * taken));
        EXPECT_EQ(counts(r), (numbers{1 + taken, 6 * taken, 2 + taken, 0, 0}));
        uint32_t lost = 77;
        tarn_frame none;
        EXPECT_TRUE(tarn_reassembler_pop(r.get(), &none, &lost) == 0 && lost == 77);
        EXPECT_TRUE(push(r, small_packet(4)) == 1 && tarn_reassembler_pop(r.get(), nullptr, &lost) == 0);
        EXPECT_EQ(tarn_reassembler_pop(r.get(), &none, nullptr), 1);
    }
}

// Packets that break one rule each; all are refused and change nothing but the counter of bad packets.
TEST(Reassembler, RefusesContradictions) {
    const bytes frame = content_of(6, 13000); // groups of 44, 43 and 43 shards of 100 bytes, 5 parity each
    const packets good = cut(9, frame, 142, 10);
    const bytes &q = good[0], &p = good[49]; // the first ones of groups 0 and 1
    const bytes huge = cut(9, content_of(1, 1430), 1472)[0], narrow = cut(9, frame, 144, 10)[1];
    const auto with = [](bytes packet, const std::map<size_t, uint8_t> &changes, int longer = 0) {
        for (const auto &[at, value] : changes)
            packet[at] = value;
        packet.resize(packet.size() + size_t(longer));
        return packet;
    };
    using lies = std::vector<std::pair<const char *, bytes>>;
    const lies broken = {{"no bytes", with(p, {{20, 0}}, -100)},
                         {"1431 bytes", with(huge, {{20, 0x97}, {22, 0x97}}, 1)},
                         {"a byte short", with(p, {}, -1)},
                         {"shard_size below the length", with(p, {{20, 99}})},
                         {"size of another division", with(p, {{20, 101}}, 1)},
                         {"empty frame", with(p, {{22, 0}, {23, 0}, {14, 0}})},
                         {"frame above max_frame", with(q, {{22, 0xC9}})},
                         {"no data shard", with(p, {{17, 0}})},
                         {"65 data shards", with(p, {{17, 65}})},
                         {"data shards of group 0", with(p, {{17, 44}})},
                         {"data shards of group 1", with(q, {{17, 43}})},
                         {"256 shards", with(p, {{18, 213}})},
                         {"shard beyond the last", with(p, {{16, 48}})},
                         {"fewer groups", with(p, {{14, 2}})},
                         {"more groups", with(p, {{14, 4}})},
                         {"group 3", with(p, {{12, 3}, {26, 0xC8}, {27, 0x32}})},
                         {"offset of group 2", with(p, {{12, 2}})},
                         {"offset a byte lower", with(p, {{26, 0x2F}})},
                         {"magic", with(p, {{0, 0x51}})},
                         {"version", with(p, {{1, 2}})},
                         {"type", with(p, {{2, 17}})}};
    // Sound in themselves, but not of this frame or group.
    const lies foreign = {{"frame size", with(good[1], {{22, 0xC7}})},
                          {"flags", with(good[1], {{19, 200}})},
                          {"time", with(good[1], {{30, 5}})},
                          {"aux", with(good[1], {{38, 5}})},
                          {"parity", with(good[50], {{18, 6}})},
                          {"parity", with(p, {{18, 4}})},
                          {"shard size", narrow}};
    const reassembler r(tarn_reassembler_create(13000));
    uint64_t bad = 0;
    const auto refuses = [&](const lies &rows, uint64_t received) {
        for (const auto &[why, packet] : rows) {
            EXPECT_EQ(push(r, packet), -1) << why;
            EXPECT_EQ(counts(r), (numbers{0, 0, received, 0, ++bad})) << why;
        }
    };
    refuses(broken, 0);
    EXPECT_EQ(push(r, p), 0);
    refuses(broken, 1);
    refuses(foreign, 1);
    EXPECT_EQ(push(r, with(q, {{18, 211}})), 0); // another group may have other parity: 44 + 211 is 255
    EXPECT_EQ(tarn_reassembler_push(r.get(), nullptr, 100), -1);
    EXPECT_EQ(counts(r), (numbers{0, 0, 2, 0, bad + 1}));
}

TEST(Reassembler, Limits) {
    EXPECT_EQ(tarn_reassembler_create(0), nullptr);
    EXPECT_EQ(tarn_reassembler_create(0x100000000u), nullptr);
    const reassembler r(tarn_reassembler_create(0xFFFFFFFF));
    const struct {
        size_t shard;
        uint32_t frame_size;
        uint16_t groups;
        int result;
    } rows[] = {{20, 0xFFFFFFFF, 1, -1}, {1, 0x400000 - 63, 0, -1}, {1, 0x400000 - 64, 65535, 0}};
    for (const auto &row : rows) {
        bytes p = cut(1, content_of(1, 64 * row.shard), HEADER + row.shard)[0];
        put_u32(&p[22], row.frame_size);
        put_u16(&p[14], row.groups);
        EXPECT_EQ(push(r, p), row.result) << row.frame_size;
    }
}

// What should happen to a stream, told by shard numbers alone. Ids count from the stream's first frame.
struct model {
    struct frame {
        std::map<int, std::set<int>> groups; // shards that came
        int done = 0;
        uint32_t recovered = 0;
        bool complete = false;
    };
    std::map<int64_t, frame> frames; // in the slots, 8 at most
    int64_t next = INT64_MIN, popped = 0;
    int waiting = 0;
    bool any = false;
    numbers stats = {0, 0, 0, 0, 0};

    void take(int64_t id, const tarn_video_shard &f) {
        if (next == INT64_MIN || (!any && id < next && id >= next - 7)) next = popped = id;
        if (id < next) return;
        if (!frames.count(id) && frames.size() == 8) {
            if (frames.begin()->first > id) return;
            waiting -= frames.begin()->second.complete;
            frames.erase(frames.begin());
        }
        frame &own = frames[id];
        std::set<int> &shards = own.groups[f.group];
        if (!shards.insert(f.shard).second) return;
        stats[2]++;
        if (shards.size() != f.data_shards) return;
        const auto parity = uint32_t(std::distance(shards.lower_bound(f.data_shards), shards.end()));
        own.recovered += parity;
        stats[3] += parity;
        if (++own.done < f.group_count) return;
        own.complete = any = true;
        waiting++;
        stats[0]++;
        stats[1] += uint64_t(id - next);
        next = id + 1;
        std::erase_if(frames, [id](const auto &other) { return other.first < id && !other.second.complete; });
    }
};

// Loss, repeats and disorder, ids that wrap, and a caller who lets frames wait until they are displaced.
TEST(Reassembler, StreamsThroughLossAsTheModelSays) {
    for (uint64_t seed = 1; seed <= 120; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        test_random random(seed);
        const packetizer p(tarn_packetizer_create(43 + random.below(200), 0, 0));
        const reassembler r(tarn_reassembler_create(20000));
        const auto first = uint32_t(seed % 2 ? random.next() : 0 - random.below(30));
        const uint64_t loss = random.below(80), longest = random.below(2) ? 20000 : 300;
        const uint64_t spread = 1 + random.below(80), patience = 1 + random.below(200);
        std::multimap<uint64_t, bytes> wire; // by time of arrival
        std::map<uint32_t, bytes> sent;
        for (uint32_t id = first; id != first + 40; id++) {
            tarn_packetizer_set_fec(p.get(), int(random.below(60)), int(random.below(4)));
            sent[id] = content_of(seed + id, 1 + random.below(random.below(4) ? longest / 8 : longest));
            for (const bytes &packet : cut(p.get(), id, sent[id])) {
                const uint64_t now = wire.size();
                if (random.below(20) == 0) wire.emplace(now + spread + random.below(spread), packet);
                if (random.below(100) >= loss) wire.emplace(now + random.below(spread), packet);
            }
        }
        model expected;
        for (const auto &[time, packet] : wire) {
            const tarn_video_shard f = fields(packet);
            expected.take(int32_t(f.frame_id - first), f);
            ASSERT_EQ(push(r, packet), expected.waiting > 0);
            ASSERT_EQ(counts(r), expected.stats);
            while (expected.waiting > 0 && random.below(patience) == 0) {
                const auto due = std::find_if(expected.frames.begin(), expected.frames.end(),
                                              [](const auto &each) { return each.second.complete; });
                const uint32_t id = first + uint32_t(due->first);
                ASSERT_TRUE(
                    pops(r, id, sent[id], uint32_t(due->first - expected.popped), due->second.recovered));
                expected.popped = due->first + 1;
                expected.waiting--;
                expected.frames.erase(due);
            }
        }
    }
}

} // namespace
