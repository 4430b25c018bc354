// The pipes on the real interfaces: this program serves, and runs itself as the client that its command line names.
// Time-outs that must not come are a minute; of those that must come only the least duration is asserted.
#include <gtest/gtest.h>

#include <aclapi.h>
#include <sddl.h>

#include "handles.h"
#include "ipc_transport.h"

using namespace host_service;

namespace {

using bytes = std::vector<uint8_t>;
constexpr DWORD minute = 60000, brief = 100, tick = 16;
const Request large = {Verb::set_relays, bytes(16384, 'x')};

// -- the clients; each exits with 0 if it saw what it should
bool write_pieces(HANDLE pipe, bytes frame, size_t piece) {
    for (; !frame.empty(); frame.erase(frame.begin(), frame.begin() + static_cast<ptrdiff_t>(piece))) {
        piece = std::min(piece, frame.size());
        if (!write_frame(pipe, bytes(frame.data(), frame.data() + piece), nullptr, minute)) {
            return false;
        }
    }
    return true;
}

bool run_tool(const std::wstring &name) {
    const Response got = transact(name, large, nullptr);
    return got.status == Status::ok && got.text == std::string(16380, 'y');
}

// Sends a frame of 2343 writes; then, at the server's word, one byte less than a header, and waits for the server's end.
bool run_peer(const std::wstring &name) {
    const unique_file pipe(open_pipe(name, nullptr, minute));
    bytes frame;
    return pipe_server(pipe.get(), 0) && write_pieces(pipe.get(), encode_request(large), 7) &&
           read_frame(pipe.get(), frame, nullptr, minute) && write_pieces(pipe.get(), bytes(11), 11) &&
           read_frame_outcome(pipe.get(), frame, nullptr, minute) == frame_read::broken;
}

int run_client(const std::wstring &role, const std::wstring &name) {
    return role == L"exits" || (role == L"tool" ? run_tool(name) : run_peer(name)) ? 0 : 1;
}

// -- the server's side
std::wstring new_name() {
    static int count = 0;
    return L"\\\\.\\pipe\\TarnGliderTest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
           std::to_wstring(++count);
}

unique_handle start_client(const wchar_t *role, const std::wstring &name) {
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring line = L"test --client " + std::wstring(role) + L" " + name;
    STARTUPINFOW startup = {};
    PROCESS_INFORMATION made = {};
    startup.cb = sizeof startup;
    EXPECT_TRUE(
        CreateProcessW(path, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &made));
    CloseHandle(made.hThread);
    return unique_handle(made.hProcess);
}

bool succeeded(const unique_handle &process) {
    DWORD code = 99;
    return WaitForSingleObject(process.get(), minute) == WAIT_OBJECT_0 &&
           GetExitCodeProcess(process.get(), &code) && code == 0;
}

std::wstring descriptor_of(HANDLE pipe) {
    unique_descriptor descriptor;
    LPWSTR text = nullptr;
    constexpr SECURITY_INFORMATION parts =
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    EXPECT_EQ(
        GetSecurityInfo(pipe, SE_KERNEL_OBJECT, parts, nullptr, nullptr, nullptr, nullptr, descriptor.put()),
        0u);
    EXPECT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor.get(), SDDL_REVISION_1, parts,
                                                                     &text, nullptr));
    const std::wstring copy = text != nullptr ? text : L"";
    LocalFree(text);
    return copy;
}

TEST(PipesWine, AWholeExchangeWithAnotherProcess) {
    const std::wstring name = new_name();
    const unique_file pipe(create_pipe(name, true, true));
    const unique_handle tool = start_client(L"tool", name);
    bytes frame;
    DWORD session = 0;
    ASSERT_TRUE(connect_pipe(pipe.get(), nullptr, minute, tool.get()));
    ASSERT_TRUE(ProcessIdToSessionId(GetProcessId(tool.get()), &session));
    EXPECT_TRUE(pipe_client(pipe.get(), true, nullptr, 0));
    EXPECT_TRUE(pipe_client(pipe.get(), false, tool.get(), session));
    EXPECT_FALSE(pipe_client(pipe.get(), false, tool.get(), session + 1));
    EXPECT_FALSE(pipe_client(pipe.get(), false, GetCurrentProcess(), session));
    EXPECT_TRUE(read_frame(pipe.get(), frame, nullptr, minute) && frame == encode_request(large));
    const bytes reply = encode_response(large.verb, Status::ok, std::string(16380, 'y'));
    EXPECT_TRUE(write_pieces(pipe.get(), reply, 1000));
    wait_client_close(pipe.get(), nullptr, minute);
    EXPECT_TRUE(succeeded(tool));
    EXPECT_FALSE(pipe_client(pipe.get(), true, nullptr, 0)) << "it has exited";
}

