// The scripted worker of service_rig.h.
#include "service_rig.h"

#include <thread>

#include <gtest/gtest.h>

#include "handles.h"
#include "ipc_transport.h"
#include "supervisor.h"

using namespace host_service;

namespace {

std::wstring between(const std::wstring &text, const std::wstring &before, const std::wstring &after) {
    size_t from = text.find(before) + before.size();
    return text.substr(from, text.find(after, from) - from);
}

// Directories down to the program directory, the service, the worker and its libraries, all as an installer leaves them.
void install_programs(winsim::machine &machine) {
    const char *by_installer = "O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)(A;;0x1200a9;;;BU)";
    machine.make_directory(L"C:\\Program Files", by_installer);
    machine.make_directory(program_dir, by_installer);
    for (const wchar_t *name : {L"TarnGliderHostService.exe", L"TarnGliderHostWorker.exe", L"avcodec-62.dll",
                                L"avutil-60.dll", L"swscale-9.dll", L"swresample-6.dll"}) {
        machine.make_file(program_path(name), by_installer);
    }
}

} // namespace

service_rig *service_rig::current = nullptr;

service_rig::service_rig(uint64_t seed) : machine(seed) {
    current = this;
    install_programs(machine);
    machine.install_program(program_path(L"TarnGliderHostWorker.exe"),
                            [this](const std::wstring &command_line) { return run_worker(command_line); });
    machine.set_console_session(1);
    admin = machine.make_process(winsim::admin_token(), L"C:\\Windows\\tarnctl.exe");
}

service_rig::~service_rig() { current = nullptr; }

void service_rig::start() {
    started_ms_ = machine.now_ms();
    service = machine.spawn(winsim::system_token(), program_path(L"TarnGliderHostService.exe"),
                            [this](const std::wstring &) -> DWORD {
                                stop_event_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
                                wake_event_ = CreateEventW(nullptr, FALSE, FALSE, nullptr);
                                if (prologue) {
                                    prologue();
                                }
                                result_ = supervise(stop_event_, wake_event_);
                                CloseHandle(stop_event_);
                                CloseHandle(wake_event_);
                                EXPECT_EQ(machine.open_handles(service), std::vector<std::string>());
                                return result_;
                            });
    machine.run_for(1);
}

uint64_t service_rig::stop() {
    DWORD before = machine.act_as(service);
    SetEvent(stop_event_);
    SetEvent(wake_event_);
    machine.act_as(before);
    uint64_t from = machine.now_ms();
    EXPECT_TRUE(machine.run_until([this] { return !machine.running(service); }, 60000));
    return machine.now_ms() - from;
}

uint64_t service_rig::since_start() const { return machine.now_ms() - started_ms_; }

void service_rig::move_console(DWORD session) {
    machine.set_console_session(session);
    moved_ms_ = machine.now_ms();
}

void service_rig::fail_service_call(int nth, DWORD error) {
    DWORD before = machine.act_as(service);
    machine.fail_nth_call(nth, error);
    machine.act_as(before);
}

DWORD service_rig::result() const { return result_; }

size_t service_rig::workers() const {
    return machine.processes_of(program_path(L"TarnGliderHostWorker.exe")).size();
}

Response service_rig::ask(Verb verb, std::vector<uint8_t> payload) {
    DWORD before = machine.act_as(admin);
    Response answer = transact(admin_pipe_name, {verb, std::move(payload)}, nullptr);
    machine.act_as(before);
    if (answer.text == "bounded IPC request failed") {
        told_to_stop = false; // it may yet be carried out
    }
    if (answer.status == Status::ok && (verb == Verb::stop_worker || verb == Verb::restart_worker)) {
        told_to_stop = verb == Verb::stop_worker;
        told_ms_ = machine.now_ms();
    }
    return answer;
}

void service_rig::ask_later(Verb verb, std::vector<uint8_t> payload, Response *answer) {
    machine.spawn(winsim::admin_token(), L"C:\\Windows\\tarnctl.exe", [=](const std::wstring &) -> DWORD {
        *answer = transact(admin_pipe_name, {verb, payload}, nullptr);
        return 0;
    });
}

std::vector<std::string> service_rig::lines() const {
    std::vector<std::string> all;
    for (const auto &[at, line] : log) {
        all.push_back(line);
    }
    return all;
}

