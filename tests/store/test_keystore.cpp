// The store's files and its start: what a machine's owner loses if one of these fails is the certainty that a file is
// whole, that nobody else wrote it, and that a damaged store stops the service.
#include <functional>
#include <new>

#include "handles.h"
#include "store_machine.h"

namespace {

using namespace keystore;
using host_service::unique_file;

constexpr size_t mib = 1048576;

unique_file opens(const std::wstring &path, DWORD access) { // for whatever others do
    return unique_file(CreateFileW(path.c_str(), access, 7, nullptr, OPEN_EXISTING, 0, nullptr));
}

bool write(const std::string &text) { return writeHostFile(L"settings", text.data(), text.size()); }

TEST(keystore, writes_for_its_owners_alone) {
    std::string temporary;
    for (const bool machine : {true, false}) {
        store_machine s(machine);
        s.m.before_call([&](const std::string &call) {
            temporary = call == "MoveFileExW" ? s.entries() : temporary;
            EXPECT_TRUE(call != "FlushFileBuffers" || !opens(s.m.tree(s.dir)[0], GENERIC_READ));
        });
        EXPECT_TRUE(write("text") && s.get(L"settings") == "text");
        s.m.before_call(nullptr);
        EXPECT_TRUE(s.m.descriptor(s.path(L"settings")).ends_with(machine ? private_list : user_list));
        EXPECT_EQ(temporary.find_first_not_of("0123456789abcdef", 13), 45u);
        EXPECT_EQ(temporary.substr(0, 13) + temporary.substr(45), "settings.tmp- ");
        EXPECT_EQ(s.m.calls("FlushFileBuffers"), 1);
        s.m.fail("WriteFile", 31, 1, winsim::for_good);
        EXPECT_TRUE(writeHostFile(L"empty", nullptr, 0)) << "without a write";
        EXPECT_EQ(s.m.last_move_flags(), DWORD{MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH});
        EXPECT_EQ(s.get(L"empty"), "");
    }
    // Whoever knows the temporary file's name beforehand, from the same random numbers, gains nothing.
    for (const bool link : {true, false}) {
        store_machine s(false);
        const std::wstring name(temporary.begin(), temporary.end() - 1), elsewhere = s.base + L"\\elsewhere";
        s.put(name, "planted");
        link ? s.m.make_link(s.path(name), s.m.descriptor(s.path(name)), elsewhere) : void();
        EXPECT_FALSE(write("text") || s.m.exists(elsewhere));
        EXPECT_EQ(s.entries() + s.get(name), temporary + (link ? "" : "planted"));
    }
    for (const char *weak : {"O:S-1-5-21-1-2-3-1001D:P(A;;FA;;;SY)", weak_list, "O:BAD:(A;;FA;;;SY)"}) {
        for (const bool directory : {true, false}) {
            store_machine s(true);
            s.put(L"settings", "old");
            s.m.set_descriptor(directory ? s.dir : s.path(L"settings"), weak);
            EXPECT_TRUE(!write("new") && s.get(L"settings") == "old" && s.entries() == "settings ");
        }
    }
}

TEST(keystore, names_and_sizes) {
    store_machine s(true);
    s.put(L"file:x", "stream");
    std::string out = "as it was";
    for (const wchar_t *name :
         {L"", L"a.b", L"a\\b", L"a/b", L"a:b", L".", static_cast<const wchar_t *>(nullptr)}) {
        EXPECT_FALSE(writeHostFile(name, "x", 1));
    }
    for (const wchar_t *name :
         {L"", L"file:x", L"missing", L"no\\such", static_cast<const wchar_t *>(nullptr)}) {
        EXPECT_FALSE(readHostFile(name, out));
    }
    EXPECT_EQ(out + s.health() + s.entries(), "as it washealthyfile:x ");
    s.put(L"settings", std::string(mib, 'x'));
    EXPECT_THROW(readHostFile(L"settings", out), std::runtime_error);
    state().scope = HostStoreScope::User;
    const std::wstring path = app_data_dir() + L"\\settings";
    s.m.make_file(path, private_list, std::string(mib, 'x'));
    EXPECT_FALSE(readHostFile(L"settings", out));
    s.m.make_file(path, private_list);
    for (const DWORD access : {GENERIC_READ, GENERIC_WRITE}) { // by somebody at the same time
        const unique_file other = opens(path, access);
        EXPECT_EQ(readHostFile(L"settings", out), access == GENERIC_READ);
    }
}

// A scanner that holds a file for a moment must not end all saving; one that keeps it must.
TEST(keystore, patience_and_deletion) {
    const struct {
        const char *call;
        DWORD error;
        int times, ms;
        const char *health;
    } rows[] = {
        {"MoveFileExW", 32, 10, 200, "healthy"},
        {"MoveFileExW", 5, 11, 240, "machine file write failed"}, // and 40 ms for the temporary file
        {"MoveFileExW", 3, 1, 40, "machine file write failed"},
        {"DeleteFileW", 5, 10, 200, "healthy"},
        {"DeleteFileW", 32, 11, 200, "machine password deletion failed"},
        {"DeleteFileW", 31, 1, 0,
         "machine password deletion failed"}, // and whether it is there can't be told
        {"weak", 0, 1, 0, "machine password ACL invalid"},
    };
    for (const auto &row : rows) {
        store_machine s(true);
        delete_password_blob(); // which isn't there
        const bool ok = std::string(row.health) == s.health();
        s.put(L"pairing_password", "old", row.call[0] == 'w' ? weak_list : private_list);
        const uint64_t start = s.m.now_ms();
        s.m.fail(row.call, row.error, 1, row.times);
        s.m.fail("GetFileAttributesW", 5, row.error == 31 ? 7 : row.error == 0 ? 1 : 99);
        if (row.call[0] == 'M') {
            s.m.fail("DeleteFileW", 32, 1, 2);
            EXPECT_EQ(write("new"), ok);
        } else {
            delete_password_blob();
            EXPECT_EQ(s.entries().empty(), ok);
        }
        EXPECT_EQ(s.health(), row.health) << row.call << row.error;
        EXPECT_EQ(s.m.now_ms() - start, static_cast<uint64_t>(row.ms)) << row.call << row.error;
        EXPECT_EQ(s.entries().find("tmp"), std::string::npos);
        failHostStore("now at the latest");
        s.put(L"pairing_password", "new");
        delete_password_blob();
        EXPECT_EQ(s.get(L"pairing_password"), "new");
    }
}

TEST(keystore, health_and_sealing) {
    for (const bool machine : {true, false}) {
        store_machine s(machine);
        const std::string empty = s.sealed("");
        std::vector<uint8_t> out = {7};
        EXPECT_TRUE(verifyHostProtection() && dpapi(false, {empty.begin(), empty.end()}, out) && out.empty());
        out = {7};
        EXPECT_TRUE(!dpapi(false, {7, 7}, out) && out == std::vector<uint8_t>{7});
        const std::string text = s.sealed("text");
        s.m.act_as(s.m.make_process(winsim::user_token(), L"C:\\other.exe"));
        EXPECT_EQ(dpapi(false, {text.begin(), text.end()}, out), machine)
            << "sealed to the machine, or to the user";
        s.m.act_as(s.process);
        for (const char *call : {"CryptProtectData", "CryptUnprotectData"}) {
            s.m.fail(call, 31);
            EXPECT_FALSE(verifyHostProtection());
        }
        s.m.on_secret([](const std::string &call, const void *plain, size_t) {
            call[5] == 'U' ? *static_cast<char *>(const_cast<void *>(plain)) = 'x' : 0;
        });
        EXPECT_FALSE(verifyHostProtection()) << "something else came back";
        failHostStore("first");
        failHostStore("second");
        EXPECT_EQ(s.health(), machine ? "first" : "healthy");
        const int calls = s.m.calls("BCryptGenRandom");
        EXPECT_EQ(write_private(s.path(L"x"), "x", 1), !machine);
        EXPECT_EQ(write("x"), !machine);
        EXPECT_EQ(s.m.calls("BCryptGenRandom") == calls, machine) << "a failed store leaves the disk alone";
        if (machine) {
            EXPECT_THROW(load_or_create_identity(nullptr), std::runtime_error);
        }
    }
}

// ---- configureHostStore

// The outcome of a start: "ok" or its message, which a second call gives too, without touching the disk.
std::string start(store_machine &s, HostStoreScope scope = HostStoreScope::Machine) {
    std::string error = "ok", again = "ok";
    const bool done = configureHostStore(scope, &error);
    EXPECT_EQ(done, error == "ok");
    EXPECT_EQ(s.health(), done ? "healthy" : error);
    s.m.fail_nth_call(0, 31);
    EXPECT_TRUE(configureHostStore(scope, &again) == done && configureHostStore(scope, nullptr) == done);
    EXPECT_EQ(again, error);
    EXPECT_EQ(s.m.failable_calls(), 0);
    return error;
}

TEST(keystore, first_start) {
    std::string error;
    {
        store_machine s(true, false);
        EXPECT_EQ(start(s), "ok");
        EXPECT_TRUE(hostStoreDirectory() == s.dir && app_data_dir() == s.dir && s.entries() == "identity ");
        EXPECT_EQ(s.m.descriptor(s.base) + s.m.descriptor(s.dir),
                  std::string(private_directory) + private_directory);
        EXPECT_FALSE(configureHostStore(HostStoreScope::User, &error) ||
                     configureHostStore(HostStoreScope::User, nullptr));
        EXPECT_EQ(error + s.health(), "Host store scope already configuredhealthy");
    }
    store_machine s(false, false);
    EXPECT_EQ(start(s, HostStoreScope::User), "ok");
    EXPECT_TRUE(!configureHostStore(HostStoreScope::Machine, &error) &&
                hostStoreScope() == HostStoreScope::User);
    EXPECT_TRUE(hostStoreDirectory() == s.dir && !s.m.exists(s.dir) && app_data_dir() == s.dir &&
                s.m.exists(s.dir));
    s.m.fail("SHGetKnownFolderPath", 31, 1, 2);
    EXPECT_TRUE(hostStoreDirectory().empty() && app_data_dir() == L".\\TarnGlider");
}

// Every call of a start fails in turn: refused, but for what a first start asks about items that aren't there.
TEST(keystore, every_failing_call_of_a_start) {
    for (const bool fresh : {true, false}) {
        std::string failed = "first", error;
        for (int nth = 1; !failed.empty(); nth++) {
            store_machine s(true, !fresh);
            if (!fresh) {
                s.put(L"identity", s.sealed(std::string(64, '7')));
                s.put(L"authorized_clients", "tarnglider-clients-v1\n");
                s.put(L"relays", s.sealed("tarnglider-relays-v1\n"));
                state().configured = false;
            }
            s.m.fail_nth_call(nth, 31);
            const bool done = configureHostStore(HostStoreScope::Machine, &error);
            failed = s.m.failed_call();
            EXPECT_EQ(s.health(), done ? "healthy" : error) << failed;
            EXPECT_EQ(configureHostStore(HostStoreScope::Machine, nullptr), done) << failed;
            EXPECT_TRUE(!done || fresh || failed.empty()) << failed;
            EXPECT_TRUE(!done || nth > 20) << failed;
        }
    }
}

TEST(keystore, steps_of_a_start) {
    using step = std::function<void(store_machine &)>;
    const auto file = [](const wchar_t *name, const char *list) -> step {
        return [=](store_machine &s) { s.put(name, "x", list); };
    };
    const auto fail = [](const char *call, DWORD error) -> step {
        return [=](store_machine &s) { s.m.fail(call, error); };
    };
    const auto raise = [](auto what) -> step {
        return [=](store_machine &s) {
            s.m.before_call([=](const std::string &call) { call == "FindFirstFileW" ? throw what : 0; });
        };
    };
    const char directory[] = "machine directory protection invalid",
               entry[] = "machine file protection invalid";
    const std::pair<std::string, step> rows[] = {
        {"ok", file(L"identity.tmp-0", private_list)},
        {"ok", fail("FindFirstFileW", ERROR_FILE_NOT_FOUND)},
        {"ProgramData unavailable", fail("SHGetKnownFolderPath", 31)},
        {directory, [](store_machine &s) { s.m.set_descriptor(s.base, weak_list); }},
        {directory, [](store_machine &s) { s.m.set_descriptor(s.dir, weak_list); }},
        {"machine directory enumeration failed", fail("FindFirstFileW", ERROR_PATH_NOT_FOUND)},
        {entry, fail("FindNextFileW", 31)},
        {entry, file(L".a", weak_list)}, // the first, one in between, the last
        {entry, file(L"settings", weak_list)},
        {entry, file(L"z", weak_list)},
        {entry, [](store_machine &s) { s.m.make_directory(s.path(L"d"), weak_list); }},
        {entry, [](store_machine &s) { s.m.make_junction(s.path(L"d"), private_list); }},
        {"machine file unreadable", [](store_machine &s) { s.put(L"settings", std::string(mib, 'x')); }},
        {"std::bad_alloc", raise(std::bad_alloc())},
        {"machine store configuration failed", raise(7)},
    };
    for (const auto &[message, prepare] : rows) {
        store_machine s(true);
        s.put(L"b", "");
        s.put(L"y", "");
        state().configured = false;
        prepare(s);
        EXPECT_EQ(start(s), message);
        s.m.before_call(nullptr);
    }
    // Each item is tried, in this order: with all of them damaged the first is named, and so on as they are mended.
    const wchar_t *const items[] = {L"settings", L"identity", L"authorized_clients", L"pairing_password",
                                    L"relays"};
    const char *const messages[] = {"settings malformed", "identity is unreadable or malformed",
                                    "authorized clients malformed", "pairing password unreadable",
                                    "relays unreadable"};
    for (size_t mended = 0; mended < 5; mended++) {
        store_machine s(true);
        for (size_t i = mended; i < 5; i++) {
            s.put(items[i], "damaged");
        }
        state().configured = false;
        EXPECT_EQ(start(s), std::string("machine ") + messages[mended]);
    }
}

} // namespace
