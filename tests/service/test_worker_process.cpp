// The launch of the worker: what must stop it, how the worker is placed, and that nothing is left of a launch that
// failed or of a worker that was stopped.
#include <new>

#include <gtest/gtest.h>

#include "service/worker_process.h"
#include "support/winsim/machine.h"

namespace {

using namespace host_service;

constexpr char safe[] = "O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)(A;;0x1200a9;;;BU)";
constexpr char weak[] = "O:BAG:BAD:P(A;;FA;;;SY)(A;;0x2;;;BU)"; // users may write, or add files
const std::wstring folder = L"C:\\Program Files\\Tarn";         // a blank, for the quotation marks
const std::wstring image = folder + L"\\TarnGliderHostWorker.exe";
const std::wstring other = folder + L"\\OTHER.DLL", text = folder + L"\\readme.txt";
const std::wstring codec = folder + L"\\avcodec-62.dll", util = folder + L"\\avutil-60.dll";
const std::wstring scale = folder + L"\\swscale-9.dll", resample = folder + L"\\swresample-6.dll";
constexpr wchar_t channel[] = L"\\\\.\\pipe\\a";

// A machine where a launch succeeds.
struct house {
    winsim::machine m;
    DWORD service = m.make_process(winsim::system_token(), folder + L"\\TarnGliderHostService.exe");
    int runs = 0; // workers that ran their first instruction
    winsim::program stay = [this](const std::wstring &) { return runs++, Sleep(INFINITE), 0u; };
    WorkerProcess worker;

    house() {
        m.act_as(service);
        m.set_descriptor(L"C:\\", safe);
        m.make_directory(L"C:\\Program Files", safe);
        m.make_directory(folder, safe);
        for (const std::wstring &path : {image, other, text, codec, util, scale, resample}) {
            m.make_file(path, safe);
        }
        m.install_program(image, stay);
    }
    DWORD id() const { return m.processes_of(image).at(0); }

