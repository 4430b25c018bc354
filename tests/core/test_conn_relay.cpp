// Relay links, records, lists and their file text: what is taken or refused, and that then no key is left.
#include <gtest/gtest.h>

#include <string.h>
#include <utility>

#include <tarnglider/conn_relay.h>

#include "support/records.h"

// Server records that the library wiped while they held this key.
static int wiped_records = 0;
extern "C" void __real_tarn_secure_wipe(void *memory, size_t size);
extern "C" void __wrap_tarn_secure_wipe(void *memory, size_t size);
extern "C" void __wrap_tarn_secure_wipe(void *memory, size_t size) {
    const auto *record = static_cast<const tarn_relay_server *>(memory);
    if (size == sizeof *record && memcmp(record->key, "traceable", 9) == 0) wiped_records++;
    __real_tarn_secure_wipe(memory, size);
}

TEST(RelayWipes, EveryCopyOfARecord) {
    static constexpr char link[] = "tarnglider-relay://alpha.test#traceable";
    tarn_relay_server server;
    tarn_relay_config config = {};
    const auto wiped = [] { return std::exchange(wiped_records, 0); };
    EXPECT_EQ(tarn_relay_link_parse(&server, link), 0);
    EXPECT_EQ(wiped(), 1);
    EXPECT_EQ(tarn_relay_server_set(&server, "alpha.test", 1, server.key, server.key_len), 0);
    EXPECT_EQ(wiped(), 1);
    EXPECT_EQ(tarn_relay_config_add(&config, &server), 0);
    EXPECT_EQ(wiped(), 2);
    EXPECT_EQ(tarn_relay_config_add_link(&config, link), 1); // another port
    EXPECT_EQ(wiped(), 4);
    EXPECT_EQ(tarn_relay_link_parse(&server, "tarnglider-relay://alpha.test#traceable%"), -1);
    EXPECT_EQ(wiped(), 1);
}

namespace {

const std::string S = "tarnglider-relay://", H = "tarnglider-relays-v1\n", nul(1, '\0');
const std::string label63(63, 'a'), k128(128, 'k');
const std::string host253 = label63 + "." + label63 + "." + label63 + "." + std::string(61, 'b');

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

int load(tarn_relay_config *c, const std::string &text) {
    *c = dirty<tarn_relay_config>();
    const std::vector<uint8_t> exact(text.begin(), text.end()); // of its very size, for the address sanitizer
    return tarn_relay_config_load(c, exact.data(), exact.size());
}

int add(tarn_relay_config *c, const std::string &rest) {
    return tarn_relay_config_add_link(c, (S + rest).c_str());
}

tarn_relay_config full_config() {
    tarn_relay_config c = {};
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(add(&c, "s" + std::to_string(i) + "#k%0" + std::to_string(i)), i);
    return c;
}

std::string hosts(const tarn_relay_config &c) {
    std::string all;
    for (int i = 0; i < c.count; i++)
        all += std::string(c.servers[i].host) + " ";
    return all;
}

} // namespace

TEST(ConnRelay, AcceptedLinksGiveTheirRecordAndOneForm) {
    const struct {
        int family;
        std::string pairs; // what follows the scheme, and the form that the record has as a link
    } rows[] = {
        {0, "alpha.test:9877/#k alpha.test:9877#k Alpha.Test:1#k Alpha.Test:1#k a_b.test:65535#k "
            "a_b.test:65535#k a:00080#k a:80#k 123.alpha#k 123.alpha:9877#k 1.2.3.4x#k 1.2.3.4x:9877#k "
            "a--b.c-d#k a--b.c-d:9877#k a#a%00b a:9877#a%00b a#%fF%7f%25+ a:9877#%FF%7F%25%2B "
            "a#!~/:?@[`{aZ09-._~ a:9877#%21~%2F%3A%3F%40%5B%60%7BaZ09-._~ " +
                host253 + ":65535/#k " + host253 + ":65535#k a#" + k128 + " a:9877#" + k128},
        {4, "010.2.3.4#k 010.2.3.4:9877#k 1.2.3.4:5/#k 1.2.3.4:5#k"},
        {6,
         "[::1]:9000#k [::1]:9000#k [2001:DB8::1]/#k [2001:DB8::1]:9877#k [::1.2.3.4]#k [::1.2.3.4]:9877#k"}};
    for (const auto &row : rows) {
        const auto pairs = words(row.pairs);
        for (size_t i = 0; i < pairs.size(); i += 2) {
            const tarn_relay_server s = server(S + pairs[i]);
            EXPECT_EQ(link_of(s), S + pairs[i + 1]);
            EXPECT_EQ(s.addr.family, row.family) << pairs[i];
            EXPECT_EQ(s.addr.port, row.family ? s.port : 0) << pairs[i];
        }
    }
    const tarn_relay_server s = server(" \t\r\n\v\fTARNGLIDER-RELAY://[::1]#a%00b\v \n");
    EXPECT_STREQ(s.host, "::1");
    EXPECT_EQ(key_of(s), "a" + nul + "b");
    EXPECT_EQ(s.addr.ip[15], 1);
    EXPECT_EQ(server(S + "010.2.3.4#k").addr.ip[0], 10);
}

