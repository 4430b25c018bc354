// The worker's launch on the real interfaces: this program is the service, and its copy beside it is the worker that
// WorkerProcess starts, which connects, says that it lives, and never leaves by itself.
#include <gtest/gtest.h>

#include "handles.h"
#include "ipc_transport.h"
#include "worker_process.h"

using namespace host_service;

namespace {

constexpr DWORD minute = 60000;

int run_worker(const std::wstring &supervisor, const std::wstring &channel) {
    const unique_file pipe(open_pipe(channel, nullptr, minute));
    if (!pipe_server(pipe.get(), static_cast<DWORD>(std::stoul(supervisor))) ||
        !write_frame(pipe.get(), encode_request({Verb::worker_ack, {}}), nullptr, minute)) {
        return 1;
    }
    Sleep(INFINITE);
    return 0;
}

// Launches the worker, proves it by its channel, and answers a handle that outlives WorkerProcess's own.
unique_handle launch(WorkerProcess &worker) {
    const std::wstring channel = worker_channel_name();
    const unique_file pipe(create_pipe(channel, false, true));
    std::vector<uint8_t> frame;
    BOOL in_job = FALSE;
    DWORD session = 0;
    EXPECT_TRUE(ProcessIdToSessionId(GetCurrentProcessId(), &session) && worker.start(session, channel));
    EXPECT_TRUE(worker.alive() && IsProcessInJob(worker.process, worker.job, &in_job) && in_job);
    EXPECT_TRUE(connect_pipe(pipe.get(), nullptr, minute, worker.process));
    EXPECT_TRUE(pipe_client(pipe.get(), false, worker.process, worker.session));
    EXPECT_TRUE(read_frame(pipe.get(), frame, nullptr, minute));
    EXPECT_EQ(frame, encode_request({Verb::worker_ack, {}}));
    return unique_handle(OpenProcess(SYNCHRONIZE, FALSE, GetProcessId(worker.process)));
}

bool ended(const unique_handle &process) {
    return WaitForSingleObject(process.get(), minute) == WAIT_OBJECT_0;
}

TEST(WorkerWine, LivesUntilItIsStopped) {
    WorkerProcess worker;
    const unique_handle first = launch(worker);
    const unique_handle second = launch(worker);
    EXPECT_TRUE(ended(first)) << "a new start ends the worker before it";
    EXPECT_TRUE(worker.alive());
    worker.stop();
    EXPECT_TRUE(ended(second) && !worker.alive() && worker.process == nullptr && worker.job == nullptr);
    worker.stop();
    EXPECT_FALSE(worker.start(0, L"\\\\.\\pipe\\none") || worker.alive()) << "no worker among the services";
}

TEST(WorkerWine, DiesWithItsJob) {
    WorkerProcess worker;
    const unique_handle process = launch(worker);
    CloseHandle(worker.job); // as when the service dies
    worker.job = nullptr;
    EXPECT_TRUE(ended(process) && !worker.alive() && worker.process != nullptr);
}

} // namespace

int wmain(int argc, wchar_t **argv) {
    if (argc == 5 && std::wstring(argv[1]) == L"--supervisor" && std::wstring(argv[3]) == L"--channel") {
        return run_worker(argv[2], argv[4]);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
