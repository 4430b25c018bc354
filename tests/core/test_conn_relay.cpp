// Relay links, records, lists and their file text: what is accepted, what is refused, and that a refusal leaves no key.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include <tarnglider/conn_relay.h>

#include "support/seeded_random.h"

namespace {

const std::string S = "tarnglider-relay://";
const std::string H = "tarnglider-relays-v1\n";

std::string key_of(const tarn_relay_server &s) { return std::string(s.key, s.key + s.key_len); }

std::string link_of(const tarn_relay_server &s) {
    char text[700];
    return std::string(text, tarn_relay_link_format(text, sizeof text, &s));
}

tarn_relay_server server(const std::string &link) {
    tarn_relay_server s = {};
    EXPECT_EQ(tarn_relay_link_parse(&s, link.c_str()), 0) << link;
    return s;
}

template <class Record>
bool all_zero(const Record &r) {
    const uint8_t *p = reinterpret_cast<const uint8_t *>(&r);
    return std::all_of(p, p + sizeof r, [](uint8_t b) { return b == 0; });
}

int load(tarn_relay_config *c, const std::string &text) {
    memset(c, 0xA5, sizeof *c);
    std::vector<uint8_t> exact(text.begin(), text.end()); // of its very size, for the address sanitizer
    return tarn_relay_config_load(c, exact.data(), exact.size());
}

tarn_relay_config full_config() {
    tarn_relay_config c = {};
    for (int i = 0; i < 8; i++) {
        EXPECT_EQ(tarn_relay_config_add_link(
                      &c, (S + "s" + std::to_string(i) + ".test#k%0" + std::to_string(i)).c_str()),
                  i);
    }
    return c;
}

std::string hosts(const tarn_relay_config &c) {
    std::string all;
    for (int i = 0; i < c.count; i++)
        all += std::string(c.servers[i].host) + " ";
    return all;
}

const std::string label63(63, 'a'), k128(128, 'k');
const std::string host253 = label63 + "." + label63 + "." + label63 + "." + std::string(61, 'b');

TEST(ConnRelay, AcceptedLinksGiveTheirRecordAndOneForm) {
    const struct {
        int family;
        std::string pairs; // what follows the scheme, and the form that the record has as a link
    } rows[] = {
        {0, "alpha.test#k alpha.test:9877#k  alpha.test:9877/#k alpha.test:9877#k  Alpha.Test:1#k "
            "Alpha.Test:1#k a_b.test:65535#k a_b.test:65535#k  a:00080#k a:80#k  123.alpha#k "
            "123.alpha:9877#k  1.2.3.4x#k 1.2.3.4x:9877#k  a--b.c-d#k a--b.c-d:9877#k  a#a%00b a:9877#a%00b  "
            "a#%fF%7f%25+ a:9877#%FF%7F%25%2B a#!~/:?@[`{aZ09-._~ a:9877#%21~%2F%3A%3F%40%5B%60%7BaZ09-._~ "},
        {0, host253 + ":65535/#k " + host253 + ":65535#k a#" + k128 + " a:9877#" + k128},
        {4, "010.2.3.4#k 010.2.3.4:9877#k  1.2.3.4:5/#k 1.2.3.4:5#k"},
        {6, "[::1]:9000#k [::1]:9000#k  [2001:DB8::1]/#k [2001:DB8::1]:9877#k  [::1.2.3.4]#k "
            "[::1.2.3.4]:9877#k"}};
    for (const auto &row : rows) {
        std::istringstream pairs(row.pairs);
        for (std::string rest, formatted; pairs >> rest >> formatted;) {
            tarn_relay_server s = server(S + rest);
            EXPECT_EQ(link_of(s), S + formatted);
            EXPECT_EQ(s.addr.family, row.family) << rest;
            EXPECT_EQ(s.addr.port, row.family ? s.port : 0) << rest;
        }
    }
    tarn_relay_server s = server(" \t\r\n\v\fTARNGLIDER-RELAY://[::1]#a%00b\v \n");
    EXPECT_STREQ(s.host, "::1");
    EXPECT_EQ(s.port, 9877);
    EXPECT_EQ(key_of(s), std::string("a\0b", 3));
    EXPECT_EQ(s.addr.ip[15], 1);
    EXPECT_EQ(server(S + "010.2.3.4#k").addr.ip[0], 10);
}

TEST(ConnRelay, RefusedLinksLeaveTheRecordAlone) {
    // What may not follow the scheme, and what is no link at all.
    std::istringstream rests(
        "#k /#k :1#k alpha.test alpha.test# alpha.test//#k alpha.test/x#k a/b#k ::1#k ::1:9000#k [1.2.3.4]#k "
        "[alpha.test]#k [::1#k [::1]x#k [::1]9000#k [::1]19000#k [::1]:#k []#k [:]#k [::1%1]#k a:#k a:0#k "
        "a:65536#k a:100000#k a:000080#k a:8x#k a:1:2#k a:-1#k u@a#k a?b#k a%62#k a#% a#k%4 a#%4g a#%g4 "
        "a#k#k a#k\x7F a#k\x80 a..b#k a.#k .a#k a-.test#k -a.test#k alpha.-t#k alpha.t-#k alpha.123#k 9#k "
        "1.2.3.4.5#k 300.1.1.1#k b\xC3\xBC.test#k a*b#k " +
        label63 + "a.test#k " + host253 + "b#k a#k" + k128 + " a#" + k128 + "%41");
    std::vector<std::string> links =
        split("|#k|tarnglider-relay:/a#kk|tarnglider-relays://a#k|xarnglider-relay://a#k");
    for (std::string rest; rests >> rest;)
        links.push_back(S + rest);
    for (const std::string &rest : split("|a b#k| a#k|a #k|a#k k|a#% 4|a#k\x1Fz"))
        links.push_back(S + rest);
    for (const std::string &link : links) {
        tarn_relay_server s, before;
        memset(&before, 0xA5, sizeof before);
        memcpy(&s, &before, sizeof s);
        EXPECT_EQ(tarn_relay_link_parse(&s, link.c_str()), -1) << link;
        EXPECT_EQ(memcmp(&s, &before, sizeof s), 0) << link;
    }
    tarn_relay_server s;
    EXPECT_EQ(tarn_relay_link_parse(&s, nullptr), -1);
    EXPECT_EQ(tarn_relay_link_parse(nullptr, (S + "a#k").c_str()), -1);
}

TEST(ConnRelay, ServerSetTakesItsPartsOrNothing) {
    const uint8_t key[130] = {1, 2, 3};
    char name[300];
    tarn_relay_server s, before;
    for (const auto &[host, want] : {std::pair{" \v alpha.test\f\r\n\t", "alpha.test:5"},
                                     {"[::1]", "[::1]:5"},
                                     {" [::1] ", "[::1]:5"},
                                     {"::1", "[::1]:5"},
                                     {"1.2.3.4", "1.2.3.4:5"}}) {
        EXPECT_EQ(tarn_relay_server_set(&s, host, 5, key, 3), 0) << host;
        EXPECT_EQ(tarn_relay_server_name(name, sizeof name, &s), strlen(want));
        EXPECT_STREQ(name, want);
        EXPECT_EQ(s.addr.port, s.addr.family ? 5 : 0);
    }
    EXPECT_EQ(tarn_relay_server_set(&s, "a", 0, key, 128), 0);
    EXPECT_EQ(s.port, 9877);
    EXPECT_EQ(key_of(s), std::string(key, key + 128));

    memset(&before, 0xA5, sizeof before);
    memcpy(&s, &before, sizeof s);
    for (const char *host :
         {"[1.2.3.4]", "[ ::1 ]", "[]", "[", "[::1", "alpha.test:5", "al pha", " \t", ""}) {
        EXPECT_EQ(tarn_relay_server_set(&s, host, 5, key, 3), -1) << host;
    }
    EXPECT_EQ(tarn_relay_server_set(&s, "a", 5, key, 0), -1);
    EXPECT_EQ(tarn_relay_server_set(&s, "a", 5, key, 129), -1);
    EXPECT_EQ(tarn_relay_server_set(&s, "a", 5, nullptr, 1), -1);
    EXPECT_EQ(tarn_relay_server_set(&s, nullptr, 5, key, 1), -1);
    EXPECT_EQ(tarn_relay_server_set(nullptr, "a", 5, key, 1), -1);
    EXPECT_EQ(memcmp(&s, &before, sizeof s), 0) << "a refusal writes nothing";
}

TEST(ConnRelay, FormatAsksForTheWorstCaseAndNameCuts) {
    tarn_relay_server s = server(S + "alpha.test:1#kk");
    const size_t need = 19 + 12 + 3 * 2 + 2;
    char buf[64];
    memset(buf, '*', sizeof buf);
    EXPECT_EQ(tarn_relay_link_format(buf, need - 1, &s), 0u);
    EXPECT_EQ(std::string(buf, sizeof buf), std::string(sizeof buf, '*')) << "a refusal writes nothing";
    EXPECT_EQ(tarn_relay_link_format(buf, need, &s), 19u + 12 + 1 + 2);
    EXPECT_STREQ(buf, (S + "alpha.test:1#kk").c_str());
    EXPECT_EQ(tarn_relay_link_format(nullptr, 99, &s), 0u);
    for (void (*damage)(tarn_relay_server *) :
         {+[](tarn_relay_server *t) { t->host[0] = '\0'; }, +[](tarn_relay_server *t) { t->port = 0; },
          +[](tarn_relay_server *t) { t->key_len = 0; }, +[](tarn_relay_server *t) { t->key_len = 129; }}) {
        tarn_relay_server bad = s;
        damage(&bad);
        EXPECT_EQ(link_of(bad), "");
    }
    s = server(S + "[::1]:65535#k");
    EXPECT_EQ(tarn_relay_server_name(buf, 12, &s), 11u);
    EXPECT_STREQ(buf, "[::1]:65535");
    EXPECT_EQ(tarn_relay_server_name(buf, 11, &s), 10u);
    EXPECT_STREQ(buf, "[::1]:6553");
    EXPECT_EQ(tarn_relay_server_name(buf, 1, &s), 0u);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(tarn_relay_server_name(buf, 0, &s), 0u);
    EXPECT_EQ(tarn_relay_server_name(nullptr, 9, &s), 0u);
}

TEST(ConnRelay, TheListIsKeyedByHostAndPort) {
    tarn_relay_config c = full_config();
    EXPECT_EQ(tarn_relay_config_add_link(&c, (S + "ninth.test#k").c_str()), -1);
    EXPECT_EQ(tarn_relay_config_add_link(&c, (S + "s3.test:1#k").c_str()), -1)
        << "another port is another server";
    EXPECT_EQ(tarn_relay_config_add_link(&c, (S + "S3.TEST#new").c_str()), 3);
    EXPECT_EQ(tarn_relay_config_add_link(&c, "nonsense"), -1);
    EXPECT_EQ(c.count, 8);
    EXPECT_EQ(key_of(c.servers[3]), "new");
    EXPECT_EQ(hosts(c), "s0.test s1.test s2.test S3.TEST s4.test s5.test s6.test s7.test ");
    EXPECT_EQ(tarn_relay_server_same(&c.servers[0], &c.servers[1]), 0);

    EXPECT_EQ(tarn_relay_config_remove(&c, 8), -1);
    EXPECT_EQ(tarn_relay_config_remove(&c, -1), -1);
    EXPECT_EQ(tarn_relay_config_remove(nullptr, 0), -1);
    EXPECT_EQ(tarn_relay_config_remove(&c, 2), 0);
    EXPECT_EQ(hosts(c), "s0.test s1.test S3.TEST s4.test s5.test s6.test s7.test ");
    EXPECT_TRUE(all_zero(c.servers[7])) << "the freed slot keeps no key";
    EXPECT_EQ(tarn_relay_config_remove(&c, 6), 0);
    EXPECT_EQ(hosts(c), "s0.test s1.test S3.TEST s4.test s5.test s6.test ");
    EXPECT_TRUE(all_zero(c.servers[6]));
    EXPECT_EQ(tarn_relay_config_remove(&c, 6), -1);
}

TEST(ConnRelay, AddNormalisesAndKeepsAResolvedAddress) {
    tarn_relay_config c = {};
    tarn_relay_server s = server(S + "alpha.test:5#k");
    s.addr = {4, 5, {9, 8, 7, 6}};
    EXPECT_EQ(tarn_relay_config_add(&c, &s), 0);
    EXPECT_EQ(c.servers[0].addr.ip[0], 9) << "resolved address kept";
    s = server(S + "1.2.3.4:5#k");
    s.addr = {4, 7, {9, 8, 7, 6}};
    EXPECT_EQ(tarn_relay_config_add(&c, &s), 1);
    EXPECT_EQ(c.servers[1].addr.ip[0], 1) << "a literal speaks for itself";
    EXPECT_EQ(c.servers[1].addr.port, 5);
    strcpy(s.host, " [::1] ");
    s.port = 0;
    EXPECT_EQ(tarn_relay_config_add(&c, &s), 2);
    EXPECT_STREQ(c.servers[2].host, "::1");
    EXPECT_EQ(c.servers[2].port, 9877);
    tarn_relay_config before;
    memcpy(&before, &c, sizeof c);
    strcpy(s.host, "a..b");
    EXPECT_EQ(tarn_relay_config_add(&c, &s), -1);
    EXPECT_EQ(tarn_relay_config_add(&c, nullptr), -1);
    EXPECT_EQ(tarn_relay_config_add(nullptr, &before.servers[0]), -1);
    EXPECT_EQ(memcmp(&c, &before, sizeof c), 0);
}

TEST(ConnRelay, SaveFitsWholeOrLeavesAWipedBuffer) {
    char buf[8000];
    memset(buf, '*', sizeof buf);
    tarn_relay_config c = {};
    EXPECT_EQ(tarn_relay_config_save(&c, buf, 21), 0u);
    EXPECT_EQ(tarn_relay_config_save(&c, nullptr, 100), 0u);
    EXPECT_EQ(tarn_relay_config_save(&c, buf, 22), 21u);
    EXPECT_STREQ(buf, H.c_str());
    EXPECT_EQ(tarn_relay_config_save(nullptr, buf, 22), 21u);
    // Every byte of the last key is escaped, so that the worst case is the real one and the line feed decides.
    EXPECT_EQ(tarn_relay_config_add_link(&c, (S + "a#key").c_str()), 0);
    EXPECT_EQ(tarn_relay_config_add_link(&c, (S + "b#%00%01").c_str()), 1);
    const std::string want = H + S + "a:9877#key\n" + S + "b:9877#%00%01\n";
    for (size_t cap = 22; cap <= want.size() + 1; cap++) {
        memset(buf, '*', sizeof buf);
        size_t n = tarn_relay_config_save(&c, buf, cap);
        ASSERT_EQ(n, cap > want.size() ? want.size() : 0) << cap;
        ASSERT_EQ(std::string(buf, cap), n ? want + '\0' : std::string(cap, '\0')) << cap;
        ASSERT_EQ(buf[cap], '*');
    }
    c.servers[1].port = 0;
    EXPECT_EQ(tarn_relay_config_save(&c, buf, 300), 0u);
    EXPECT_EQ(std::string(buf, 300), std::string(300, '\0'));
}

TEST(ConnRelay, LoadIsAllOrNothing) {
    const std::string a = S + "a#1\n", b = S + "b#2\n";
    std::string eight;
    for (char i = '0'; i < '8'; i++)
        eight += S + "s" + i + "#k\n";
    const struct {
        std::string text, hosts; // hosts "!": refused
    } rows[] = {{"", "!"},
                {H, ""},
                {"tarnglider-relays-v1", ""},
                {"  tarnglider-relays-v1\t\r\n", ""},
                {"\n" + H + a, "!"},
                {"tarnglider-relays-v2\n", "!"},
                {"tarnglider-relays-v1x\n", "!"},
                {"tarnglider-relays-v\n", "!"},
                {"Tarnglider-relays-v1\n", "!"},
                {a, "!"},
                {H + a + b, "a b "},
                {H + "\n \r\n" + a + "\r\n\n \t" + S + "b#2 \r\n\n", "a b "},
                {H + a + S + "b#2", "a b "},
                {H + a + "x\n" + b, "!"},
                {H + a + H + b, "!"},
                {H + a + std::string("\0\n", 2) + b, "!"},
                {H + S + std::string("a#1\0\n", 5), "!"},
                {H + S + std::string("a\0b#1\n", 6), "!"},
                {H + a + b + S + "A#3\n", "A b "},
                {H + eight, "s0 s1 s2 s3 s4 s5 s6 s7 "},
                {H + eight + "\n", "s0 s1 s2 s3 s4 s5 s6 s7 "},
                {H + eight + S + "s0#k\n", "!"},
                {H + eight + S + "s9#k\n", "!"},
                {H + S + "a#" + std::string(600, 'k') + "\n", "!"}};
    tarn_relay_config c;
    for (const auto &row : rows) {
        bool good = row.hosts != "!";
        EXPECT_EQ(load(&c, row.text), good ? 0 : -1) << row.text;
        if (good) {
            EXPECT_EQ(hosts(c), row.hosts) << row.text;
        } else {
            EXPECT_TRUE(all_zero(c)) << row.text;
        }
    }
    EXPECT_EQ(load(&c, H + a + b + S + "A#3\n"), 0);
    EXPECT_EQ(key_of(c.servers[0]), "3") << "the last line of a server counts";
    // A text that ends inside an escape doesn't borrow the byte behind it.
    const std::string escape = H + S + "a#k%41";
    const uint8_t *data = reinterpret_cast<const uint8_t *>(escape.data());
    EXPECT_EQ(tarn_relay_config_load(&c, data, escape.size()), 0);
    EXPECT_EQ(tarn_relay_config_load(&c, data, escape.size() - 1), -1);
    EXPECT_EQ(tarn_relay_config_load(nullptr, c.servers[0].key, 1), -1);
    EXPECT_EQ(tarn_relay_config_load(&c, nullptr, 1), -1);
    EXPECT_TRUE(all_zero(c));
}

TEST(ConnRelay, StoredConfigurations) {
    tarn_relay_config c = full_config();
    EXPECT_EQ(tarn_relay_config_load_stored(&c, nullptr, 0, 0), 0);
    ASSERT_EQ(c.count, 1);
    EXPECT_GT(strlen(c.servers[0].host), 0u);
    EXPECT_EQ(c.servers[0].port, 9877);
    EXPECT_EQ(key_of(c.servers[0]), "5e0b7a91c2d46f38a17d90e3b6c8f2145a7e03d9c61b84f2");
    const uint8_t *text = reinterpret_cast<const uint8_t *>(H.data());
    EXPECT_EQ(tarn_relay_config_load_stored(&c, text, H.size(), 1), 0);
    EXPECT_EQ(c.count, 0) << "a list without servers is the user's wish";
    for (int stored : {1, 2, -1}) {
        c = full_config();
        EXPECT_EQ(tarn_relay_config_load_stored(&c, text, stored == 1 ? 0 : H.size(), stored), -1);
        EXPECT_TRUE(all_zero(c));
    }
    EXPECT_EQ(tarn_relay_config_load_stored(nullptr, nullptr, 0, 0), -1);
}

TEST(ConnRelay, RandomListsSurviveTheirTextAndEveryTruncation) {
    const uint64_t seed = 32;
    test_random random(seed);
    for (int round = 0; round < 30; round++) {
        tarn_relay_config c = {}, back;
        for (int i = 0; i <= round % 8; i++) {
            uint8_t key[128];
            size_t key_len = 1 + random.below(128);
            random.fill(key, key_len);
            tarn_relay_server s;
            std::string host = std::string(random.below(2) ? "h" : "fd00::") + std::to_string(i);
            ASSERT_EQ(
                tarn_relay_server_set(&s, host.c_str(), static_cast<uint16_t>(random.next()), key, key_len),
                0);
            ASSERT_EQ(tarn_relay_config_add(&c, &s), i);
        }
        std::vector<char> buf(22 + 8 * 680);
        std::string text(buf.data(), tarn_relay_config_save(&c, buf.data(), buf.size()));
        ASSERT_EQ(load(&back, text), 0) << "seed " << seed;
        ASSERT_EQ(tarn_relay_config_save(&back, buf.data(), buf.size()), text.size()) << "seed " << seed;
        ASSERT_STREQ(buf.data(), text.c_str()) << "seed " << seed;
        for (size_t n = 0; n < text.size(); n++) {
            ASSERT_TRUE(load(&back, text.substr(0, n)) == 0 || all_zero(back)) << n << " seed " << seed;
        }
    }
}

} // namespace
