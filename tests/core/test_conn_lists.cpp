// Identity text, display names and the two device lists: what their texts hold, and how far a damaged text is taken.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include <tarnglider/conn_lists.h>

#include "conn_lists_internal.h"
#include "support/seeded_random.h"
#include "support/virtual_clock.h"

namespace {

const std::string C = "tarnglider-clients-v1\n", H = "tarnglider-hosts-v1\n";

std::string hex(char digit) { return std::string(64, digit); }

// A key of 32 equal bytes, another one for each number.
struct test_key {
    uint8_t bytes[32];
    explicit test_key(int number) { memset(bytes, number, sizeof bytes); }
    operator const uint8_t *() const { return bytes; }
};

int load(tarn_client_list *l, const std::string &text) {
    memset(l, 0xA5, sizeof *l);
    std::vector<char> exact(text.begin(), text.end()); // of its very size, for the address sanitizer
    return tarn_client_list_load(l, exact.data(), exact.size());
}
int load(tarn_host_list *l, const std::string &text) {
    memset(l, 0xA5, sizeof *l);
    std::vector<char> exact(text.begin(), text.end());
    return tarn_host_list_load(l, exact.data(), exact.size());
}
size_t save(const tarn_client_list *l, char *buf, size_t cap) { return tarn_client_list_save(l, buf, cap); }
size_t save(const tarn_host_list *l, char *buf, size_t cap) { return tarn_host_list_save(l, buf, cap); }

// Saves into every capacity up to what is needed, and shows that nothing less will do.
template <class List>
std::string saved(const List &l) {
    std::vector<char> buf(32 * 320);
    std::string text(buf.data(), save(&l, buf.data(), buf.size()));
    for (size_t cap = 0; cap <= text.size(); cap++) {
        std::vector<char> small(cap + 1, '*');
        EXPECT_EQ(save(&l, small.data(), cap), 0u) << cap;
        EXPECT_EQ(small[cap], '*');
    }
    EXPECT_EQ(save(&l, buf.data(), text.size() + 1), text.size());
    EXPECT_STREQ(buf.data(), text.c_str());
    return text;
}

template <class List>
std::string names(const List &l) {
    std::string all;
    for (int i = 0; i < l.count; i++)
        all += std::string(l.entries[i].name) + "|";
    return all;
}

TEST(ConnIdentity, TextIsTheSecretHalf) {
    uint8_t secret[32];
    for (int i = 0; i < 32; i++)
        secret[i] = static_cast<uint8_t>(0xA0 + i);
    seeded_random::reset(1);
    seeded_random::push(secret, sizeof secret);
    tarn_keypair kp, back, want;
    tarn_keypair_from_secret(&want, secret);
    char text[66];
    memset(text, '*', sizeof text);
    ASSERT_EQ(tarn_identity_generate(&kp, text), 0);
    EXPECT_EQ(std::string(text, 66),
              std::string("a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebf\0*", 66));
    EXPECT_EQ(memcmp(&kp, &want, sizeof kp), 0);
    for (const char *suffix : {"", "\r\n", "0", " x"}) {
        std::string upper = text;
        for (char &c : upper)
            c = static_cast<char>(toupper(c));
        memset(&back, 0, sizeof back);
        EXPECT_EQ(tarn_identity_load(&back, (upper + suffix).c_str()), 0) << suffix;
        EXPECT_EQ(memcmp(&back, &want, sizeof back), 0);
    }
    std::string bad = text;
    bad[63] = 'g';
    for (const std::string &refused :
         {std::string(40, 'a'), std::string(text, 63), " " + std::string(text), bad}) {
        EXPECT_EQ(tarn_identity_load(&back, refused.c_str()), -1) << refused;
        EXPECT_EQ(memcmp(&back, &want, sizeof back), 0) << "a refusal leaves the pair";
    }
    EXPECT_EQ(tarn_identity_load(&back, nullptr), -1);
    seeded_random::fail_at(1);
    EXPECT_EQ(tarn_identity_generate(&back, text), -1);
    EXPECT_EQ(text[0], 'a') << "nothing written";
}

TEST(ConnLists, NamesAreCutOnACharacterAndHoldNoControls) {
    const auto n = [](size_t count) { return std::string(count, 'n'); };
    const struct {
        std::string in, out;
    } rows[] = {{"", ""},
                {"a\tb\x01\x1F\x7F\n\x80\xFF ~", "a b    \x80\xFF ~"},
                {n(63), n(63)},
                {n(70), n(63)},
                {n(61) + "\xC3\xA9", n(61) + "\xC3\xA9"},
                {n(61) + "\xC3\xA9x", n(61) + "\xC3\xA9"},
                {n(62) + "\xC3\xA9", n(62)},
                {n(60) + "\xE2\x82\xAC", n(60) + "\xE2\x82\xAC"},
                {n(61) + "\xE2\x82\xAC", n(61)},
                {n(62) + "\xE2\x82\xAC", n(62)},
                {n(60) + "\xF0\x9F\x98\x80", n(60)},
                {n(63) + "\xA9", n(63)},
                {n(60) + "\x82\x82\x82\x82", n(60)},
                {n(60) + "\xC0\x82\x82\x82", n(60)},
                {n(60) + "\xBF\x82\x82\xC0", n(60) + "\xBF\x82\x82"},
                {std::string(64, '\x80'), ""},
                {"\xC3" + std::string(63, '\x80'), ""},
                {n(62) + "\t\x80", n(62) + " "}};
    for (const auto &row : rows) {
        char dst[64];
        memset(dst, 'x', sizeof dst);
        conn_clean_name(dst, row.in.c_str());
        EXPECT_EQ(std::string(dst, 64), row.out + std::string(64 - row.out.size(), '\0'));
    }
    char dst[64] = "x";
    conn_clean_name(dst, nullptr);
    EXPECT_STREQ(dst, "");
}

TEST(ConnLists, ClientTexts) {
    const std::string key = hex('1'), one = key + " 5 a\n", other = hex('2') + " 6 b\n";
    // A name that begins at byte 506 of its line keeps the 5 bytes up to 510; carriage returns don't count.
    const std::string at506 = "\r" + key + std::string(506 - 64 - 2, ' ') + "1 \rabcdefgh";
    const struct {
        std::string text;
        int result;
        std::string names;
    } rows[] = {{"", -1, ""},
                {std::string(1, '\0') + C, -1, ""},
                {C, 0, ""},
                {"tarnglider-clients-v1", 0, ""},
                {"tarnglider-clients-v1 \n" + one, -1, ""},
                {"\n" + C + one, -1, ""},
                {H + one, -1, ""},
                {"tarnglider-clients-v1\r\n\r\n" + key + " 5 a\r\n", 0, "a|"},
                {"tarn\rglider-clients-v1\n" + one, 0, "a|"},
                {C + one + "\n\n" + hex('2') + " 6 b", 0, "a|b|"},
                {C + one + " \n" + other, -1, "a|"},
                {C + one + key + "\n" + other, -1, "a|"},
                {C + one + key + " \n", -1, "a|"},
                {C + one + std::string("\0", 1) + "x\n", 0, "a|"},
                {C + key + std::string(" 5 a\0b\n", 7) + other, 0, "a|"},
                {C + key + " 5\n" + key + " 5 \n" + other, 0, "||b|"},
                {C + "  " + key + "   5  two words \n", 0, " two words |"},
                {C + key + "\t5 a\n", -1, ""},
                {C + key + " 5\ta b\n", 0, "b|"},
                {C + hex('F') + " 5 a\tb\x02\n", 0, "a b |"},
                {C + one + key + "1 5 a\n", -1, "a|"},
                {C + one + key.substr(1) + " 5 a\n", -1, "a|"},
                {C + one + key.substr(1) + "g 5 a\n", -1, "a|"},
                {C + key + " 5 " + std::string(600, 'n') + "\n" + other, 0, std::string(63, 'n') + "|b|"},
                {C + at506 + "\n" + other, 0, "abcde|b|"}};
    tarn_client_list l;
    for (const auto &row : rows) {
        EXPECT_EQ(load(&l, row.text), row.result) << row.text;
        EXPECT_EQ(names(l), row.names) << row.text;
    }
    static const tarn_client_list zero = {};
    EXPECT_EQ(load(&l, C), 0);
    EXPECT_EQ(memcmp(&l, &zero, sizeof l), 0) << "free entries are zero";
    for (const auto &[field, added] : {std::pair{"0", uint64_t{0}},
                                       {"18446744073709551615", UINT64_MAX},
                                       {"99999999999999999999", UINT64_MAX},
                                       {"12x", 12},
                                       {"x", 0}}) {
        EXPECT_EQ(load(&l, C + key + " " + field + " a\n"), 0);
        EXPECT_EQ(l.entries[0].added, added) << field << ": kept, never renewed";
    }
    std::string full = C;
    for (int i = 0; i < 32; i++)
        full += one;
    EXPECT_EQ(load(&l, full + "\n"), 0);
    EXPECT_EQ(saved(l), full);
    EXPECT_EQ(load(&l, full + one), -1);
    EXPECT_EQ(l.count, 32) << "what came before the bad line stays";
}

TEST(ConnLists, HostTexts) {
    const std::string key = hex('a');
    const struct {
        std::string fields, saved; // behind the key; saved "!": refused
    } rows[] = {{" 0001f00d 1.2.3.4:5 [::1]:6 7 8 a b", " 0001f00d 1.2.3.4:5 [::1]:6 7 8 a b"},
                {"  1F00D  -  -  7  8  x", " 0001f00d - - 7 8  x"},
                {" ffffffff - - 18446744073709551615 18446744073709551615",
                 " ffffffff - - 18446744073709551615 18446744073709551615 "},
                {" zz - - y z", " 00000000 - - 0 0 "},
                {" 0x1g - - 7x 8x a", " 00000001 - - 7 8 a"},
                {" 0 - - 0 0 a", " 00000000 - - 0 0 a"},
                {" 0 1.2.3.4 - 7 8 a", " 00000000 1.2.3.4:0 - 7 8 a"},
                {" 0 1.2.3.4:0 - 7 8 a", "!"},
                {" 0 - [::1]:0 7 8 a", "!"},
                {" 0 -- - 7 8 a", "!"},
                {" 0 - -x 7 8 a", "!"},
                {" 0 - - 7", "!"},
                {" 0 - - 7 ", "!"}};
    tarn_host_list l;
    const std::string first = hex('b') + " 00000001 - - 1 2 first\n";
    for (const auto &row : rows) {
        bool good = row.saved != "!";
        EXPECT_EQ(load(&l, H + first + key + row.fields + "\n"), good ? 0 : -1) << row.fields;
        EXPECT_EQ(saved(l), H + first + (good ? key + row.saved + "\n" : "")) << row.fields;
    }
    EXPECT_EQ(load(&l, C + first), -1);
    EXPECT_EQ(load(&l, H + first), 0);
    EXPECT_EQ(l.entries[0].added, 1u);
    EXPECT_EQ(l.entries[0].last_seen, 2u);
    tarn_client_list none = {};
    EXPECT_EQ(saved(none), C);
    EXPECT_EQ(load(&l, H), 0);
    EXPECT_EQ(saved(l), H);
}

TEST(ConnLists, ClientsAreAddedOnceAndRemovedInOrder) {
    virtual_clock::reset();
    tarn_client_list l = {};
    for (int i = 0; i < 32; i++) {
        EXPECT_EQ(tarn_client_list_add(&l, test_key(i + 1), "old\n"), i);
        virtual_clock::advance(1500000);
    }
    EXPECT_EQ(l.entries[0].added, 1790000000u);
    EXPECT_EQ(l.entries[3].added, 1790000004u) << "whole seconds";
    EXPECT_EQ(tarn_client_list_add(&l, test_key(40), "x"), -1);
    EXPECT_EQ(tarn_client_list_add(&l, test_key(4), "new"), 3) << "a full list still renames";
    EXPECT_EQ(tarn_client_list_add(&l, test_key(5), nullptr), 4);
    EXPECT_EQ(l.entries[3].added, 1790000004u) << "a new name is no new pairing";
    EXPECT_EQ(tarn_client_list_remove(&l, test_key(2)), 0);
    EXPECT_EQ(tarn_client_list_remove(&l, test_key(2)), -1);
    EXPECT_EQ(l.count, 31);
    EXPECT_EQ(names(l).substr(0, 19), "old |old |new||old ");
    EXPECT_EQ(tarn_client_list_find(&l, test_key(1)), 0);
    EXPECT_EQ(tarn_client_list_find(&l, test_key(2)), -1);
    EXPECT_EQ(tarn_client_list_find(&l, test_key(32)), 30);
    test_key almost(3);
    almost.bytes[31] ^= 1;
    EXPECT_EQ(tarn_client_list_find(&l, almost), -1) << "the last byte counts";
    EXPECT_EQ(tarn_client_list_remove(&l, test_key(32)), 0);
    EXPECT_EQ(tarn_client_list_find(&l, test_key(32)), -1) << "the slot behind the list is not searched";
}

TEST(ConnLists, HostsArePutWhole) {
    virtual_clock::reset();
    tarn_host_list l = {};
    tarn_host_entry e = {};
    for (int i = 0; i < 32; i++) {
        memcpy(e.key, test_key(i + 1), 32);
        memcpy(e.name, "h\n", 3);
        e.lan_id = static_cast<uint32_t>(i / 2);
        e.added = i == 1 ? 0 : 77;
        EXPECT_EQ(tarn_host_list_put(&l, &e), i);
    }
    EXPECT_STREQ(l.entries[0].name, "h ");
    EXPECT_EQ(l.entries[0].added, 77u);
    EXPECT_EQ(l.entries[1].added, 1790000000u) << "no time given: now";
    EXPECT_EQ(tarn_host_list_find_lan_id(&l, 15), 30) << "the first of two";
    EXPECT_EQ(tarn_host_list_find_lan_id(&l, 16), -1);
    EXPECT_EQ(tarn_host_list_find_lan_id(&l, 0), -1) << "0 is nobody's";

    memcpy(e.key, test_key(40), 32);
    EXPECT_EQ(tarn_host_list_put(&l, &e), -1);
    e = {};
    memcpy(e.key, test_key(3), 32);
    e.lan_addr = {4, 9, {1, 2, 3, 4}};
    e.last_seen = 5;
    virtual_clock::advance(1000000);
    EXPECT_EQ(tarn_host_list_put(&l, &e), 2);
    EXPECT_EQ(l.entries[2].added, 1790000001u) << "an update without its old time starts anew";
    EXPECT_EQ(l.entries[2].lan_id, 0u) << "overwritten whole";
    EXPECT_EQ(l.entries[2].lan_addr.port, 9);
    EXPECT_EQ(l.entries[2].last_seen, 5u);
    EXPECT_EQ(tarn_host_list_put(&l, &l.entries[0]), 0) << "an entry of the list itself";
    EXPECT_STREQ(l.entries[0].name, "h ");
    EXPECT_EQ(tarn_host_list_remove(&l, test_key(1)), 0);
    EXPECT_EQ(tarn_host_list_remove(&l, test_key(1)), -1);
    EXPECT_EQ(l.count, 31);
    EXPECT_EQ(tarn_host_list_find(&l, test_key(2)), 0);
    EXPECT_EQ(tarn_host_list_find(&l, test_key(32)), 30);
}

TEST(ConnLists, RandomListsSurviveTheirTextAndEveryTruncation) {
    const uint64_t seed = 33;
    test_random random(seed);
    for (int round = 0; round < 12; round++) {
        tarn_host_list l = {}, back;
        tarn_client_list clients = {}, clients_back;
        for (int i = 0; i < round; i++) {
            tarn_host_entry e = {};
            random.fill(e.key, sizeof e.key);
            random.fill(e.name, random.below(64));
            e.lan_id = static_cast<uint32_t>(random.next());
            e.lan_addr.family = random.below(2) ? 6 : 0;
            if (e.lan_addr.family) random.fill(e.lan_addr.ip, 16);
            e.lan_addr.port = e.lan_addr.family ? 1 : 0;
            e.added = random.next();
            e.last_seen = random.next();
            tarn_client_list_add(&clients, e.key, e.name);
            ASSERT_EQ(tarn_host_list_put(&l, &e), i);
        }
        std::string text = saved(l);
        ASSERT_EQ(load(&back, text), 0) << "seed " << seed;
        ASSERT_EQ(saved(back), text) << "seed " << seed;
        for (size_t n = 0; n < text.size(); n++) {
            // A cut line may still be a whole one with a shorter number or name.
            int result = load(&back, text.substr(0, n));
            auto lines = std::count(text.begin(), text.begin() + static_cast<ptrdiff_t>(n), '\n');
            ASSERT_GE(back.count + 1, lines) << n << " seed " << seed;
            ASSERT_LE(back.count, lines) << n << " seed " << seed;
            ASSERT_TRUE(lines > 0 || result == (n == H.size() - 1 ? 0 : -1)) << n;
        }
        ASSERT_EQ(load(&clients_back, saved(clients)), 0);
        ASSERT_EQ(saved(clients_back), saved(clients)) << "seed " << seed;
    }
}

} // namespace
