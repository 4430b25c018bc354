// The background resolver on the settable clock, with a name service and engines made of lists.
#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <tarnglider/clock.h>
#include <tarnglider/conn_client.h>
#include <tarnglider/conn_host.h>

#include "core/netsock_test.h"
#include "netsock_internal.h"
#include "support/virtual_clock.h"
#include "support/virtual_threads.h"

using namespace virtual_threads;
using texts = std::vector<std::string>;

namespace {
std::mutex lock; // guards the rest of this block
std::condition_variable changed;
std::map<std::string, std::string> name_service;
texts seen; // look-ups and reports, in order
bool gate_shut = false;
int at_gate = 0;

void note(const std::string &line) {
    const std::lock_guard held(lock);
    seen.push_back(line);
}
void set(void (*change)()) {
    const std::lock_guard held(lock);
    change();
    changed.notify_all();
}
texts take_seen() {
    settle();
    const std::lock_guard held(lock);
    return std::exchange(seen, {});
}
void report(const char *who, const void *engine, const char *name, uint16_t port, const tarn_addr *a) {
    char text[64] = "null";
    if (a) tarn_addr_format(text, sizeof text, a);
    EXPECT_NE(engine, nullptr);
    note(std::string(who) + " " + name + ":" + std::to_string(port) + " " + text);
}
} // namespace

int netsock_lookup(const char *name, netsock_answer_fn answer, void *user) {
    std::unique_lock held(lock);
    seen.push_back(std::string("? ") + name);
    at_gate++;
    changed.notify_all();
    changed.wait(held, [] { return !gate_shut; });
    at_gate--;
    const auto found = name_service.find(name);
    if (found == name_service.end()) return -1;
    const tarn_addr a = addr(found->second.c_str(), 1);
    sockaddr_storage sa;
    answer(user, &sa, tarn_addr_to_sockaddr(&a, &sa, sizeof sa, 0));
    return 0;
}
void tarn_host_server_resolved(tarn_host *h, const char *name, uint16_t port, const tarn_addr *a) {
    report("host", h, name, port, a);
}
void tarn_client_server_resolved(tarn_client *c, const char *name, uint16_t port, const tarn_addr *a) {
    report("client", c, name, port, a);
}

namespace {

int engine; // its address stands for an engine
tarn_host *const host = reinterpret_cast<tarn_host *>(&engine);
tarn_client *const client = reinterpret_cast<tarn_client *>(&engine);

tarn_relay_config servers(const std::vector<std::pair<const char *, uint16_t>> &list) {
    tarn_relay_config c = {};
    for (const auto &[name, port] : list) {
        snprintf(c.servers[c.count].host, sizeof c.servers[0].host, "%s", name);
        c.servers[c.count++].port = port;
    }
    return c;
}

TEST(Resolver, AsksForEachNameOnce) {
    const struct {
        const char *why;
        std::vector<std::pair<const char *, uint16_t>> list;
        texts asked; // empty: no thread and no handle
    } rows[] = {
        {"literals only", {{"1.2.3.4", 1}, {"::1", 1}, {"[::1]", 1}, {"1.2.3.4:5", 1}, {"", 1}}, {}},
        {"twice, and twice with a difference",
         {{"a", 1}, {"1.2.3.4", 1}, {"a", 1}, {"a", 2}, {"A", 1}},
         {"? a", "? a", "? A"}},
        {"eight",
         {{"a", 1}, {"b", 1}, {"c", 1}, {"d", 1}, {"e", 1}, {"f", 1}, {"g", 1}, {"h", 1}},
         {"? a", "? b", "? c", "? d", "? e", "? f", "? g", "? h"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.why);
        struct {
            tarn_relay_config c;
            tarn_relay_server ninth; // right behind it, so that one too many is seen
        } list = {servers(row.list), servers({{"stale", 1}}).servers[0]};
        if (list.c.count == 8)
            list.c.count = 9; // whatever it says, eight are looked at
        else
            list.c.servers[list.c.count] = list.ninth; // and none behind the last
        tarn_resolver *r = tarn_resolver_start_host(host, &list.c);
        EXPECT_EQ(r != nullptr, !row.asked.empty());
        EXPECT_EQ(running(), row.asked.empty() ? 0 : 1);
        texts asked;
        for (const std::string &line : take_seen())
            if (line[0] == '?') asked.push_back(line);
        EXPECT_EQ(asked, row.asked);
        tarn_resolver_stop(r);
        settle();
        EXPECT_EQ(running(), 0);
    }
    const tarn_relay_config c = servers({{"a", 1}});
    fail_starts(true);
    EXPECT_EQ(tarn_resolver_start_client(client, &c), nullptr);
    fail_starts(false);
}

TEST(Resolver, KeepsNamesFresh) {
    constexpr int64_t second = 1000000;
    name_service = {{"good", "1.1.1.1"}, {"six", "::6"}};
    tarn_relay_config c = servers({{"good", 9}, {"bad", 8}, {"six", 7}});
    tarn_resolver *r = tarn_resolver_start_client(client, &c);
    c = {}; // it has its own copy
    const texts good = {"? good", "client good:9 1.1.1.1:9"}, six = {"? six", "client six:7 [::6]:7"},
                bad = {"? bad", "client bad:8 null"}, none;
    const auto join = [](texts list, const texts &more) {
        return list.insert(list.end(), more.begin(), more.end()), list;
    };
    EXPECT_EQ(take_seen(), join(join(good, bad), six));
    // A wait is of whole milliseconds and one, so each round comes a millisecond late.
    EXPECT_EQ(next_due(), tarn_now_us() + 10 * second + 1000);
    for (int round = 1; round <= 11; round++) {
        advance(10 * second);
        EXPECT_EQ(take_seen(), none);
        advance(1000);
        EXPECT_EQ(take_seen(), bad);
    }
    set([] { name_service = {{"bad", "2.2.2.2"}}; });
    advance(120 * second - 11 * (10 * second + 1000)); // the good ones are due: not before their two minutes
    EXPECT_EQ(take_seen(), none);
    advance(1000);
    EXPECT_EQ(take_seen(), (texts{"? good", "client good:9 null", "? six", "client six:7 null"}));
    advance(10 * second + 1000);
    EXPECT_EQ(take_seen(), (texts{"? bad", "client bad:8 2.2.2.2:8", "? good", "client good:9 null", "? six",
                                  "client six:7 null"}));
    tarn_resolver_stop(r);
    settle();
    EXPECT_EQ(running(), 0);
    EXPECT_EQ(take_seen(), none);
}

TEST(Resolver, NoReportAfterAStop) {
    name_service = {{"a", "1.1.1.1"}};
    const tarn_relay_config c = servers({{"a", 1}, {"b", 1}});
    gate_shut = true;
    tarn_resolver *r = tarn_resolver_start_host(host, &c);
    {
        std::unique_lock held(lock);
        changed.wait(held, [] { return at_gate == 1; });
    }
    tarn_resolver_stop(r); // returns although the look-up hangs
    EXPECT_EQ(running(), 1);
    set([] { gate_shut = false; });
    EXPECT_EQ(take_seen(), texts{"? a"});
    EXPECT_EQ(running(), 0);
}

} // namespace
