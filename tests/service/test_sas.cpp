// Secure attention on the simulated machine: who gets it, and in which order the conditions are looked at.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sas.h"
#include "winsim/machine.h"

using texts = std::vector<std::string>;

static std::vector<BOOL> sent; // what each call of SendSAS was given
static void send_sas(BOOL as_user) { sent.push_back(as_user); }

TEST(Sas, GoesToTheConsolesWorkerIfPolicyAndEveryCallAllowIt) {
    winsim::machine machine;
    const DWORD service = machine.make_process(winsim::system_token(), L"C:\\service.exe");
    machine.act_as(service);
    machine.install_library(L"C:\\Windows\\System32\\sas.dll",
                            {{"SendSAS", reinterpret_cast<FARPROC>(reinterpret_cast<void *>(send_sas))}});
    const auto open = [&](const winsim::token_facts &who) {
        const DWORD id = machine.make_process(who, L"C:\\worker.exe");
        return OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, id);
    };
    HANDLE worker = open(winsim::system_token(2)), user = open(winsim::user_token(2));
    HANDLE idle = open(winsim::system_token(0)), dead = open(winsim::system_token(2));
    machine.end_process(GetProcessId(dead));
    const texts open_before = machine.open_handles(service);
    const struct {
        const char *why;
        int policy; // -1 leaves it, -2 is the text "1"
        HANDLE process;
        DWORD session, console;
        bool goes;
    } rows[] = {
        {"no policy", -1, worker, 2, 2, false},      {"nobody may", 0, worker, 2, 2, false},
        {"access programs", 2, worker, 2, 2, false}, {"an unknown policy", 4, worker, 2, 2, false},
        {"another type", -2, worker, 2, 2, false},   {"both may", 3, worker, 2, 2, true},
        {"services may", 1, worker, 2, 2, true},     {"no worker", -1, nullptr, 2, 2, false},
        {"has exited", -1, dead, 2, 2, false},       {"not SYSTEM", -1, user, 2, 2, false},
        {"elsewhere", -1, worker, 3, 3, false},      {"console moved", -1, worker, 2, 3, false},
        {"session 0", -1, idle, 0, 0, false},        {"all is well", -1, worker, 2, 2, true},
    };
    const std::wstring key = L"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\System";
    for (const auto &row : rows) {
        if (row.policy >= 0) {
            machine.set_registry(key, L"SoftwareSASGeneration", static_cast<DWORD>(row.policy));
        } else if (row.policy == -2) {
            machine.set_registry(key, L"SoftwareSASGeneration", std::wstring(L"1"));
        }
        machine.set_console_session(row.console);
        sent.clear();
        EXPECT_EQ(host_service::dispatch_sas(row.process, row.session), row.goes) << row.why;
        EXPECT_EQ(sent, row.goes ? std::vector<BOOL>{FALSE} : std::vector<BOOL>()) << row.why;
    }
    // Every call that can fail refuses, in this order; those of the test for SYSTEM are one step.
    const texts steps = {"RegGetValueW",        "WaitForSingleObject", "OpenProcessToken", "RevertToSelf",
                         "GetSystemDirectoryW", "LoadLibraryExW",      "GetProcAddress"};
    texts refused;
    for (int nth = 1; refused.empty() || !refused.back().empty(); nth++) {
        machine.fail_nth_call(nth, ERROR_ACCESS_DENIED);
        const bool went = host_service::dispatch_sas(worker, 2);
        refused.push_back(machine.failed_call());
        EXPECT_EQ(went, refused.back().empty()) << refused.back();
    }
    std::erase_if(refused, [&](const auto &call) { return std::ranges::find(steps, call) == steps.end(); });
    EXPECT_EQ(refused, steps);
    EXPECT_EQ(machine.open_handles(service), open_before);
    EXPECT_EQ(machine.breaches(), texts());
}
