// The background resolver on real threads, with the system's name service on the one name that it always
// knows.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>

#include <tarnglider/conn_client.h>
#include <tarnglider/conn_host.h>
#include <tarnglider/netsock.h>

#include "core/netsock_test.h"

namespace {
std::mutex lock;
std::condition_variable changed;
int reports = 0;
tarn_addr last;
bool stopped = false;
} // namespace

void tarn_host_server_resolved(tarn_host *, const char *name, uint16_t, const tarn_addr *a) {
    const std::lock_guard held(lock);
    EXPECT_STREQ(name, "localhost");
    EXPECT_FALSE(stopped);
    last = a ? *a : tarn_addr{};
    reports++;
    changed.notify_all();
}
void tarn_client_server_resolved(tarn_client *, const char *, uint16_t, const tarn_addr *) { ADD_FAILURE(); }

TEST(ResolverThreads, Localhost) {
    int engine;
    auto *host = reinterpret_cast<tarn_host *>(&engine);
    tarn_relay_config c = {};
    c.count = 1;
    snprintf(c.servers[0].host, sizeof c.servers[0].host, "localhost");
    c.servers[0].port = 9877;
    // Stopped at any moment: before, during and behind the look-up. What reports does so before the stop
    // returns.
    for (int i = 0; i < 100; i++) {
        int before;
        {
            const std::lock_guard held(lock);
            stopped = false;
            before = reports;
        }
        tarn_resolver *r = tarn_resolver_start_host(host, &c);
        ASSERT_NE(r, nullptr);
        if (i % 2) {
            std::unique_lock held(lock);
            changed.wait(held, [&] { return reports > before; });
        }
        tarn_resolver_stop(r);
        const std::lock_guard held(lock);
        stopped = true;
        EXPECT_TRUE(reports == before || same(last, addr("127.0.0.1:9877")) ||
                    same(last, addr("[::1]:9877")));
    }
}
