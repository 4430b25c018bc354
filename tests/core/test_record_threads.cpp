// Sealing on several threads at once: no counter, and so no nonce, is ever used twice.
#include <tarnglider/secure.h>

#include <gtest/gtest.h>

#include <latch>
#include <set>
#include <thread>
#include <vector>

TEST(RecordThreads, EachPacketGetsACounterOfItsOwn) {
    constexpr size_t threads = 4, each = 20000, sealed = 40;
    tarn_session session = {};
    std::vector<uint8_t> packets(threads * each * sealed);
    std::latch together(threads);
    std::vector<std::thread> running;
    for (size_t t = 0; t < threads; t++) {
        running.emplace_back([&, t] {
            const uint8_t plain[16] = {0x50, 1, 16};
            together.arrive_and_wait();
            for (size_t i = 0; i < each; i++) {
                tarn_seal(&session, plain, sizeof plain, &packets[(t * each + i) * sealed], sealed);
            }
        });
    }
    for (std::thread &one : running) {
        one.join();
    }
    EXPECT_EQ(session.send_counter, threads * each);

    std::set<std::vector<uint8_t>> counters;
    for (auto at = packets.begin(); at != packets.end(); at += sealed) {
        counters.emplace(at + 8, at + 16);
    }
    EXPECT_EQ(counters.size(), threads * each);
}
