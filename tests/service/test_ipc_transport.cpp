// The pipes on the simulated machine: what a slow, dead or hostile peer can do (nothing but fail), who gets in and who
// is believed, and that any failing call is a refusal that leaves no handle and no transfer behind.
#include <gtest/gtest.h>

#include <sstream>
#include <string.h>
#include <thread>
#include <tuple>

#include "handles.h"
#include "ipc_transport.h"
#include "winsim/machine.h"

using namespace host_service;
using namespace winsim;

// What was wiped while it held a password's frame.
static int wiped_frames = 0;
extern "C" void __real_tarn_secure_wipe(void *memory, size_t size);
extern "C" void __wrap_tarn_secure_wipe(void *memory, size_t size);
extern "C" void __wrap_tarn_secure_wipe(void *memory, size_t size) {
    wiped_frames +=
        size == header_size + 6 && memcmp(static_cast<char *>(memory) + header_size, "secret", 6) == 0;
    __real_tarn_secure_wipe(memory, size);
}

namespace {

using bytes = std::vector<uint8_t>;
const std::wstring name = L"\\\\.\\pipe\\TarnGliderTest";
const Request password = {Verb::set_password, {'s', 'e', 'c', 'r', 'e', 't'}};

// A service and a tool. The test acts as the service; the tool's side runs in threads of its own process.
struct world {
    explicit world(uint64_t seed = 1, const token_facts &who = admin_token())
        : m(seed), service(m.make_process(system_token(), L"C:\\service.exe")),
          tool(m.make_process(who, L"C:\\tool.exe")), start(m.now_ms()) {
        m.act_as(service);
        cancel = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    ~world() { EXPECT_EQ(m.breaches(), std::vector<std::string>()); }

    template <class Body>
    auto as(DWORD process, Body body) {
        const DWORD was = m.act_as(process);
        auto result = body();
        m.act_as(was);
        return result;
    }
    void later(DWORD process, DWORD ms, std::function<void()> what) {
        as(process, [&] { return std::thread([=] { Sleep(ms), what(); }); }).detach();
    }
    bool send(const bytes &some) {
        return as(tool, [&] { return write_frame(far_end, some, nullptr, 0); });
    }
    void join() {
        near_end = create_pipe(name, true, true);
        far_end = as(tool, [] { return open_pipe(name, nullptr, 0); });
        EXPECT_TRUE(connect_pipe(near_end, nullptr, 0)) << "the client came before the call";
    }
    // Serves one exchange: answers with reply after delay.
    void serve(const std::wstring &at, DWORD delay, bytes reply) {
        later(service, 0, [=, this, pipe = create_pipe(at, true, true)] {
            connect_pipe(pipe, nullptr, 60000);
            if (read_frame(pipe, received, nullptr, 60000)) {
                Sleep(delay);
                write_frame(pipe, reply, nullptr, 0);
                wait_client_close(pipe, nullptr, 1000);
            }
            CloseHandle(pipe);
        });
    }
    uint64_t passed() const { return m.now_ms() - start; }

    machine m;
    DWORD service, tool;
    uint64_t start;
    HANDLE near_end = nullptr, far_end = nullptr, cancel = nullptr;
    bytes received;
};

struct digit { // its closer spoils the last error
    using type = int;
    static type none() { return 0; }
    static void close(type one) { SetLastError(99), closed = closed * 10 + one; }
    static inline int closed = 0;
};

TEST(Handles, AreClosedOnceWithTheErrorKept) {
    machine m;
    SetLastError(5);
    owned<digit> one(1);
    *one.put() = 2, one.reset(3), one.reset();
    EXPECT_TRUE(digit::closed == 123 && GetLastError() == 5);
}

TEST(IpcTransport, ReadsInPiecesAndTellsNothingFromBroken) {
    enum after { silence, close, stop, late_close }; // the last when the read is given up
    const bytes frame = encode_request({Verb::set_password, bytes(10, 'x')});
    constexpr frame_read whole = frame_read::whole, nothing = frame_read::nothing,
                         broken = frame_read::broken;
    const struct {
        size_t sent; // bytes at 100 ms
        after then;  // at 300 ms
        frame_read outcome;
        uint64_t at;
    } rows[] = {{0, silence, nothing, 5000},  {0, stop, nothing, 300},  {0, close, broken, 300},
                {11, silence, broken, 5000},  {11, stop, broken, 300},  {12, silence, broken, 5000},
                {21, stop, broken, 300},      {21, close, broken, 300}, {22, silence, whole, 100},
                {0, late_close, broken, 5000}};
    for (const auto &row : rows) {
        for (const size_t piece : {0u, 1u, 7u, 12u}) {
            SCOPED_TRACE(testing::Message() << row.sent << " bytes, then " << row.then << ", by " << piece);
            world w(piece);
            w.join();
            w.m.pipe_pieces(piece);
            w.later(w.tool, 100, [&] { w.send(bytes(frame.data(), frame.data() + row.sent)); });
            w.later(row.then == stop ? w.service : w.tool, 300, [&] {
                row.then == stop ? SetEvent(w.cancel) : row.then == close ? CloseHandle(w.far_end) : 0;
            });
            w.m.before_call([&](const std::string &call) {
                if (row.then == late_close && call == "CancelIoEx")
                    w.as(w.tool, [&] { return CloseHandle(w.far_end); });
            });
            bytes out = {1};
            EXPECT_EQ(read_frame_outcome(w.near_end, out, w.cancel, 5000), row.outcome);
            EXPECT_TRUE(out == (row.outcome == whole ? frame : bytes{1}) && w.passed() == row.at)
                << w.passed();
        }
    }
}

TEST(IpcTransport, LateReadyAndTooLong) {
    const bytes frame = encode_request(password),
                largest = encode_request({Verb::set_relays, bytes(16384, 'x')});
    bytes out, long_header = frame;
    long_header[8] = 1, long_header[9] = 0x40;
    for (const uint64_t took : {5000u, 5001u}) { // by the clock after the last byte; the deadline is in time
        for (int transfers : {1, 2}) {
            world w;
            w.join();
            w.send(frame);
            const bool reads = transfers == 2;
            w.m.before_call([&](const std::string &call) {
                if (call == "GetOverlappedResult" && --transfers == 0) w.m.sleep_machine(took);
            });
            EXPECT_EQ(reads ? read_frame(w.near_end, out, nullptr, 5000)
                            : write_frame(w.near_end, frame, nullptr, 5000),
                      took == 5000);
        }
    }
    world w;
    w.join();
    w.m.before_call([&](const std::string &call) {
        if (call == "WaitForMultipleObjects") w.send(frame), SetEvent(w.cancel);
    });
    EXPECT_TRUE(read_frame(w.near_end, out, w.cancel, 5000) && out == frame) << "bytes that are there count";
    w.m.before_call(nullptr);
    w.send(long_header);
    EXPECT_EQ(read_frame_outcome(w.near_end, out, nullptr, 5000), frame_read::broken);
    wait_client_close(w.near_end, nullptr, 5000);
    EXPECT_EQ(w.passed(), 0u) << "the payload was there still";
    EXPECT_FALSE(write_frame(w.near_end, {}, nullptr, 5000) ||
                 write_frame(w.near_end, bytes(16397), nullptr, 5000));
    w.later(w.tool, 100, [&] { read_frame(w.far_end, w.received, nullptr, 0); });
    EXPECT_TRUE(write_frame(w.near_end, largest, nullptr, 0) &&
                write_frame(w.near_end, largest, nullptr, 200));
    EXPECT_FALSE(write_frame(w.near_end, frame, nullptr, 400)) << "nobody reads";
    EXPECT_TRUE(w.received == largest && w.passed() == 500);
}

TEST(IpcTransport, ConnectsWithinItsBounds) {
    enum { nobody, client, cancelled, exited };
    for (const int event : {nobody, client, cancelled, exited}) { // at 300 ms
        world w;
        const HANDLE pipe = create_pipe(name, true, true), peer = OpenProcess(SYNCHRONIZE, FALSE, w.tool);
        const DWORD another = w.m.make_process(admin_token(), L"C:\\another.exe");
        w.later(event == client ? another : w.service, 300, [&] {
            if (event == client) open_pipe(name, nullptr, 0);
            if (event == cancelled) SetEvent(w.cancel);
            if (event == exited) w.m.end_process(w.tool);
        });
        EXPECT_EQ(connect_pipe(pipe, w.cancel, 5000, peer), event == client);
        EXPECT_EQ(w.passed(), event == nobody ? 5000u : 300u);
        if (event != client) continue;
        w.later(w.service, 1000, [&] { w.m.end_process(another); });
        wait_client_close(pipe, w.cancel, 700);
        SetEvent(w.cancel), wait_client_close(pipe, w.cancel, 5000);
        EXPECT_EQ(w.passed(), 1000u);
        wait_client_close(pipe, nullptr, 5000);
        EXPECT_EQ(w.passed(), 1300u) << "the client has gone";
    }
}

TEST(IpcTransport, OpensWithinItsBounds) {
    // Whether it opened, when, and at which try; busy: all four instances are taken.
    const auto open = [](bool pipe, bool busy, DWORD free_at, DWORD cancel_at, DWORD timeout) {
        world w;
        HANDLE last = nullptr;
        for (int i = 0; i < 4; i++) {
            if (pipe) last = create_pipe(name, true, i == 0);
            if (busy) w.as(w.tool, [] { return open_pipe(name, nullptr, 0); });
        }
        EXPECT_TRUE(!pipe || create_pipe(name, true, false) == INVALID_HANDLE_VALUE) << "a fifth";
        if (free_at) w.later(w.service, free_at, [&] { CloseHandle(last), create_pipe(name, true, false); });
        if (cancel_at) w.later(w.service, cancel_at, [&] { SetEvent(w.cancel); });
        const int before = w.m.calls("CreateFileW");
        const bool opened = open_pipe(name, cancel_at ? w.cancel : nullptr, timeout) != INVALID_HANDLE_VALUE;
        return std::tuple(opened, w.passed(), w.m.calls("CreateFileW") - before);
    };
    EXPECT_EQ(open(true, false, 0, 0, 1000), std::tuple(true, 0u, 1));
    EXPECT_EQ(open(true, true, 0, 0, 1000), std::tuple(false, 1000u, 40));
    EXPECT_EQ(open(false, false, 0, 0, 60), std::tuple(false, 75u, 3)) << "missing";
    EXPECT_EQ(open(true, true, 90, 0, 1000), std::tuple(true, 100u, 5));
    EXPECT_EQ(open(true, true, 0, 60, 1000), std::tuple(false, 60u, 3));
}

TEST(IpcTransport, DescriptorsAdmitAndRefuse) {
    const struct {
        token_facts who;
        bool admin, worker;
    } rows[] = {{system_token(1), true, true},
                {admin_token(), true, false},
                {filtered_admin_token(), false, false},
                {user_token(), false, false}};
    for (const auto &row : rows) {
        world w(1, row.who);
        const std::wstring worker = name + L"-worker";
        create_pipe(name, true, true), create_pipe(worker, false, true);
        EXPECT_EQ(w.m.pipe_descriptor(name), "O:SYG:SYD:P(A;;GA;;;SY)(A;;GRGW;;;BA)");
        EXPECT_EQ(w.m.pipe_descriptor(worker), "O:SYG:SYD:P(A;;GA;;;SY)");
        const DWORD overlapped_first =
            PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE;
        EXPECT_EQ(w.m.pipe_setup(worker), (std::vector<DWORD>{overlapped_first, PIPE_REJECT_REMOTE_CLIENTS, 4,
                                                              16396, 16396, 5000, FALSE}));
        EXPECT_EQ(create_pipe(name, true, true), INVALID_HANDLE_VALUE) << "not the first";
        w.m.act_as(w.tool);
        EXPECT_EQ(open_pipe(name, nullptr, 1000) != INVALID_HANDLE_VALUE, row.admin);
        EXPECT_EQ(open_pipe(worker, nullptr, 1000) != INVALID_HANDLE_VALUE, row.worker);
        EXPECT_EQ(w.passed(), 0u) << "refused at once";
        EXPECT_EQ(w.m.pipe_client_flags(name) & (SECURITY_SQOS_PRESENT | SECURITY_DELEGATION),
                  row.admin ? SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION : 0u);
    }
}

TEST(IpcTransport, WhoIsBelieved) {
    enum who { nobody, itself, another };
    const auto client = [](const token_facts &is, bool admin, who expected, DWORD session, bool runs = true) {
        world w(1, system_token(1)); // so that it gets in
        w.join();
        w.m.set_token(w.tool, is);
        const DWORD other = w.m.make_process(system_token(1), L"C:\\other.exe");
        const HANDLE process = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE,
                                           expected == another ? other : w.tool);
        if (!runs) w.m.end_process(w.tool);
        return pipe_client(w.near_end, admin, expected == nobody ? nullptr : process, session);
    };
    token_facts elevated_user = user_token();
    elevated_user.elevated = true;
    EXPECT_TRUE(client(admin_token(), true, nobody, 0));
    EXPECT_FALSE(client(admin_token(), true, nobody, 0, false)) << "exited";
    EXPECT_FALSE(client(filtered_admin_token(), true, nobody, 0));
    EXPECT_FALSE(client(elevated_user, true, nobody, 0));
    EXPECT_TRUE(client(system_token(1), false, itself, 1));
    EXPECT_FALSE(client(system_token(1), false, itself, 1, false)) << "exited";
    EXPECT_FALSE(client(system_token(1), false, itself, 2)) << "of another session";
    EXPECT_FALSE(client(system_token(1), false, another, 1));
    EXPECT_FALSE(client(system_token(1), false, nobody, 1));
    EXPECT_FALSE(client(admin_token(), false, itself, 1));

