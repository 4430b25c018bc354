// Real sockets on the loopback addresses and free ports, the conversion of socket addresses, and the choice
// of local endpoints. Nothing waits for time to pass, but a few milliseconds where waiting is what is tested.
#include <memory>
#include <vector>

#include <tarnglider/clock.h>
#include <tarnglider/netsock.h>

#include "core/netsock_test.h"
#include "netsock_internal.h"

using bytes = std::vector<uint8_t>;

// A socket that closes itself.
struct udp {
    uint64_t s;
    explicit udp(int family = 4, const char *bind_to = "127.0.0.1", uint16_t port = 0) {
        const tarn_addr local = addr(bind_to ? bind_to : "::");
        s = tarn_udp_open(family, bind_to ? &local : nullptr, port);
    }
    udp(const udp &) = delete;
    udp &operator=(const udp &) = delete;
    ~udp() { tarn_udp_close(s); }
    uint16_t port() const { return tarn_udp_local_port(s); }
    int send(const tarn_addr &to, const bytes &data) const {
        return tarn_udp_send(s, &to, data.data(), static_cast<int>(data.size()));
    }
    // Whether the next datagram, waited for, is this one.
    bool gets(const tarn_addr &sender, const bytes &data) const {
        bytes got(3000);
        tarn_addr from;
        memset(&from, 0xEE, sizeof from);
        EXPECT_EQ(tarn_udp_wait(&s, 1, 60500), 1);
        const int len = tarn_udp_recv(s, got.data(), got.size(), &from);
        EXPECT_GE(len, 0);
        got.resize(len < 0 ? 0 : static_cast<size_t>(len));
        return got == data && same(from, sender);
    }
};

TEST(SocketAddress, ReadsBackWhatItWrites) {
    const struct {
        const char *from, *to; // what is written and what is read back
        int force_v6, family;
        size_t size;
    } rows[] = {
        {"1.2.3.4:4660", "1.2.3.4:4660", 0, AF_INET, 16},
        {"1.2.3.4:4660", "1.2.3.4:4660", 1, AF_INET6, 28},
        {"[2001:db8::5]:65535", "[2001:db8::5]:65535", 0, AF_INET6, 28},
        {"[::ffff:9.8.7.6]:1", "9.8.7.6:1", 0, AF_INET6, 28},
        {"[::9.8.7.6]:1", "[::9.8.7.6]:1", 0, AF_INET6, 28}, // only ::ffff:0:0/96 is mapped
        {"[::fffe:9.8.7.6]:1", "[::fffe:9.8.7.6]:1", 0, AF_INET6, 28},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.from);
        uint8_t room[64] = {}, *sa = room + 1,
                *family = sa + offsetof(sockaddr_in, sin_family); // not aligned
        tarn_addr a = addr(row.from), back = a;
        EXPECT_EQ(tarn_addr_to_sockaddr(&a, sa, row.size - 1, row.force_v6), 0u);
        ASSERT_EQ(tarn_addr_to_sockaddr(&a, sa, row.size, row.force_v6), row.size);
        EXPECT_EQ(sa[2] << 8 | sa[3], a.port) << "network order";
        EXPECT_EQ(tarn_addr_from_sockaddr(&back, sa, row.size - 1), -1);
        EXPECT_TRUE(same(back, tarn_addr{})) << "a refused address leaves nothing behind";
        back = addr("[ff::ff]:9");
        EXPECT_EQ(tarn_addr_from_sockaddr(&back, sa, row.size), 0);
        EXPECT_TRUE(same(back, addr(row.to)));
        EXPECT_EQ(*family, row.family);
        *family = AF_UNSPEC;
        EXPECT_EQ(tarn_addr_from_sockaddr(&back, sa, row.size), -1);
        a.family = 5;
        EXPECT_EQ(tarn_addr_to_sockaddr(&a, sa, 60, row.force_v6), 0u);
    }
}

