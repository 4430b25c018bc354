// The video stream of the host program and the receiver of the client program, joined by loss, on a clock of
// the test's own: what the viewer of a stream gets, and what is said about the rest.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include <tarnglider/protocol.h>

#include "client/video_receiver.h"
#include "common/loss.h"
#include "host/video_stream.h"
#include "support/seeded_random.h"

using bytes = std::vector<uint8_t>;

static app::video_file make_video(const std::vector<size_t> &sizes) {
    app::video_file video;
    test_random random(7);
    for (const size_t size : sizes) {
        video.units.push_back({video.bytes.size(), size, video.units.empty()});
        video.bytes.resize(video.bytes.size() + size);
        random.fill(video.bytes.data() + video.units.back().offset, size);
    }
    return video;
}

static tarn_video_shard shard_of(std::span<const uint8_t> packet) {
    tarn_video_shard shard{};
    EXPECT_EQ(tarn_decode_video_shard(packet.data(), packet.size(), &shard, nullptr, nullptr), 0);
    return shard;
}

// A receiver that keeps what it is shown.
struct viewer {
    bytes got;
    app::video_receiver receiver{
        [this](std::span<const uint8_t> frame) { got.insert(got.end(), frame.begin(), frame.end()); }};
};

TEST(Stream, ArrivesWholeThroughLoss) {
    std::vector<size_t> sizes = {300000, 1, 1334, 1335};
    test_random random(11);
    for (int i = 0; i < 600; i++)
        sizes.push_back(1 + random.below(30000));
    const app::video_file video = make_video(sizes);
    for (uint64_t seed = 1; seed <= 5; seed++) {
        SCOPED_TRACE(seed);
        viewer v;
        app::loss_injector loss(3, seed);
        app::video_stream stream(video, {}, 1000);
        int64_t now = 1000;
        while (!v.receiver.over(now) && !stream.done()) {
            // The path changes in mid-stream, and with it the room of a packet.
            const size_t room = stream.totals().frames < 300 ? 1376 : 1176;
            now += stream.advance(now, room, [&](std::span<const uint8_t> packet, bool shard) {
                EXPECT_LE(packet.size(), shard && shard_of(packet).frame_id > 300 ? 1176u : 1376u);
                if (!shard || !loss.drop()) v.receiver.packet(packet, now);
            });
        }
        v.receiver.close();
        const app::receiver_figures figures = v.receiver.figures();
        EXPECT_TRUE(v.got == video.bytes);
        EXPECT_EQ(figures.frames, video.units.size());
        EXPECT_EQ(figures.bytes, video.bytes.size());
        EXPECT_EQ(figures.frames_lost, 0u);
        EXPECT_TRUE(figures.repaired > 0 && figures.bad == 0 && figures.ended);
        // The account of the network's loss is exact.
        const uint64_t sent = stream.totals().packets;
        EXPECT_EQ(figures.packets, sent - loss.dropped());
        EXPECT_EQ(figures.sent, sent);
        EXPECT_EQ(figures.came, sent - loss.dropped());
        EXPECT_NEAR(static_cast<double>(loss.dropped()) / static_cast<double>(sent), 0.03, 0.005);
    }
}

TEST(Stream, TellsWhatIsLost) {
    const app::video_file video = make_video(std::vector<size_t>(12, 5000));
    const std::set<uint32_t> cut = {0, 1, 5, 11}; // the first ones, one between, the last one
    viewer v;
    app::video_stream stream(video, {}, 0);
    int64_t now = 0;
    int64_t told = -1;
    while (!v.receiver.over(now)) {
        ASSERT_FALSE(stream.done());
        now += stream.advance(now, 1176, [&](std::span<const uint8_t> packet, bool shard) {
            if (!shard && told < 0) told = now;
            if (!shard || cut.count(shard_of(packet).frame_id) == 0) v.receiver.packet(packet, now);
        });
        const uint64_t lost = v.got.empty() ? 0 : v.got.size() <= 15000 ? 2 : 3;
        EXPECT_TRUE(told >= 0 || v.receiver.figures().frames_lost == lost);
    }
    // Stragglers had half a second from the first word of the end, not from a later one.
    EXPECT_FALSE(v.receiver.over(told + 500000));
    EXPECT_TRUE(v.receiver.over(told + 500001));
    v.receiver.close();
    bytes want = video.bytes;
    for (auto i = cut.rbegin(); i != cut.rend(); ++i)
        want.erase(want.begin() + *i * 5000, want.begin() + *i * 5000 + 5000);
    EXPECT_TRUE(v.got == want);
    const app::receiver_figures figures = v.receiver.figures();
    EXPECT_TRUE(figures.frames == 8 && figures.frames_lost == 4 && figures.ended);
}