TEST(PipesWine, PiecesSilenceAndCancel) {
    const std::wstring name = new_name();
    unique_file pipe(create_pipe(name, false, true));
    const unique_handle peer = start_client(L"peer", name),
                        cancel(CreateEventW(nullptr, TRUE, TRUE, nullptr));
    bytes frame;
    ASSERT_TRUE(connect_pipe(pipe.get(), nullptr, minute, peer.get()));
    ASSERT_TRUE(read_frame(pipe.get(), frame, nullptr, minute) && frame == encode_request(large));
    const uint64_t start = GetTickCount64();
    EXPECT_EQ(read_frame_outcome(pipe.get(), frame, nullptr, brief), frame_read::nothing);
    EXPECT_GE(GetTickCount64() - start, brief - tick);
    EXPECT_EQ(read_frame_outcome(pipe.get(), frame, cancel.get(), INFINITE), frame_read::nothing);
    ASSERT_TRUE(write_frame(pipe.get(), encode_request(Request()), nullptr, minute));
    frame_read outcome = frame_read::nothing;
    while (outcome == frame_read::nothing) { // until the 11 bytes are there
        outcome = read_frame_outcome(pipe.get(), frame, nullptr, brief);
    }
    EXPECT_TRUE(outcome == frame_read::broken && frame == encode_request(large)) << "unchanged";
    pipe.reset();
    EXPECT_TRUE(succeeded(peer));
}

TEST(PipesWine, WaitsThatEnd) {
    const std::wstring name = new_name();
    const unique_handle cancel(CreateEventW(nullptr, TRUE, TRUE, nullptr)),
        gone = start_client(L"exits", name);
    const unique_file pipe(create_pipe(name, true, true));
    EXPECT_FALSE(connect_pipe(pipe.get(), nullptr, brief) ||
                 connect_pipe(pipe.get(), cancel.get(), INFINITE));
    EXPECT_FALSE(connect_pipe(pipe.get(), nullptr, INFINITE, gone.get()));
    const unique_file early(open_pipe(name, nullptr, minute));
    EXPECT_TRUE(connect_pipe(pipe.get(), nullptr, minute)) << "came before the call";
    EXPECT_EQ(open_pipe(name, nullptr, brief), INVALID_HANDLE_VALUE) << "busy";
    EXPECT_EQ(open_pipe(new_name(), cancel.get(), INFINITE), INVALID_HANDLE_VALUE)
        << "missing, and cancelled";
}

TEST(PipesWine, WhatThePipeIsMadeWith) {
    const std::wstring name = new_name();
    const unique_file admin(create_pipe(name, true, true)), worker(create_pipe(new_name(), false, true));
    // As they were given; a system may also replace the generic rights by a file's.
    const std::wstring head = L"O:SYG:SYD:P", text = descriptor_of(admin.get()) + descriptor_of(worker.get());
    const std::wstring given = head + L"(A;;GA;;;SY)(A;;GWGR;;;BA)" + head + L"(A;;GA;;;SY)";
    EXPECT_TRUE(text == given || text == head + L"(A;;FA;;;SY)(A;;0x12019f;;;BA)" + head + L"(A;;FA;;;SY)");
    DWORD flags = 0, out = 0, in = 0, instances = 0;
    ASSERT_TRUE(GetNamedPipeInfo(admin.get(), &flags, &out, &in, &instances));
    EXPECT_TRUE(flags == PIPE_SERVER_END && out == 16396 && in == 16396 && instances == 4);
    const unique_file second(create_pipe(name, true, true));
    if (second) {
        std::puts("note: this system ignores the demand to be the first instance");
    }
    const unique_file third(create_pipe(name, true, false)), fourth(create_pipe(name, true, false));
    const unique_file fifth(create_pipe(name, true, false));
    EXPECT_TRUE(third && fourth && static_cast<bool>(fifth) == !second) << "four in all";
}

} // namespace

int wmain(int argc, wchar_t **argv) {
    if (argc == 4 && std::wstring(argv[1]) == L"--client") {
        return run_client(argv[2], argv[3]);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
