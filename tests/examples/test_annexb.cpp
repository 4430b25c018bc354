// The H.264 splitter: what a viewer gets is the file, frame by frame, whatever the file holds.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "host/annexb.h"
#include "support/hex_bytes.h"
#include "support/seeded_random.h"

using app::access_unit;

// The units' sizes, with a "k" behind those that hold a key picture.
static std::string shape(const bytes &stream) {
    std::string text;
    for (const access_unit &unit : app::split_access_units(stream))
        text += (text.empty() ? "" : " ") + std::to_string(unit.size) + (unit.key ? "k" : "");
    return text;
}

// The units follow each other without a gap and cover the stream.
static void expect_covered(const bytes &stream, uint64_t seed) {
    size_t end = 0;
    for (const access_unit &unit : app::split_access_units(stream)) {
        ASSERT_TRUE(unit.offset == end && unit.size > 0) << "seed " << seed;
        end += unit.size;
    }
    ASSERT_TRUE(end == 0 || end == stream.size()) << "seed " << seed;
}

TEST(Annexb, CutsBeforeEachPicture) {
    // In hex: 65 an IDR slice, 41 another slice, 42 partition A, 43 partition B, 67/68 parameter sets, 06
    // SEI, 09 delimiter, 0c filler. A slice's next byte has its top bit set if the slice is the first of its
    // picture.
    const std::tuple<std::string, const char *, const char *> rows[] = {
        {"", "", "nothing"},
        {"000001", "3", "a start code and the end"},
        {"0000 02 0001", "", "no start code"},
        {"000001 6588 000001 419a", "5k 5", "short start codes"},
        {"00000001 6588 00000001 419a", "6k 6", "long start codes"},
        {"00000001 6588 000000 000001 419a", "8k 6", "more zeros end the unit before"},
        {"000001 6588 000001 6508 000001 6508 000001 419a", "15k 5", "slices stay with their picture"},
        {"000001 4288 000001 43ff 000001 4288", "10 5", "data partitions, too"},
        {"000001 6588 000001 419a 000001 4108 000001 419a", "5k 10 5", "pictures of different slice counts"},
        {"000001 0910 000001 6764 000001 68ee 000001 6588 000001 0910 000001 419a", "20k 10", "delimiters"},
        {"000001 6588 000001 6764 000001 68ee 000001 419a", "5k 15", "parameter sets begin a unit"},
        {"000001 6588 000001 0601 000001 419a", "5k 10", "so does SEI"},
        {"000001 6588 000001 0eff 000001 419a", "5k 10", "a prefix unit"},
        {"000001 6588 000001 12ff 000001 419a", "5k 10", "the last reserved type that does"},
        {"000001 6588 000001 13ff 000001 419a", "10k 5", "an auxiliary slice doesn't"},
        {"000001 6588 000001 0cff 000001 0aff 000001 419a", "15k 5", "nor do filler and end of sequence"},
        {"ffee 000001 6588 000001 419a", "7k 5", "bytes before the first start code"},
        {"000001 6588 000001 0910", "10k", "a tail without a picture"},
        {"000001 0910 000001 68ee", "10", "no picture at all"},
        {"000001 4108 000001 0910 000001 6588", "5 10k", "a stream that begins in mid-picture"},
        {"000001 6588 000001", "8k", "a file cut in a start code"},
        {"000001 6588 000001 41", "9k", "a file cut before the slice header"},
        {"000001 6588 0002 000001 419a", "7k 5", "zeros that are no start code"},
    };
    for (auto [digits, want, why] : rows) {
        std::erase(digits, ' ');
        const bytes stream = unhex(digits);
        EXPECT_EQ(shape(stream), want) << why;
        expect_covered(stream, 0);
    }
}

