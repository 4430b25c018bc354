// The log on the simulated machine: what a line looks like, which file it is in, and when a machine log is refused. The
// store's part is played here: the scope, and the list of what it was told.
#include <stdio_ext.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "handles.h"
#include "keystore.h"
#include "log.h"
#include "winsim/machine.h"

using namespace host_service;
using keystore::HostStoreScope;
using texts = std::vector<std::string>;

static HostStoreScope scope;
static texts failures;

HostStoreScope keystore::hostStoreScope() { return scope; }
void keystore::failHostStore(const std::string &message) { failures.push_back(message); }

namespace {

const std::wstring folder = L"C:\\Log", path = folder + L"\\host.log", old_path = path + L".1";
const char private_list[] = "O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)";
const char weak_list[] = "O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BU)";
constexpr size_t full = 10485759; // bytes that a log may have before it is rotated

struct Log : testing::Test {
    winsim::machine machine{7};
    DWORD process = machine.make_process(winsim::system_token(), L"C:\\service.exe");

    Log() {
        machine.act_as(process);
        machine.make_directory(folder, private_list);
        scope = HostStoreScope::Machine;
        failures.clear();
    }
    ~Log() override {
        log_close();
        EXPECT_EQ(machine.open_handles(process), texts());
        EXPECT_EQ(machine.breaches(), texts());
    }
    static std::string line(const std::string &text) { return "[2026-02-28 20:53:20.000] " + text + "\r\n"; }
    std::string banner(const std::string &kind = "tray") const {
        return "---- TarnGlider (Windows) started (pid " + std::to_string(process) + ", " + kind + ") ----";
    }
    void open_filled(size_t size) {
        log_close();
        machine.make_file(path, private_list, std::string(size, 'b'));
        log_open(false, folder);
    }
};

TEST_F(Log, LinesAreStampedCutAndKeptAcrossOpenings) {
    log_open(false, folder);
    hlog("%s", std::string(3000, 'x').c_str());
    log_close();
    hlog("lost");
    testing::internal::CaptureStdout();
    log_open(true, folder);
    hsay("%s", "plain");
    machine.run_for(61234);
    hlog("%d of %s", 7, "nine");
    hlog("no text %ls", L"\u00E9"); // in the locale of C
    EXPECT_EQ(__fpending(stdout), 0u);
    for (const DWORD access : {GENERIC_READ, FILE_APPEND_DATA, DELETE}) { // others may, while it is open
        EXPECT_TRUE(unique_file(CreateFileW(path.c_str(), access, 7, nullptr, OPEN_EXISTING, 0, nullptr)));
    }
    EXPECT_EQ(machine.read(path),
              line(banner()) + line(std::string(2047, 'x')) + line(banner("console")) + line("plain") +
                  "[2026-02-28 20:54:21.234] 7 of nine\r\n[2026-02-28 20:54:21.234] \r\n");
    EXPECT_EQ(machine.descriptor(path), private_list);
    log_close();
    hlog("echoed");

    scope = HostStoreScope::User;
    machine.set_token(process, winsim::user_token());
    machine.fail("SHGetKnownFolderPath", ERROR_ACCESS_DENIED);
    log_open(false);
    EXPECT_EQ(log_file_path(), L".\\TarnGlider\\host.log");
    log_open(false);
    EXPECT_TRUE(log_file_path().ends_with(L"\\AppData\\Local\\TarnGlider\\host.log"));
    EXPECT_TRUE(machine.read(log_file_path()).ends_with(banner() + "\r\n"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[20:53:20.000] " + banner("console") +
                  "\nplain\n[20:54:21.234] 7 of nine\n[20:54:21.234] \n[20:54:21.234] echoed\n");
}

TEST_F(Log, TheLineThatFillsTheFileIsItsLastAndAFailedRenameIsTriedAgain) {
    const size_t ours = line(banner()).size() + line("last").size();
    for (const size_t over : {0u, 1u}) {
        machine.make_file(old_path, private_list, "older");
        open_filled(full + over - ours);
        machine.fail("GetFileSizeEx", ERROR_ACCESS_DENIED); // of the next file
        hlog("last");
        EXPECT_EQ(machine.read(over ? old_path : path).size(), full + over);
        EXPECT_EQ(machine.read(over ? path : old_path), over ? "" : "older");
        hlog("next");
        EXPECT_EQ(machine.read(path), over ? line("next") : "") << "the new file's size counts from 0";
    }
    machine.fail("MoveFileExW", ERROR_ACCESS_DENIED, 1, 2);
    open_filled(full);
    hlog("second");
    EXPECT_EQ(machine.read(path), std::string(full, 'b') + line(banner()) + line("second"));
    machine.fail("WriteFile", ERROR_DISK_FULL); // a rotation that is due doesn't hang on the write
    hlog("lost");
    EXPECT_EQ(machine.read(path), "");
    EXPECT_EQ(machine.descriptor(path), private_list);

    open_filled(full - 200);
    machine.set_descriptor(path, weak_list);
    machine.fail("MoveFileExW", ERROR_ACCESS_DENIED);
    hlog("%0200d", 0);
    const std::string last = machine.read(path);
    hlog("lost");
    EXPECT_EQ(machine.read(path), last);
    EXPECT_EQ(failures, texts{"machine log protection invalid"}) << "every rotation looks at the file again";
}

TEST_F(Log, AMachineLogThatIsNotSafeFailsTheStoreAndStaysClosed) {
    const struct {
        const char *call, *list, *expected;
    } rows[] = {
        {"", weak_list, "machine log protection invalid"},
        {"", "O:BAG:BAD:(A;;FA;;;SY)", "machine log protection invalid"},  // open to inheritance
        {"GetFileAttributesW", nullptr, "machine log protection invalid"}, // whether it exists can't be told
        {"ConvertStringSecurityDescriptorToSecurityDescriptorW", nullptr, "machine log security unavailable"},
        {"CreateFileW", private_list, "machine log open failed"},
    };
    for (const auto &row : rows) {
        for (const bool machine_scope : {true, false}) {
            scope = machine_scope ? HostStoreScope::Machine : HostStoreScope::User;
            failures.clear();
            machine.remove(path);
            if (row.list != nullptr) {
                machine.make_file(path, row.list);
            }
            machine.fail(row.call, ERROR_ACCESS_DENIED);
            log_open(false, folder);
            machine.clear_failures();
            hlog("line");
            EXPECT_EQ(failures, machine_scope ? texts{row.expected} : texts()) << row.call;
            EXPECT_EQ(machine.exists(path) && !machine.read(path).empty(),
                      !machine_scope && std::string(row.call) != "CreateFileW")
                << row.call;
        }
    }
    scope = HostStoreScope::Machine;
    log_open(false, L"C:\\missing");
    EXPECT_EQ(failures, texts{"machine log open failed"}) << "and isn't taken for an unsafe one";
    machine.make_file(old_path, private_list);
    machine.make_link(path, private_list, old_path);
    log_open(false, folder);
    EXPECT_EQ(machine.read(old_path), "") << "no link is followed, in no scope";
}

TEST_F(Log, NothingIsLostAcrossARotationByManyThreads) {
    open_filled(full - 5000);
    std::vector<std::thread> threads;
    for (int writer = 0; writer < 4; writer++) {
        threads.emplace_back([writer] {
            for (int i = 0; i < 40; i++) {
                hlog("line %d.", writer * 40 + i);
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(machine.read(path).empty());
    std::string all = machine.read(old_path) + machine.read(path);
    for (int i = 0; i < 160; i++) {
        const std::string text = "] line " + std::to_string(i) + ".\r\n";
        EXPECT_TRUE(all.find(text) != std::string::npos && all.find(text) == all.rfind(text)) << text;
    }
}

} // namespace
