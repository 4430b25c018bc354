// Real sockets on the loopback addresses and free ports, the conversion of socket addresses, and the choice of local
// endpoints. Nothing here waits for time to pass, except a few milliseconds where waiting is what is tested.
#include <thread>
#include <vector>

#include <tarnglider/clock.h>
#include <tarnglider/netsock.h>
#include <tarnglider/rendezvous.h>

#include "core/netsock_test.h"
#include "netsock_internal.h"

// A socket that closes itself.
struct udp {
    uint64_t s;
    explicit udp(int family, const char *bind_to = nullptr, uint16_t port = 0) {
        const tarn_addr local = addr(bind_to ? bind_to : "::");
        s = tarn_udp_open(family, bind_to ? &local : nullptr, port);
    }
    udp(const udp &) = delete;
    udp &operator=(const udp &) = delete;
    ~udp() { tarn_udp_close(s); }
    uint16_t port() const { return tarn_udp_local_port(s); }
    int send(const tarn_addr &to, const std::vector<uint8_t> &data) const {
        return tarn_udp_send(s, &to, data.data(), static_cast<int>(data.size()));
    }
    // The next datagram, waited for; `from` is its sender.
    std::vector<uint8_t> next(tarn_addr *from) const {
        std::vector<uint8_t> data(3000);
        memset(from, 0xEE, sizeof *from);
        EXPECT_EQ(tarn_udp_wait(&s, 1, 60500), 1);
        const int len = tarn_udp_recv(s, data.data(), data.size(), from);
        EXPECT_GE(len, 0);
        data.resize(len < 0 ? 0 : static_cast<size_t>(len));
        return data;
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
        {"[2001:db8::5]:65535", "[2001:db8::5]:65535", 1, AF_INET6, 28},
        {"[::ffff:9.8.7.6]:1", "9.8.7.6:1", 0, AF_INET6, 28},
        {"[::9.8.7.6]:1", "[::9.8.7.6]:1", 0, AF_INET6, 28}, // only ::ffff:0:0/96 is mapped
        {"[::fffe:9.8.7.6]:1", "[::fffe:9.8.7.6]:1", 0, AF_INET6, 28},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.from);
        uint8_t room[64] = {}, *sa = room + 1; // not aligned
        tarn_addr a = addr(row.from), back = a;
        EXPECT_EQ(tarn_addr_to_sockaddr(&a, sa, row.size - 1, row.force_v6), 0u);
        ASSERT_EQ(tarn_addr_to_sockaddr(&a, sa, row.size, row.force_v6), row.size);
        sockaddr_in in;
        memcpy(&in, sa, sizeof in);
        EXPECT_EQ(in.sin_family, row.family);
        EXPECT_EQ(sa[2] << 8 | sa[3], a.port) << "network order";
        EXPECT_EQ(tarn_addr_from_sockaddr(&back, sa, row.size - 1), -1);
        EXPECT_TRUE(same(back, tarn_addr{})) << "a refused address leaves nothing behind";
        back = addr("[ff::ff]:9");
        EXPECT_EQ(tarn_addr_from_sockaddr(&back, sa, row.size), 0);
        EXPECT_TRUE(same(back, addr(row.to)));
        in.sin_family = AF_UNSPEC;
        memcpy(sa, &in, sizeof in);
        EXPECT_EQ(tarn_addr_from_sockaddr(&back, sa, row.size), -1);
        a.family = 5;
        EXPECT_EQ(tarn_addr_to_sockaddr(&a, sa, 60, row.force_v6), 0u);
    }
}

TEST(Udp, CarriesDatagramsAndNeverBlocks) {
    ASSERT_EQ(tarn_net_init(), 0);
    udp a(4, "127.0.0.1"), b(4, "127.0.0.1");
    ASSERT_NE(a.s, TARN_SOCKET_NONE);
    ASSERT_NE(b.port(), 0);
    tarn_addr from = addr("9.9.9.9:9");
    uint8_t byte;
    EXPECT_EQ(tarn_udp_wait(&b.s, 1, 0), 0);
    EXPECT_EQ(tarn_udp_recv(b.s, &byte, 1, &from), -1) << "nothing waits";
    EXPECT_TRUE(same(from, addr("9.9.9.9:9")));
    for (const size_t size : {size_t{1400}, size_t{0}, size_t{1}}) {
        const std::vector<uint8_t> sent(size, static_cast<uint8_t>(size));
        ASSERT_EQ(a.send(addr("127.0.0.1", b.port()), sent), 0);
        EXPECT_EQ(b.next(&from), sent);
        EXPECT_TRUE(same(from, addr("127.0.0.1", a.port())));
    }
    const tarn_addr to = addr("127.0.0.1", b.port());
    EXPECT_EQ(tarn_udp_send(a.s, &to, &byte, -1), -1);
    EXPECT_EQ(a.send(to, std::vector<uint8_t>(70000)), -1) << "more than a datagram holds";
    EXPECT_EQ(a.send(tarn_addr{}, {1}), -1);
    EXPECT_EQ(a.send(addr("::1", b.port()), {1}), -1) << "no way to IPv6 from an IPv4 socket";
}