TEST(Annexb, CutsTheSampleClipAndWhateverItGets) {
    std::ifstream in(SAMPLE_CLIP, std::ios::binary);
    const bytes sample{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const std::vector<access_unit> units = app::split_access_units(sample);
    ASSERT_EQ(units.size(), 300u);
    for (size_t i = 0; i < units.size(); i++)
        EXPECT_EQ(units[i].key, i % 60 == 0) << i;
    EXPECT_EQ(app::stream_frame_rate(sample), 30.0);
    expect_covered(sample, 0);
    for (size_t size = 0; size < 20000; size += size < 2000 ? 1 : 97)
        expect_covered(bytes(sample.begin(), sample.begin() + static_cast<std::ptrdiff_t>(size)), size);
    for (uint64_t seed = 1; seed <= 3000; seed++) {
        test_random random(seed);
        bytes garbage(random.below(200));
        for (uint8_t &byte : garbage) {
            constexpr uint8_t likely[] = {0, 0, 0, 1, 0x65, 0x41, 0x67, 0x88};
            byte = random.below(4) != 0 ? likely[random.below(8)] : static_cast<uint8_t>(random.next());
        }
        expect_covered(garbage, seed);
        app::stream_frame_rate(garbage);
    }
}

namespace {

// Writes a sequence parameter set bit by bit.
struct sps_writer {
    std::vector<bool> out;
    sps_writer &u(int count, uint32_t value) {
        while (count-- > 0)
            out.push_back((value >> count & 1) != 0);
        return *this;
    }
    sps_writer &ue(uint32_t value) {
        int size = 0;
        while ((value + 1) >> (size + 1) != 0)
            size++;
        return u(size, 0).u(size + 1, value + 1);
    }
    // As a NAL unit, with its emulation prevention bytes.
    bytes nal() const {
        bytes made = {0, 0, 0, 1, 0x67};
        int zeros = 0;
        for (size_t i = 0; i < out.size(); i += 8) {
            uint8_t byte = 0;
            for (size_t b = 0; b < 8; b++)
                byte = static_cast<uint8_t>(byte << 1 | (i + b < out.size() && out[i + b] ? 1 : 0));
            const bool guard = zeros >= 2 && byte <= 3;
            if (guard) made.push_back(3);
            zeros = byte != 0 ? 0 : guard ? 1 : zeros + 1;
            made.push_back(byte);
        }
        return made;
    }
};

enum { cropped = 1, interlaced = 2, rich_vui = 4, no_vui = 8, no_timing = 16, poc_one = 32, scaling = 64 };

bytes make_sps(uint32_t profile, int features, uint32_t tick, uint32_t scale) {
    sps_writer w;
    w.u(8, profile).u(16, 0x001F).ue(3);
    if (profile >= 100) {
        const bool planes = profile == 244; // with chroma format 3
        w.ue(planes ? 3 : 1);
        if (planes) w.u(1, 1);
        w.ue(2).ue(2).u(1, 0).u(1, (features & scaling) != 0);
        for (int i = 0; (features & scaling) != 0 && i < (planes ? 12 : 8); i++) {
            // Lists present are 0, with all its deltas, and 7, cut short by a delta that makes the next scale
            // 0.
            w.u(1, i == 0 || i == 7);
            for (int j = 0; i == 0 && j < 16; j++)
                w.ue(j % 2 == 0 ? 1 : 2); // +1, -1
            if (i == 7) w.ue(16);         // -8
        }
    }
    w.ue(4).ue((features & poc_one) != 0 ? 1 : 0);
    if ((features & poc_one) != 0) {
        w.u(1, 1).ue(5).ue(6).ue(3).ue(7).ue(8).ue(9);
    } else {
        w.ue(2);
    }
    w.ue(4).u(1, 0).ue(39).ue(22).u(1, (features & interlaced) == 0);
    if ((features & interlaced) != 0) w.u(1, 1);
    w.u(1, 1).u(1, (features & cropped) != 0);
    if ((features & cropped) != 0) w.ue(1).ue(2).ue(3).ue(4);
    w.u(1, (features & no_vui) == 0);
    if ((features & rich_vui) != 0) {
        w.u(1, 1).u(8, 255).u(16, 4).u(16, 3);      // aspect ratio in full
        w.u(1, 1).u(1, 1);                          // overscan
        w.u(1, 1).u(4, 11).u(1, 1).u(24, 0x010101); // signal type and colours
        w.u(1, 1).ue(2).ue(3);                      // chroma location
    } else {
        w.u(1, 1).u(8, 1).u(1, 0).u(1, 1).u(4, 10).u(1, 0).u(1, 0);
    }
    w.u(1, (features & no_timing) == 0).u(32, tick).u(32, scale).u(8, 0xA0);
    return w.nal();
}

} // namespace

TEST(Annexb, ReadsTheFrameRate) {
    // Profile, features, tick, scale, and the rate or 0.
    const std::tuple<uint32_t, int, uint32_t, uint32_t, double> rows[] = {
        {66, 0, 1, 50, 25},
        {66, no_vui, 1, 50, 0},
        {77, no_timing, 1, 50, 0},
        {77, cropped, 1001, 60000, 60000 / 2002.0},
        {77, interlaced | rich_vui, 1, 60, 30},
        {77, poc_one, 1, 120, 60},
        {100, 0, 1, 60, 30},
        {100, scaling | cropped, 1001, 120000, 120000 / 2002.0},
        {110, scaling | rich_vui | interlaced | poc_one, 2, 100, 25},
        {244, scaling, 1, 48, 24},
        {118, 0, 1, 60, 30},
        {66, 0, 0, 50, 0},      // would divide by nothing
        {66, 0, 1, 2, 1},       // slowest
        {66, 0, 2, 3, 0},       // slower
        {66, 0, 1, 2000, 1000}, // fastest
        {66, 0, 1, 2001, 0},    // faster
    };
    for (const auto &[profile, features, tick, scale, want] : rows) {
        SCOPED_TRACE(testing::Message() << profile << " " << features << " " << scale);
        bytes sps = make_sps(profile, features, tick, scale);
        EXPECT_DOUBLE_EQ(app::stream_frame_rate(sps).value_or(0), want);
        // Two bytes of timing and more are missing: half of a number is no number.
        while (sps.size() > 3) {
            sps.resize(sps.size() - 3);
            EXPECT_EQ(app::stream_frame_rate(sps), std::nullopt) << "cut to " << sps.size();
        }
    }
    // A set without timing doesn't hide the next one.
    bytes two = make_sps(66, no_vui, 1, 50);
    const bytes second = make_sps(66, 0, 1, 50);
    two.insert(two.end(), second.begin(), second.end());
    EXPECT_EQ(app::stream_frame_rate(two), 25.0);
}
