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
std::vector<answer_row> name_service; // empty: every look-up fails
std::vector<std::string> asked;
} // namespace

int netsock_lookup(const char *name, netsock_answer_fn answer, void *user) {
    asked.push_back(name);
    if (name_service.empty()) return -1;
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
        {"IPv4 behind IPv6", "1.1.1.1", {{"::1", true, 0}, {"1.1.1.1", false, 0}}},
        {"the first of two IPv4", "2.2.2.2", {{"2.2.2.2", false, 0}, {"1.1.1.1", false, 0}}},
        {"a mapped one is an IPv6 answer", "1.1.1.1", {{"3.3.3.3", true, 0}, {"1.1.1.1", false, 0}}},
        {"but a good one", "3.3.3.3", {{"3.3.3.3", true, 0}, {"::1", true, 0}}},
        {"the first of two IPv6", "::2", {{"::2", true, 0}, {"::1", true, 0}}},
        {"unusable ones are passed over", "1.1.1.2", {{"1.1.1.1", false, 1}, {"1.1.1.2:9", false, 0}}},
        {"also for IPv6", "::2", {{"1.1.1.1", false, 2}, {"::1", true, 1}, {"::2", true, 0}}},
        {"nothing usable", nullptr, {{"1.1.1.1", false, 1}, {"::1", true, 2}}},
        {"no such name", nullptr, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.why);
        name_service = row.answers;
        tarn_addr out = addr("7.7.7.7:7");
        EXPECT_EQ(resolve_name("name", &out), row.result ? 0 : -1);
        EXPECT_TRUE(same(out, addr(row.result ? row.result : "7.7.7.7:7")));
    }
}

TEST(NetResolve, Texts) {
    const std::string longest(255, 'n'), too_long(256, 'n');
    const struct {
        const char *text, *asked; // null: no look-up
        int port;                 // -1: fails
    } rows[] = {
        {"1.2.3.4", nullptr, 7},
        {"1.2.3.4:80", nullptr, 80},
        {"[::1]:80", nullptr, 80},
        {"name", "name", 7},
        {"name:80x", "name", 80},
        {"name:1", "name", 1},
        {"name:65535", "name", 65535},
        {"name:65536", nullptr, -1},
        {"name:99999999999999999999", nullptr, -1},
        {"name:0", nullptr, -1},
        {"name:-1", nullptr, -1},
        {"name:", nullptr, -1},
        {"name:x", nullptr, -1},
        {"a:80:90", "a:80:90", 7}, // two colons split nothing
        {"1.2.3.4:80x", "1.2.3.4", 80},
        {longest.c_str(), longest.c_str(), 7},
        {too_long.c_str(), nullptr, -1},
        {"", nullptr, -1},
        {nullptr, nullptr, -1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text ? row.text : "null");
        name_service = {{"5.6.7.8:99", false, 0}};
        asked.clear();
        tarn_addr out;
        memset(&out, 0xEE, sizeof out);
        EXPECT_EQ(tarn_net_resolve(row.text, 7, &out), row.port < 0 ? -1 : 0);
        EXPECT_EQ(asked, row.asked ? std::vector<std::string>{row.asked} : std::vector<std::string>{});
        const auto port = static_cast<uint16_t>(row.port < 0 ? 0 : row.port);
        EXPECT_EQ(out.port, port);
        EXPECT_TRUE(row.port < 0 ? same(out, tarn_addr{}) : !row.asked || same(out, addr("5.6.7.8", port)));
    }
    name_service.clear();
    tarn_addr out;
    EXPECT_EQ(tarn_net_resolve("name", 7, &out), -1);
    EXPECT_TRUE(same(out, tarn_addr{}));
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
    } rows[] = {
        {"1.2.3.4", 90, nullptr, "1.2.3.4:90"},
        {"::1", 90, nullptr, "[::1]:90"},
        {"1.2.3.4:99", 90, nullptr, "1.2.3.4:90"}, // the record's port it is
        {"[::1]", 90, "[::1]", "5.6.7.8:90"},      // brackets don't belong here: left to the name service
        {"name", 90, "name", "5.6.7.8:90"},
        {"gone", 90, "gone", nullptr},
        {"", 90, nullptr, nullptr},
        {"1.2.3.4", 0, nullptr, nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.host);
        name_service = {{"5.6.7.8:99", false, 0}};
        if (!strcmp(row.host, "gone")) name_service.clear();
        asked.clear();
        tarn_relay_server s = server(row.host, row.port, "7.7.7.7:7");
        EXPECT_EQ(tarn_relay_resolve(&s), row.result ? 0 : -1);
        EXPECT_EQ(asked, row.asked ? std::vector<std::string>{row.asked} : std::vector<std::string>{});
        EXPECT_TRUE(same(s.addr, addr(row.result ? row.result : "7.7.7.7:7")));
    }
    EXPECT_EQ(tarn_relay_resolve(nullptr), -1);
}

TEST(RelayResolve, ConfigurationCountsWhatHasAnAddressAfterwards) {
    tarn_relay_config c = {};
    EXPECT_EQ(tarn_relay_config_resolve(nullptr), 0);
    name_service.clear();
    asked.clear();
    for (tarn_relay_server &s : c.servers)
        s = server("1.2.3.4", 1);
    c.servers[0] = server("new", 1);
    c.servers[1] = server("kept", 1, "7.7.7.7:7");
    const struct { int count, known; } rows[] = {{0, 0}, {1, 0}, {2, 1}, {8, 7}};
    for (const auto &row : rows) {
        c.count = row.count;
        EXPECT_EQ(tarn_relay_config_resolve(&c), row.known);
    }
    EXPECT_EQ(asked, (std::vector<std::string>{"new", "new", "kept", "new", "kept"}));
}
