// The record layer: the wire form, every damage of a sealed packet, and the replay window beside a model that
// simply remembers.
#include "core/secure_support.h"

#include <set>
#include <sstream>

namespace {

constexpr uint64_t counter_end = uint64_t{1} << 60;

struct Record : testing::Test {
    tarn_session sender = {}, receiver = {};
    bytes out = bytes(2048);
    size_t size = 0;

    void SetUp() override {
        test_random random(5);
        sender.id = receiver.id = 0xA1B2C3D4;
        random.fill(sender.send_key, 32);
        random.fill(sender.recv_key, 32);
        memcpy(receiver.recv_key, sender.send_key, 32);
        memcpy(receiver.send_key, sender.recv_key, 32);
    }
    static bytes plain(size_t length) {
        bytes packet(length);
        test_random(length).fill(packet.data(), length);
        memcpy(packet.data(), "\x50\x01\x10\x03\x99\x99\x99\x99", 8);
        return packet;
    }
    bytes seal(uint64_t counter, size_t length = 8) {
        const bytes packet = plain(length);
        bytes sealed(length + 24);
        sender.send_counter = counter;
        EXPECT_EQ(tarn_seal(&sender, packet.data(), length, sealed.data(), sealed.size()), sealed.size());
        return sealed;
    }
    int open(const bytes &packet) {
        return tarn_open(&receiver, packet.data(), packet.size(), out.data(), out.size(), &size);
    }
    void clear_window(uint64_t next) {
        receiver.recv_next = next;
        memset(receiver.replay, 0, sizeof receiver.replay);
    }
};

TEST_F(Record, WireFormAndInPlaceWork) {
    for (const size_t length : {8u, 9u, 23u, 24u, 72u, 1376u}) {
        const uint64_t counter = 0x0102030405060708;
        const bytes packet = plain(length), sealed = seal(counter, length);
        bytes expected = unhex("50021003d4c3b2a10807060504030201");
        expected.resize(length + 24);
        tarn_aead_encrypt(sender.send_key, counter, expected.data(), 8, packet.data() + 8, length - 8,
                          &expected[16], &expected[length + 8]);
        EXPECT_EQ(hex(sealed), hex(expected)) << length;
        EXPECT_EQ(sender.send_counter, counter + 1);

        bytes in_place = packet; // no room before or behind, so that an overrun is seen
        in_place.resize(length + 24);
        sender.send_counter--;
        ASSERT_EQ(tarn_seal(&sender, in_place.data(), length, in_place.data(), length + 24), length + 24);
        EXPECT_EQ(hex(in_place), hex(sealed)) << length;

        bytes opened(length), rebuilt = packet;
        memcpy(&rebuilt[4], &expected[4], 4);
        for (uint8_t *to : {opened.data(), in_place.data()}) {
            const uint8_t *from = to == opened.data() ? sealed.data() : to;
            clear_window(0);
            ASSERT_EQ(tarn_open(&receiver, from, length + 24, to, length, &size), TARN_OK);
            EXPECT_EQ(hex(to, length), hex(rebuilt));
            EXPECT_EQ(size, length);
            EXPECT_EQ(receiver.recv_next, counter + 1);
        }
    }
}

TEST_F(Record, SealRefusesWithoutUsingACounter) {
    const struct {
        const char *packet;
        size_t length, capacity;
    } rows[] = {{"5001000000000000", 7, 100}, {"5002000000000000", 8, 100}, {"5000000000000000", 8, 100},
                {"5101000000000000", 8, 100}, {"5001000000000000", 8, 31},  {"5001000000000000", 8, 23}};
    for (const auto &row : rows) {
        const bytes packet = unhex(row.packet);
        EXPECT_EQ(tarn_seal(&sender, packet.data(), row.length, out.data(), row.capacity), 0u) << row.packet;
    }
    EXPECT_EQ(sender.send_counter, 0u);
    EXPECT_EQ(open(seal(counter_end - 1)), TARN_OK);
    for (const uint64_t counter : {counter_end, counter_end + 1, 2 * counter_end, 8 * counter_end}) {
        sender.send_counter = counter;
        EXPECT_EQ(tarn_seal(&sender, plain(8).data(), 8, out.data(), 100), 0u);
        EXPECT_EQ(sender.send_counter, counter + 1);
    }
}

TEST_F(Record, EveryDamagedPacketIsRefusedAndChangesNothing) {
    const bytes good = seal(1000, 40);
    ASSERT_EQ(open(seal(500)), TARN_OK);
    const bytes before = image(receiver);
    const auto of_length = [](size_t length) { return length < 32 ? TARN_ERR_FORMAT : TARN_ERR_AUTH; };
    const auto of_bit = [](size_t bit) {
        return bit < 16 ? TARN_ERR_FORMAT : bit / 32 == 1 ? TARN_ERR_SESSION : TARN_ERR_AUTH;
    };
    damage(good, of_length, of_bit, [&](bytes packet) {
        size = 1;
        const int result = open(packet);
        EXPECT_EQ(size, 0u);
        EXPECT_NE(memcmp(&out[8], plain(40).data() + 8, 8), 0) << "plain text given away";
        EXPECT_EQ(tarn_open(&receiver, packet.data(), packet.size(), packet.data(), packet.size(), &size),
                  result);
        EXPECT_EQ(image(receiver), before);
        return result;
    });
    EXPECT_EQ(open(good), TARN_OK);
}

TEST_F(Record, ChecksComeInTheirOrder) {
    ASSERT_EQ(open(seal(0)), TARN_OK);
    bytes packet = seal(0); // of the wrong version, too large, of another session, a replay, forged
    packet[1] ^= 3;
    packet[4] ^= 1;
    packet[20] ^= 1;
    size_t capacity = 7;
    for (const int expected :
         {TARN_ERR_FORMAT, TARN_ERR_SPACE, TARN_ERR_SESSION, TARN_ERR_REPLAY, TARN_ERR_AUTH}) {
        EXPECT_EQ(tarn_open(&receiver, packet.data(), packet.size(), out.data(), capacity, &size), expected);
        if (expected == TARN_ERR_FORMAT) packet[1] = 2; // one fault is mended at a time
        if (expected == TARN_ERR_SPACE) capacity = 8;
        if (expected == TARN_ERR_SESSION) packet[4] ^= 1;
        if (expected == TARN_ERR_REPLAY) packet[8] = 1;
    }
}

TEST_F(Record, WindowShapes) {
    const char *const rows[] = {
        // Counters: + is accepted, ! refused.
        "0+ 0! 1+ 0! 1!",                      // from the first counter
        "4999+ 2952+ 2952! 2951! 2953+",       // 2048 behind is the last
        "9+ 3000+ 5! 9! 952! 953+ 2999+",      // a jump beyond the window
        "10+ 70+ 11+ 69+ 11! 69! 63+ 64+ 10!", // a gap
        "2047+ 0+ 2048+ 0! 1+ 2048!",          // one turn of the bitmap
        "6+ 2052+ 6! 5+ 4!",                   // a jump within the window keeps its bits
        "5+ 2053+ 5! 6+",                      // a jump of 2047
        "5+ 2054+ 5! 6! 7+",                   // a jump of 2048
        "63+ 127+ 64+ 126+ 127! 63!",          // a whole word
        "0+ 63+ 64+ 2111+ 64! 65+ 2110+",      // word borders a turn later
    };
    for (const char *row : rows) {
        clear_window(0);
        std::istringstream steps(row);
        uint64_t counter;
        for (char sign; steps >> counter >> sign;) {
            EXPECT_EQ(open(seal(counter)), sign == '+' ? TARN_OK : TARN_ERR_REPLAY) << row << ": " << counter;
        }
        EXPECT_TRUE(steps.eof());
    }
}

// A forger mustn't close the window with the last counter of all. What our code seals never reaches it; a
// peer with other code mustn't stall the receiver.
TEST_F(Record, TheLastCounterOfAllEndsAndTheWipeLeavesNothing) {
    bytes packet = seal(3);
    memset(&packet[8], 0xFF, 8);
    EXPECT_EQ(open(packet), TARN_ERR_AUTH);
    EXPECT_EQ(open(seal(3)), TARN_OK);
    EXPECT_EQ(receiver.recv_next, 4u);
    tarn_aead_encrypt(sender.send_key, UINT64_MAX, packet.data(), 8, nullptr, 0, nullptr, &packet[16]);
    receiver.recv_next = UINT64_MAX - 100;
    EXPECT_EQ(open(packet), TARN_OK);
    memset(static_cast<void *>(&receiver), 0xEE, sizeof receiver);
    tarn_session_wipe(&receiver);
    EXPECT_EQ(image(receiver), bytes(sizeof receiver));
}

TEST_F(Record, WindowAgreesWithASetOverAMillionPackets) {
    constexpr uint64_t seed = 20240607;
    const uint64_t shapes[][2] = {
        {0, 3}, {0, 3}, {100, 100}, {2100, 2100}, {2060, 20}}; // how far back, and spread
    test_random random(seed);
    for (const uint64_t start : {uint64_t{0}, counter_end - 500000}) {
        uint64_t next = start;
        std::set<uint64_t> seen;
        clear_window(start);
        for (int i = 0; i < 500000; i++) {
            const auto &[back, spread] = shapes[random.below(5)];
            const uint64_t jump = random.below(1000);
            uint64_t counter = next - std::min(back, next - start) + random.below(spread);
            if (jump < 40) counter += jump == 0 ? 1900 + random.below(300) : random.below(200);
            counter = std::min(counter, counter_end - 1);
            const bool fresh = counter >= next || (next - counter <= 2048 && seen.count(counter) == 0);
            const bool forged = random.below(8) == 0;
            const int expected = !fresh ? TARN_ERR_REPLAY : forged ? TARN_ERR_AUTH : TARN_OK;
            bytes packet = seal(counter);
            if (forged) packet[16 + random.below(16)] ^= 0x10;
            ASSERT_EQ(open(packet), expected) << "seed " << seed << ", step " << i << ", counter " << counter;
            if (expected != TARN_OK) continue;
            seen.insert(counter);
            next = std::max(next, counter + 1);
            seen.erase(seen.begin(), seen.lower_bound(next - std::min<uint64_t>(next, 2048)));
            ASSERT_EQ(receiver.recv_next, next);
        }
    }
}

} // namespace