    void expect_nothing_left() {
        EXPECT_FALSE(worker.alive() || worker.process || worker.job || worker.session);
        EXPECT_TRUE(m.processes_of(image).empty() && m.open_handles(service).empty() && m.breaches().empty());
    }
};

TEST(worker_process, files_that_stop_a_launch) {
    using winsim::machine;
    const struct {
        const char *when;                                                   // before which call
        void (machine::*change)(const std::wstring &, const std::string &); // null: it is removed
        const char *sddl;
        bool result;
        std::vector<std::wstring> paths;
    } rows[] = {
        {"GetModuleFileNameW", nullptr, "", false, {codec, util, scale, resample, image}},
        {"GetModuleFileNameW", &machine::set_descriptor, weak, false, {resample, other, image, folder}},
        {"GetModuleFileNameW", &machine::set_descriptor, weak, true, {text, L"C:\\Program Files"}},
        {"GetModuleFileNameW", &machine::set_descriptor, "O:BUD:P", false, {L"C:\\Program Files"}},
        {"GetModuleFileNameW", &machine::make_directory, safe, false, {folder + L"\\x.dll"}},
        {"GetModuleFileNameW", &machine::make_junction, safe, false, {folder + L"\\x.dll"}},
        {"FindFirstFileW", &machine::set_descriptor, weak, false, {codec}}, // after its own check
    };
    for (const auto &row : rows) {
        for (const std::wstring &path : row.paths) {
            house h;
            h.m.before_call([&](const std::string &call) {
                if (call == row.when) {
                    row.change ? (h.m.*row.change)(path, row.sddl) : h.m.remove(path);
                }
            });
            EXPECT_EQ(h.worker.start(2, channel), row.result) << path;
            h.m.before_call(nullptr);
            EXPECT_EQ(h.m.calls("AdjustTokenPrivileges") > 0, row.result) << path;
            h.worker.stop();
            h.expect_nothing_left();
        }
    }
}

TEST(worker_process, who_may_launch_and_where) {
    for (const wchar_t *lacking :
         {L"SYSTEM", SE_TCB_NAME, SE_ASSIGNPRIMARYTOKEN_NAME, SE_INCREASE_QUOTA_NAME}) {
        house h;
        winsim::token_facts who = winsim::system_token();
        who.user = who.privileges.erase(lacking) ? who.user : "BA";
        h.m.set_token(h.service, who);
        EXPECT_FALSE(h.worker.start(2, channel)) << lacking;
        EXPECT_EQ(h.m.calls("DuplicateTokenEx"), 0) << lacking;
    }
    for (DWORD session : {0u, 0xFFFFFFFFu}) {
        house h;
        ASSERT_TRUE(h.worker.start(0xFFFFFFFE, channel));
        int looks = h.m.calls("GetFileAttributesW");
        EXPECT_FALSE(h.worker.start(session, channel) || valid_session(session));
        EXPECT_EQ(h.m.calls("GetFileAttributesW"), looks);
        h.expect_nothing_left(); // the earlier worker ends all the same
    }
}

TEST(worker_process, placed_as_told) {
    house h;
    h.m.before_call([&](const std::string &call) {
        if (call == "AssignProcessToJobObject" || call == "ResumeThread") {
            h.m.run_for(1000);
            EXPECT_EQ(h.runs, 0) << "ran before " << call;
        }
    });
    ASSERT_TRUE(h.worker.start(3, channel));
    h.m.before_call(nullptr);
    h.m.run_for(1);
    EXPECT_TRUE(h.runs == 1 && h.worker.alive() && h.worker.session == 3);
    EXPECT_EQ(h.m.open_handles(h.service).size(), 2u) << "the process and its job alone";
    const DWORD id = h.id();
    const winsim::launch_facts launch = h.m.launch_of(id);
    EXPECT_TRUE(launch.job_first);
    EXPECT_EQ(h.m.session_of(id), 3u);
    EXPECT_EQ(launch.command_line, L"\"" + image + L"\" --supervisor " + std::to_wstring(h.service) +
                                       L" --channel \"\\\\.\\pipe\\a\"");
    EXPECT_EQ(launch.directory, folder);
    EXPECT_EQ(launch.desktop, L"winsta0\\default");
    EXPECT_EQ(launch.flags, 0x08000404u) << "suspended, Unicode block, no window";
    EXPECT_FALSE(launch.environment.empty());

    new (&h.worker) WorkerProcess; // a crash of the service runs no destructor, yet takes the worker along
    h.m.act_as(h.m.make_process(winsim::user_token(), L"C:\\x.exe"));
    h.m.end_process(h.service);
    h.m.run_for(1);
    EXPECT_FALSE(h.m.running(id));
}

TEST(worker_process, ends) {
    house h;
    ASSERT_TRUE(WorkerProcess().start(1, channel)); // and destroyed
    h.worker.stop();                                // of an empty one
    h.expect_nothing_left();
    for (bool by_stop : {true, false}) {
        ASSERT_TRUE(h.worker.start(1, channel));
        const DWORD id = h.id();
        EXPECT_TRUE(by_stop || h.worker.start(2, channel)) << "a start ends the earlier one";
        EXPECT_EQ(h.m.running(id), by_stop);
        h.worker.stop();
        EXPECT_EQ(h.m.exit_code(id), 0u);
        h.expect_nothing_left();
    }
    h.m.install_program(image, [](const std::wstring &) { return 7u; });
    ASSERT_TRUE(h.worker.start(1, channel));
    h.m.run_for(10);
    EXPECT_TRUE(!h.worker.alive() && h.worker.process) << "one that left by itself stays until stop";
    h.worker.stop();
    DWORD deaf = h.m.spawn(winsim::system_token(), L"C:\\x.exe", h.stay);
    h.worker.process = OpenProcess(SYNCHRONIZE, FALSE, deaf);
    const uint64_t before = h.m.now_ms();
    h.worker.stop();
    EXPECT_EQ(h.m.now_ms() - before, 5000u) << "one that doesn't end is given up";
    h.expect_nothing_left();
}

// Whatever fails: no worker, no handle, not one instruction. One that was made already ends with 1, and is waited for.
TEST(worker_process, fails_closed) {
    int half_made = 0;
    for (int nth = 1, reached = true; reached; nth++) {
        house h;
        DWORD made = 0;
        h.m.before_call([&](const std::string &call) { made = call == "TerminateProcess" ? h.id() : made; });
        h.m.fail_nth_call(nth, ERROR_GEN_FAILURE);
        bool started = h.worker.start(2, channel);
        h.m.before_call(nullptr);
        reached = !h.m.failed_call().empty();
        EXPECT_EQ(started, !reached) << h.m.failed_call() << ", call " << nth;
        EXPECT_TRUE(started || h.runs == 0) << h.m.failed_call();
        half_made += made != 0 && h.m.exit_code(made) == 1 && h.m.calls("WaitForSingleObject") == 1;
        h.m.clear_failures();
        started ? h.worker.stop() : void();
        h.expect_nothing_left();
    }
    EXPECT_EQ(half_made, 2) << "not put into the job, not woken";
}

TEST(worker_process, names) {
    const std::wstring longest = L"C:\\" + std::wstring(32762, L'd'); // with "\\x" 32767 characters
    const std::wstring programs[] = {text, L"C:\\x", L"x", longest + L"\\x", longest + L"\\xx"};
    const std::wstring directories[] = {folder, L"C:", L"", longest, L""};
    int high = 0; // digits above 7
    for (size_t i = 0; i < 5; i++) {
        winsim::machine m(i);
        m.act_as(m.make_process(winsim::system_token(), programs[i]));
        EXPECT_EQ(executable_directory(), directories[i]);
        std::wstring name = worker_channel_name();
        EXPECT_EQ(name.substr(0, 33), L"\\\\.\\pipe\\TarnGliderHostWorker-v1-");
        EXPECT_TRUE(name.size() == 65 && name.find_first_not_of(L"0123456789abcdef", 33) == name.npos);
        EXPECT_NE(worker_channel_name(), name);
        high |= (name[63] > L'7') << 1 | (name[64] > L'7');
        m.fail("GetModuleFileNameW", ERROR_GEN_FAILURE);
        m.fail("BCryptGenRandom", ERROR_GEN_FAILURE);
        EXPECT_EQ(executable_directory() + worker_channel_name(), L"");
    }
    EXPECT_EQ(high, 3) << "in both halves of a byte";
}

} // namespace
