// Pairing of both engines on the virtual clock: which attempts a host lets through and what it says, how many
// guesses that leaves an attacker, what a client makes of every answer, and both together through loss,
// repeats and strangers.
#include <gtest/gtest.h>

#include <sstream>

#include "bytes_internal.h"
#include "conn_client_internal.h"
#include "conn_host_internal.h"
#include "support/hex_bytes.h"
#include "support/netsim.h"

namespace {

using namespace netsim;

constexpr int64_t ms = 1000, second = 1000000;
const char *const host_at = "203.0.113.5:9000", *const client_at = "198.51.100.20:5000";
const tarn_addr at_host = ep(host_at), at_a = ep("203.0.113.10:5000"), at_b = ep("198.51.100.30:6000");
const std::string host_code = code_of(test_key(200).public_key), guest_code = code_of(test_key(7).public_key);

// The stored line of a password, cheap to derive; the key in it as text is its end.
std::string line_of(const char *password, uint32_t blocks = 8, uint32_t passes = 1) {
    const bytes salt(16, 0x5A);
    uint8_t key[32];
    tarn_password_derive(key, password, salt.data(), blocks, passes);
    return "tarnglider-pw1 " + hex(salt) + " " + std::to_string(blocks) + " " + std::to_string(passes) + " " +
           hex(key, 32);
}
void named(tarn_host_config &c) { c.name = "Studio"; }
tarn_host_pairing_state state_of(const host_rig &host) {
    tarn_host_pairing_state s;
    tarn_host_pairing_status(host.h, &s);
    return s;
}
std::string replaced(std::string in, const std::string &what, const std::string &with) {
    for (size_t at = 0; (at = in.find(what, at)) != std::string::npos; at += with.size())
        in.replace(at, what.size(), with);
    return in;
}
// What was logged and reported, in one text with short forms: "try" is an attempt, d and m are an event's
// detail and method, A and B the two addresses, K the guest's key code and H the host's.
std::string told(engine_rig &rig) {
    static const std::pair<std::string, std::string> shorts[] = {
        {"pairing attempt", "try"}, {"detail=", "d"},  {"method=", "m"},  {"addr=", ""},
        {text(at_a), "A"},          {text(at_b), "B"}, {guest_code, "K"}, {host_code, "H"}};
    std::string all;
    for (const std::string &s : rig.told())
        all += (all.empty() ? "" : "; ") + s;
    for (const auto &[full, brief] : shorts)
        all = replaced(all, full, brief);
    return all;
}
auto count_of(const texts &all, const std::string &begin) {
    return std::count_if(all.begin(), all.end(), [&](const auto &s) { return s.rfind(begin, 0) == 0; });
}
// What a host answers to a packet, all of it to the packet's source and for the packet's run.
std::string ask(host_rig &host, const bytes &packet, const tarn_addr &from = at_a, bytes *reply = nullptr) {
    host.receive(packet, from);
    std::string all;
    for (const auto &p : host.take()) {
        const char *const names[] = {"init", "resp", "confirm", "done", "fail ", "query", "info"};
        all += names[p.data[2] - TARN_PKT_PAIR_INIT];
        if (p.data[2] == TARN_PKT_PAIR_FAIL) all += std::to_string(p.data[24]);
        EXPECT_EQ(text(p.to), text(from));
        EXPECT_TRUE(p.data[2] > TARN_PKT_PAIR_FAIL || memcmp(&p.data[8], &packet[8], 16) == 0);
        if (reply) *reply = p.data;
    }
    return all;
}
template <class Rig>
int pass(Rig &rig, int64_t us) {
    virtual_clock::advance(us);
    return rig.tick();
}

// One run of a client played by hand. Its confirmation is there once the host's answer opened.
struct guess {
    tarn_pair pair = {};
    bytes init = bytes(TARN_PAIR_INIT_SIZE), confirm;
    guess() = default;
    guess(const std::string &secret, int method) {
        const tarn_keypair own = test_key(7);
        size_t size;
        tarn_pair_client_start(&pair, &own, "guest", secret.c_str(), init.data(), init.size(), &size);
        init[3] = method == TARN_SECRET_PASSWORD;
    }
    std::string begin(host_rig &host, const tarn_addr &from = at_a) {
        bytes reply, out(TARN_PAIR_MESSAGE_MAX);
        const std::string said = ask(host, init, from, &reply);
        size_t size = 0;
        if (said == "resp")
            tarn_pair_handle(&pair, reply.data(), reply.size(), out.data(), out.size(), &size);
        confirm = prefix(out, size);
        return said;
    }
};

// The rows of a table or script, "left | right": one a line, or several with " / " between them.
std::vector<std::pair<std::string, std::string>> rows_of(const std::string &table) {
    std::vector<std::pair<std::string, std::string>> rows;
    std::istringstream in(replaced(table, " / ", "\n"));
    for (std::string row; std::getline(in, row);) {
        const size_t bar = std::min(row.find('|'), row.size()), from = row.find_first_not_of("| ", bar),
                     to = row.find_last_not_of(' ') + 1;
        const std::string left = row.substr(0, bar);
        if (left.find_first_not_of(' ') != std::string::npos)
            rows.push_back({left, from >= to ? "" : row.substr(from, to - from)});
    }
    return rows;
}

// Plays a script against a host and compares what is answered, logged and reported ("action | outcome"):
//   init RUN SECRET   a first message; the secret is wrong or pin (by PIN), bad or password (by password)
//   again, confirm, forge RUN        it again; its confirmation, or that with a bit flipped
//   wait US, open S, shut 0, break N   time, the caller, and a random source whose N-th draw fails
// In upper case an action comes from B, else from A. Runs and the host stay between two scripts.
struct script {
    host_rig &host;
    std::string password;
    std::map<std::string, guess> runs = {};

