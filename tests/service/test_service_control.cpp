// The service under the simulated service manager: what it reports, in which order, and what ends it. Supervisor and
// store are played here, each by its answer and the time it takes.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "keystore.h"
#include "service_control.h"
#include "supervisor.h"
#include "winsim/machine.h"

struct play {
    DWORD stop_ms = 0; // that the supervisor takes to end
    DWORD result = 0;
    bool gives_up = false; // ends on its own
    DWORD store_ms = 0;    // that the store's checks take
    bool store_fails = false;
};
static play played;
static int wakes; // seen by the supervisor, of which there is one

DWORD host_service::supervise(HANDLE stop, HANDLE wake) {
    while (!played.gives_up && WaitForSingleObject(stop, 10) == WAIT_TIMEOUT) {
        wakes += WaitForSingleObject(wake, 0) == WAIT_OBJECT_0;
    }
    EXPECT_TRUE(played.gives_up || WaitForSingleObject(stop, 0) == WAIT_OBJECT_0) << "for all its threads";
    Sleep(played.stop_ms);
    return played.result;
}

namespace keystore {
bool configureHostStore(HostStoreScope scope, std::string *) {
    Sleep(played.store_ms);
    return scope == HostStoreScope::Machine && !played.store_fails;
}
std::wstring hostStoreDirectory() { return L"C:\\Store"; }
HostStoreScope hostStoreScope() { return HostStoreScope::Machine; }
void failHostStore(const std::string &) {}
} // namespace keystore

namespace {

using texts = std::vector<std::string>;
using controls = std::vector<DWORD>;
const std::wstring name = L"TarnGliderHost";

// Reports: type, state, controls, exit code, service's own exit code, check point, wait hint.
const std::string starting = "16/2/0/0/0/1/10000 ", running = starting + "16/4/133/0/0/0/0 ";
const std::string stopping = running + "16/3/0/0/0/1/5000 ", ended = "16/1/0/0/0/0/0 ";
const std::string refused = starting + "16/1/0/5/0/0/0 ", failed = "16/1/0/1066/0/0/0 ";

constexpr DWORD stop = SERVICE_CONTROL_STOP, session = SERVICE_CONTROL_SESSIONCHANGE, other = 128;

const struct {
    const char *why;
    std::string reports;
    controls sent = {}; // the first 50 ms after the start, the others as much apart
    play plan = {};
    const char *failing = ""; // a call of the service's, and which one of its name
    int nth = 1;
} rows[] = {
    {"stopped", stopping + ended, {stop}},
    {"shut down", stopping + ended, {other, session, SERVICE_CONTROL_SHUTDOWN}},
    {"slow", stopping + "16/3/0/0/0/2/5000 16/3/0/0/0/3/5000 " + ended, {stop}, {2980}},
    {"stopped with a result", stopping + "16/3/0/0/0/2/5000 " + failed, {stop}, {1010, 7}},
    {"no admin pipe", running + failed, {}, {0, 2, true}},
    {"stopped while it starts", stopping + ended, {stop}, {0, 0, false, 300}},
    {"no store", refused, {}, {0, 0, false, 0, true}},
    {"no stop event", refused, {}, {}, "CreateEventW", 1},
    {"no wake event", refused, {}, {}, "CreateEventW", 2},
    {"not SYSTEM", refused, {}, {}, "OpenProcessToken"},
    {"no event for the end", stopping + ended, {}, {}, "CreateEventW", 3},
    {"no wait", stopping + ended, {}, {}, "WaitForMultipleObjects"},
    {"no log", stopping + ended, {stop}, {}, "CreateFileW"},
    {"no handler", "", {}, {}, "RegisterServiceCtrlHandlerExW"},
};

TEST(ServiceControl, EveryLifeIsReportedStepByStep) {
    for (const auto &row : rows) {
        SCOPED_TRACE(row.why);
        winsim::machine machine{0};
        played = row.plan;
        wakes = 0;
        texts left;                // the service's handles when its dispatcher has returned
        std::ptrdiff_t events = 0; // that were open when it last reported
        machine.make_directory(L"C:\\Store", "O:BAG:BAD:P(A;;FA;;;SY)");
        machine.service(name).path = L"\"C:\\service.exe\"";
        machine.install_program(L"C:\\service.exe", [&](const std::wstring &) {
            machine.fail(row.failing, ERROR_ACCESS_DENIED, row.nth);
            machine.before_call([&](const std::string &call) {
                const texts open = machine.open_handles(GetCurrentProcessId());
                EXPECT_TRUE(call != "CreateFileW" || machine.service(name).reports.size() == 1) << "it runs";
                events = call == "SetServiceStatus" ? std::count(open.begin(), open.end(), "event") : events;
            });
            const int code = host_service::run_service();
            Sleep(1); // the service's own thread is at its end
            left = machine.open_handles(GetCurrentProcessId());
            return static_cast<DWORD>(code);
        });
        machine.act_as(machine.make_process(winsim::admin_token(), L"C:\\admin.exe"));
        SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        EXPECT_TRUE(StartServiceW(OpenServiceW(manager, name.c_str(), SERVICE_ALL_ACCESS), 0, nullptr));
        for (const DWORD control : row.sent) {
            machine.run_for(50);
            machine.control_service(name, control);
        }
        machine.run_for(5000);
        std::string reports;
        for (const SERVICE_STATUS &one : machine.service(name).reports) {
            for (const DWORD field : {one.dwServiceType, one.dwCurrentState, one.dwControlsAccepted,
                                      one.dwWin32ExitCode, one.dwServiceSpecificExitCode, one.dwCheckPoint}) {
                reports += std::to_string(field) + "/";
            }
            reports += std::to_string(one.dwWaitHint) + " ";
        }
        EXPECT_EQ(reports, row.reports);
        EXPECT_EQ(left, texts());
        const DWORD process = machine.service(name).process;
        EXPECT_EQ(machine.exit_code(process), row.reports.empty() ? STILL_ACTIVE : 0);
        if (row.reports.starts_with(running)) {
            EXPECT_EQ(events, 2) << "closed before the last report";
            const bool log = machine.exists(L"C:\\Store\\host.log");
            EXPECT_EQ(log, std::string(row.failing) != "CreateFileW");
            EXPECT_TRUE(!log || machine.read(L"C:\\Store\\host.log").find(", tray)") != std::string::npos);
        }
        EXPECT_EQ(wakes, std::count(row.sent.begin(), row.sent.end(), session));
        EXPECT_EQ(machine.breaches(), texts());
    }
}

} // namespace
