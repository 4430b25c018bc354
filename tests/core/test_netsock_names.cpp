// The rules of name resolution, with a name service made of rows in place of the system's.
#include <string>
#include <vector>

#include <tarnglider/netsock.h>

#include "core/netsock_test.h"
#include "netsock_internal.h"

namespace {
struct answer_row {
    const char *endpoint; // in the written form; "mapped" ones are written for a socket of family 6
    bool as_v6;
    int spoil; // 0 as it is, 1 cut short by a byte, 2 of an unknown family
};
const std::vector<answer_row> usual = {{"5.6.7.8:99", false, 0}};
std::vector<answer_row> name_service = usual; // of every name but "gone"
std::string asked;                            // each name with a blank behind it
} // namespace

int netsock_lookup(const char *name, netsock_answer_fn answer, void *user) {
    asked += std::string(name) + " ";
    if (!strcmp(name, "gone")) return -1;
    for (const answer_row &row : name_service) {
        sockaddr_storage sa;
        const tarn_addr a = addr(row.endpoint);
        size_t len = tarn_addr_to_sockaddr(&a, &sa, sizeof sa, row.as_v6);
        if (row.spoil == 1) len--;
        if (row.spoil == 2) sa.ss_family = AF_UNSPEC;
        answer(user, &sa, len);
    }
    return 0;
}

TEST(ResolveName, PrefersIpv4WhateverTheOrder) {
    const struct {
        const char *why, *result; // null: fails
        std::vector<answer_row> answers;
    } rows[] = {
        {"the first of two IPv4", "2.2.2.2", {{"2.2.2.2", false, 0}, {"1.1.1.1", false, 0}}},
        {"a mapped one is an IPv6 answer", "1.1.1.1", {{"3.3.3.3", true, 0}, {"1.1.1.1", false, 0}}},
        {"but a good one, the first of two", "3.3.3.3", {{"3.3.3.3", true, 0}, {"::1", true, 0}}},
        {"unusable ones are passed over", "1.1.1.2", {{"1.1.1.1", false, 1}, {"1.1.1.2:9", false, 0}}},
        {"also for IPv6", "::2", {{"1.1.1.1", false, 2}, {"::1", true, 1}, {"::2", true, 0}}},
        {"nothing usable", nullptr, {{"1.1.1.1", false, 1}, {"::1", true, 2}}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.why);
        name_service = row.answers;
        tarn_addr out = addr("7.7.7.7:7");
        EXPECT_EQ(resolve_name("name", &out), row.result ? 0 : -1);
        EXPECT_TRUE(same(out, addr(row.result ? row.result : "7.7.7.7:7")));
    }
    name_service = usual;
}

TEST(NetResolve, Texts) {
    const std::string longest(255, 'n');
    struct text_row {
        std::string text, asked, result; // no result: fails, and the output is zeroed
    };
    std::vector<text_row> rows = {
        {"1.2.3.4", "", "1.2.3.4:7"},
        {"[::1]:80", "", "[::1]:80"},
        {"name", "name ", "5.6.7.8:7"},
        {"name:1", "name ", "5.6.7.8:1"},
        {"name:65535", "name ", "5.6.7.8:65535"},
        {"a:80:90", "a:80:90 ", "5.6.7.8:7"}, // two colons split nothing
        {"1.2.3.4:080x", "1.2.3.4 ", "5.6.7.8:80"},
        {longest, longest + " ", "5.6.7.8:7"},
        {longest + "n", "", ""},
        {"gone", "gone ", ""},
    };
    for (const char *bad : {"n:65536", "n:99999999999999999999", "n:0", "n:-1", "n:", "n:x", ""})
        rows.push_back({bad, "", ""});
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        asked.clear();
        tarn_addr out;
        memset(&out, 0xEE, sizeof out);
        EXPECT_EQ(tarn_net_resolve(row.text.c_str(), 7, &out), row.result.empty() ? -1 : 0);
        EXPECT_EQ(asked, row.asked);
        EXPECT_TRUE(same(out, row.result.empty() ? tarn_addr{} : addr(row.result.c_str())));
    }
    tarn_addr out;
    EXPECT_EQ(tarn_net_resolve(nullptr, 7, &out), -1);
}

static tarn_relay_server server(const char *host, uint16_t port, const char *known = nullptr) {
    tarn_relay_server s = {};
    snprintf(s.host, sizeof s.host, "%s", host);
    s.port = port;
    if (known) s.addr = addr(known);
    return s;
}

TEST(RelayResolve, LiteralsNeedNoLookup) {
    const struct {
        const char *host;
        uint16_t port;
        const char *asked, *result; // result null: fails, and the old address stays
    } rows[] =
        {
            {"::1", 90, "", "[::1]:90"},
            {"1.2.3.4:99", 90, "", "1.2.3.4:90"},  // the record's port it is
            {"[::1]", 90, "[::1] ", "5.6.7.8:90"}, // brackets don't belong here: left to the name service
            {"name", 90, "name ", "5.6.7.8:90"},
            {"gone", 90, "gone ", nullptr},
            {"", 90, "", nullptr},
            {"1.2.3.4", 0, "", nullptr},
        };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.host);
        asked.clear();
        tarn_relay_server s = server(row.host, row.port, "7.7.7.7:7");
        EXPECT_EQ(tarn_relay_resolve(&s), row.result ? 0 : -1);
        EXPECT_EQ(asked, row.asked);
        EXPECT_TRUE(same(s.addr, addr(row.result ? row.result : "7.7.7.7:7")));
    }
}

TEST(RelayResolve, ConfigurationCountsWhatHasAnAddressAfterwards) {
    tarn_relay_config c = {};
    asked.clear();
    for (tarn_relay_server &each : c.servers)
        each = server("1.2.3.4", 1);
    c.servers[0] = server("gone", 1);
    c.servers[1] = server("gone", 1, "7.7.7.7:7");
    for (c.count = 0; c.count <= 8; c.count++)
        EXPECT_EQ(tarn_relay_config_resolve(&c), c.count > 0 ? c.count - 1 : 0);
    EXPECT_EQ(asked.size(), 15 * strlen("gone "));
    EXPECT_EQ(tarn_relay_config_resolve(nullptr), 0);
}
