// The stored items: every way in which one can be missing, unreadable or malformed, in both scopes, every failing call of
// a save, and what is wiped on the way.
#include <algorithm>
#include <cstring>
#include <functional>

#include "store_machine.h"

// The library's random source, which this test can break.
static bool no_randomness = false;
int tarn_random_bytes(void *out, size_t size) {
    std::memset(out, 0x5A, no_randomness ? 0 : size);
    return no_randomness ? TARN_ERR_RANDOM : TARN_OK;
}

// What was wiped, as it was before.
static std::vector<std::string> wiped_contents;
extern "C" void __real_tarn_secure_wipe(void *, size_t);
extern "C" void __wrap_tarn_secure_wipe(void *buffer, size_t size) {
    wiped_contents.emplace_back(static_cast<const char *>(buffer), size);
    __real_tarn_secure_wipe(buffer, size);
}

namespace {

using namespace keystore;

const std::string hex(64, '7'), salt = "0123456789abcdefABCDEF9876543210";
const std::string password = "tarnglider-pw1 " + salt + " 65536 3 " + hex;
const std::string relays =
    "tarnglider-relays-v1\ntarnglider-relay://a.example:1#key\ntarnglider-relay://b:2#key\n";

// What a load gives, or throws, and then what it logged, without the path of the identity.
std::string load(const std::wstring &name) {
    log_lines.clear();
    std::string out;
    try {
        if (name == L"identity") {
            bool created = true;
            const tarn_keypair pair = load_or_create_identity(&created);
            out = created ? "new" : "secret " + std::to_string(pair.secret[31]);
        } else if (name == L"pairing_password") {
            out = load_password_blob();
        } else {
            out = std::to_string(name == L"relays" ? load_relays().count : load_clients().count);
        }
        EXPECT_EQ(store_machine::health(), "healthy");
    } catch (const std::runtime_error &failure) {
        out = failure.what();
        EXPECT_EQ(store_machine::health(), out);
    }
    for (std::string &line : log_lines) {
        const std::string path = machine_scope() ? R"(C:\ProgramData\TarnGlider\Host\identity)"
                                                 : R"(C:\Users\person\AppData\Roaming\TarnGlider\identity)";
        const size_t at = line.find(path);
        out += " & " + (at == line.npos ? line : line.replace(at, path.size(), "PATH"));
    }
    return out;
}

const std::string created = "new & identity: created a new key for this PC (PATH)";
const std::string replaced =
    "new & identity: PATH is unreadable (another user's or damaged; kept as identity.bad): NEW "
    "identity, paired devices must pair again" +
    created.substr(3);

// A password line in short: T, S and K stand for its tag, salt and key.
lines password_lines(const std::string &shorts) {
    lines out;
    for (const std::string &text : split(shorts)) {
        out.emplace_back();
        for (const char c : text) {
            out.back() += c == 'T' ? "tarnglider-pw1" : c == 'S' ? salt : c == 'K' ? hex : std::string(1, c);
        }
    }
    return out;
}

struct item {
    std::wstring name;
    bool sealed;
    std::string good, loaded, missing; // a content and what loading it gives, and what loading none gives
    std::string unreadable[2], malformed[2]; // likewise, in the User and in the Machine scope
    lines wrong;                             // contents that are malformed in the Machine scope
};
item make(const wchar_t *name, bool sealed, const std::string &good, const std::string &outcomes,
          const lines &wrong) {
    const lines of = split(outcomes);
    return {name, sealed, good, of[0], of[1], {of[2], of[3]}, {of[4], of[5]}, wrong};
}
const std::string bad_identity = "machine identity is unreadable or malformed";
const std::string clients = "tarnglider-clients-v1\n" + hex + " 5 A phone\n";
const item items[] = {
    make(L"identity", true, hex,
         "secret 119|" + created + "|" + replaced + "|" + bad_identity + "|" + replaced + "|" + bad_identity,
         {"", hex.substr(1), "g" + hex.substr(1), hex.substr(1) + '\0'}),
    make(L"authorized_clients", false, clients,
         "1|0|0|machine authorized clients unreadable|0 & authorized_clients is malformed: no paired devices "
         "loaded|machine authorized clients malformed",
         {"", "tarnglider-clients-v2\n", clients + "x\n", std::string(1048575, 'x')}),
    make(L"pairing_password", true, password,
         password + "|| & pairing_password is unreadable: password pairing is off|machine pairing password "
                    "unreadable||machine pairing password malformed",
         password_lines(
             "|T|tarnglider-pw2 S 8 3 K|xT S 8 3 K|T S 8 3 K@|T S 8 3 K x|T S 8 3 K0|T S 8 3 gK|T S 8 3|"
             "T SS 8 3 K|T S0 8 3 K|T gS 8 3 K|T S 8 K|T S 7 3 K|T S 1048577 3 K|T S 8 0 K|T S 8 17 K|"
             "T S +8 3 K|T S 8x 3 K|T S 0x10 3 K|T S -4294901760 3 K|T S 4294967304 3 K|T S 8 3 K K|T S 8 3 "
             "KK|T 0123456789abcdefABCDEF987654321G 8 3 K|T 0123456789abcdefABCDEF987654321g 8 3 K|"
             "T S 18446744073709551624 3 K|T K 8 3 S|T S 8 3 S|T 0 8 3 K")),
    make(L"relays", true, relays,
         "2|1|0 & relays is unreadable (another user's or damaged): no relay servers|machine relays "
         "unreadable|0 & relays is malformed: no relay servers|machine relays malformed",
         {"", "x", relays + "x\n"}),
};

// Each way in which an item can't be read: whom it concerns ('a'ny item, 's'ealed ones, the 'm'achine's), then the call
// that fails, with an error, so many times; or what is stored, or the access list that it is stored with.
const lines ways =
    split("a CreateFileW 32 1|a GetFileSizeEx 31 1|a ReadFile 31 1|a large|s CryptUnprotectData 31 1|"
          "s GetFileAttributesW 5 2|s |s x|s foreign|m GetFileAttributesW 5 20|m O:BUD:P(A;;FA;;;SY)|"
          "m O:BAD:(A;;FA;;;SY)|m O:BAD:P(A;;FA;;;SY)(A;;FR;;;BU)");

TEST(items, missing_unreadable_malformed) {
    for (size_t i = 0; i < 8; i++) {
        const item &of = items[i / 2];
        const bool machine = i % 2;
        const auto expect = [&](const std::string &expected, const std::string &plain,
                                const std::string &by = "") {
            store_machine s(machine);
            const bool list = by.starts_with("m O:");
            char call[32];
            unsigned error = 0;
            int count = 0;
            const bool fails = sscanf(by.c_str(), "%*c %31s %u %d", call, &error, &count) == 3;
            std::string content = of.sealed ? s.sealed(plain) : plain;
            if (!by.empty() && !list && !fails) {
                content = by == "a large"     ? std::string(1048576, 'x')
                          : by == "s foreign" ? s.foreign(plain)
                                              : by.substr(2);
            }
            s.put(L"identity.bad", "older");
            s.put(of.name, content, list ? by.c_str() + 2 : private_list);
            s.m.fail(fails ? call : "", error, 1, count);
            EXPECT_EQ(load(of.name), expected) << by;
            EXPECT_EQ(s.get(expected == replaced ? L"identity.bad" : of.name), content);
        };
        expect(of.loaded, of.good);
        for (const std::string &by : ways) {
            if (by[0] == 'a' || (by[0] == 's' ? of.sealed : machine)) {
                expect(of.unreadable[machine], of.good, by);
            }
        }
        for (const std::string &content : of.wrong) {
            expect(of.good == password && !machine ? content : of.malformed[machine], content);
        }
        store_machine s(machine);
        EXPECT_EQ(load(of.name), of.missing);
    }
}

tarn_relay_config two_relays() {
    tarn_relay_config out;
    EXPECT_EQ(tarn_relay_config_load(&out, reinterpret_cast<const uint8_t *>(relays.data()), relays.size()),
              0);
    return out;
}

bool save(int which) {
    switch (which) {
    case 0:
        return writeHostFile(L"settings", "new", 3);
    case 1:
        return save_clients({});
    case 2:
        return save_password_blob(password);
    case 3:
        return save_relays(two_relays());
    default:
        return save_password_blob("");
    }
}

// Every call of a save fails in turn: the old item is whole, or the new one, and a failure is told.
TEST(items, every_failing_call_of_a_save) {
    const struct {
        const wchar_t *name;
        std::string text, health, line; // afterwards; the machine's failure, its beginning; everybody's line
    } rows[] = {
        {L"settings", "new", "machine file write failed", ""},
        {L"authorized_clients", "tarnglider-clients-v1\n", "", "could not save the paired devices list"},
        {L"pairing_password", password, "", "could not save the pairing password; it lasts until quit"},
        {L"relays", relays, "", "could not save the relay server list"},
        {L"pairing_password", "none", "machine password ", ""}};
    for (int i = 0; i < 10; i++) {
        const auto &row = rows[i / 2];
        const std::string fault = row.health.empty() ? "machine persistence failed" : row.health;
        std::string failed = "first";
        for (int nth = 1; !failed.empty(); nth++) {
            store_machine s(i % 2);
            s.put(row.name, "old");
            s.m.fail_nth_call(nth, 31);
            const bool done = save(i / 2);
            failed = s.m.failed_call();
            s.m.clear_failures();
            std::string text = s.get(row.name);
            EXPECT_TRUE(text.size() <= row.text.size() || read_protected(s.path(row.name), text) == 1);
            // Without a profile it is the store in the current directory.
            EXPECT_TRUE(text == (done ? row.text : "old") || failed == "SHGetKnownFolderPath") << failed;
            EXPECT_FALSE(done && failed == "FlushFileBuffers");
            EXPECT_EQ(s.health().find(done || !s.machine ? "healthy" : fault), 0u) << failed;
            EXPECT_EQ(log_lines, done || row.line.empty() ? lines() : lines{row.line}) << failed;
            EXPECT_EQ(s.entries().find("tmp"), std::string::npos) << failed;
        }
    }
}

TEST(items, identity) {
    const std::string unsaved = "new & identity: could not save PATH; this identity lasts until quit";
    const std::string unmade = "new & identity: key generation failed" + created.substr(3);
    for (const bool machine : {true, false}) {
        const std::tuple<const char *, bool, std::string> rows[] = {
            {"", false, created},
            {"WriteFile", false, machine ? "machine identity persistence failed" : unsaved},
            {"", true, machine ? "machine identity generation failed" : unmade}};
        for (const auto &[call, no_random, outcome] : rows) {
            store_machine s(machine);
            s.m.fail(call, 31);
            no_randomness = no_random;
            EXPECT_EQ(load(L"identity"), outcome);
            no_randomness = false;
            std::string text;
            const bool saved = !*call && !(machine && no_random);
            EXPECT_EQ(read_protected(s.path(L"identity"), text), saved);
            EXPECT_EQ(text.size(), saved && !no_random ? 64u : 0u);
            EXPECT_TRUE(text.empty() || load(L"identity") == "secret 90") << "the same as was made";
        }
        store_machine s(machine);
        s.put(L"identity", s.sealed(hex + "7"));
        EXPECT_EQ(load(L"identity"), machine ? bad_identity : items[0].loaded);
        s.put(L"identity", s.sealed(hex));
        state().failure = "machine store already failed"; // by now
        EXPECT_EQ(load(L"identity"), machine ? state().failure : items[0].loaded);
    }
}

TEST(items, limits) {
    store_machine s(true);
    tarn_client_list list{};
    tarn_relay_config servers{};
    std::string host(253, 'a');
    host[63] = host[127] = host[191] = '.';
    for (uint8_t i = 1; i <= TARN_LIST_MAX; i++) {
        tarn_client_list_add(&list, std::vector<uint8_t>(32, i).data(), std::string(63, 'n').c_str());
        list.entries[i - 1].added = UINT64_MAX;
        tarn_relay_server server{};
        const uint16_t port = static_cast<uint16_t>(65528 + i % 8);
        tarn_relay_server_set(&server, host.c_str(), port, std::vector<uint8_t>(128, 0xFF).data(), 128);
        tarn_relay_config_add(&servers, &server);
    }
    EXPECT_TRUE(save_clients(list) && save_relays(servers));
    EXPECT_EQ(load(L"authorized_clients") + " " + load(L"relays"), "32 8");
    EXPECT_TRUE(save_relays({}) && load(L"relays") == "0") << "and not the built-in one";
    for (const std::string &good : password_lines(
             "T S 8 1 K|T S 1048576 16 K|T S 0000000000000008 03 K|\v T S 8 3 K\r\n|T\nS\t8\f3  K")) {
        EXPECT_TRUE(save_password_blob(good) && load(L"pairing_password") == good);
    }
    servers.servers[0].key_len = 129;
    EXPECT_TRUE(!save_relays(servers) && s.health() == "machine persistence failed");
}

// How often a secret is wiped: once for each place that held it, however the call ends.
TEST(items, wiping) {
    const auto times = [](const std::string &secret, const auto &act) {
        wiped_contents.clear();
        act();
        const auto holds = [&](const std::string &content) { return content.find(secret) != content.npos; };
        return std::count_if(wiped_contents.begin(), wiped_contents.end(), holds);
    };
    // The system's buffer, the store's bytes, their text unless that is handed out; the library's copy of an identity.
    const struct {
        size_t of;
        ptrdiff_t clean, damaged[2]; // the latter in the User and in the Machine scope
    } rows[] = {{0, 4, {4, 3}}, {2, 2, {2, 3}}, {3, 3, {3, 3}}};
    for (const bool machine : {true, false}) {
        for (const auto &row : rows) {
            const item &of = items[row.of];
            store_machine s(machine);
            s.put(of.name, s.sealed(of.good));
            EXPECT_EQ(times(of.good, [&] { load(of.name); }), row.clean) << of.good;
            EXPECT_TRUE(row.of != 2 || // a text was moved to the caller: a short one stays, and is wiped
                        times(std::string(15, '\0'), [&] { load(of.name); }) == 1);
            s.put(of.name, s.sealed(of.good + "\nx"));
            EXPECT_EQ(times(of.good, [&] { load(of.name); }), row.damaged[machine]) << of.good;
        }
        for (const int fault : {1, 1000}) {
            store_machine s(machine);
            const auto save = [&](const std::string &secret, const auto &act) {
                s.m.fail("CryptProtectData", 31, fault); // the next one, or none
                return times(secret, act);
            };
            EXPECT_EQ(save("5a5a5a5a", [] { load(L"identity"); }), 2);
            EXPECT_EQ(save(password, [] { save_password_blob(password); }), 1);
            EXPECT_EQ(save(relays, [] { save_relays(two_relays()); }), 2);
        }
    }
    store_machine s(true);
    s.put(L"identity", s.sealed(hex));
    s.put(L"pairing_password", s.sealed(password));
    s.put(L"relays", s.sealed(relays));
    const tarn_keypair pair = load_or_create_identity(nullptr);
    const tarn_relay_config servers = load_relays();
    const auto start = [] {
        state().configured = false;
        EXPECT_TRUE(configureHostStore(HostStoreScope::Machine, nullptr));
    };
    EXPECT_EQ(times(password, start), 3);
    EXPECT_EQ(times({reinterpret_cast<const char *>(&pair), sizeof pair}, start), 2);
    EXPECT_EQ(times({reinterpret_cast<const char *>(&servers), sizeof servers}, start), 2);
}

} // namespace
