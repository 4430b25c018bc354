// Sealing on several threads at once: no counter, and so no nonce, is ever used twice.
#include <tarnglider/secure.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string.h>
#include <thread>
#include <vector>

TEST(RecordThreads, EachPacketGetsACounterOfItsOwn) {
    constexpr size_t threads = 4, each = 20000, sealed = 40;
    tarn_session session = {}, peer = {};
    session.id = peer.id = 1;
    std::vector<uint8_t> packets(threads * each * sealed);
    std::vector<std::thread> running;
    for (size_t t = 0; t < threads; t++) {
        running.emplace_back([&, t] {
            const uint8_t plain[16] = {0x50, 1, 16, 0, 0, 0, 0, 0, static_cast<uint8_t>(t)};
            for (size_t i = 0; i < each; i++) {
                tarn_seal(&session, plain, sizeof plain, &packets[(t * each + i) * sealed], sealed);
            }
        });
    }
    for (std::thread &one : running)
        one.join();
    EXPECT_EQ(session.send_counter, threads * each);

    std::vector<uint64_t> counters;
    size_t opened = 0;
    for (size_t i = 0; i < threads * each; i++) {
        uint8_t *packet = &packets[i * sealed], plain[16];
        size_t size = 0;
        uint64_t counter = 0;
        for (int b = 7; b >= 0; b--)
            counter = counter << 8 | packet[8 + b];
        counters.push_back(counter);
        peer.recv_next = 0; // order across threads is of no concern here
        memset(peer.replay, 0, sizeof peer.replay);
        if (tarn_open(&peer, packet, sealed, plain, sizeof plain, &size) == TARN_OK && plain[8] == i / each)
            opened++;
    }
    EXPECT_EQ(opened, threads * each);
    std::sort(counters.begin(), counters.end());
    for (size_t i = 0; i < counters.size(); i++)
        ASSERT_EQ(counters[i], i);
}