// After a datagram to a closed port the next receive must still deliver what came, not report that port.
TEST(Udp, ClosedPortOfAPeerDoesNotDisturb) {
    udp a(4, "127.0.0.1"), b(4, "127.0.0.1");
    uint16_t gone;
    {
        udp c(4, "127.0.0.1");
        gone = c.port();
    }
    ASSERT_EQ(a.send(addr("127.0.0.1", gone), {1}), 0);
    ASSERT_EQ(b.send(addr("127.0.0.1", a.port()), {2}), 0);
    tarn_addr from;
    EXPECT_EQ(a.next(&from), std::vector<uint8_t>{2});
}

TEST(Udp, FailedBindGivesNoSocketAndLeaksNone) {
    udp taken(4, "127.0.0.1");
    uint64_t first;
    {
        udp probe(4, "127.0.0.1");
        first = probe.s;
    }
    EXPECT_EQ(udp(4, "127.0.0.1", taken.port()).s, TARN_SOCKET_NONE) << "a taken port";
    EXPECT_EQ(udp(4, "::1").s, TARN_SOCKET_NONE) << "IPv6 on an IPv4 socket";
    const tarn_addr none = {};
    EXPECT_EQ(tarn_udp_open(4, &none, 0), TARN_SOCKET_NONE);
    EXPECT_EQ(udp(4, "127.0.0.1").s, first) << "the number of a closed socket is free again";
    EXPECT_EQ(tarn_udp_local_port(TARN_SOCKET_NONE), 0);
    tarn_udp_close(TARN_SOCKET_NONE);
}

TEST(Udp, BuffersAreEnlarged) {
    udp ours(4, "127.0.0.1");
    const netsock_fd plain = netsock_create(AF_INET);
    for (const int name : {SO_RCVBUF, SO_SNDBUF}) {
        int size[2] = {0, 0};
        socklen_t len = sizeof size[0];
        getsockopt(static_cast<netsock_fd>(ours.s), SOL_SOCKET, name, reinterpret_cast<char *>(&size[0]),
                   &len);
        getsockopt(plain, SOL_SOCKET, name, reinterpret_cast<char *>(&size[1]), &len);
        EXPECT_GT(size[0], size[1]); // the system may cut 4 MiB to a limit of its own
    }
    netsock_close(plain);
}

TEST(Udp, OneAddressWorksOnEitherSocket) {
    udp both(6), v4(5), mapped(6, "127.0.0.1"); // every family but 6 means IPv4
    if (both.s == TARN_SOCKET_NONE) GTEST_SKIP() << "no IPv6 on this machine";
    ASSERT_NE(mapped.s, TARN_SOCKET_NONE);
    tarn_addr from;
    ASSERT_EQ(v4.send(addr("127.0.0.1", both.port()), {1}), 0);
    EXPECT_EQ(both.next(&from), std::vector<uint8_t>{1});
    EXPECT_TRUE(same(from, addr("127.0.0.1", v4.port()))) << "not in its mapped form";
    ASSERT_EQ(both.send(from, {2}), 0);
    EXPECT_EQ(v4.next(&from), std::vector<uint8_t>{2});
    EXPECT_TRUE(same(from, addr("127.0.0.1", both.port())));
    ASSERT_EQ(both.send(addr("127.0.0.1", mapped.port()), {3}), 0);
    EXPECT_EQ(mapped.next(&from), std::vector<uint8_t>{3});
    ASSERT_EQ(both.send(addr("::1", both.port()), {4}), 0);
    EXPECT_EQ(both.next(&from), std::vector<uint8_t>{4});
    EXPECT_TRUE(same(from, addr("::1", both.port())));
}

TEST(Wait, TakesTheFirst64DistinctSockets) {
    std::vector<udp *> sockets;
    std::vector<uint64_t> list;
    for (int i = 0; i < 65; i++) {
        sockets.push_back(new udp(4, "127.0.0.1"));
        list.push_back(sockets.back()->s);
    }
    const uint64_t silent = list[0], last = list[64];
    ASSERT_EQ(sockets[0]->send(addr("127.0.0.1", sockets[64]->port()), {1}), 0);
    EXPECT_EQ(tarn_udp_wait(&last, 1, 60500), 1);
    EXPECT_EQ(tarn_udp_wait(list.data(), 65, 0), 0) << "the 65th isn't watched";
    EXPECT_EQ(tarn_udp_wait(list.data() + 1, 64, 0), 1) << "the 64th is";
    std::vector<uint64_t> repeated(100, silent);
    repeated.push_back(last);
    EXPECT_EQ(tarn_udp_wait(repeated.data(), 101, 0), 1) << "repeats count once";
    EXPECT_EQ(tarn_udp_wait(repeated.data(), 100, 0), 0);
    EXPECT_EQ(tarn_udp_wait(list.data(), 0, 0), -1);
    const uint64_t invalid[] = {last, TARN_SOCKET_NONE};
    EXPECT_EQ(tarn_udp_wait(invalid, 2, 0), -1);
    for (udp *s : sockets)
        delete s;
    EXPECT_EQ(tarn_udp_wait(&last, 1, 0), -1) << "closed";
}

