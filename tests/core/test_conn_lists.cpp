// Identity text, display names and the two device lists: what texts hold, and how far a damaged one is taken.
#include <gtest/gtest.h>

#include <algorithm>

#include <tarnglider/conn_lists.h>

#include "conn_lists_internal.h"
#include "support/records.h"
#include "support/seeded_random.h"
#include "support/virtual_clock.h"

namespace {

const std::string C = "tarnglider-clients-v1\n", H = "tarnglider-hosts-v1\n", nul(1, '\0');

std::string hex(char digit) { return std::string(64, digit); }

// A key of 32 equal bytes, another one for each number.
struct test_key {
    uint8_t bytes[32];
    explicit test_key(int number) { memset(bytes, number, sizeof bytes); }
    operator const uint8_t *() const { return bytes; }
};

size_t save(const tarn_client_list *l, char *buf, size_t cap) { return tarn_client_list_save(l, buf, cap); }
size_t save(const tarn_host_list *l, char *buf, size_t cap) { return tarn_host_list_save(l, buf, cap); }

template <class List>
int load(List *l, const std::string &text) {
    *l = dirty<List>();
    const std::vector<char> exact(text.begin(), text.end()); // of its very size, for the address sanitizer
    if constexpr (std::is_same_v<List, tarn_client_list>)
        return tarn_client_list_load(l, exact.data(), exact.size());
    else
        return tarn_host_list_load(l, exact.data(), exact.size());
}

// Saves into every capacity up to what is needed, and shows that nothing less will do.
template <class List>
std::string saved(const List &l) {
    std::string text(32 * 320, '*');
    text.resize(save(&l, text.data(), text.size()));
    for (size_t cap = 0; cap <= text.size() + 1; cap++) {
        std::string small(cap + 1, '*');
        EXPECT_EQ(save(&l, small.data(), cap), cap > text.size() ? text.size() : 0u) << cap;
        EXPECT_EQ(cap > text.size() ? small : small.substr(cap), cap > text.size() ? text + nul + "*" : "*");
    }
    return text;
}

template <class List>
std::string names(const List &l) {
    std::string all;
    for (int i = 0; i < l.count; i++)
        all += std::string(l.entries[i].name) + "|";
    return all;
}

} // namespace

TEST(ConnIdentity, TextIsTheSecretHalf) {
    uint8_t secret[32];
    for (int i = 0; i < 32; i++)
        secret[i] = static_cast<uint8_t>(0xA0 + i);
    seeded_random::reset(1);
    seeded_random::push(secret, sizeof secret);
    tarn_keypair kp, back, want;
    tarn_keypair_from_secret(&want, secret);
    std::string text(66, '*'), good = "A0A1A2A3A4A5A6A7A8A9AAABACADAEAFb0b1b2b3b4b5b6b7b8b9babbbcbdbebf";
    ASSERT_EQ(tarn_identity_generate(&kp, text.data()), 0);
    EXPECT_TRUE(same_bytes(kp, want));
    for (const char *suffix : {"", "\r\n", "0", " x"}) {
        EXPECT_EQ(tarn_identity_load(&back, (good + suffix).c_str()), 0) << suffix;
        EXPECT_TRUE(same_bytes(back, want));
    }
    std::transform(good.begin(), good.end(), good.begin(),
                   [](char c) { return static_cast<char>(tolower(c)); });
    EXPECT_EQ(text, good + nul + "*");
    for (const std::string &bad :
         {std::string(40, 'a'), good.substr(0, 63), " " + good, good.substr(0, 63) + "g"}) {
        EXPECT_EQ(tarn_identity_load(&back, bad.c_str()), -1) << bad;
        EXPECT_TRUE(same_bytes(back, want)) << "a refusal leaves the pair";
    }
    EXPECT_EQ(tarn_identity_load(&back, nullptr), -1);
    seeded_random::fail_at(1);
    EXPECT_EQ(tarn_identity_generate(&back, text.data()), -1);
    EXPECT_EQ(text[0], 'a') << "nothing written";
}

