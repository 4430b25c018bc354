// Endpoints: which texts are addresses, how they print, and which path class they earn.
#include <gtest/gtest.h>

#include <tarnglider/conn_addr.h>

#include "conn_addr_internal.h"
#include "support/records.h"

namespace {

std::string format(const tarn_addr &a, size_t cap = 64) {
    std::string text(cap, '#');
    text.resize(tarn_addr_format(text.data(), cap, &a) + 1);
    EXPECT_EQ(text.back(), '\0');
    return text.substr(0, text.size() - 1);
}

tarn_addr parse(const std::string &text) {
    tarn_addr a = {};
    EXPECT_EQ(tarn_addr_parse(&a, text.c_str(), 7), 0) << text;
    return a;
}

bool same(const tarn_addr &a, const tarn_addr &b) {
    return a.family == b.family && a.port == b.port && memcmp(a.ip, b.ip, sizeof a.ip) == 0;
}

} // namespace

TEST(ConnAddr, AcceptedTextsPrintInTheirOneForm) {
    const auto pairs = words( // each text and what it prints as, default port 7
        "001.002.003.010 1.2.3.10:7 255.255.255.255:00080 255.255.255.255:80 1.2.3.4:0000000000065535 "
        "1.2.3.4:65535 [::1]:1 [::1]:1 ::1:80 [::1:80]:7 :: [::]:7 1:: [1::]:7 "
        "ABCD:EF01:2345:6789:abcd:ef01:2345:6789 [abcd:ef01:2345:6789:abcd:ef01:2345:6789]:7 "
        "0001:0020:0300:4000:0:0:0:0 [1:20:300:4000::]:7 1:2:3:4:5:6:7:: [1:2:3:4:5:6:7:0]:7 ::2:3:4:5:6:7:8 "
        "[0:2:3:4:5:6:7:8]:7 1:2:3::7:8 [1:2:3::7:8]:7 ::ffff:1.2.3.4 [::ffff:102:304]:7 ::1.2.3.4 "
        "[::102:304]:7 1:2:3:4:5:6:1.2.3.4 [1:2:3:4:5:6:102:304]:7 1:2:3:4:5::1.2.3.4 "
        "[1:2:3:4:5:0:102:304]:7 1:0:0:2:0:0:3:4 [1::2:0:0:3:4]:7 1:0:0:2:0:0:0:4 [1:0:0:2::4]:7 "
        "1:2:0:4:5:6:7:8 [1:2:0:4:5:6:7:8]:7 0:0:1:2:3:4:0:0 [::1:2:3:4:0:0]:7 1:2:3:4:5:6:0:0 "
        "[1:2:3:4:5:6::]:7");
    for (size_t i = 0; i < pairs.size(); i += 2)
        EXPECT_EQ(format(parse(pairs[i])), pairs[i + 1]) << pairs[i];
    const tarn_addr v4 = {4, 0x1234, {1, 2, 3, 4}},
                    v6 = {6, 7, {0x12, 0x34, 0x56, 0x78, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9}};
    EXPECT_TRUE(same(parse("1.2.3.4:4660"), v4)) << "network order, the other 12 bytes zero";
    EXPECT_TRUE(same(parse("[1234:5678::9]"), v6)) << "each group big-endian";
}