TEST(ConnRelay, RefusedLinksLeaveTheRecordAlone) {
    const std::string rests =
        "#k /#k :1#k alpha.test alpha.test# alpha.test//#k alpha.test/x#k a/b#k ::1#k ::1:9000#k "
        "[1.2.3.4]#k [alpha.test]#k [::1#k [::1]x#k [::1]9000#k [::1]19000#k [::1]:#k []#k [:]#k "
        "[::1%1]#k a:#k a:0#k a:65536#k a:100000#k a:000080#k a:8x#k a:1:2#k a:-1#k u@a#k a?b#k "
        "a%62#k a#% a#k%4 a#%4g a#%g4 a#k#k a#k\x7F a#k\x80 a..b#k a.#k .a#k a-.test#k -a.test#k "
        "alpha.-t#k alpha.t-#k alpha.123#k 9#k 1.2.3.4.5#k 300.1.1.1#k b\xC3\xBC.test#k a*b#k " +
        label63 + "a.test#k " + host253 + "b#k a#k" + k128 + " a#" + k128 + "%41";
    std::vector<std::string> links = words(rests);
    links.insert(links.end(), {"", "a b#k", " a#k", "a #k", "a#k k", "a#% 4", "a#k\x1Fz"});
    for (std::string &rest : links)
        rest = S + rest;
    links.insert(links.end(),
                 {"", "#k", "tarnglider-relay:/a#kk", "tarnglider-relays://a#k", "xarnglider-relay://a#k"});
    tarn_relay_server s = dirty<tarn_relay_server>();
    for (const std::string &link : links) {
        EXPECT_EQ(tarn_relay_link_parse(&s, link.c_str()), -1) << link;
        EXPECT_TRUE(same_bytes(s, dirty<tarn_relay_server>())) << link;
    }
    EXPECT_EQ(tarn_relay_link_parse(&s, nullptr) + tarn_relay_link_parse(nullptr, (S + "a#k").c_str()), -2);
}

TEST(ConnRelay, ServerSetTakesItsPartsOrNothing) {
    const uint8_t key[130] = {1, 2, 3};
    char name[300];
    tarn_relay_server s;
    const auto good = texts(" \v alpha.test\f\r\n\t", "alpha.test:5", " [::1] ", "[::1]:5", "::1", "[::1]:5",
                            "1.2.3.4", "1.2.3.4:5");
    for (size_t i = 0; i < std::size(good); i += 2) {
        EXPECT_EQ(tarn_relay_server_set(&s, good[i].c_str(), 5, key, 3), 0) << good[i];
        EXPECT_EQ(std::string(name, tarn_relay_server_name(name, sizeof name, &s)), good[i + 1]);
        EXPECT_EQ(s.addr.port, s.addr.family ? 5 : 0);
    }
    EXPECT_EQ(tarn_relay_server_set(&s, "a", 0, key, 128), 0);
    EXPECT_EQ(s.port, 9877);
    EXPECT_EQ(key_of(s), std::string(key, key + 128));

    s = dirty<tarn_relay_server>();
    for (const char *host : {"[1.2.3.4]", "[ ::1 ]", "[]", "[", "[::1", "alpha.test:5", "al pha", " \t", ""})
        EXPECT_EQ(tarn_relay_server_set(&s, host, 5, key, 3), -1) << host;
    EXPECT_EQ(tarn_relay_server_set(&s, "a", 5, key, 0) + tarn_relay_server_set(&s, "a", 5, key, 129), -2);
    EXPECT_EQ(tarn_relay_server_set(&s, "a", 5, nullptr, 1) + tarn_relay_server_set(&s, nullptr, 5, key, 1),
              -2);
    EXPECT_EQ(tarn_relay_server_set(nullptr, "a", 5, key, 1), -1);
    EXPECT_TRUE(same_bytes(s, dirty<tarn_relay_server>())) << "a refusal writes nothing";
}