TEST(Wait, TimeOutIsInMilliseconds) {
    udp a(4, "127.0.0.1");
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
    udp a(4, "127.0.0.1");
    setitimer(ITIMER_REAL, &often, nullptr);
    const int result = tarn_udp_wait(&a.s, 1, 600000);
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_EQ(result, 0); // and the test hasn't run into its own time limit
}
#endif

TEST(LocalEndpoints, SkipsRepeatsAndWhatNobodyCanReach) {
    netsock_local local = {};
    const uint8_t seen[][4] = {{8, 8, 8, 8},     {127, 0, 0, 1}, {0, 1, 2, 3},
                               {169, 254, 9, 9}, {10, 0, 0, 1},  {169, 253, 9, 9},
                               {8, 8, 8, 8},     {126, 1, 1, 1}, {192, 168, 1, 2}};
    for (const auto &ip : seen)
        netsock_local_add(&local, ip);
    tarn_addr out[16];
    ASSERT_EQ(netsock_local_pick(&local, out, 16, 5000), 5);
    const char *expected[] = {"10.0.0.1", "192.168.1.2", "8.8.8.8", "169.253.9.9", "126.1.1.1"};
    for (int i = 0; i < 5; i++)
        EXPECT_TRUE(same(out[i], addr(expected[i], 5000))) << expected[i];
    memset(out, 0xEE, sizeof out);
    EXPECT_EQ(netsock_local_pick(&local, out, 1, 7), 1);
    EXPECT_TRUE(same(out[0], addr("10.0.0.1", 7)));
    EXPECT_EQ(out[1].family, 0xEE) << "past the room that was given";
    EXPECT_EQ(netsock_local_pick(&local, out, 0, 7), 0);

    for (uint8_t i = 1; i <= 20; i++) {
        const uint8_t ip[4] = {172, 16, 0, i};
        netsock_local_add(&local, ip);
    }
    tarn_addr all[32];
    ASSERT_EQ(netsock_local_pick(&local, all, 32, 1), 16);
    EXPECT_TRUE(same(all[12], addr("172.16.0.11", 1))) << "the 16th that was collected";
}

TEST(LocalEndpoints, OfThisMachineCanBeBound) {
    tarn_addr out[16];
    const int count = tarn_net_local_endpoints(out, 16, 4242);
    for (int i = 0; i < count; i++) {
        EXPECT_TRUE(out[i].family == 4 && out[i].port == 4242 && out[i].ip[0] != 127);
        const uint64_t socket = tarn_udp_open(4, &out[i], 0);
        EXPECT_NE(socket, TARN_SOCKET_NONE);
        tarn_udp_close(socket);
    }
}

TEST(Resolve, SystemNameService) {
    tarn_addr out;
    ASSERT_EQ(tarn_net_resolve("localhost:80x", 1, &out), 0);
    EXPECT_TRUE(same(out, addr("127.0.0.1:80")));
}

// The whole way over real sockets; a stranger on the same machine answers before the server does.
TEST(RelayCheck, OverRealSockets) {
    udp server(4, "127.0.0.1"), stranger(4, "127.0.0.1");
    const uint8_t link_key[] = {'k', 'e', 'y'};
    tarn_relay_server s;
    ASSERT_EQ(tarn_relay_server_set(&s, "127.0.0.1", server.port(), link_key, sizeof link_key), 0);
    std::thread answering([&] {
        uint8_t key[32];
        tarn_addr from;
        tarn_rv_msg m;
        tarn_rv_net_key(key, link_key, sizeof link_key);
        const std::vector<uint8_t> probe = server.next(&from);
        EXPECT_EQ(tarn_rv_decode(probe.data(), probe.size(), key, &m), 0);
        m.type = TARN_RV_ERROR;
        std::vector<uint8_t> answer(64);
        answer.resize(tarn_rv_encode(answer.data(), answer.size(), key, &m));
        EXPECT_EQ(stranger.send(from, answer), 0);
        EXPECT_EQ(server.send(from, answer), 0);
    });
    uint32_t rtt = UINT32_MAX;
    EXPECT_EQ(tarn_relay_check(&s, 60000, &rtt), TARN_RELAY_CHECK_OK);
    EXPECT_LT(rtt, 60000000u);
    answering.join();
}