TEST(ConnAddr, RefusedTextsLeaveNoAddress) {
    auto texts = words(
        "- x 1.2.3.4:0 1.2.3.4:65536 1.2.3.4:99999999999999999999 1.2.3.4: 1.2.3.4:8x 1.2.3.4:+8 :80 "
        "1.2.3.4. .1.2.3.4 1..3.4 1.2.3 1.2.3.4.5 0001.2.3.4 1.2.3.0004 256.1.1.1 1.1.1.256 1.2.3.x 1.2.3.-4 "
        "[1.2.3.4] [1.2.3.4]:80 [::1 [::1]: [::1]:0 [::1]:65536 [::1]x [] []:80 [[::1]] [::1]] ::1] : ::: :1 "
        "1: 1:2:3:4:5:6:7 :1:2:3:4:5:6:7:8 1:2:3:4:5:6:7:8: 1:2:3:4:5:6:7:8:9 1:2:3:4:5:6:7::8 "
        "::1:2:3:4:5:6:7:8 1:2:3:4:5:6:7:8:: 1::2::3 ::1:: 1:::2 ::12345 ::00001 ::g ::1%1 fe80::1%eth0 "
        "1:2:3:4:5:6:7:1.2.3.4 1:2:3:4:5:6::1.2.3.4 1.2.3.4:: ::1.2.3.4:5 ::1.2.3 1:2:3:4:5:6:7:1.2.6.0 "
        "1:2:3:4:5:6:7:8:700 ::1.2.3.256 1:2:3:4:5:1.2.3.4 ::-1");
    texts.insert(texts.end(), {"", " 1.2.3.4", "1.2.3.4 ", "1.2.3.4: 8", "[::1] ", ":: 1"});
    for (const std::string &text : texts) {
        tarn_addr a = dirty<tarn_addr>();
        EXPECT_EQ(tarn_addr_parse(&a, text.c_str(), 7), -1) << text;
        EXPECT_TRUE(same(a, {})) << text;
    }
    tarn_addr a;
    EXPECT_EQ(tarn_addr_parse(&a, nullptr, 7), -1);
}

TEST(ConnAddr, SpansNeedNoTerminator) {
    tarn_addr a = dirty<tarn_addr>(), want = a;
    memcpy(want.ip, "\0\1\0\0\0\0\0\0\0\0\0\0\0\0\0\2", 16);
    EXPECT_EQ(parse_v6("1::23", 4, a.ip), 0);
    EXPECT_TRUE(same(a, want));
    EXPECT_EQ(parse_v4("1.2.3.45", 7, a.ip), 0);
    EXPECT_EQ(a.ip[3], 4);
    EXPECT_EQ(parse_v4("1.2.3.4", 6, a.ip), -1);
    EXPECT_EQ(parse_v6("::", 0, a.ip), -1);
}

TEST(ConnAddr, FormatCutsToTheBuffer) {
    const std::string full = "[abcd:ef01:2345:6789:abcd:ef01:2345:6789]:65535";
    for (size_t cap = 1; cap <= full.size() + 2; cap++)
        EXPECT_EQ(format(parse(full), cap), full.substr(0, cap - 1));
    char none = '#';
    EXPECT_EQ(tarn_addr_format(&none, 0, nullptr), 0u);
    EXPECT_EQ(none, '#');
    EXPECT_EQ(format({5, 80, {1, 2, 3, 4}}) + format({}), "--");
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
        for (const std::string &text : words(row.texts)) {
            tarn_addr a = parse(text);
            EXPECT_EQ(tarn_addr_is_private(&a), row.is_private) << text;
            EXPECT_EQ(tarn_addr_is_tailscale(&a), row.is_tailscale) << text;
            EXPECT_EQ(tarn_addr_path_class(&a), row.path) << text;
            a.family = 0;
            EXPECT_EQ(tarn_addr_is_private(&a) + tarn_addr_is_tailscale(&a), 0) << "no family: " << text;
        }
    }
}

TEST(ConnAddr, OnlyLanCarriesLargeDatagrams) {
    const std::pair<int, const char *> names[] = {{0, "-"},     {1, "LAN"}, {2, "Direct"}, {3, "P2P"},
                                                  {4, "Relay"}, {99, "-"},  {-1, "-"}};
    for (const auto &[path, name] : names) {
        EXPECT_STREQ(tarn_path_name(path), name);
        EXPECT_EQ(tarn_path_max_datagram(path), path == 1 ? 1400u : 1200u);
        EXPECT_EQ(tarn_path_payload(path), path == 1 ? 1376u : 1176u);
    }
}