TEST(ConnLists, NamesAreCutOnACharacterAndHoldNoControls) {
    const auto n = [](size_t count, const char *end = "") { return std::string(count, 'n') + end; };
    // in, out, in, out ...
    const auto rows = texts(
        "a\tb\x01\x1F\x7F\n\x80\xFF ~", "a b    \x80\xFF ~", n(63), n(63), n(70), n(63), n(61, "\xC3\xA9"),
        n(61, "\xC3\xA9"), n(61, "\xC3\xA9x"), n(61, "\xC3\xA9"), n(62, "\xC3\xA9"), n(62),
        n(60, "\xE2\x82\xAC"), n(60, "\xE2\x82\xAC"), n(61, "\xE2\x82\xAC"), n(61), n(62, "\xE2\x82\xAC"),
        n(62), n(60, "\xF0\x9F\x98\x80"), n(60), n(63, "\xA9"), n(63), n(60, "\x82\x82\x82\x82"), n(60),
        n(60, "\xC0\x82\x82\x82"), n(60), n(60, "\xBF\x82\x82\xC0"), n(60, "\xBF\x82\x82"),
        std::string(64, '\x80'), "", "\xC3" + std::string(63, '\x80'), "", n(62, "\t\x80"), n(62, " "));
    char dst[64];
    for (size_t i = 0; i < std::size(rows); i += 2) {
        const std::string &in = rows[i], &out = rows[i + 1];
        memset(dst, 'x', sizeof dst);
        conn_clean_name(dst, in.c_str());
        EXPECT_EQ(std::string(dst, 64), out + std::string(64 - out.size(), '\0'));
    }
    conn_clean_name(dst, nullptr);
    EXPECT_STREQ(dst, "");
}

TEST(ConnLists, ClientTexts) {
    const std::string key = hex('1'), one = key + " 5 a\n", other = hex('2') + " 6 b\n";
    // A name that begins at byte 506 of its line keeps the 5 bytes up to 510; carriage returns don't count.
    const std::string at506 = "\r" + key + std::string(506 - 64 - 2, ' ') + "1 \rabcdefgh\n";
    const auto none =
        texts("", nul + C, "tarnglider-clients-v1 \n" + one, "\n" + C + one, H + one, C + key + "\t5 a\n");
    const auto first = texts(C + one + " \n" + other, C + one + key + "\n" + other, C + one + key + " \n",
                             C + one + key + "1 5 a\n", C + one + key.substr(1) + " 5 a\n",
                             C + one + key.substr(1) + "g 5 a\n");
    // texts and the names in them
    const auto whole =
        texts("tarnglider-clients-v1", "", "tarn\rglider-clients-v1\r\n\r\n" + key + " 5 a\r\n", "a|",
              C + one + "\n\n" + hex('2') + " 6 b", "a|b|", C + one + nul + "x\n", "a|",
              C + key + " 5 a" + nul + "b\n" + other, "a|", C + key + " 5\n" + key + " 5 \n" + other, "||b|",
              C + "  " + key + "   5  two words \n", " two words |", C + key + " 5\ta b\n", "b|",
              C + hex('F') + " 5 a\tb\x02\n", "a b |", C + key + " 5 " + std::string(600, 'n') + "\n" + other,
              std::string(63, 'n') + "|b|", C + at506 + other, "abcde|b|");
    tarn_client_list l;
    const auto taken = [&l](const std::string &text) { // the result, and the names of what was loaded
        const int result = load(&l, text);
        return std::to_string(result) + " " + names(l);
    };
    for (const std::string &text : none)
        EXPECT_EQ(taken(text), "-1 ") << text;
    for (const std::string &text : first)
        EXPECT_EQ(taken(text), "-1 a|") << text;
    for (size_t i = 0; i < std::size(whole); i += 2)
        EXPECT_EQ(taken(whole[i]), "0 " + whole[i + 1]) << whole[i];
    EXPECT_EQ(load(&l, C), 0);
    EXPECT_TRUE(all_zero(l)) << "free entries are zero";
    EXPECT_EQ(saved(l), C);
    const std::pair<const char *, uint64_t> times[] = {
        {"0", 0}, {"99999999999999999999", UINT64_MAX}, {"12x", 12}, {"x", 0}};
    for (const auto &[field, added] : times) {
        EXPECT_EQ(load(&l, C + key + " " + field + " a\n"), 0);
        EXPECT_EQ(l.entries[0].added, added) << field << ": kept, never renewed";
    }
    std::string full = C;
    for (int i = 0; i < 32; i++)
        full += one;
    EXPECT_EQ(load(&l, full + one), -1);
    EXPECT_EQ(l.count, 32) << "what came before the bad line stays";
    EXPECT_EQ(load(&l, full + "\n"), 0);
    EXPECT_EQ(saved(l), full);
}