std::vector<uint64_t> service_rig::times(const std::string &line) const {
    std::vector<uint64_t> all;
    for (const auto &[at, text] : log) {
        if (text == line) {
            all.push_back(at - started_ms_);
        }
    }
    return all;
}

// The worker's side of its contract, bent as the plan says.
DWORD service_rig::run_worker(const std::wstring &command_line) {
    const worker_plan mine = plan;
    if (mine.prologue) {
        mine.prologue();
    }
    const uint64_t born = GetTickCount64();
    DWORD session = 0;
    {
        HANDLE token = nullptr;
        DWORD size = 0;
        OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
        GetTokenInformation(token, TokenSessionId, &session, sizeof session, &size);
        CloseHandle(token);
    }
    launches.push_back({born - started_ms_, session, WTSGetActiveConsoleSessionId(), born - moved_ms_,
                        workers() - 1, told_to_stop && told_ms_ < born});
    const std::wstring name = between(command_line, L"--channel \"", L"\"");
    HANDLE leaving = CreateEventW(nullptr, TRUE, FALSE, nullptr);

    // Joins when the worker is killed, too.
    std::jthread events([&] {
        if (mine.events_at == never ||
            WaitForSingleObject(leaving, static_cast<DWORD>(mine.events_at)) == WAIT_OBJECT_0) {
            return;
        }
        unique_file pipe(open_pipe(name + L"-events", leaving, 5000));
        uint64_t next_ack = mine.first_ack_ms;
        uint64_t next_busy = mine.busy_every_ms;
        while (pipe) {
            next_ack = next_ack < mine.acks_end_ms ? next_ack : never;
            const bool ack = next_ack <= next_busy;
            uint64_t &next = ack ? next_ack : next_busy;
            const uint64_t age = GetTickCount64() - born;
            const DWORD pause = next == never ? INFINITE : static_cast<DWORD>(next > age ? next - age : 0);
            if (WaitForSingleObject(leaving, pause) == WAIT_OBJECT_0) {
                return;
            }
            next += ack ? mine.ack_every_ms : mine.busy_every_ms;
            const std::vector<uint8_t> sent = ack ? encode_request({Verb::worker_ack, {}}) : mine.busy_frame;
            std::vector<uint8_t> frame;
            Response reply;
            if (!write_frame(pipe.get(), sent, leaving, 5000) ||
                !read_frame(pipe.get(), frame, leaving, 5000) ||
                !decode_response(frame.data(), frame.size(), Verb{sent[6]}, &reply.status, &reply.text)) {
                return;
            }
            event_replies.push_back(reply);
        }
    });

    const uint64_t end = mine.exit_ms == never ? never : born + mine.exit_ms;
    auto pause_left = [&](uint64_t limit) {
        const uint64_t now = GetTickCount64();
        return static_cast<DWORD>(end <= now ? 0 : end - now < limit ? end - now : limit);
    };
    HANDLE pipe = INVALID_HANDLE_VALUE;
    if (mine.connect_at != never) {
        Sleep(pause_left(mine.connect_at));
        pipe = open_pipe(name, nullptr, pause_left(5000));
    }
    bool stopping = false;
    while (!stopping && GetTickCount64() < end) {
        if (pipe == INVALID_HANDLE_VALUE) {
            Sleep(pause_left(1000));
            continue;
        }
        std::vector<uint8_t> frame;
        Request request;
        const frame_read got = read_frame_outcome(pipe, frame, nullptr, pause_left(1000));
        if (got == frame_read::broken) {
            Sleep(pause_left(1000)); // the service has closed it
        }
        if (got != frame_read::whole || !decode_request(frame.data(), frame.size(), &request)) {
            continue;
        }
        heard.push_back(request);
        stopping = request.verb == Verb::stop_worker && mine.answers_stop;
        if (mine.answer_ms) {
            Sleep(static_cast<DWORD>(mine.answer_ms(request)));
        }
        if (request.verb != Verb::stop_worker || mine.answers_stop) {
            write_frame(pipe, mine.answer(request), nullptr, 1000);
        }
    }
    Sleep(stopping ? static_cast<DWORD>(mine.leaves_after_ms) : 0);
    SetEvent(leaving);
    events.join();
    return 0;
}
