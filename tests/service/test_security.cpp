// The trust predicates: each row that is refused is a door that an ordinary user must find shut, each that passes one
// that the service needs open to start at all.
#include <functional>

#include <gtest/gtest.h>

#include "service/security.h"
#include "support/winsim/machine.h"

namespace {

using namespace host_service;

constexpr char safe[] = "O:BAG:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
constexpr char weak[] = "O:BAG:BAD:P(A;;FA;;;SY)(A;;SD;;;BU)"; // users may delete it: refused by every kind
const wchar_t *const levels[] = {L"C:\\", L"C:\\dir", L"C:\\dir\\sub", L"C:\\dir\\sub\\file"};
const std::wstring file = levels[3];

// A machine with a file three levels deep, as a service that runs as SYSTEM sees it.
struct house {
    winsim::machine m;
    DWORD service = m.make_process(winsim::system_token(), L"C:\\dir\\service.exe");

    house() {
        m.act_as(service);
        m.set_descriptor(levels[0], safe);
        m.make_directory(levels[1], safe);
        m.make_directory(levels[2], safe);
        m.make_file(file, safe);
    }
    ~house() { EXPECT_TRUE(m.open_handles(service).empty() && m.breaches().empty()); }
};

// The kinds that accept the path, as letters: private, read-only, ancestor.
std::string accepted(const std::wstring &path) {
    std::string kinds = protected_path(path, true) ? "p" : "";
    kinds += protected_path(path, false) ? "r" : "";
    return kinds + (check_path(path, PathKind::ancestor) ? "a" : "");
}

TEST(security, descriptors) {
    const std::pair<const char *, std::vector<const char *>> rows[] = {
        // SYSTEM owns; users are denied; nobody is admitted.
        {"pra", {safe, "O:SYD:P(A;;FA;;;SY)", "O:BAD:P(D;;FA;;;BU)(A;;FA;;;SY)", "O:BAD:P"}},
        // The installer; inheriting; read and execute; nothing granted; for what is below alone.
        {"ra", {"O:TID:P(A;;FA;;;SY)", "O:BAD:P(A;;FA;;;TI)", "O:BAD:AI(A;ID;0x1200a9;;;BU)", "O:BAD:"}},
        {"ra", {"O:BAD:P(A;;0x1200a9;;;BU)", "O:BAD:P(A;;0x0;;;BU)", "O:BAD:P(A;OICIIO;FA;;;BU)"}},
        // Strangers own, nobody owns; full rights first or last in the list; another service, one digit off.
        {"", {"O:BUD:P(A;;FA;;;SY)", "O:S-1-5-19D:P(A;;FA;;;SY)", "D:P(A;;FA;;;SY)"}},
        {"", {"O:BAD:P(A;;FA;;;WD)(A;;FA;;;SY)", "O:BAD:P(D;;FA;;;SY)(A;OICIIO;FA;;;SY)(A;OICI;FA;;;WD)"}},
        {"", {"O:BAD:P(A;;FA;;;S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478465)"}},
        // Entries of other types; a null list, no list.
        {"", {"O:BAD:P(AU;;FA;;;SY)", "O:BAD:P(OA;;FA;;;SY)", "O:BAD:NO_ACCESS_CONTROL", "O:BA"}},
    };
    house h;
    for (const auto &[kinds, descriptors] : rows) {
        for (const char *descriptor : descriptors) {
            h.m.set_descriptor(file, descriptor);
            EXPECT_EQ(accepted(file), kinds) << descriptor;
        }
    }
    for (int bit = 0; bit < 32; bit++) { // each right alone
        char sddl[64];
        std::snprintf(sddl, sizeof sddl, "O:BAD:P(A;;0x%x;;;BU)", 1u << bit);
        h.m.set_descriptor(file, sddl);
        std::string kinds = 0x500D0156u >> bit & 1 ? "" : "r";
        EXPECT_EQ(accepted(file), kinds + (0x500D0040u >> bit & 1 ? "" : "a")) << sddl;
    }
}

TEST(security, paths) {
    const std::pair<const char *, std::vector<std::wstring>> rows[] = {
        {"passes", {L"C:\\", L"C:\\dir\\", L"C:\\dir\\sub\\file", L"C:\\dir\\missing", L"C:\\dir\\..."}},
        {"no folder", {L"C:\\missing\\x", L"C:\\missing\\"}},
        {"unseen",
         {L"", L"C:", L"CD\\dir", L"C:dir", L"dir\\sub", L"CC:\\dir", L"\\\\server\\share\\x",
          L"\\\\?\\C:\\dir"}},
        {"unseen", {L"C:/dir", L"C:\\dir/sub", L"C:\\\\dir", L"C:\\\\", L"C:\\dir\\\\sub", L"C:\\dir\\\\"}},
        {"unseen", {L"C:\\.\\dir", L"C:\\dir\\.", L"C:\\dir\\..\\dir", L"C:\\dir\\..", L"C:\\..\\dir"}},
    };
    for (const auto &[what, paths] : rows) {
        for (const std::wstring &path : paths) {
            house h;
            const bool passes = *what == 'p';
            EXPECT_TRUE(no_reparse_components(path) == passes && protected_ancestors(path) == passes) << path;
            EXPECT_EQ(h.m.calls("GetFileAttributesW") == 0, *what == 'u') << path << ": refused outright";
            EXPECT_EQ(accepted(path), passes && h.m.exists(path) ? "pra" : "") << path;
            EXPECT_EQ(create_private_directory(path), passes) << path;
        }
    }
    house h;
    h.m.fail("GetFileAttributesW", ERROR_PATH_NOT_FOUND, 2); // the other way to say missing
    EXPECT_TRUE(no_reparse_components(levels[2]));
}

// A weak folder anywhere above refuses, and a junction anywhere at all; what lies above it stays usable.
TEST(security, every_component) {
    for (size_t level = 0; level < 4; level++) {
        house h;
        h.m.set_descriptor(levels[level], weak);
        EXPECT_EQ(protected_ancestors(file), level == 3) << level;
        EXPECT_EQ(protected_ancestors(L"C:\\d"), level != 0) << level;
        EXPECT_TRUE(protected_ancestors(levels[0])) << "a root has nothing above it";
        level > 0 ? h.m.remove(levels[level]) : void();
        for (size_t at = 1; at < 4 && level > 0; at++) {
            if (at >= level) {
                at == level ? h.m.make_junction(levels[at], safe) : h.m.make_directory(levels[at], safe);
            }
            EXPECT_EQ(no_reparse_components(levels[at]), at < level);
            EXPECT_EQ(protected_ancestors(levels[at]), at < level);
            EXPECT_EQ(accepted(levels[at]) == "pra" && create_private_directory(levels[at]), at < level);
        }
    }
}

TEST(security, private_directory) {
    const struct {
        const char *when, *sddl; // before which call somebody else makes it
        bool result;
    } rows[] = {{"", safe, true},
                {"GetFileAttributesW", safe, true},
                {"GetFileAttributesW", "O:BAD:(A;;FA;;;BA)", false},
                {"CreateDirectoryW", weak, false}};
    for (const auto &[when, sddl, result] : rows) {
        house h;
        h.m.before_call([&, by = when, list = sddl](const std::string &call) {
            if (call == by && !h.m.exists(L"C:\\dir\\store")) {
                h.m.make_directory(L"C:\\dir\\store", list);
            }
        });
        EXPECT_EQ(create_private_directory(L"C:\\dir\\store"), result) << when;
        h.m.before_call(nullptr);
        EXPECT_EQ(h.m.descriptor(L"C:\\dir\\store"), sddl) << "made exactly so, never repaired";
        h.m.fail("CreateDirectoryW", ERROR_ACCESS_DENIED);
        EXPECT_FALSE(create_private_directory(L"C:\\dir\\store")) << "only that it exists is no failure";
    }
}

TEST(security, processes) {
    const struct {
        winsim::token_facts who;
        bool system, admin, privileged;
    } rows[] = {
        {winsim::system_token(3), true, true, true},
        {{"SY", {}, 0, false, {}}, true, false, false},
        {{"S-1-5-19", {"BA"}, 0, true, {}}, false, true, false}, // LocalService among the administrators
        {winsim::filtered_admin_token(), false, false, false},   // before the consent
        {{"S-1-5-21-1", {"BA"}, 1, false, {}}, false, false, false},
        {{"S-1-5-21-1", {"BU"}, 1, true, {}}, false, false, false},
    };
    for (const auto &row : rows) {
        house h;
        h.m.set_token(h.service, row.who);
        DWORD session = 77;
        EXPECT_EQ(system_process(GetCurrentProcess(), &session), row.system) << row.who.user;
        EXPECT_EQ(session, row.system ? row.who.session : 77);
        EXPECT_EQ(elevated_admin_process(GetCurrentProcess()), row.admin) << row.who.user;
        SetLastError(ERROR_NOT_ALL_ASSIGNED); // of some earlier call
        EXPECT_EQ(enable_privilege(L"SeTcbPrivilege"), row.privileged) << row.who.user;
    }
}

// Whichever of its so many calls fails, the answer is no and nothing stays behind.
TEST(security, fails_closed) {
    const std::pair<int, std::function<bool()>> predicates[] = {
        {7, [] { return protected_path(file, true); }},
        {7, [] { return protected_path(file, false); }},
        {19, [] { return protected_ancestors(file); }},
        {10, [] { return create_private_directory(L"C:\\dir\\store"); }},
        {3, [] { return system_process(GetCurrentProcess()); }},
        {5, [] { return elevated_admin_process(GetCurrentProcess()); }},
        {3, [] { return enable_privilege(L"SeTcbPrivilege"); }},
    };
    for (const auto &[calls, predicate] : predicates) {
        for (int nth = 1; nth <= calls + 1; nth++) {
            house h;
            h.m.fail_nth_call(nth, ERROR_GEN_FAILURE);
            EXPECT_EQ(predicate(), nth > calls) << h.m.failed_call() << ", call " << nth << " of " << calls;
        }
    }
}

} // namespace