TEST(Udp, CarriesDatagramsAndNeverBlocks) {
    ASSERT_EQ(tarn_net_init(), 0);
    const udp a, b;
    const tarn_addr to = addr("127.0.0.1", b.port()), own = addr("127.0.0.1", a.port());
    tarn_addr from = addr("9.9.9.9:9");
    uint8_t byte;
    EXPECT_EQ(tarn_udp_recv(b.s, &byte, 1, &from), -1) << "nothing waits";
    EXPECT_TRUE(same(from, addr("9.9.9.9:9")));
    for (const size_t size : {1400u, 0u, 1u}) {
        ASSERT_EQ(a.send(to, bytes(size, 7)), 0);
        EXPECT_TRUE(b.gets(own, bytes(size, 7)));
    }
    EXPECT_EQ(tarn_udp_send(a.s, &to, &byte, -1), -1);
    EXPECT_EQ(a.send(to, bytes(70000)), -1) << "more than a datagram holds";
    EXPECT_EQ(a.send(tarn_addr{}, {1}), -1);
    EXPECT_EQ(a.send(addr("::1", b.port()), {1}), -1) << "no way to IPv6 from an IPv4 socket";
    // After a datagram to a closed port the next receive must still deliver what came, not report that port.
    ASSERT_EQ(a.send(addr("127.0.0.1", udp().port()), {1}), 0);
    ASSERT_EQ(b.send(own, {2}), 0);
    EXPECT_TRUE(a.gets(to, {2}));
}

TEST(Udp, FailedBindGivesNoSocketAndLeaksNone) {
    const udp taken;
    const uint64_t first = udp().s;
    const tarn_addr none = {};
    EXPECT_EQ(udp(4, "127.0.0.1", taken.port()).s, TARN_SOCKET_NONE) << "a taken port";
    EXPECT_EQ(udp(4, "::1").s, TARN_SOCKET_NONE) << "IPv6 on an IPv4 socket";
    EXPECT_EQ(tarn_udp_open(4, &none, 0), TARN_SOCKET_NONE);
    EXPECT_EQ(udp().s, first) << "the number of a closed socket is free again";
    EXPECT_EQ(tarn_udp_local_port(TARN_SOCKET_NONE), 0);
}

TEST(Udp, BuffersAreEnlarged) {
    const udp ours;
    const netsock_fd plain = netsock_create(AF_INET);
    for (const int name : {SO_RCVBUF, SO_SNDBUF}) {
        const auto size = [&](netsock_fd fd) {
            int value = 0;
            socklen_t len = sizeof value;
            getsockopt(fd, SOL_SOCKET, name, reinterpret_cast<char *>(&value), &len);
            return value;
        };
        EXPECT_GT(size(static_cast<netsock_fd>(ours.s)), size(plain)); // the system may cut 4 MiB
    }
    netsock_close(plain);
}

TEST(Udp, OneAddressWorksOnEitherSocket) {
    const udp both(6, nullptr), v4(5, nullptr), mapped(6); // every family but 6 means IPv4
    if (both.s == TARN_SOCKET_NONE) GTEST_SKIP() << "no IPv6 on this machine";
    const struct {
        const udp &from, &to;
        const char *ip; // as the receiver is to see it: not in the mapped form
    } rows[] = {
        {v4, both, "127.0.0.1"}, {both, v4, "127.0.0.1"}, {both, mapped, "127.0.0.1"}, {both, both, "::1"}};
    for (const auto &row : rows) {
        ASSERT_EQ(row.from.send(addr(row.ip, row.to.port()), {1}), 0);
        EXPECT_TRUE(row.to.gets(addr(row.ip, row.from.port()), {1}));
    }
}

