// The record layer: the wire form, every way in which a sealed packet can be damaged, and the replay window beside a
// model that simply remembers.
#include "support/hex_bytes.h"
#include "support/seeded_random.h"

#include <tarnglider/secure.h>

#include <gtest/gtest.h>

#include <set>
#include <string.h>

namespace {

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
    bytes window() const {
        const uint8_t *at = reinterpret_cast<const uint8_t *>(&receiver);
        return bytes(at, at + sizeof receiver);
    }
};

TEST_F(Record, WireFormAndInPlaceWork) {
    const uint64_t counter = 0x0102030405060708;
    for (const size_t length : {8u, 9u, 23u, 24u, 72u, 1376u}) {
        const bytes packet = plain(length), sealed = seal(counter + length, length);
        uint8_t front[16] = {0x50, 2, 0x10, 3, 0xD4, 0xC3, 0xB2, 0xA1, 8, 7, 6, 5, 4, 3, 2, 1};
        front[8] = static_cast<uint8_t>(8 + length);
        front[9] = static_cast<uint8_t>(7 + ((8 + length) >> 8));
        bytes expected(front, front + 16);
        expected.resize(length + 24);
        tarn_aead_encrypt(sender.send_key, counter + length, front, 8, packet.data() + 8, length - 8,
                          &expected[16], &expected[length + 8]);
        EXPECT_EQ(hex(sealed), hex(expected)) << length;
        EXPECT_EQ(sender.send_counter, counter + length + 1);

        bytes in_place = packet; // no room before or behind, so that an overrun is seen
        in_place.resize(length + 24);
        sender.send_counter--;
        ASSERT_EQ(tarn_seal(&sender, in_place.data(), length, in_place.data(), length + 24), length + 24);
        EXPECT_EQ(hex(in_place), hex(sealed)) << length;

        bytes opened(length), rebuilt = packet;
        memcpy(&rebuilt[4], front + 4, 4);
        const tarn_session fresh = receiver;
        ASSERT_EQ(tarn_open(&receiver, sealed.data(), sealed.size(), opened.data(), length, &size), TARN_OK);
        EXPECT_EQ(hex(opened), hex(rebuilt));
        EXPECT_EQ(size, length);
        receiver = fresh;
        ASSERT_EQ(tarn_open(&receiver, in_place.data(), in_place.size(), in_place.data(), length, &size),
                  TARN_OK);
        EXPECT_EQ(hex(prefix(in_place, size)), hex(rebuilt));
        EXPECT_EQ(receiver.recv_next, counter + length + 1);
    }
}

TEST_F(Record, SealRefusesWithoutUsingACounter) {
    const struct {
        const char *start;
        size_t length, capacity;
    } rows[] = {{"5001", 7, 100}, {"5002", 8, 100}, {"5000", 8, 100}, {"5101", 8, 100},
                {"5001", 8, 31},  {"5001", 8, 23},  {"5001", 8, 0},   {"5001", 0, 100}};
    for (const auto &row : rows) {
        bytes packet = unhex(row.start);
        packet.resize(8);
        EXPECT_EQ(tarn_seal(&sender, packet.data(), row.length, out.data(), row.capacity), 0u) << row.start;
    }
    EXPECT_EQ(sender.send_counter, 0u);
    const uint64_t last = (uint64_t{1} << 60) - 1;
    EXPECT_EQ(open(seal(last)), TARN_OK);
    const bytes packet = plain(8);
    for (const uint64_t counter : {last + 1, last + 2, uint64_t{1} << 61, uint64_t{1} << 63}) {
        sender.send_counter = counter;
        EXPECT_EQ(tarn_seal(&sender, packet.data(), 8, out.data(), 100), 0u);
        EXPECT_EQ(sender.send_counter, counter + 1);
    }
}

TEST_F(Record, EveryDamagedPacketIsRefusedAndChangesNothing) {
    const bytes good = seal(1000, 40);
    ASSERT_EQ(open(seal(500)), TARN_OK);
    const bytes before = window();
    for (size_t cut = 0; cut <= good.size() + 1; cut++) {
        if (cut == good.size()) continue;
        bytes packet = good;
        packet.resize(cut);
        ASSERT_EQ(open(prefix(packet, cut)), cut < 32 ? TARN_ERR_FORMAT : TARN_ERR_AUTH) << cut;
        ASSERT_EQ(size, 0u);
    }
    for (size_t bit = 0; bit < good.size() * 8; bit++) {
        bytes packet = good;
        packet[bit / 8] = static_cast<uint8_t>(packet[bit / 8] ^ 1 << bit % 8);
        const int expected = bit < 16                ? TARN_ERR_FORMAT
                             : bit < 32 || bit >= 64 ? TARN_ERR_AUTH
                                                     : TARN_ERR_SESSION;
        size = 1;
        ASSERT_EQ(open(packet), expected) << bit;
        ASSERT_EQ(size, 0u);
        ASSERT_NE(memcmp(&out[8], plain(40).data() + 8, 8), 0) << "plain text given away";
        ASSERT_EQ(tarn_open(&receiver, packet.data(), packet.size(), packet.data(), packet.size(), &size),
                  expected);
        ASSERT_EQ(window(), before) << bit;
    }
    EXPECT_EQ(open(good), TARN_OK);
}