    const auto server = [](const token_facts &is, who expected, bool runs = true) {
        world w;
        w.join();
        w.m.set_token(w.service, is);
        w.m.act_as(w.tool);
        OpenProcess(SYNCHRONIZE, FALSE, w.service); // keeps what the id stands for
        if (!runs) w.m.end_process(w.service);
        return pipe_server(w.far_end, expected == nobody ? 0 : expected == itself ? w.service : w.tool);
    };
    EXPECT_TRUE(server(system_token(), nobody) && server(system_token(), itself));
    EXPECT_FALSE(server(system_token(), another) || server(admin_token(), itself));
    EXPECT_FALSE(server(system_token(), nobody, false)) << "exited";
}

TEST(IpcTransport, Transact) {
    const bytes good = encode_response(password.verb, Status::status_code_4, "done"), none;
    const bytes others = encode_response(Verb::status, Status::ok, "done");
    const Request refused = {Verb::set_password, bytes(257, 'x')};
    // The result, its time, and what reached the server; every frame that was made was wiped.
    const auto exchange = [&](const bytes &reply, DWORD delay, DWORD cancel_at = 0,
                              const Request &request = password, const token_facts &is = system_token()) {
        world w;
        if (reply != none) w.serve(name, delay, reply);
        w.m.set_token(w.service, is);
        w.m.act_as(w.tool);
        const HANDLE cancel = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        if (cancel_at) w.later(w.tool, cancel_at, [&] { SetEvent(cancel); });
        wiped_frames = 0;
        const Response got = transact(name, request, cancel);
        const bool sent = w.received == encode_request(password);
        EXPECT_TRUE(sent ? wiped_frames == 1 : wiped_frames + w.m.calls("WriteFile") == 0);
        std::ostringstream all;
        all << static_cast<uint32_t>(got.status) << " " << got.text << ", " << w.passed()
            << (sent ? ", sent" : "");
        return all.str();
    };
    EXPECT_EQ(exchange(good, 4999), "4 done, 4999, sent");
    EXPECT_EQ(exchange(good, 5001), "5 bounded IPC request failed, 5000, sent");
    EXPECT_EQ(exchange(good, 1000, 300), "5 bounded IPC request failed, 300, sent");
    EXPECT_EQ(exchange(others, 0), "5 bounded IPC request failed, 0, sent");
    EXPECT_EQ(exchange(good, 0, 0, refused), "5 bounded IPC request failed, 0");
    EXPECT_EQ(exchange(good, 0, 0, password, user_token()), "2 untrusted service endpoint, 0");
    EXPECT_EQ(exchange(none, 0), "3 service unavailable or access denied, 5000");
}

TEST(IpcTransport, EachCallThatFailsIsARefusal) {
    static const bytes frame = encode_request({Verb::set_relays, bytes(16384, 'x')});
    static const std::wstring other = name + L"-other", served = name + L"-served";
    static HANDLE pipe, client;
    const struct {
        const char *what;
        bool by_tool;
        bool (*done)(world &);
    } rows[] = {
        {"create_pipe", false,
         [](world &) { return bool(unique_file(create_pipe(name + L"-new", true, true))); }},
        {"open_pipe", true, [](world &) { return bool(unique_file(open_pipe(other, nullptr, 1000))); }},
        {"connect_pipe", false, [](world &w) { return connect_pipe(pipe, w.cancel, 1000); }},
        {"read_frame", false,
         [](world &w) {
             const frame_read outcome = read_frame_outcome(w.near_end, w.received, w.cancel, 1000);
             EXPECT_NE(outcome, frame_read::nothing);
             return outcome == frame_read::whole;
         }},
        {"write_frame", false, [](world &w) { return write_frame(w.near_end, frame, w.cancel, 1000); }},
        {"pipe_client, admin", false, [](world &w) { return pipe_client(w.near_end, true, nullptr, 0); }},
        {"pipe_client, worker", false, [](world &w) { return pipe_client(w.near_end, false, client, 1); }},
        {"pipe_server", true, [](world &w) { return pipe_server(w.far_end, w.service); }},
        {"transact", true, [](world &w) {
             const int before = w.m.calls("WriteFile");
             const Response got = transact(served, password, nullptr);
             EXPECT_TRUE(got.status <= Status::status_code_1 || got.status == Status::failed ||
                         w.m.calls("WriteFile") == before);
             return got.status == Status::ok;
         }}};
    token_facts who = system_token(1); // and an administrator
    who.elevated = true;
    who.groups = {"BA"};
    for (const auto &row : rows) {
        for (int nth = 1;; nth++) {
            world w(static_cast<uint64_t>(nth % 3), who);
            w.join();
            pipe = create_pipe(other, true, true);
            client = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, w.tool);
            write_frame(w.near_end, frame, nullptr, 0); // fills it
            if (row.by_tool) w.serve(served, 50, encode_response(password.verb, Status::ok, ""));
            const auto tool = [&] {
                open_pipe(other, nullptr, 0);
                w.send(frame), read_frame(w.far_end, w.received, nullptr, 0);
            };
            if (!row.by_tool) w.later(w.tool, 50, tool); // so that each transfer has to wait
            const DWORD id = row.by_tool ? w.tool : w.service;
            w.m.act_as(id);
            const auto held = w.m.open_handles(id);
            w.m.fail_nth_call(nth, ERROR_NOT_ENOUGH_MEMORY);
            const bool done = row.done(w);
            const std::string failed = w.m.failed_call();
            w.m.clear_failures();
            EXPECT_TRUE(done == failed.empty() && w.m.open_handles(id) == held) << row.what << ": " << failed;
            if (failed.empty()) break;
        }
    }
}

} // namespace