TEST(Wait, TakesTheFirst64DistinctSockets) {
    std::unique_ptr<udp[]> sockets(new udp[65]);
    std::vector<uint64_t> list;
    for (int i = 0; i < 65; i++)
        list.push_back(sockets[static_cast<size_t>(i)].s);
    const uint64_t last = list[64], invalid[] = {last, TARN_SOCKET_NONE};
    ASSERT_EQ(sockets[0].send(addr("127.0.0.1", sockets[64].port()), {1}), 0);
    EXPECT_EQ(tarn_udp_wait(&last, 1, 60500), 1);
    EXPECT_EQ(tarn_udp_wait(list.data(), 65, 0), 0) << "the 65th isn't watched";
    EXPECT_EQ(tarn_udp_wait(list.data() + 1, 64, 0), 1) << "the 64th is";
    std::vector<uint64_t> repeated(100, list[0]);
    EXPECT_EQ(tarn_udp_wait(repeated.data(), 100, 0), 0);
    repeated.push_back(last);
    EXPECT_EQ(tarn_udp_wait(repeated.data(), 101, 0), 1) << "repeats count once";
    EXPECT_EQ(tarn_udp_wait(list.data(), 0, 0), -1);
    EXPECT_EQ(tarn_udp_wait(invalid, 2, 0), -1);
    sockets.reset();
    EXPECT_EQ(tarn_udp_wait(&last, 1, 0), -1) << "closed";
}

TEST(Wait, TimeOutIsInMilliseconds) {
    const udp a;
    const int64_t start = tarn_now_us();
    EXPECT_EQ(tarn_udp_wait(&a.s, 1, 25), 0);
    EXPECT_GE(tarn_now_us() - start, 24000); // the two clocks may round apart
    EXPECT_EQ(tarn_udp_wait(&a.s, 1, -1), 0) << "not for ever";
}

#if !defined(_WIN32)
#include <signal.h>
#include <sys/time.h>

TEST(Wait, SignalWakesTheCaller) {
    signal(SIGALRM, [](int) {});
    const itimerval often = {{0, 5000}, {0, 5000}}, never = {};
    const udp a;
    setitimer(ITIMER_REAL, &often, nullptr);
    const int result = tarn_udp_wait(&a.s, 1, 600000);
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_EQ(result, 0); // and the test hasn't run into its own time limit
}
#endif

TEST(LocalEndpoints, SkipsRepeatsAndWhatNobodyCanReach) {
    netsock_local local = {};
    const uint8_t seen[][4] = {{8, 8, 8, 8},     {127, 0, 0, 1}, {0, 1, 2, 3},
                               {169, 254, 9, 9}, {10, 0, 0, 1},  {8, 8, 8, 8},
                               {169, 253, 9, 9}, {126, 1, 1, 1}, {192, 168, 1, 2}};
    for (const auto &ip : seen)
        netsock_local_add(&local, ip);
    tarn_addr out[32];
    ASSERT_EQ(netsock_local_pick(&local, out, 32, 5000), 5);
    const char *expected[] = {"10.0.0.1", "192.168.1.2", "8.8.8.8", "169.253.9.9", "126.1.1.1"};
    for (int i = 0; i < 5; i++)
        EXPECT_TRUE(same(out[i], addr(expected[i], 5000))) << expected[i];
    EXPECT_EQ(netsock_local_pick(&local, out, 1, 7), 1);
    EXPECT_TRUE(same(out[0], addr("10.0.0.1", 7)) && same(out[1], addr("192.168.1.2", 5000)));
    for (uint8_t i = 1; i <= 20; i++) {
        const uint8_t ip[4] = {172, 16, 0, i};
        netsock_local_add(&local, ip);
    }
    ASSERT_EQ(netsock_local_pick(&local, out, 32, 1), 16);
    EXPECT_TRUE(same(out[12], addr("172.16.0.11", 1))) << "the 16th that was collected";
}

TEST(Resolve, SystemNameService) {
    tarn_addr out;
    ASSERT_EQ(tarn_net_resolve("localhost:80x", 1, &out), 0);
    EXPECT_TRUE(same(out, addr("127.0.0.1:80")));
}