TEST_F(Record, ChecksComeInTheirOrder) {
    ASSERT_EQ(open(seal(0)), TARN_OK);
    bytes packet =
        seal(0); // a replay, of another session, too large, of the wrong version: one fault is mended a time
    packet[20] ^= 1;
    packet[4] ^= 1;
    packet[1] = 1;
    size_t capacity = 7;
    const auto result = [&] {
        return tarn_open(&receiver, packet.data(), packet.size(), out.data(), capacity, &size);
    };
    EXPECT_EQ(result(), TARN_ERR_FORMAT);
    packet[1] = 2;
    EXPECT_EQ(result(), TARN_ERR_SPACE);
    capacity = 8;
    EXPECT_EQ(result(), TARN_ERR_SESSION);
    packet[4] ^= 1;
    EXPECT_EQ(result(), TARN_ERR_REPLAY);
    packet[8] = 1;
    EXPECT_EQ(result(), TARN_ERR_AUTH);
}

TEST_F(Record, WindowShapes) {
    constexpr int ok = TARN_OK, old = TARN_ERR_REPLAY;
    const struct {
        std::vector<std::pair<uint64_t, int>> steps;
        const char *why;
    } rows[] = {
        {{{0, ok}, {0, old}, {1, ok}, {0, old}, {1, old}}, "from the first counter"},
        {{{4999, ok}, {2952, ok}, {2952, old}, {2951, old}, {2953, ok}}, "2048 behind is the last"},
        {{{9, ok}, {3000, ok}, {5, old}, {9, old}, {952, old}, {953, ok}, {2999, ok}},
         "a jump beyond the window"},
        {{{10, ok}, {70, ok}, {11, ok}, {69, ok}, {11, old}, {69, old}, {63, ok}, {64, ok}, {10, old}},
         "a gap"},
        {{{2047, ok}, {0, ok}, {2048, ok}, {0, old}, {1, ok}, {2048, old}}, "one turn of the bitmap"},
        {{{6, ok}, {2052, ok}, {6, old}, {5, ok}, {4, old}}, "a jump within the window keeps its bits"},
        {{{5, ok}, {2053, ok}, {5, old}, {6, ok}}, "a jump of 2047"},
        {{{5, ok}, {2054, ok}, {5, old}, {6, old}, {7, ok}}, "a jump of 2048"},
        {{{63, ok}, {127, ok}, {64, ok}, {126, ok}, {127, old}, {63, old}}, "a whole word"},
        {{{0, ok}, {63, ok}, {64, ok}, {2111, ok}, {64, old}, {65, ok}, {2110, ok}},
         "word borders a turn later"},
    };
    for (const auto &row : rows) {
        receiver.recv_next = 0;
        memset(receiver.replay, 0, sizeof receiver.replay);
        for (const auto &[counter, result] : row.steps) {
            EXPECT_EQ(open(seal(counter)), result) << row.why << ", counter " << counter;
        }
    }
}

TEST_F(Record, AForgedCounterCantCloseTheWindow) {
    bytes forged = seal(3);
    memset(&forged[8], 0xFF, 8);
    EXPECT_EQ(open(forged), TARN_ERR_AUTH);
    EXPECT_EQ(open(seal(3)), TARN_OK);
    EXPECT_EQ(receiver.recv_next, 4u);
}

// What the peer seals by its own code never reaches this counter; a peer with other code mustn't stall the receiver.
TEST_F(Record, TheLastCounterOfAllEnds) {
    bytes packet = seal(0);
    memset(&packet[8], 0xFF, 8);
    tarn_aead_encrypt(sender.send_key, UINT64_MAX, packet.data(), 8, nullptr, 0, nullptr, &packet[16]);
    receiver.recv_next = UINT64_MAX - 100;
    EXPECT_EQ(open(packet), TARN_OK);
}

TEST_F(Record, WindowAgreesWithASetOverAMillionPackets) {
    constexpr uint64_t seed = 20240607;
    test_random random(seed);
    for (const uint64_t start : {uint64_t{0}, (uint64_t{1} << 60) - 500000}) {
        uint64_t next = start;
        std::set<uint64_t> seen;
        receiver.recv_next = start;
        memset(receiver.replay, 0, sizeof receiver.replay);
        for (int i = 0; i < 500000; i++) {
            const uint64_t shape = random.below(1000);
            uint64_t counter =
                next + (shape == 0 ? 1900 + random.below(300) : random.below(shape < 40 ? 200 : 3));
            if (shape >= 400) {
                const uint64_t back =
                    shape < 450 ? 2040 + random.below(20) : random.below(shape < 700 ? 100 : 2100);
                counter = next - std::min(back, next - start);
            }
            counter = std::min(counter, (uint64_t{1} << 60) - 1);
            const bool forged = random.below(8) == 0;
            const bool fresh = counter >= next || (next - counter <= 2048 && seen.count(counter) == 0);
            bytes packet = seal(counter);
            if (forged) packet[16 + random.below(16)] ^= 0x10;
            ASSERT_EQ(open(packet), !fresh   ? TARN_ERR_REPLAY
                                    : forged ? TARN_ERR_AUTH
                                             : TARN_OK)
                << "seed " << seed << ", step " << i << ", counter " << counter << ", next " << next;
            if (!fresh || forged) continue;
            seen.insert(counter);
            next = std::max(next, counter + 1);
            while (next - *seen.begin() > 2048)
                seen.erase(seen.begin());
            ASSERT_EQ(receiver.recv_next, next);
        }
    }
}

TEST_F(Record, WipeLeavesNothing) {
    memset(static_cast<void *>(&receiver), 0xEE, sizeof receiver);
    tarn_session_wipe(&receiver);
    EXPECT_EQ(window(), bytes(sizeof receiver));
}

} // namespace