    std::string act(const std::string &verb, const std::string &name, const std::string &secret) {
        const tarn_addr &from = verb[0] < 'a' ? at_b : at_a;
        const char what = static_cast<char>(verb[0] | 0x20);
        guess &run = runs[name];
        if (what == 'i') {
            const bool pin = secret == "wrong" || secret == "pin";
            const std::string own = secret == "pin" ? state_of(host).pin : secret;
            run = guess(secret == "password" ? password : own, pin ? 1 : 2);
            return run.begin(host, from);
        }
        bytes forged = run.confirm;
        if (!forged.empty()) forged.back() ^= 1;
        if (what == 'a' || what == 'c' || what == 'f')
            return ask(host, what == 'a' ? run.init : what == 'c' ? run.confirm : forged, from);
        const int64_t number = std::stoll(name);
        if (what == 'w') pass(host, number);
        if (what == 'o') tarn_host_pairing_open(host.h, static_cast<uint32_t>(number));
        if (what == 's') tarn_host_pairing_close(host.h);
        if (what == 'b') seeded_random::fail_at(static_cast<int>(number));
        return "";
    }
    void operator()(const char *lines) {
        for (const auto &[action, outcome] : rows_of(lines)) {
            std::istringstream words(action);
            std::string verb, name, secret;
            words >> verb >> name >> secret;
            const std::string out = act(verb, name, secret), more = told(host);
            EXPECT_EQ(out + (out.empty() || more.empty() ? "" : "; ") + more, outcome) << action;
        }
    }
};

class Pairing : public testing::Test {
protected:
    Pairing() {
        virtual_clock::reset();
        seeded_random::reset(1);
    }
};

// ---- The host by itself

TEST_F(Pairing, WindowOpensAndCloses) {
    host_rig fresh(0), host(1);
    const tarn_host_pairing_state s = state_of(fresh);
    EXPECT_TRUE(s.open && s.seconds_left == 0 && !s.password_set && !s.password_locked &&
                s.code == host_code);
    pass(fresh, 1000 * 86400 * second); // without a deadline it stays open
    EXPECT_TRUE(state_of(fresh).open && !state_of(host).open && all_zero(state_of(host).pin, 8));
    script play{host, ""};
    play("shut 0 |");
    for (const auto &[draw, pin] : {std::pair{4293999999u, "999999"}, {7u, "000007"}}) {
        for (uint32_t value : {4294000000u, 0xFFFFFFFFu, draw}) // the uneven end is drawn again
            seeded_random::push(le32(value).data(), 4);
        play("open 0 | pairing open for 120 s");
        EXPECT_STREQ(state_of(host).pin, pin);
    }
    play("open 3 | pairing open for 3 s");
    const std::tuple<int64_t, uint32_t, bool> left[] = {
        {0, 3, true}, {1800 * ms, 2, true}, {200 * ms - 1, 2, true}, {1, 1, true}, {second, 0, true}};
    for (const auto &[us, seconds, open] : left) { // rounded up; the deadline itself is not past
        pass(host, us);
        EXPECT_TRUE(state_of(host).seconds_left == seconds && state_of(host).open == open) << us;
    }
    play("wait 1 | pairing closed (timed out); 5 / wait 1 | / open 30 | pairing open for 30 s / "
         "shut 0 | pairing closed (closed); 5 / shut 0 |");
    EXPECT_TRUE(!state_of(host).open && all_zero(host.h->pairing.pin, 8));
    // A PIN that isn't random is none.
    play("break 1 | / open 30 | pairing closed (no random numbers); 5 / init a wrong | fail 3");
}

TEST_F(Pairing, QueryTellsWhatTheHostOffers) {
    host_rig host(0, named);
    bytes query = plain(TARN_PKT_HOST_QUERY, bytes(56));
    put_u32(query.data() + 8, 0x12345678);
    const auto info = [&] {
        bytes reply;
        ask(host, query, at_a, &reply);
        return hex(reply);
    };
    const auto expect = [&](const char *flags, const std::string &password) {
        EXPECT_EQ(info(), "500156000000000078563412" + (flags + password) +
                              hex(test_key(200).public_key, 32) + "0653747564696f");
    };
    const std::string none(48, '0'), password = "0900000002000000" + hex(bytes(16, 0x5A));
    expect("01", none);
    tarn_host_pairing_close(host.h);
    expect("00", none);
    load_password(host.h, line_of("p", 9, 2).c_str());
    host.h->pairing.password_locked_until_us = conn_now() + 1;
    expect("06", password);
    tarn_host_pairing_open(host.h, 1);
    virtual_clock::advance(1);
    expect("03", password);
    tarn_host_clear_password(host.h);
    expect("01", none);
    for (size_t size : {63u, 65u}) {
        bytes other = query;
        other.resize(size);
        EXPECT_EQ(ask(host, other), "");
    }
    for (const auto &[wait, answers] : {std::pair{60 * second, 40}, {second, 20}}) { // the limit on queries
        virtual_clock::advance(wait);
        int n = 0;
        while (!info().empty())
            n++;
        EXPECT_EQ(n, answers);
    }
}

TEST_F(Pairing, PinAttemptsToTheLetter) {
    host_rig host(0, [](tarn_host_config &c) { c.pin_attempts = 3; });
    script play{host, ""};
    const std::string first_pin = state_of(host).pin;
    play(R"(
        init a wrong | resp; try 1/3 (PIN) from A; 2 d1 m1 A / again a | resp
        INIT b wrong | resp; try 1 (PIN) from A failed: replaced by a new attempt; try 2/3 (PIN) from B; 3 d1 m1 A; 2 d2 m1 B
        wait 10000000 | / wait 1 | try 2 (PIN) from B failed: no confirmation (wrong PIN?); 3 d1 m1 B
        init c pin   | resp; try 3/3 (PIN) from A; 2 d3 m1 A
        FORGE c      | fail 1; try 3 (PIN) from A failed: bad confirmation; 3 d1 m1 A / confirm c |
        INIT d pin   | fail 2; PIN pairing locked after 3 attempts (last from B): new PIN; 3 d2 m1 B; 4)");
    EXPECT_NE(state_of(host).pin, first_pin);
    play(R"(
        open 60      | pairing open for 60 s / wait 4000000 |
        init a wrong | resp; try 1/3 (PIN) from A; 2 d1 m1 A / FORGE a |
        init b wrong | resp; try 1 (PIN) from A failed: replaced by a new attempt; try 2/3 (PIN) from A; 3 d1 m1 A; 2 d2 m1 A
        init c wrong | resp; try 2 (PIN) from A failed: replaced by a new attempt; try 3/3 (PIN) from A; 3 d1 m1 A; 2 d3 m1 A
        init d pin   | fail 2; try 3 (PIN) from A failed: no confirmation; PIN pairing locked after 3 attempts (last from A): new PIN; 3 d1 m1 A; 3 d2 m1 A; 4)");
    EXPECT_EQ(state_of(host).seconds_left, 56u); // the deadline stays
    play(R"(
        init a pin   | resp; try 1/3 (PIN) from A; 2 d1 m1 A / shut 0 | pairing closed (closed); 5
        CONFIRM a    | done; paired with "guest" (K) from B using the PIN; 1 m1 B key=K name=guest
        confirm a    | done / again a | fail 3 / wait 11000000 | / open 60 | pairing open for 60 s
        init a pin   | resp; try 1/3 (PIN) from A; 2 d1 m1 A
        init b pin   | resp; try 1 (PIN) from A failed: replaced by a new attempt; try 2/3 (PIN) from A; 3 d1 m1 A; 2 d2 m1 A
        confirm a    | / confirm b | done; paired with "guest" (K) from A using the PIN; pairing closed (paired); 1 m1 A key=K name=guest; 5)");
    EXPECT_TRUE(!state_of(host).open && all_zero(host.h->pairing.pin, 8) &&
                host.h->pairing.pin_pair.attempts == 0);
    host_rig one(0, [](tarn_host_config &c) { c.pin_attempts = 1; });
    script{one, ""}(R"(
        init a wrong | resp; try 1/1 (PIN) from A; 2 d1 m1 A / FORGE a | / wait 10000001 | try 1 (PIN) from A failed: no confirmation (wrong PIN?); 3 d1 m1 A / break 3 |
        init b pin   | fail 2; PIN pairing locked after 1 attempts (last from A): new PIN; pairing closed (no random numbers); 3 d2 m1 A; 5)");
    EXPECT_TRUE(all_zero(&one.h->pairing.pin_pair, sizeof(tarn_pair)) && all_zero(one.h->pairing.pin, 8));
}

TEST_F(Pairing, PasswordAttemptsToTheLetter) {
    host_rig host(1, [](tarn_host_config &c) { c.password_attempts = 2, c.lockout_s = 5; });
    const std::string line = line_of("sesame");
    script play{host, line.substr(line.size() - 64)};
    play("init a bad | fail 3");
    load_password(host.h, line.c_str());
    play(R"(
        open 60         | pairing open for 60 s
        init a bad      | resp; try 1/2 (password) from A; 2 d1 m2 A
        wait 999999     | / init b bad | / again a | resp / wait 1 |
        init b password | resp; try 1 (password) from A failed: replaced by a new attempt; try 2/2 (password) from A; 3 d1 m2 A; 2 d2 m2 A
        confirm b       | done; paired with "guest" (K) from A using the password; 1 m2 A key=K name=guest / wait 1000000 |
        init a bad      | resp; try 1/2 (password) from A; 2 d1 m2 A
        wait 10000000   | / wait 1 | try 1 (password) from A failed: no confirmation (wrong password?); 3 d1 m2 A
        init a bad      | resp; try 2/2 (password) from A; 2 d2 m2 A / wait 1000000 |
        INIT a password | fail 2; try 2 (password) from A failed: no confirmation; password pairing locked for 5 s after 2 attempts (last from B); 3 d1 m2 A; 3 d2 m2 B
        wait 4999999    |)");
    EXPECT_TRUE(state_of(host).open && state_of(host).password_locked); // neither closes the window
    const int draws = seeded_random::draws();
    play("again b | fail 2"); // without running the exchange
    EXPECT_EQ(seeded_random::draws(), draws);
    play(R"(
        init p pin | resp; try 1/10 (PIN) from A; 2 d1 m1 A / wait 1 | password pairing unlocked
        init a bad | resp; try 1/2 (password) from A; 2 d1 m2 A)");
    EXPECT_FALSE(state_of(host).password_locked);
    bytes confirm = guess("wrong", 2).init; // an id of no exchange, and none at all
    confirm[2] = TARN_PKT_PAIR_CONFIRM;
    EXPECT_EQ(ask(host, confirm) + ask(host, prefix(confirm, 23)), "");
    tarn_host_clear_password(host.h);
    EXPECT_TRUE(all_zero(host.h->pairing.password_key, 32) && !state_of(host).password_set &&
                all_zero(&host.h->pairing.password_pair, sizeof(tarn_pair)));
    play("wait 5000000 | pairing password cleared / again a | fail 3");
}

// An attacker who asks as often as may be; an answer to a new init is a guess.
int64_t guesses(host_rig &host, int method, int64_t us, int64_t pace_us) {
    static uint32_t serial = 0;
    bytes init = guess("x", method).init;
    int64_t n = 0;
    for (int64_t t = 0; t < us; t += pace_us) {
        put_u32(init.data() + 8, ++serial);
        n += ask(host, init) == "resp";
        pass(host, pace_us);
        host.told();
    }
    return n;
}

TEST_F(Pairing, FloodsOfInitsAndGuessesOfADay) {
    host_rig host(0), timed(1), locked(1);
    bytes init = guess("x", 1).init;
    for (const auto &[size, flags] : {std::pair<size_t, uint8_t>{55, 0}, {57, 0}, {56, 2}, {56, 0x81}}) {
        bytes p = init;
        p.resize(size), p[3] = flags;
        EXPECT_EQ(ask(host, p), "");
        EXPECT_EQ(host.h->pair_bucket.last_us, 0u); // not even the limit saw it
    }
    // Exchanges, and refusals, which have a limit of their own: no password is set.
    for (const auto &[flags, wait, answers] :
         {std::tuple{0, 0 * ms, 20}, {0, second, 10}, {1, 2 * second, 10}, {1, second, 5}}) {
        virtual_clock::advance(wait);
        int n = 0;
        for (uint8_t i = 0; i < 100; i++) {
            init[3] = static_cast<uint8_t>(flags), init[8] = i;
            n += !ask(host, init).empty();
        }
        EXPECT_EQ(n, answers);
    }
    // A window that stands open: ten guesses for each PIN, and the eleventh init brings the next one. At ten
    // inits a second that is most of a million PINs a day, so a caller must not leave a window open.
    guesses(host, TARN_SECRET_PIN, 55 * second, 20 * ms);
    EXPECT_EQ(guesses(host, TARN_SECRET_PIN, 55 * second, 20 * ms) * 86400 / 55, 785454);
    tarn_host_pairing_open(timed.h, 120);
    EXPECT_NEAR(static_cast<double>(guesses(timed, TARN_SECRET_PIN, 200 * second, 20 * ms)), 1109, 1);
    // A password: ten guesses in ten seconds, then ten minutes of lock, all day long.
    load_password(locked.h, line_of("sesame").c_str());
    EXPECT_EQ(guesses(locked, TARN_SECRET_PASSWORD, 86400 * second, 250 * ms), 1420);
}

TEST_F(Pairing, PasswordLinesAreReadMadeOrRefused) {
    const std::string s(32, 'a'), k(64, 'b');
    // Words in short: S a good salt, K a good key, M the first word.
    for (const auto &[row, good] : rows_of(R"(
        M S 8 1 K | yes /  M  S 1048576 16 K | yes / M S 7 1 K | no / M S 1048577 1 K | no / M S 8 0 K | no
        M S 8 17 K | no / M Sa 8 1 K | no / M a 8 1 K | no / M S 8 1 Kb | no / M S 8 1 b | no / M S 8 1 | no
        M S 8 1 gK | no / Mx S 8 1 K | no / x | no)")) {
        SCOPED_TRACE(row);
        const std::string line = replaced(replaced(replaced(row, "S", s), "K", k), "M", "tarnglider-pw1");
        engine_rig rig;
        tarn_host_config config = {};
        config.send = engine_rig::on_send, config.log = engine_rig::on_log, config.user = &rig;
        tarn_host *h = tarn_host_create(&config, nullptr, line.c_str());
        const bool set = good == "yes";
        EXPECT_EQ(told(rig), set ? "" : "stored password is unreadable; password pairing is off");
        EXPECT_EQ(h->pairing.password_set, set);
        EXPECT_EQ(hex(h->pairing.password_salt, 16) + hex(h->pairing.password_key, 32),
                  set ? s + k : std::string(96, '0'));
        tarn_host_destroy(h);
    }
    host_rig host(1);
    char line[TARN_PASSWORD_LINE_SIZE];
    const auto set = [&](const char *password, size_t cap) {
        return tarn_host_set_password(host.h, password, line, cap);
    };
    EXPECT_EQ(set("", sizeof line) + set("sesame", sizeof line - 1), -2);
    seeded_random::fail_at(1);
    EXPECT_EQ(set("sesame", sizeof line), -1);
    EXPECT_TRUE(!state_of(host).password_set && host.quiet());
    host.h->pairing.password_locked_until_us = conn_now() + second;
    const bytes salt(16, 0xC3);
    seeded_random::push(salt.data(), 16);
    EXPECT_EQ(set("sesame", sizeof line), 0); // the one that costs 64 MiB
    uint8_t key[32];
    tarn_password_derive(key, "sesame", salt.data(), 65536, 3);
    EXPECT_EQ(line, "tarnglider-pw1 " + hex(salt) + " 65536 3 " + hex(key, 32));
    EXPECT_EQ(told(host), "pairing password set");
    EXPECT_TRUE(state_of(host).password_set && !state_of(host).password_locked); // it lifts the lock
    guess right(hex(key, 32), 2);
    right.begin(host);
    EXPECT_EQ(ask(host, right.confirm), "done");
}

TEST_F(Pairing, ListOfClients) {
    host_rig host(0);
    const auto add = [&](int key, const char *name) {
        return tarn_host_add_client(host.h, test_key(static_cast<uint8_t>(key)).public_key, name);
    };
    EXPECT_EQ(add(1, "a\nb"), 0);
    const std::string trusted = "client authorized without pairing (two-way pairing)";
    EXPECT_EQ(told(host), trusted + "; pairing closed (a device was authorized); 5");
    tarn_host_pairing_open(host.h, 60);
    virtual_clock::advance(10 * second);
    EXPECT_EQ(add(1, nullptr) + add(2, "two"), 0); // the first gets another name; a timed window stays
    EXPECT_EQ(told(host), "pairing open for 60 s; " + trusted + "; " + trusted);
    tarn_client_list list;
    memset(&list, 0xA5, sizeof list);
    tarn_host_export_clients(host.h, &list);
    EXPECT_TRUE(list.count == 2 && list.entries[0].name[0] == '\0' && list.entries[0].added == 1790000000);
    EXPECT_TRUE(std::string(list.entries[1].name) == "two" && list.entries[1].added == 1790000010 &&
                memcmp(list.entries[1].key, test_key(2).public_key, 32) == 0 &&
                all_zero(&list.entries[2], 30 * sizeof list.entries[2]));

    hand_client one(1), more(1), two(2); // a live session, a pending one, and another client's
    const auto ping = [&](hand_client &c) {
        return host.receive(seal(c.keys, plain(TARN_PKT_PING)), at_a).result;
    };
    ASSERT_TRUE(one.shake(host, at_a, 1) && ping(one) == TARN_RECV_DATA && more.shake(host, at_a, 2));
    virtual_clock::advance(3 * second);
    ASSERT_TRUE(two.shake(host, at_b, 1));
    for (const auto &[key, result] : {std::pair{3, -1}, {1, 0}, {1, -1}})
        EXPECT_EQ(tarn_host_remove_client(host.h, test_key(static_cast<uint8_t>(key)).public_key), result);
    EXPECT_TRUE(all_zero(&host.h->clients[0], sizeof(host_client)) && !host.h->links[0].active);
    EXPECT_EQ(ping(one) + ping(more), 0);
    EXPECT_TRUE(all_zero(&host.h->slots[1].session, sizeof(tarn_session)) && ping(two) == TARN_RECV_DATA);
    for (int i = 0; i < 32; i++)
        EXPECT_EQ(add(20 + i, "x"), i < 31 ? 0 : -1);
    EXPECT_EQ(memcmp(host.h->clients[0].key, test_key(20).public_key, 32), 0); // the first free place
    told(host);
    // A full list: the client is told that it succeeded, but isn't in, and nothing else changes.
    script{host, ""}(R"(
        init a pin     | resp; try 1/10 (PIN) from A; 2 d1 m1 A
        confirm a      | done; paired with "guest" (K) from A using the PIN BUT THE LIST IS FULL / wait 11000000 |)");
    EXPECT_TRUE(state_of(host).open && host.h->pairing.pin_pair.attempts == 1);
    EXPECT_EQ(add(25, "guest"), 0); // a known key only gets its new name
    EXPECT_TRUE(std::string(host.h->clients[6].name) == "guest" && host.h->clients[6].added == 1790000013);
}

// ---- The client by itself

void unknown_host(tarn_client_config &c) { c.host_key_known = 0; }
bool ended(const client_rig &rig) { // with no secret left
    const client_pairing &p = rig.c->pairing;
    return rig.c->mode != CLIENT_PAIR && all_zero(p.secret, sizeof p.secret) &&
           all_zero(&p.pair, sizeof p.pair) && all_zero(p.pair_msg, sizeof p.pair_msg);
}
// A client that has asked at A and waits for an answer.
struct asking_client : client_rig {
    explicit asking_client(const char *secret = "042137", int kind = 0,
                           const std::function<void(tarn_client_config &)> &tweak = unknown_host)
        : client_rig(tweak) {
        tarn_client_add_candidate(c, &at_a, 0);
        EXPECT_EQ(tarn_client_pair(c, secret, kind), 0);
        tick();
        take(), engine_rig::told();
        events();
    }
    // A host's answer to the query.
    bytes info(uint32_t flags = CONN_INFO_PIN, uint32_t blocks = 8, uint32_t passes = 1) const {
        const tarn_keypair own = test_key(200);
        bytes p = plain(TARN_PKT_HOST_INFO, le32(c->pairing.pair_nonce));
        p.push_back(static_cast<uint8_t>(flags));
        for (const bytes &part : {le32(blocks), le32(passes), bytes(16, 0x5A),
                                  bytes(own.public_key, own.public_key + 32), bytes{3, 'H', 'a', 'l'}})
            p.insert(p.end(), part.begin(), part.end());
        return p;
    }
    // How often a packet goes to a target while time passes in steps of a tenth of a second.
    size_t repeats(const bytes &packet, const tarn_addr &to, int64_t us) {
        size_t n = 0;
        for (; us > 0; us -= 100 * ms) {
            EXPECT_LE(pass(*this, 100 * ms), 50000); // in a hurry
            for (const auto &p : take())
                n += p.data == packet && text(p.to) == text(to);
        }
        return n;
    }
};

TEST_F(Pairing, ClientAsksAndTakesOnlyAFittingAnswer) {
    client_rig idle(unknown_host);
    const std::string longest(255, 's'), longer(256, 's');
    for (const char *bad : {"", longer.c_str()})
        EXPECT_EQ(tarn_client_pair(idle.c, bad, 0), -1);
    EXPECT_EQ(idle.tick(), 250000);
    EXPECT_EQ(tarn_client_pair(idle.c, longest.c_str(), 0), 0);
    EXPECT_TRUE(idle.c->pairing.secret == longest);
    asking_client rig;
    bytes query = plain(TARN_PKT_HOST_QUERY, bytes(56));
    put_u32(query.data() + 8, rig.c->pairing.pair_nonce);
    tarn_client_add_candidate(rig.c, &at_b, 0); // known while pairing: asked at once
    EXPECT_TRUE(rig.take().at(0).data == query && told(rig) == "path Direct B");
    EXPECT_EQ(rig.repeats(query, at_a, 7500 * ms), 15u); // every 500 ms
    EXPECT_EQ(rig.repeats(query, at_b, 7500 * ms), 15u);
    EXPECT_EQ(told(rig), ""); // the fifteenth second is not past
    EXPECT_TRUE(pass(rig, 1) && told(rig) == "pairing failed: no host answered; 13 d5 m1");
    EXPECT_TRUE(ended(rig) && rig.tick() == 250000);
    rig.receive(rig.info(), at_a);
    EXPECT_TRUE(rig.quiet());

    // Size and length of the name, a byte that is flipped.
    const std::tuple<size_t, uint8_t, size_t, bool> rows[] = {
        {73, 3, 0, true},  {70, 0, 0, true},  {133, 63, 0, true}, {134, 64, 0, false}, {69, 0, 0, false},
        {72, 3, 0, false}, {74, 3, 0, false}, {73, 3, 11, false}, {73, 3, 68, false}};
    for (const auto &[size, name, flipped, good] : rows) {
        SCOPED_TRACE(testing::Message() << size << " " << flipped);
        asking_client knowing("042137", 0, nullptr); // knows the host's key
        bytes p = knowing.info();
        p[69] = name, p[flipped] ^= flipped > 0;
        p.resize(size);
        knowing.receive(p, at_b); // from wherever it comes
        const auto sent = knowing.take();
        ASSERT_EQ(sent.size(), good);
        if (!good) continue;
        EXPECT_EQ(text(sent[0].to) + told(knowing), text(at_b) + "pairing with the PIN");
        knowing.receive(knowing.info(), at_a); // among several the first one wins
        EXPECT_TRUE(knowing.quiet());
        EXPECT_EQ(knowing.repeats(sent[0].data, at_b, 15 * second), 30u);
        EXPECT_EQ(told(knowing), "");
        EXPECT_TRUE(pass(knowing, 1) && ended(knowing));
        EXPECT_EQ(told(knowing), "pairing failed: the host stopped answering; 13 d5 m1");
    }
}

// A host's word against a run: a refusal, or, for reason 0, an answer made with another secret.
bytes refusal_of(const bytes &init, uint8_t reason) {
    bytes out(TARN_PAIR_MESSAGE_MAX), of = init;
    size_t size = tarn_pair_encode_fail(out.data(), out.size(), of.data() + 8, reason);
    if (reason > 0) return prefix(out, size);
    tarn_pair host = {};
    const tarn_keypair key = test_key(200);
    of[3] = 0;
    tarn_pair_host_init(&host, &key, "h", "other", 10);
    tarn_pair_handle(&host, of.data(), of.size(), out.data(), out.size(), &size);
    return prefix(out, size);
}

TEST_F(Pairing, ClientChoosesAMethodAndHearsRefusals) {
    // Secret, kind, the host's flags, blocks and passes; what comes of it.
    for (const auto &[row, outcome] : rows_of(R"(
        123456 0 1 8 1 | with the PIN / 123456 0 7 8 1 | with the PIN / 123456 0 2 8 1 | with the password
        123456 0 4 8 1 | failed: the host is not in pairing mode; 13 d3 m1 / 123456 1 3 8 1 | with the PIN
        123456 0 6 8 1 | failed: password pairing is locked on the host; 13 d2 m2 / 12345 0 3 8 1 | with the password
        123456 1 2 8 1 | failed: the host is not in pairing mode; 13 d3 m1 / 123456 2 3 8 1 | with the password
        123456 2 1 8 1 | failed: the host has no password; 13 d3 m2 / sesame 0 3 8 1 | with the password
        sesame 0 7 8 1 | failed: password pairing is locked on the host; 13 d2 m2 / sesame 1 1 8 1 | with the PIN
        sesame 0 2 262144 16 | with the password / sesame 0 2 262145 1 | BAD / sesame 0 2 7 1 | BAD
        sesame 0 2 8 0 | BAD / sesame 0 2 8 17 | BAD)")) {
        SCOPED_TRACE(row);
        std::istringstream words(row);
        std::string secret;
        uint32_t kind, flags, blocks, passes;
        words >> secret >> kind >> flags >> blocks >> passes;
        asking_client rig(secret.c_str(), static_cast<int>(kind));
        rig.receive(rig.info(flags, blocks, passes), at_a);
        EXPECT_EQ(told(rig),
                  "pairing " +
                      replaced(outcome, "BAD", "failed: bad password parameters from the host; 13 d3 m2"));
        const auto sent = rig.take();
        const bool begun = outcome[0] == 'w';
        ASSERT_TRUE(sent.size() == begun && ended(rig) == !begun);
        EXPECT_TRUE(!begun ||
                    (sent[0].data.size() == 56 && sent[0].data[3] == (outcome == "with the password")));
    }
    for (int failing : {1, 2}) {
        asking_client rig;
        seeded_random::fail_at(failing);
        rig.receive(rig.info(), at_a);
        EXPECT_EQ(told(rig), "pairing failed: random generator failed; 13 d5 m1");
        EXPECT_TRUE(rig.take().empty() && ended(rig));
    }
    // Kind, the host's flags, its reason; the end, unless the password is tried next.
    for (const auto &[row, end] : rows_of(R"(
        0 1 0 | wrong PIN or password; 13 d1 m1 / 0 1 1 | wrong PIN or password; 13 d1 m1 / 0 3 0 | / 0 3 1 | / 0 3 3 |
        0 3 2 | too many attempts (locked); 13 d2 m1 / 0 1 3 | the host is not pairing; 13 d3 m1
        0 1 9 | wrong PIN or password; 13 d1 m1 / 1 3 0 | wrong PIN or password; 13 d1 m1
        1 3 3 | the host is not pairing; 13 d3 m1 / 2 3 1 | wrong PIN or password; 13 d1 m2)")) {
        SCOPED_TRACE(row);
        std::istringstream words(row);
        int kind, flags, number;
        words >> kind >> flags >> number;
        const uint8_t reason = static_cast<uint8_t>(number);
        asking_client rig("123456", kind);
        rig.receive(rig.info(static_cast<uint32_t>(flags)), at_a);
        const bytes init = rig.take().at(0).data, refusal = refusal_of(init, reason);
        bytes other = refusal, longer = refusal;
        other[8] ^= 1, longer.resize(180);
        told(rig);
        rig.receive(refusal, at_b); // from elsewhere, of another run, of another size
        for (const bytes &p : {other, longer, prefix(refusal, 24)})
            rig.receive(p, at_a);
        EXPECT_TRUE(rig.quiet());
        pass(rig, 10 * second);
        rig.take();
        rig.receive(refusal, at_a);
        EXPECT_EQ(told(rig), end.empty() ? "pairing with the password" : "pairing failed: " + end);
        EXPECT_NE(ended(rig), end.empty());
        if (!end.empty()) continue;
        const bytes again = rig.take().at(0).data;
        EXPECT_TRUE(again[3] == 1 &&
                    bytes(again.begin() + 8, again.end()) != bytes(init.begin() + 8, init.end()));
        pass(rig, 15 * second); // a fresh deadline
        EXPECT_EQ(told(rig), "");
        rig.receive(refusal_of(again, reason), at_a); // and the second failure is final
        EXPECT_EQ(told(rig), reason == 3 ? "pairing failed: the host is not pairing; 13 d3 m2"
                                         : "pairing failed: wrong PIN or password; 13 d1 m2");
    }
}

TEST_F(Pairing, AHostThatKnowsTheSecretButHasAnotherKey) {
    for (const bool by_code : {true, false}) {
        asking_client rig("042137", 0, [&](tarn_client_config &c) {
            c.host_key_known = !by_code, c.host_code = by_code ? host_code.c_str() : nullptr;
        });
        rig.receive(rig.info(), at_a); // it claims the right key
        tarn_pair host = {};
        const tarn_keypair key = test_key(99);
        tarn_pair_host_init(&host, &key, "h", "042137", 10);
        bytes reply(TARN_PAIR_MESSAGE_MAX);
        size_t size = 0;
        for (int i = 0; i < 2; i++) {
            if (i == 1) rig.receive(prefix(reply, size), at_a);
            const bytes message = rig.take().at(0).data;
            tarn_pair_handle(&host, message.data(), message.size(), reply.data(), reply.size(), &size);
            EXPECT_EQ(rig.repeats(message, at_a, 2 * second), 4u); // each is repeated until it is answered,
        }
        told(rig);
        rig.receive(prefix(reply, size), at_b); // and only the asked host can end it
        EXPECT_EQ(told(rig), "");
        rig.receive(prefix(reply, size), at_a);
        EXPECT_EQ(told(rig), "pairing failed: the host's key does not match the code; 13 d4 m1");
        EXPECT_TRUE(ended(rig) && rig.c->host_key_known == !by_code);
    }
}

// ---- Both, on a network

struct couple {
    network net{1};
    host_node host;
    client_node client;
    explicit couple(int trusted, const char *password = nullptr, const char *code = nullptr)
        : host(net, trusted, named), client(net, [&](tarn_client_config &c) {
              c.identity = test_key(60), c.name = "laptop", c.host_key_known = 0, c.host_code = code;
          }) {
        if (password) load_password(host.h, line_of(password).c_str());
        net.attach(host, host_at);
        net.attach(client, client_at);
    }
    void pair(client_node &who, const std::string &secret, int kind = 0) { // "PIN" is the right one
        tarn_client_add_candidate(who.c, &at_host, 0);
        tarn_client_pair(who.c, secret == "PIN" ? state_of(host).pin : secret.c_str(), kind);
        who.due = tarn_now_us();
    }
    bool connected(int64_t within) {
        return net.run_until([&] { return client.status().connected && host.h->links[0].active; }, within);
    }
};
bool pairing_packet(const datagram &d) {
    return d.data[1] == 1 && d.data[2] >= TARN_PKT_PAIR_INIT && d.data[2] <= TARN_PKT_HOST_INFO;
}
// The lines and events that are about pairing.
std::string story(client_node &rig) {
    texts about;
    for (const std::string &s : rig.told())
        if (s.rfind("pair", 0) == 0 || s.rfind("12 ", 0) == 0 || s.rfind("13 ", 0) == 0) about.push_back(s);
    rig.log = about;
    return told(rig);
}

TEST_F(Pairing, EnginesPairAndConnect) {
    // Clients of the host, its password, the secret, its kind, the code (h: the right one); the story, in
    // which PAIRED and WRONG stand for their texts.
    for (const auto &[row, expected] : rows_of(R"(
        0 - PIN 0 h | pairing with the PIN; PAIRED m1 / 0 - PIN 0 0000-0000 | pairing failed: no host answered; 13 d5 m1
        1 sesame sesame 0 - | pairing with the password; PAIRED m2 / 0 - no-pin 1 - | pairing with the PIN; WRONG m1
        0 246810 246810 0 - | pairing with the PIN; pairing with the password; PAIRED m2)")) {
        SCOPED_TRACE(row);
        std::istringstream words(row);
        std::string password, secret, code;
        int trusted, kind;
        words >> trusted >> password >> secret >> kind >> code;
        if (code == "h") code = host_code;
        couple p(trusted, password == "-" ? nullptr : password.c_str(), code == "-" ? nullptr : code.c_str());
        p.pair(p.client, secret, kind);
        const size_t good = expected.find("PAIRED");
        EXPECT_EQ(p.connected(16 * second), good != std::string::npos);
        const std::string paired = "paired with \"Studio\" (H); 12",
                          at = " 203.0.113.5:9000 key=H name=Studio";
        EXPECT_EQ(story(p.client), replaced(replaced(expected, "PAIRED", paired), "WRONG",
                                            "pairing failed: wrong PIN or password; 13 d1") +
                                       (good != std::string::npos ? at : ""));
        EXPECT_TRUE(ended(p.client));
        EXPECT_STREQ(p.host.h->clients[trusted].name, good != std::string::npos ? "laptop" : "");
    }
}

TEST_F(Pairing, EveryMessageLostRepeatedOrLateOnce) {
    for (const std::string secret : {"PIN", "sesame", "246810"}) {
        const bool fallback = secret == "246810";
        const int messages = fallback ? 8 : 6;
        for (int run = 0; run <= 3 * messages; run++) { // run 0 leaves all as it is
            SCOPED_TRACE(secret + " run " + std::to_string(run));
            couple p(0, secret.c_str());
            int count = 0;
            std::vector<datagram> held;
            p.net.hook = [&](const datagram &d) {
                if (!pairing_packet(d) || ++count != (run + 2) / 3) return true;
                if (run % 3 > 0) held.push_back(d);
                return run % 3 == 1; // lost, twice, late
            };
            p.pair(p.client, secret);
            p.net.run(700 * ms);
            for (const datagram &d : std::exchange(held, {})) {
                node &from = text(d.from) == host_at ? static_cast<node &>(p.host) : p.client;
                p.net.send(from, d.to, d.data);
            }
            EXPECT_TRUE(p.connected(10 * second));
            p.net.run(12 * second);
            const texts events = p.host.events();
            EXPECT_TRUE(count_of(p.client.events(), "12 ") == 1 && count_of(events, "1 ") == 1 &&
                        count_of(events, "3 ") == fallback); // the guess that the PIN was
            EXPECT_TRUE(run > 0 || count == messages);
        }
    }
}

TEST_F(Pairing, TwoClientsAndAnAttacker) {
    couple p(0);
    client_node other(p.net, [](tarn_client_config &c) { c.identity = test_key(61), c.host_key_known = 0; });
    client_node attacker(p.net);
    p.net.attach(other, "198.51.100.40:5000");
    p.net.attach(attacker, "192.0.2.66:666");
    std::vector<bytes> seen;
    p.net.hook = [&](const datagram &d) {
        if (pairing_packet(d)) seen.push_back(d.data);
        return true;
    };
    p.pair(p.client, "PIN"); // both at once: the later run replaces the earlier
    p.pair(other, "PIN");
    p.net.run(16 * second);
    EXPECT_EQ(story(p.client), "pairing with the PIN; pairing failed: the host stopped answering; 13 d5 m1");
    EXPECT_TRUE(other.status().connected && !p.host.h->clients[1].active);
    // All of it again from elsewhere, to the host and to a client that pairs: nothing comes of it.
    tarn_client_session_close(other.c, 0);
    p.net.run(3 * second);
    tarn_host_pairing_open(p.host.h, 60);
    p.host.told();
    const std::vector<bytes> replay = seen;
    p.pair(p.client, "PIN");
    p.net.run(5 * ms);
    for (const bytes &d : replay)
        for (const char *target : {host_at, client_at})
            p.net.send(attacker, ep(target), d);
    EXPECT_TRUE(replay.size() >= 12 && p.connected(15 * second));
    p.net.run(11 * second);
    EXPECT_TRUE(count_of(p.host.events(), "1 ") == 1 && !p.host.h->clients[2].active);
}

} // namespace