TEST(ConnRelay, FormatAsksForTheWorstCaseAndNameCuts) {
    tarn_relay_server s = server(S + "alpha.test:1#kk");
    const size_t need = 19 + 12 + 3 * 2 + 2;
    std::string buf(64, '*');
    EXPECT_EQ(tarn_relay_link_format(buf.data(), need - 1, &s), 0u);
    EXPECT_EQ(buf, std::string(64, '*')) << "a refusal writes nothing";
    EXPECT_EQ(tarn_relay_link_format(buf.data(), need, &s), 19u + 12 + 1 + 2);
    EXPECT_STREQ(buf.c_str(), (S + "alpha.test:1#kk").c_str());
    EXPECT_EQ(tarn_relay_link_format(nullptr, 99, &s), 0u);
    tarn_relay_server bad[] = {s, s, s, s};
    bad[0].host[0] = '\0', bad[1].port = 0, bad[2].key_len = 0, bad[3].key_len = 129;
    for (const tarn_relay_server &b : bad)
        EXPECT_EQ(link_of(b), "");
    s = server(S + "[::1]:65535#k");
    for (size_t cap = 1; cap < 14; cap++) {
        EXPECT_EQ(tarn_relay_server_name(buf.data(), cap, &s), std::min<size_t>(cap - 1, 11));
        EXPECT_EQ(buf.c_str(), std::string("[::1]:65535").substr(0, cap - 1));
    }
    EXPECT_EQ(tarn_relay_server_name(buf.data(), 0, &s) + tarn_relay_server_name(nullptr, 9, &s), 0u);
}

TEST(ConnRelay, TheListIsKeyedByHostAndPort) {
    tarn_relay_config c = full_config();
    EXPECT_EQ(add(&c, "ninth#k"), -1);
    EXPECT_EQ(add(&c, "s3:1#k"), -1) << "another port is another server";
    EXPECT_EQ(add(&c, "S3#new"), 3);
    EXPECT_EQ(tarn_relay_config_add_link(&c, "nonsense"), -1);
    EXPECT_EQ(key_of(c.servers[3]), "new");
    EXPECT_EQ(tarn_relay_server_same(&c.servers[3], &c.servers[3]), 1);
    EXPECT_EQ(hosts(c), "s0 s1 s2 S3 s4 s5 s6 s7 ");
    EXPECT_EQ(tarn_relay_config_remove(&c, 8) + tarn_relay_config_remove(&c, -1), -2);
    EXPECT_EQ(tarn_relay_config_remove(nullptr, 0), -1);
    EXPECT_EQ(tarn_relay_config_remove(&c, 2), 0);
    EXPECT_EQ(hosts(c), "s0 s1 S3 s4 s5 s6 s7 ");
    EXPECT_TRUE(all_zero(c.servers[7])) << "the freed slot keeps no key";
    EXPECT_EQ(tarn_relay_config_remove(&c, 6), 0);
    EXPECT_TRUE(all_zero(c.servers[6]) && tarn_relay_config_remove(&c, 6) == -1);
}

TEST(ConnRelay, AddNormalisesAndKeepsAResolvedAddress) {
    tarn_relay_config c = {};
    tarn_relay_server s = server(S + "alpha.test:5#k");
    s.addr = {4, 7, {9, 8, 7, 6}};
    EXPECT_EQ(tarn_relay_config_add(&c, &s), 0);
    EXPECT_EQ(c.servers[0].addr.ip[0], 9) << "resolved address kept";
    strcpy(s.host, "1.2.3.4");
    EXPECT_EQ(tarn_relay_config_add(&c, &s), 1);
    EXPECT_TRUE(c.servers[1].addr.ip[0] == 1 && c.servers[1].addr.port == 5) << "a literal speaks for itself";
    strcpy(s.host, " [::1] ");
    s.port = 0;
    EXPECT_EQ(tarn_relay_config_add(&c, &s), 2);
    EXPECT_EQ(link_of(c.servers[2]), S + "[::1]:9877#k");
    const tarn_relay_config before = c;
    strcpy(s.host, "a..b");
    EXPECT_EQ(tarn_relay_config_add(&c, &s) + tarn_relay_config_add(&c, nullptr), -2);
    EXPECT_EQ(tarn_relay_config_add(nullptr, &before.servers[0]), -1);
    EXPECT_TRUE(same_bytes(c, before));
}