TEST(ConnLists, HostTexts) {
    const std::string key = hex('a'), first = hex('b') + " 00000001 - - 1 2 first\n";
    // fields behind the key, and how they are saved
    const auto rows = texts(" 0001f00d 1.2.3.4:5 [::1]:6 7 8 a b", " 0001f00d 1.2.3.4:5 [::1]:6 7 8 a b",
                            "  1F00D  -  -  7  8  x", " 0001f00d - - 7 8  x",
                            " ffffffff - - 18446744073709551615 18446744073709551615",
                            " ffffffff - - 18446744073709551615 18446744073709551615 ", " 123456789 - - 0 0",
                            " ffffffff - - 0 0 ", " zz - - y z", " 00000000 - - 0 0 ", " 0x1g - - 7x 8x a",
                            " 00000001 - - 7 8 a", " 0 1.2.3.4 - 7 8 a", " 00000000 1.2.3.4:0 - 7 8 a");
    const auto bad = texts(" 0 1.2.3.4:0 - 7 8 a", " 0 - [::1]:0 7 8 a", " 0 -- - 7 8 a", " 0 - -x 7 8 a",
                           " 0 - - 7", " 0 - - 7 ");
    tarn_host_list l;
    for (size_t i = 0; i < std::size(rows); i += 2) {
        EXPECT_EQ(load(&l, H + first + key + rows[i] + "\n"), 0) << rows[i];
        EXPECT_EQ(saved(l), H + first + key + rows[i + 1] + "\n");
    }
    for (const std::string &fields : bad) {
        EXPECT_EQ(load(&l, H + first + key + fields + "\n"), -1) << fields;
        EXPECT_EQ(names(l), "first|") << fields;
    }
    EXPECT_EQ(load(&l, C + first), -1);
    EXPECT_EQ(load(&l, H + first), 0);
    EXPECT_TRUE(l.entries[0].added == 1 && l.entries[0].last_seen == 2);
}

TEST(ConnLists, ClientsAreAddedOnceAndRemovedInOrder) {
    virtual_clock::reset();
    tarn_client_list l = dirty<tarn_client_list>();
    l.count = 0;
    for (int i = 0; i < 32; i++) {
        EXPECT_EQ(tarn_client_list_add(&l, test_key(i + 1), "old\n"), i);
        virtual_clock::advance(1500000);
    }
    EXPECT_EQ(l.entries[0].added, 1790000000u);
    EXPECT_EQ(tarn_client_list_add(&l, test_key(40), "x"), -1);
    EXPECT_EQ(tarn_client_list_add(&l, test_key(4), "new"), 3) << "a full list still renames";
    EXPECT_EQ(tarn_client_list_add(&l, test_key(5), nullptr), 4);
    EXPECT_EQ(l.entries[3].added, 1790000004u) << "whole seconds, and a new name is no new pairing";
    EXPECT_EQ(tarn_client_list_remove(&l, test_key(2)), 0);
    EXPECT_EQ(tarn_client_list_remove(&l, test_key(2)), -1);
    EXPECT_EQ(l.count, 31);
    EXPECT_EQ(names(l).substr(0, 19), "old |old |new||old ");
    EXPECT_EQ(tarn_client_list_find(&l, test_key(1)), 0);
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
    const auto put = [&l](int key, uint32_t lan_id, uint64_t added) {
        tarn_host_entry e = {{}, "h\n", lan_id, {4, 9, {1, 2, 3, 4}}, {}, added, 5};
        memcpy(e.key, test_key(key), 32);
        return tarn_host_list_put(&l, &e);
    };
    for (int i = 0; i < 32; i++)
        EXPECT_EQ(put(i + 1, static_cast<uint32_t>(1 + i / 2), i == 1 ? 0 : 77), i);
    EXPECT_STREQ(l.entries[0].name, "h ");
    EXPECT_EQ(l.entries[0].added, 77u);
    EXPECT_EQ(l.entries[1].added, 1790000000u) << "no time given: now";
    EXPECT_EQ(tarn_host_list_find_lan_id(&l, 1), 0) << "the first of two";
    EXPECT_EQ(tarn_host_list_find_lan_id(&l, 16), 30);
    EXPECT_EQ(tarn_host_list_find_lan_id(&l, 17), -1);

    EXPECT_EQ(put(40, 1, 1), -1);
    virtual_clock::advance(1000000);
    EXPECT_EQ(put(3, 0, 0), 2);
    EXPECT_EQ(l.entries[2].added, 1790000001u) << "an update without its old time starts anew";
    EXPECT_EQ(l.entries[2].lan_id, 0u) << "overwritten whole";
    EXPECT_EQ(tarn_host_list_find_lan_id(&l, 0), -1) << "0 is nobody's";
    EXPECT_EQ(l.entries[2].lan_addr.port + l.entries[2].last_seen, 14u);
    EXPECT_EQ(tarn_host_list_put(&l, &l.entries[0]), 0) << "an entry of the list itself";
    EXPECT_STREQ(l.entries[0].name, "h ");
    EXPECT_EQ(tarn_host_list_remove(&l, test_key(1)), 0);
    EXPECT_EQ(tarn_host_list_remove(&l, test_key(1)), -1);
    EXPECT_EQ(l.count, 31);
    EXPECT_EQ(tarn_host_list_find(&l, test_key(2)), 0);
    EXPECT_EQ(tarn_host_list_find(&l, test_key(32)), 30);
}
