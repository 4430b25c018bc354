// The four switches on the simulated machine: every exit code, and what each leaves behind.
#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "winsim/machine.h"

int wmain(int argc, wchar_t **argv); // main.cpp's

namespace {

using texts = std::vector<std::string>;
const std::wstring programs = L"C:\\Program Files", folder = programs + L"\\TarnGlider";
const std::wstring program = folder + L"\\TarnGliderHostService.exe", name = L"TarnGliderHost";
const std::wstring base = L"C:\\ProgramData\\TarnGlider", root = base + L"\\Host", sub = root + L"\\sub";
const std::wstring deep = sub + L"\\deep", first = root + L"\\a", second = deep + L"\\b",
                   third = root + L"\\z";
const std::wstring store[] = {root, sub, deep, first, second, third};
const std::string private_list = "O:BAG:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
const std::string public_list = private_list + "(A;OICI;0x1200a9;;;BU)",
                  weak_list = private_list + "(A;OICI;FA;;;BU)";

// A machine with the program in its place, and a store beside another file.
struct rig {
    winsim::machine machine{0};
    DWORD admin = machine.make_process(winsim::admin_token(), program);
    DWORD other = machine.make_process(winsim::system_token(), L"C:\\other.exe"); // what a service would run

    explicit rig(DWORD state) {
        machine.act_as(admin);
        machine.make_directory(programs, public_list);
        machine.make_directory(folder, public_list);
        machine.make_file(program, public_list);
        machine.install_program(program, [this](const std::wstring &) {
            machine.fail("CreateEventW", ERROR_ACCESS_DENIED); // it starts, and stops at once
            return static_cast<DWORD>(run(L"", 1));
        });
        machine.make_directory(base, private_list);
        machine.make_file(base + L"\\beside", private_list);
        for (size_t i = 0; i < std::size(store); i++) { // three directories, three files
            i < 3 ? machine.make_directory(store[i], private_list)
                  : machine.make_file(store[i], private_list);
        }
        if (state != 0) {
            in_state(state);
        }
    }
    void in_state(DWORD state) {
        machine.service(name).status.dwCurrentState = state;
        machine.service(name).process = state == SERVICE_STOPPED ? 0 : other;
    }
    static int run(std::wstring argument, int count = 2) {
        wchar_t *arguments[] = {nullptr, argument.data(), argument.data()};
        return wmain(count, arguments);
    }
};
using step = std::function<void(rig &)>;

step failing(const char *call, int nth = 1, DWORD error = ERROR_ACCESS_DENIED) {
    return [=](rig &r) { r.machine.fail(call, error, nth); };
}
step weak(const std::wstring &path) {
    return [=](rig &r) { r.machine.set_descriptor(path, weak_list); };
}
step before(const std::string &call, int nth, const step &what) {
    return [=](rig &r) {
        r.machine.before_call([=, &r, seen = std::make_shared<int>(0)](const std::string &made) {
            if (made == call && ++*seen == nth) {
                what(r);
            }
        });
    };
}
const step unelevated = [](rig &r) { r.machine.set_token(r.admin, winsim::filtered_admin_token()); };
const step stops = [](rig &r) { r.in_state(SERVICE_STOPPED); };
const step worker = [](rig &r) {
    r.machine.make_process(winsim::user_token(), L"C:\\x\\tarnglidERHOSTworker.EXE");
};
const step junction = [](rig &r) { r.machine.make_junction(deep + L"\\c", private_list); };

constexpr wchar_t install[] = L"--install", uninstall[] = L"--uninstall", status[] = L"--status",
                  remove[] = L"--remove-data";
constexpr DWORD idle = SERVICE_STOPPED, busy = SERVICE_RUNNING, ending = SERVICE_STOP_PENDING;

// Each step is a machine of its own. Expected are: the exit code; "+" if the service is registered afterwards; the
// milliseconds it took; how many of the store's six items are gone; what was printed.
const struct {
    const wchar_t *argument;
    DWORD state; // of the service before; 0 for none
    const char *expected;
    std::vector<step> steps = {[](rig &) {}};
} rows[] = {
    {install, 0, "1 0 0 ", {unelevated}},
    {install, 0, "2 0 0 ", {weak(programs), weak(folder), weak(program), failing("GetModuleFileNameW")}},
    {install, 0, "3 0 0 ", {failing("OpenSCManagerW")}},
    {install, 0, "4 0 0 ", {failing("CreateServiceW")}},
    {install, 0, "4+0 0 ", {failing("ChangeServiceConfig2W"), failing("StartServiceW")}},
    {install, idle, "4+0 0 ", {failing("OpenServiceW"), failing("ChangeServiceConfigW")}},
    {install, 0, "0+0 0 "},
    {install, busy, "0+0 0 "},
    {uninstall, 0, "0 0 0 "},
    {uninstall, idle, "0 0 0 ", {failing("ControlService")}},
    {uninstall, idle, "0 100 0 ", {failing("QueryServiceStatus")}},
    {uninstall, busy, "0 9900 0 ", {before("Sleep", 99, stops)}},
    {uninstall, idle, "1+0 0 ", {unelevated}},
    {uninstall, idle, "2+0 0 ", {failing("OpenSCManagerW")}},
    {uninstall, idle, "3+0 0 ", {failing("OpenServiceW")}},
    {uninstall, idle, "4+0 0 ", {failing("DeleteService")}},
    {uninstall, busy, "4+10000 0 ", {before("Sleep", 100, stops)}},
    {status, busy, "0+0 0 service running; pid "},
    {status, ending, "0+0 0 service stopped; pid "},
    {status, idle, "0+0 0 service stopped; pid 0\n", {unelevated}},
    {status, busy, "1+0 0 ", {failing("OpenSCManagerW"), failing("SetDefaultDllDirectories")}},
    {status, busy, "2+0 0 service absent\n", {failing("OpenServiceW")}},
    {status, busy, "3+0 0 ", {failing("QueryServiceStatusEx")}},
    {remove, idle, "0+0 6 "},
    {remove, 0, "0 0 6 ", {[](rig &r) { r.machine.remove(root); }, [](rig &r) { r.machine.remove(base); }}},
    {remove, 0, "1 0 0 ", {unelevated, worker, failing("CreateToolhelp32Snapshot")}},
    {remove, 0, "1 0 0 ", {failing("Process32FirstW"), failing("Process32NextW")}},
    {remove, 0, "2 0 0 ", {failing("OpenSCManagerW")}},
    {remove, ending, "3+0 0 "},
    {remove, idle, "3+0 0 ", {failing("QueryServiceStatus")}},
    {remove, 0, "4 0 0 ", {failing("OpenServiceW")}},
    {remove, 0, "5 0 0 ", {failing("SHGetKnownFolderPath")}},
    {remove, 0, "6 0 0 ", {failing("GetFileAttributesW")}},
    {remove, 0, "7 0 0 ", {weak(root), weak(deep), weak(second), junction, failing("FindFirstFileW", 3)}},
    {remove, 0, "8 0 1 ", {failing("DeleteFileW", 2)}},
    {remove, 0, "8 0 2 ", {before("DeleteFileW", 1, weak(third))}},
    {remove, 0, "9 0 3 ", {failing("RemoveDirectoryW")}},
    {remove, 0, "9 0 4 ", {before("RemoveDirectoryW", 1, weak(sub))}},
    {remove, 0, "10 0 5 ", {before("RemoveDirectoryW", 2, weak(root)), failing("RemoveDirectoryW", 3)}},
    {remove, 0, "10 0 0 ", {failing("FindNextFileW"), failing("FindFirstFileW", 1, ERROR_FILE_NOT_FOUND)}},
    {L"--Status", 0, "1 0 0 "},
};

TEST(ServiceCommands, EachStepThatFailsHasItsExitCodeAndNothingElseIsTouched) {
    for (const auto &row : rows) {
        for (const step &what : row.steps) {
            SCOPED_TRACE(testing::Message() << "row " << &row - rows << " step " << &what - row.steps.data());
            rig r(row.state);
            what(r);
            const uint64_t start = r.machine.now_ms();
            testing::internal::CaptureStdout();
            std::string outcome = std::to_string(r.run(row.argument));
            r.machine.before_call(nullptr);
            outcome += r.machine.service_exists(name) ? "+" : " ";
            outcome += std::to_string(r.machine.now_ms() - start) + " ";
            const auto gone = [&](const std::wstring &path) { return !r.machine.exists(path); };
            outcome += std::to_string(std::ranges::count_if(store, gone));
            outcome += " " + testing::internal::GetCapturedStdout();
            const bool pid = std::string(row.expected).ends_with("pid ");
            EXPECT_EQ(outcome, row.expected + (pid ? std::to_string(r.other) + "\n" : ""));
            EXPECT_TRUE(r.machine.exists(program) &&
                        r.machine.exists(base + L"\\beside") == r.machine.exists(base));
            EXPECT_EQ(r.machine.open_handles(r.admin), texts());
            EXPECT_EQ(r.machine.breaches(), texts());
        }
    }
}

TEST(ServiceCommands, InstallRegistersOrUpdatesInPlace) {
    for (const bool existing : {false, true}) {
        rig r(0);
        if (existing) {
            r.machine.service(name) = {L"x", L"x", L"x", L"x", L"x", 0x20, 3, 0, 1, L"x", L"x"};
        }
        EXPECT_EQ(r.run(install), 0);
        const auto &facts = r.machine.service(name);
        const std::wstring account = existing ? L"LocalSystem" : L""; // which a new one has by default
        EXPECT_EQ(facts.display, L"TarnGlider Host");
        EXPECT_EQ(facts.path + facts.account, L"\"" + program + L"\"" + account);
        EXPECT_EQ(facts.group + facts.dependencies + facts.reboot_message + facts.command, L"");
        std::vector<DWORD> numbers = {facts.type, facts.start, facts.error_control, facts.reset_s};
        for (const SC_ACTION &action : facts.actions) {
            numbers.insert(numbers.end(), {static_cast<DWORD>(action.Type), action.Delay});
        }
        EXPECT_EQ(numbers, (std::vector<DWORD>{0x10, 2, 1, 86400, 1, 5000, 1, 15000, 1, 30000}));
    }
    rig r(0);
    EXPECT_EQ(r.run(status, 3), 1) << "one switch or none";
    EXPECT_EQ(r.run(status, 1), 2) << "the service manager didn't start this process";
    EXPECT_EQ(r.machine.dll_directories(), 0xA00u);
    EXPECT_EQ(r.run(status), 2);
    EXPECT_EQ(r.machine.dll_directories(), 0x800u) << "a switch may be given in a folder full of downloads";
    r.machine.install_program(program,
                              [](const std::wstring &) { return static_cast<DWORD>(rig::run(L"", 1)); });
    EXPECT_EQ(r.run(install), 0);
    r.machine.run_for(1000);
    EXPECT_EQ(r.machine.service(name).status.dwCurrentState, busy);
    EXPECT_EQ(r.run(uninstall), 0) << "a service that runs is told to stop";
}

} // namespace
