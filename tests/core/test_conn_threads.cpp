// Engines called from several threads at once, as a caller with a network thread, a media thread and a user interface
// does. The thread sanitizer judges; by itself the test sees that no packet is sealed twice under one number.
#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <thread>

#include "bytes_internal.h"
#include "support/engine_rig.h"

namespace {

// A wire between two engines; what one sends is given to the other by whichever thread pumps.
struct wire_end {
    std::mutex lock;
    std::vector<bytes> queue;
    void put(const bytes &data) {
        const std::lock_guard held(lock);
        queue.push_back(data);
    }
    std::vector<bytes> take() {
        const std::lock_guard held(lock);
        return std::exchange(queue, {});
    }
};

TEST(ConnThreads, EveryCallFromEveryThread) {
    const tarn_addr host_at = ep("203.0.113.5:9000"), client_at = ep("198.51.100.20:5000");
    host_rig host;
    client_rig client([](tarn_client_config &c) { c.rekey_packets = 500; });
    wire_end to_host, to_client;
    host.wire = [&](const tarn_addr &, const bytes &data) { to_client.put(data); };
    client.wire = [&](const tarn_addr &, const bytes &data) { to_host.put(data); };
    tarn_client_add_candidate(client.c, &host_at, 0);
    tarn_client_connect(client.c);
    const auto pump = [&] {
        int data = 0;
        for (const bytes &d : to_host.take())
            data += host.receive(d, client_at).result == TARN_RECV_DATA;
        for (const bytes &d : to_client.take())
            data += client.receive(d, host_at).result == TARN_RECV_DATA;
        return data;
    };
    tarn_client_status status = {};
    for (int i = 0; i < 100 && !status.connected; i++) {
        tarn_client_tick(client.c);
        pump();
        tarn_client_status_get(client.c, &status);
    }
    ASSERT_TRUE(status.connected);
    pump(); // the first probe makes the host's link

    constexpr int rounds = 2000;
    std::set<std::pair<uint32_t, uint64_t>> numbers;
    std::mutex numbers_lock;
    int delivered = 0, sealed = 0;
    const auto talk = [&] {
        const bytes packet = plain(TARN_PKT_INPUT, bytes(20));
        for (int i = 0; i < rounds; i++) {
            bytes out(packet.size() + TARN_SEAL_OVERHEAD);
            if (tarn_client_seal(client.c, 0, packet.data(), packet.size(), out.data(), out.size(),
                                 nullptr) == 0)
                continue;
            const std::lock_guard held(numbers_lock);
            sealed++;
            numbers.insert({get_u32(out.data() + 4), get_u64(out.data() + 8)});
            to_host.put(out);
        }
    };
    const auto work = [&] {
        for (int i = 0; i < rounds; i++) {
            tarn_client_tick(client.c);
            tarn_host_tick(host.h);
            conn_event e;
            while (tarn_client_poll_event(client.c, &e) || tarn_host_poll_event(host.h, &e)) {
            }
            tarn_session_info info;
            tarn_host_session_info_get(host.h, status.session, &info);
            tarn_client_status s;
            tarn_client_status_get(client.c, &s);
        }
    };
    std::thread network([&] {
        for (int i = 0; i < rounds; i++)
            delivered += pump();
    });
    std::thread media[] = {std::thread(talk), std::thread(talk)};
    std::thread interface(work);
    for (std::thread &t : media)
        t.join();
    interface.join();
    network.join();
    for (int i = 0; i < 3; i++)
        delivered += pump();
    EXPECT_EQ(numbers.size(), static_cast<size_t>(sealed));
    EXPECT_EQ(sealed, 2 * rounds);
    EXPECT_GT(delivered, sealed / 2);
    EXPECT_LE(delivered, sealed);
}

} // namespace