TEST(Stream, KeepsItsPace) {
    // Rate, speed, bitrate, and the microseconds from frame to frame.
    const std::tuple<double, double, double, int64_t> rows[] = {
        {25, 1, 0, 40000}, {25, 2, 0, 20000}, {50, 0.5, 0, 40000}, {25, 2, 8, 1000}, {25, 1, 0.8, 10000}};
    const app::video_file video = make_video(std::vector<size_t>(10, 1000));
    for (const auto &[rate, speed, bitrate, step] : rows) {
        app::stream_settings settings;
        settings.frame_rate = rate;
        settings.speed = speed;
        settings.bitrate = bitrate;
        app::video_stream stream(video, settings, 500);
        std::vector<int64_t> at(10, -1);
        for (int64_t now = 500; at[9] < 0 && now < 1000000;) {
            now += stream.advance(now, 1376, [&](std::span<const uint8_t> packet, bool is_shard) {
                if (!is_shard) return;
                const tarn_video_shard shard = shard_of(packet);
                int64_t &first = at.at(shard.frame_id);
                if (first < 0) first = now;
                EXPECT_EQ(shard.frame_time, static_cast<uint64_t>(first - 500));
                EXPECT_EQ(shard.frame_flags, shard.frame_id == 0 ? 1 : 0);
            });
        }
        for (int64_t i = 0; i < 10; i++)
            EXPECT_EQ(at[static_cast<size_t>(i)], 500 + i * step) << rate << " " << speed;
    }
}

TEST(Stream, SpreadsALargeFrame) {
    const app::video_file video = make_video({500000});
    app::video_stream stream(video, {}, 0);
    uint64_t packets = 0;
    for (int64_t now = 0; stream.totals().packets == 0 || packets != stream.totals().packets;) {
        size_t at_once = 0;
        packets = stream.totals().packets;
        now += stream.advance(now, 1376, [&](std::span<const uint8_t> packet, bool shard) {
            if (shard) at_once += packet.size();
        });
        EXPECT_LE(at_once, packets == 0 ? 65536u : 25000u + 1376u);
    }
    EXPECT_GT(packets, 370u * 130 / 100);
}

TEST(Stream, ReachesABitrateBeyondTheLineRate) {
    // With parity these frames need 500 Mbit/s.
    const app::video_file video = make_video(std::vector<size_t>(500, 1000));
    app::stream_settings settings;
    settings.bitrate = 80;
    app::video_stream stream(video, settings, 0);
    int64_t now = 0;
    for (bool over = false; !over;)
        now += stream.advance(now, 1376, [&](std::span<const uint8_t>, bool shard) { over |= !shard; });
    EXPECT_NEAR(static_cast<double>(now), 500 * 100 + 100000, 3000); // with the wait for the next word
}

TEST(Stream, TellsItsEndUntilItIsHeard) {
    const app::video_file video = make_video({100, 100});
    for (const bool heard : {false, true}) {
        app::video_stream stream(video, {}, 0);
        std::vector<int64_t> told;
        int64_t now = 0;
        while (!stream.done() && now < 20000000) {
            now += stream.advance(now, 1376, [&](std::span<const uint8_t> packet, bool shard) {
                uint32_t total = 0;
                if (shard) return;
                EXPECT_EQ(tarn_decode_u32_packet(packet.data(), packet.size(), &total), 0);
                EXPECT_EQ(total, 2u);
                told.push_back(now);
            });
            if (heard && told.size() == 3) stream.client_done();
        }
        ASSERT_TRUE(stream.done());
        ASSERT_EQ(told.size(), heard ? 3u : 51u); // at 0, 0.1 ... 5 seconds
        EXPECT_EQ(told[1] - told[0], 100000);
    }
}

TEST(Stream, EndsWhenStoppedAndLoopsUntilThen) {
    const app::video_file video = make_video({100, 200, 300});
    app::stream_settings settings;
    settings.loop = true;
    viewer v;
    app::video_stream stream(video, settings, 0);
    int64_t now = 0;
    while (!v.receiver.over(now)) {
        now += stream.advance(now, 1376,
                              [&](std::span<const uint8_t> packet, bool) { v.receiver.packet(packet, now); });
        if (stream.totals().frames == 7) stream.stop(now);
        ASSERT_LE(stream.totals().frames, 7u);
    }
    bytes want = video.bytes;
    want.insert(want.end(), video.bytes.begin(), video.bytes.end());
    want.insert(want.end(), video.bytes.begin(), video.bytes.begin() + 100);
    EXPECT_TRUE(v.got == want);
    EXPECT_EQ(stream.totals().bytes, want.size());
}

TEST(Stream, CountsLossByGroupsAndIgnoresStragglers) {
    app::shard_tally tally;
    const auto add = [&](uint32_t frame, uint16_t group, uint16_t groups, uint8_t shard) {
        tarn_video_shard packet{};
        packet.frame_id = frame;
        packet.group = group;
        packet.group_count = groups;
        packet.shard = shard;
        packet.data_shards = 6;
        packet.parity_shards = 4;
        tally.add(packet);
    };
    add(0, 0, 3, 9); // one packet of the first group, none of the other two
    add(0, 0, 3, 9); // a repeat
    EXPECT_EQ(tally.sent(), 0u) << "a frame that is still on its way is no loss";
    for (uint32_t frame = 1; frame <= 16; frame++)
        add(frame, 0, 1, 0);
    EXPECT_EQ(tally.sent(), 30u);
    EXPECT_EQ(tally.came(), 1u);
    add(0, 0, 3, 1); // a straggler of a settled frame
    tally.close();
    EXPECT_EQ(tally.sent(), 30u + 160u);
    EXPECT_EQ(tally.came(), 17u);
}