TEST(ConnRelay, SaveFitsWholeOrLeavesAWipedBuffer) {
    char buf[300];
    tarn_relay_config c = {};
    EXPECT_EQ(tarn_relay_config_save(&c, buf, 21) + tarn_relay_config_save(&c, nullptr, 100), 0u);
    EXPECT_EQ(tarn_relay_config_save(&c, buf, 22), 21u);
    EXPECT_STREQ(buf, H.c_str());
    EXPECT_EQ(tarn_relay_config_save(nullptr, buf, 22), 21u);
    // The last key is escaped throughout: the worst case is the real one, and the line feed decides.
    EXPECT_EQ(add(&c, "a#key") + add(&c, "b#%00%01"), 1);
    const std::string want = H + S + "a:9877#key\n" + S + "b:9877#%00%01\n";
    for (size_t cap = 22; cap <= want.size() + 1; cap++) {
        memset(buf, '*', sizeof buf);
        const size_t n = tarn_relay_config_save(&c, buf, cap);
        ASSERT_EQ(n, cap > want.size() ? want.size() : 0) << cap;
        ASSERT_EQ(std::string(buf, cap + 1), (n ? want + nul : std::string(cap, '\0')) + "*") << cap;
    }
    c.servers[1].port = 0;
    EXPECT_EQ(tarn_relay_config_save(&c, buf, sizeof buf), 0u);
    EXPECT_EQ(std::string(buf, sizeof buf), std::string(sizeof buf, '\0'));
}

TEST(ConnRelay, LoadIsAllOrNothing) {
    const std::string a = S + "a#1\n", b = S + "b#2\n";
    std::string eight = H;
    for (char i = '0'; i < '8'; i++)
        eight += S + "s" + i + "#k\n";
    tarn_relay_config c;
    const auto bad = texts("", "\n" + H + a, "tarnglider-relays-v2\n", "tarnglider-relays-v1x\n",
                           "tarnglider-relays-v\n", a, "T" + H.substr(1), H + a + "x\n" + b, H + a + H + b,
                           H + a + nul + "\n" + b, H + S + "a#1" + nul + "\n", H + S + "a" + nul + "b#1\n",
                           eight + S + "s0#k\n", eight + S + "s9#k\n");
    for (const std::string &text : bad) {
        EXPECT_EQ(load(&c, text), -1) << text;
        EXPECT_TRUE(all_zero(c)) << text;
    }
    const auto good =
        texts("tarnglider-relays-v1", "", "  tarnglider-relays-v1\t\r\n", "",
              H + "\n \r\n" + a + "\r\n\n \t" + S + "b#2 \r\n\n", "a b ", H + a + S + "b#2", "a b ",
              H + a + b + S + "A#3\n", "A b ", eight + "\n", "s0 s1 s2 s3 s4 s5 s6 s7 ");
    for (size_t i = 0; i < std::size(good); i += 2) {
        EXPECT_EQ(load(&c, good[i]), 0) << good[i];
        EXPECT_EQ(hosts(c), good[i + 1]);
    }
    EXPECT_EQ(load(&c, H + a + S + "A#3\n"), 0);
    EXPECT_EQ(key_of(c.servers[0]), "3") << "the last line of a server counts";
    // What stands behind the end isn't borrowed, not even the end of an escape.
    const std::string cut = H + S + "h#k%41";
    EXPECT_EQ(tarn_relay_config_load(&c, reinterpret_cast<const uint8_t *>(cut.data()), cut.size() - 1), -1);
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
    for (const int stored : {1, 2, -1}) {
        c = full_config();
        EXPECT_EQ(tarn_relay_config_load_stored(&c, text, stored == 1 ? 0 : H.size(), stored), -1);
        EXPECT_TRUE(all_zero(c));
    }
    EXPECT_EQ(tarn_relay_config_load_stored(nullptr, nullptr, 0, 0), -1);
}
