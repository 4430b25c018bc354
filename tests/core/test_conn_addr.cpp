// Endpoints: which texts are addresses, how they print, and which path class they earn.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>

#include <tarnglider/conn_addr.h>

#include "conn_addr_internal.h"
#include "support/seeded_random.h"

namespace {

std::string format(const tarn_addr &a) {
    char text[64];
    size_t n = tarn_addr_format(text, sizeof text, &a);
    EXPECT_EQ(n, strlen(text));
    return text;
}

tarn_addr parse(const std::string &text) {
    tarn_addr a;
    EXPECT_EQ(tarn_addr_parse(&a, text.c_str(), 7), 0) << text;
    return a;
}

bool same(const tarn_addr &a, const tarn_addr &b) {
    return a.family == b.family && a.port == b.port && memcmp(a.ip, b.ip, sizeof a.ip) == 0;
}

TEST(ConnAddr, AcceptedTextsPrintInTheirOneForm) {
    std::istringstream pairs( // each text and what it prints as, default port 7
        "1.2.3.4 1.2.3.4:7  1.2.3.4:80 1.2.3.4:80  1.2.3.4:00080 1.2.3.4:80  1.2.3.4:0000000000065535 "
        "1.2.3.4:65535 001.002.003.010 1.2.3.10:7  255.255.255.255:1 255.255.255.255:1  0.0.0.0 0.0.0.0:7  "
        "[::1] [::1]:7  [::1]:80 [::1]:80  ::1 [::1]:7  ::1:80 [::1:80]:7  :: [::]:7  [::]:1 [::]:1  1:: "
        "[1::]:7  ABCD:EF01:2345:6789:abcd:ef01:2345:6789 [abcd:ef01:2345:6789:abcd:ef01:2345:6789]:7  "
        "0001:0020:0300:4000:0:0:0:0 [1:20:300:4000::]:7  1:2:3:4:5:6:7:: [1:2:3:4:5:6:7:0]:7  "
        "::2:3:4:5:6:7:8 [0:2:3:4:5:6:7:8]:7  1:2:3::7:8 [1:2:3::7:8]:7  ::ffff:1.2.3.4 [::ffff:102:304]:7  "
        "::1.2.3.4 [::102:304]:7  1:2:3:4:5:6:1.2.3.4 [1:2:3:4:5:6:102:304]:7  1:2:3:4:5::1.2.3.4 "
        "[1:2:3:4:5:0:102:304]:7  1:0:0:2:0:0:3:4 [1::2:0:0:3:4]:7  1:0:0:2:0:0:0:4 [1:0:0:2::4]:7  "
        "1:2:0:4:5:6:7:8 [1:2:0:4:5:6:7:8]:7  0:0:1:2:3:4:0:0 [::1:2:3:4:0:0]:7  1:2:3:4:5:6:0:0 "
        "[1:2:3:4:5:6::]:7");
    for (std::string text, printed; pairs >> text >> printed;)
        EXPECT_EQ(format(parse(text)), printed) << text;

    tarn_addr a = parse("1.2.3.4:4660");
    const tarn_addr v4 = {4, 0x1234, {1, 2, 3, 4}};
    EXPECT_TRUE(same(a, v4)) << "network order, the other 12 bytes zero";
    a = parse("[1234:5678::9]");
    const tarn_addr v6 = {6, 7, {0x12, 0x34, 0x56, 0x78, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9}};
    EXPECT_TRUE(same(a, v6)) << "each group big-endian";
    EXPECT_EQ(tarn_addr_parse(&a, "1.2.3.4", 0), 0);
    EXPECT_EQ(format(a), "1.2.3.4:0");
}

TEST(ConnAddr, RefusedTextsLeaveNoAddress) {
    std::istringstream texts(
        "- x 1.2.3.4:0 1.2.3.4:65536 1.2.3.4:99999999999999999999 1.2.3.4: 1.2.3.4:8x 1.2.3.4:+8 :80 "
        "1.2.3.4. .1.2.3.4 1..3.4 1.2.3 1.2.3.4.5 0001.2.3.4 1.2.3.0004 256.1.1.1 1.1.1.256 1.2.3.x 1.2.3.-4 "
        "[1.2.3.4] [1.2.3.4]:80 [::1 [::1]: [::1]:0 [::1]:65536 [::1]x [] []:80 [[::1]] [::1]] ::1] : ::: :1 "
        "1: 1:2:3:4:5:6:7 :1:2:3:4:5:6:7:8 1:2:3:4:5:6:7:8: 1:2:3:4:5:6:7:8:9 1:2:3:4:5:6:7::8 "
        "::1:2:3:4:5:6:7:8 1:2:3:4:5:6:7:8:: 1::2::3 ::1:: 1:::2 ::12345 ::00001 ::g ::1%1 fe80::1%eth0 "
        "1:2:3:4:5:6:7:1.2.3.4 1:2:3:4:5:6::1.2.3.4 1.2.3.4:: ::1.2.3.4:5 ::1.2.3 1:2:3:4:5:6:7:1.2.6.0 "
        "1:2:3:4:5:6:7:8:700 ::1.2.3.256 1:2:3:4:5:1.2.3.4 ::-1");
    const auto refused = [](const char *text) {
        tarn_addr a, none = {};
        memset(&a, 0xFF, sizeof a);
        return tarn_addr_parse(&a, text, 7) == -1 && same(a, none);
    };
    for (std::string text; texts >> text;)
        EXPECT_TRUE(refused(text.c_str())) << text;
    for (const char *text : {"", " 1.2.3.4", "1.2.3.4 ", "1.2.3.4: 8", "[::1] ", ":: 1"})
        EXPECT_TRUE(refused(text)) << text;
    EXPECT_TRUE(refused(nullptr));
}

TEST(ConnAddr, SpansNeedNoTerminator) {
    uint8_t ip[16];
    memset(ip, 0xFF, sizeof ip);
    const uint8_t want[16] = {0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
    EXPECT_EQ(parse_v6("1::23", 4, ip), 0);
    EXPECT_EQ(memcmp(ip, want, sizeof ip), 0);
    EXPECT_EQ(parse_v4("1.2.3.45", 7, ip), 0);
    EXPECT_EQ(ip[3], 4);
    EXPECT_EQ(parse_v4("1.2.3.4", 6, ip), -1);
    EXPECT_EQ(parse_v6("::", 0, ip), -1);
}

TEST(ConnAddr, RandomAddressesSurviveTheirText) {
    const uint64_t seed = 31;
    test_random random(seed);
    for (int i = 0; i < 20000; i++) {
        tarn_addr a = {}, back;
        a.family = random.below(2) ? 4 : 6;
        a.port = static_cast<uint16_t>(1 + random.below(65535));
        random.fill(a.ip, a.family == 4 ? 4 : 16);
        // Zero bytes in half of the places, so that runs of every place and length come up.
        for (uint8_t &byte : a.ip) {
            if (random.below(2)) byte = 0;
        }
        if (a.family == 6 && random.below(2)) memset(a.ip + 2 * random.below(8), 0, 2);
        std::string text = format(a);
        ASSERT_EQ(tarn_addr_parse(&back, text.c_str(), 0), 0) << text << " seed " << seed;
        ASSERT_TRUE(same(a, back)) << text << " seed " << seed;
    }
}

TEST(ConnAddr, FormatCutsToTheBuffer) {
    const std::string full = "[abcd:ef01:2345:6789:abcd:ef01:2345:6789]:65535";
    tarn_addr a = parse(full);
    for (size_t cap = 0; cap <= full.size() + 2; cap++) {
        char buf[64];
        memset(buf, '#', sizeof buf);
        std::string want = cap == 0 ? "#" : full.substr(0, cap - 1) + '\0' + '#';
        EXPECT_EQ(tarn_addr_format(buf, cap, &a), cap == 0 ? 0 : want.size() - 2);
        EXPECT_EQ(std::string(buf, want.size()), want) << cap;
    }
    EXPECT_EQ(format({5, 80, {1, 2, 3, 4}}), "-");
    EXPECT_EQ(format({}), "-");
}

TEST(ConnAddr, OnlyPrivateAddressesOutsideTheOverlayAreLan) {
    const struct {
        const char *texts;
        int is_private, is_tailscale, path;
    } rows[] = {{"10.0.0.0 10.255.255.255 127.0.0.1 127.255.0.1 172.16.0.0 172.31.255.255 192.168.0.1 "
                 "169.254.255.255 ::1 fc00:: fdff::1 fe80::1 febf::1 fd00::1 fd7a:115c:a1e1::1 "
                 "fd7a:115c:a1df::1 fd7a:115d:a1e0::1",
                 1, 0, TARN_PATH_LAN},
                {"9.255.255.255 11.0.0.0 126.255.255.255 128.0.0.0 172.15.255.255 172.32.0.0 173.16.0.0 "
                 "192.167.0.1 192.169.0.1 191.168.0.1 169.253.0.1 169.255.0.1 168.254.0.1 100.63.255.255 "
                 "100.128.0.1 100.192.0.1 101.64.0.1 8.8.8.8 253.122.17.92 :: ::2 1::1 ::1:0:0:1 fbff::1 "
                 "fe00::1 fe7f::1 fec0::1 ::ffff:10.0.0.1 a00::1",
                 0, 0, TARN_PATH_DIRECT},
                {"100.64.0.0 100.127.255.255", 0, 1, TARN_PATH_DIRECT},
                {"fd7a:115c:a1e0::1 fd7a:115c:a1e0:ffff:ffff:ffff:ffff:ffff", 1, 1, TARN_PATH_DIRECT}};
    for (const auto &row : rows) {
        std::istringstream texts(row.texts);
        for (std::string text; texts >> text;) {
            tarn_addr a = parse(text);
            EXPECT_EQ(tarn_addr_is_private(&a), row.is_private) << text;
            EXPECT_EQ(tarn_addr_is_tailscale(&a), row.is_tailscale) << text;
            EXPECT_EQ(tarn_addr_path_class(&a), row.path) << text;
            a.family = 0;
            EXPECT_EQ(tarn_addr_is_private(&a) + tarn_addr_is_tailscale(&a), 0) << "no family: " << text;
            EXPECT_EQ(tarn_addr_path_class(&a), TARN_PATH_DIRECT);
        }
    }
}

TEST(ConnAddr, OnlyLanCarriesLargeDatagrams) {
    const struct {
        int path;
        const char *name;
        size_t datagram;
    } rows[] = {{0, "-", 1200},     {1, "LAN", 1400}, {2, "Direct", 1200}, {3, "P2P", 1200},
                {4, "Relay", 1200}, {5, "-", 1200},   {99, "-", 1200},     {-1, "-", 1200}};
    for (const auto &row : rows) {
        EXPECT_STREQ(tarn_path_name(row.path), row.name);
        EXPECT_EQ(tarn_path_max_datagram(row.path), row.datagram);
        EXPECT_EQ(tarn_path_payload(row.path), row.datagram - 24);
    }
}

} // namespace
