// The simulated machine keeps its promises: what later tests rely on to notice a fault, in twenty orders of the threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <thread>

#include "handles.h"
#include "winsim/machine.h"

using namespace winsim;
using host_service::unique_file;
using host_service::unique_handle;

namespace {

struct Winsim : testing::TestWithParam<uint64_t> {
    machine windows{GetParam()};
    DWORD service = windows.make_process(system_token(), L"C:\\service.exe");
    Winsim() { windows.act_as(service); }

    bool breached(const char *part) {
        const auto all = windows.breaches();
        return std::any_of(all.begin(), all.end(),
                           [&](const auto &one) { return one.find(part) != one.npos; });
    }
};
INSTANTIATE_TEST_SUITE_P(Seeds, Winsim, testing::Range<uint64_t>(0, 20));

HANDLE make_event() { return CreateEventW(nullptr, TRUE, FALSE, nullptr); }

HANDLE make_pipe(const wchar_t *sddl, DWORD flags = 0) {
    SECURITY_ATTRIBUTES by{sizeof by, nullptr, FALSE};
    ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, 1, &by.lpSecurityDescriptor, nullptr);
    const HANDLE made =
        CreateNamedPipeW(L"\\\\.\\pipe\\Test", PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | flags,
                         PIPE_REJECT_REMOTE_CLIENTS, 2, 8, 8, 0, &by);
    LocalFree(by.lpSecurityDescriptor);
    return made;
}

HANDLE open_client() {
    return CreateFileW(L"\\\\.\\PIPE\\test", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       FILE_FLAG_OVERLAPPED, nullptr);
}

TEST_P(Winsim, SeesLeaksWrongUseAndFailsCallsOnDemand) {
    windows.fail_nth_call(2, ERROR_DISK_FULL);
    const HANDLE event = make_event();
    EXPECT_TRUE(make_event() == nullptr && GetLastError() == ERROR_DISK_FULL);
    void *memory = nullptr;
    EXPECT_TRUE(ConvertStringSidToSidW(L"SY", &memory));
    EXPECT_EQ(windows.failed_call() + std::to_string(windows.failable_calls()), "CreateEventW3");
    windows.fail("SetEvent", ERROR_BUSY, 2, for_good);
    EXPECT_TRUE(SetEvent(event) && !SetEvent(event) && !SetEvent(event));
    EXPECT_EQ(windows.open_handles(service), (std::vector<std::string>{"event", "local memory"}));
    EXPECT_TRUE(CloseHandle(event) && !LocalFree(memory));
    EXPECT_TRUE(windows.open_handles(service).empty() && windows.breaches().empty());
    EXPECT_TRUE(!CloseHandle(event) && breached("closes the closed handle"));
    EXPECT_TRUE(WaitForSingleObject(event, 0) == WAIT_FAILED && breached("uses the closed handle"));
    EXPECT_TRUE(LocalFree(memory) && breached("frees what is no local memory"));
    EXPECT_TRUE(WriteFile(GetCurrentProcess(), "", 0, nullptr, nullptr) == FALSE &&
                breached("as what it is not"));
}

TEST_P(Winsim, SeesTransfersLeftInFlight) {
    uint8_t byte = 0;
    DWORD moved = 0;
    for (const bool waited : {true, false}) {
        unique_file server(make_pipe(L"D:P(A;;GA;;;SY)")), client(open_client());
        OVERLAPPED read{0, 0, 0, 0, make_event()};
        EXPECT_TRUE(!ReadFile(server.get(), &byte, 1, nullptr, &read) && GetLastError() == ERROR_IO_PENDING);
        EXPECT_TRUE(CancelIoEx(server.get(), &read));
        EXPECT_TRUE(!waited || !GetOverlappedResult(server.get(), &read, &moved, TRUE));
        CloseHandle(read.hEvent);
        EXPECT_EQ(windows.breaches().empty(), waited);
    }
    EXPECT_TRUE(breached("closes an event while a transfer") && breached("that nobody waited for"));
}

TEST_P(Winsim, EnforcesAPipesDescriptorAndInstances) {
    unique_file first(make_pipe(L"O:SYG:SYD:P(A;;GA;;;SY)(A;;GRGW;;;BA)", FILE_FLAG_FIRST_PIPE_INSTANCE));
    const token_facts rows[] = {user_token(), filtered_admin_token(), admin_token(), system_token()};
    for (size_t i = 0; i < 4; i++) {
        windows.act_as(windows.make_process(rows[i], L"C:\\tool.exe"));
        unique_file client(open_client());
        EXPECT_EQ(client ? 0 : GetLastError(), i < 2 ? ERROR_ACCESS_DENIED : i == 2 ? 0 : ERROR_PIPE_BUSY);
    }
    EXPECT_EQ(make_pipe(L"D:P(A;;GA;;;SY)", FILE_FLAG_FIRST_PIPE_INSTANCE), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    unique_file second(make_pipe(L"D:P")), third(make_pipe(L"D:P"));
    EXPECT_TRUE(second && !third && GetLastError() == ERROR_PIPE_BUSY);
}

TEST_P(Winsim, TheClockMovesOnlyWhenAllWait) {
    const uint64_t start = GetTickCount64();
    unique_handle event(make_event());
    std::mutex lock;
    lock.lock();
    std::thread other([&] {
        Sleep(30);
        SetEvent(event.get());
        const std::lock_guard held(lock); // the other side gives it up at 100 ms
        EXPECT_EQ(GetTickCount64() - start, 100u);
    });
    EXPECT_EQ(WaitForSingleObject(event.get(), 20), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(event.get(), 20), WAIT_OBJECT_0);
    Sleep(70);
    lock.unlock();
    other.join();
}

TEST_P(Winsim, AProcessEndsWithItsHandlesAndItsJob) {
    int ended = 0;
    const auto body = [&ended](const std::wstring &) -> DWORD {
        const std::unique_ptr<int, void (*)(int *)> counts(&ended, [](int *count) { ++*count; });
        const unique_handle event(make_event());
        return WaitForSingleObject(event.get(), INFINITE);
    };
    const DWORD member = windows.spawn(system_token(), L"C:\\member.exe", body);
    const DWORD owner =
        windows.spawn(system_token(), L"C:\\owner.exe", [&](const std::wstring &line) -> DWORD {
            const HANDLE job = CreateJobObjectW(nullptr, nullptr); // left to the end of the process
            JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
            limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
            SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
            const unique_handle process(OpenProcess(PROCESS_ALL_ACCESS, FALSE, member));
            return AssignProcessToJobObject(job, process.get()) ? body(line) : 1;
        });
    windows.run_for(1);
    EXPECT_TRUE(windows.running(member) && windows.running(owner));
    windows.end_process(owner, 9);
    EXPECT_TRUE(!windows.running(member) && windows.exit_code(owner) == 9);
    windows.run_for(1);
    EXPECT_EQ(ended, 2);
    EXPECT_TRUE(windows.open_handles(owner).empty() && windows.breaches().empty());
}

} // namespace
