// The admin pipe and the events channel on the simulated machine: who is answered, what, and what never happens.
#include <gtest/gtest.h>

#include "handles.h"
#include "ipc_transport.h"
#include "service_rig.h"

#include <tarnglider/secure.h>

using namespace host_service;

namespace {

std::vector<std::string> wiped; // what tarn_secure_wipe was given, before it was wiped

} // namespace

extern "C" {
void __real_tarn_secure_wipe(void *buffer, size_t size);
void __wrap_tarn_secure_wipe(void *buffer, size_t size);
void __wrap_tarn_secure_wipe(void *buffer, size_t size) {
    wiped.emplace_back(static_cast<const char *>(buffer), size);
    __real_tarn_secure_wipe(buffer, size);
}
}

namespace {

std::vector<uint8_t> bytes(const std::string &text) { return {text.begin(), text.end()}; }

TEST(Admin, AnswersEveryVerbInEveryStateOfTheWorker) {
    enum { none, started, acknowledged };
    const auto here = Status::ok, away = Status::unavailable, denied = Status::denied;
    const char *const no = "worker command denied on administrator channel";
    const struct {
        Verb verb;
        std::vector<uint8_t> payload;
        Status status[2]; // before the worker has acknowledged, and after
        const char *text[2];
    } rows[] = {
        {Verb::status, {}, {away, here}, {"service running; worker unavailable", "service running; done"}},
        {Verb::set_password, bytes("pw"), {away, here}, {"worker unavailable", "done"}},
        {Verb::pairing_open, {30, 0, 0, 0}, {away, here}, {"worker unavailable", "done"}},
        {Verb::worker_ack, {}, {denied, denied}, {no, no}},
        {Verb::secure_attention, {}, {denied, denied}, {no, no}},
        {Verb::restart_worker, {}, {here, here}, {"worker restart requested", "worker restart requested"}},
        {Verb::stop_worker, {}, {here, here}, {"worker stop requested", "worker stop requested"}},
        {Verb::stop_worker, {}, {here, here}, {"worker stop requested", "worker stop requested"}},
    };
    for (int state : {none, started, acknowledged}) {
        service_rig rig;
        rig.machine.set_console_session(state == none ? 0 : 1);
        rig.plan.first_ack_ms = state == acknowledged ? 0 : never;
        rig.start();
        rig.machine.run_for(1000);
        for (const auto &row : rows) {
            SCOPED_TRACE(std::to_string(state) + ", verb " + std::to_string(static_cast<int>(row.verb)));
            Response answer = rig.ask(row.verb, row.payload);
            EXPECT_EQ(answer.status, row.status[state == acknowledged]);
            EXPECT_EQ(answer.text, row.text[state == acknowledged]);
            rig.machine.run_for(1000);
        }
        EXPECT_EQ(rig.workers(), 0u) << "stopped";
        rig.machine.set_console_session(2);
        rig.machine.run_for(1000);
        EXPECT_EQ(rig.workers(), 0u) << "and stays so, wherever the console goes";
        rig.ask(Verb::restart_worker);
        rig.machine.run_for(1000);
        EXPECT_EQ(rig.workers(), 1u);
        rig.stop();
        EXPECT_EQ(rig.machine.breaches(), std::vector<std::string>());
    }
}

TEST(Admin, RestartsForRelaysAndSettingsThatTheWorkerTook) {
    for (Verb verb : {Verb::set_relays, Verb::set_settings, Verb::set_password}) {
        for (Status status : {Status::ok, Status::status_code_1, Status::status_code_4, Status::failed}) {
            service_rig rig;
            rig.plan.answer = [=](const Request &request) {
                return encode_response(request.verb, status, "said");
            };
            rig.start();
            rig.machine.run_for(1000);
            Response answer = rig.ask(verb, verb == Verb::set_settings ? encode_settings({}) : bytes("text"));
            EXPECT_EQ(answer.status, status);
            EXPECT_EQ(answer.text, "said");
            rig.machine.run_for(500);
            EXPECT_EQ(rig.launches.size(), verb != Verb::set_password && status == Status::ok ? 2u : 1u);
            EXPECT_EQ(rig.times("Host worker stopped; restart delayed").size(), 0u);
            rig.stop();
        }
    }
}

TEST(Admin, ARestartClearsTheStopButNotThePause) {
    service_rig rig;
    rig.plan.exit_ms = 50;
    rig.start();
    rig.machine.run_for(4000); // failures at 0, 1 and 3 s: the next launch is at 7 s
    rig.ask(Verb::stop_worker);
    rig.ask(Verb::restart_worker);
    rig.machine.run_for(2500);
    EXPECT_EQ(rig.launches.size(), 3u);
    rig.machine.run_for(1500);
    EXPECT_EQ(rig.launches.size(), 4u);
    rig.stop();
}

TEST(Admin, TellsBadRepliesFromGoodOnes) {
    const struct {
        const char *why;
        std::vector<uint8_t> reply;
        Status status;
        std::string text;
    } rows[] = {
        {"another verb's", encode_response(Verb::pairing_close, Status::ok, "x"), Status::failed,
         "service running; invalid worker reply"},
        {"a request", encode_request({Verb::status, {}}), Status::failed,
         "service running; invalid worker reply"},
        {"no frame", bytes("GET / HTTP/1"), Status::unavailable,
         "service running; worker communication failed"},
        {"longest text with its prefix", encode_response(Verb::status, Status::ok, std::string(16363, 'x')),
         Status::ok, "service running; " + std::string(16363, 'x')},
        {"one byte longer", encode_response(Verb::status, Status::ok, std::string(16364, 'x')),
         Status::failed, "bounded IPC request failed"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.why);
        service_rig rig;
        rig.plan.answer = [&](const Request &request) {
            return request.verb == Verb::status ? row.reply : encode_response(request.verb, Status::ok, "");
        };
        rig.start();
        rig.machine.run_for(1000);
        Response answer = rig.ask(Verb::status);
        EXPECT_EQ(answer.status, row.status);
        EXPECT_EQ(answer.text, row.text);
        rig.stop();
    }
}

// A worker that takes 7 s for a password, and refuses it; the next password is asked for after 6 s.
TEST(Admin, NoLateReplyAnswersALaterRequest) {
    service_rig rig;
    rig.plan.answer = [](const Request &request) {
        const bool first = request.payload == bytes("first");
        return encode_response(request.verb, first ? Status::ok : Status::failed, first ? "set" : "refused");
    };
    rig.plan.answer_ms = [](const Request &request) {
        return request.payload == bytes("first") ? 7000u : 0u;
    };
    rig.start();
    rig.machine.run_for(1000);
    Response answer = rig.ask(Verb::set_password, bytes("first"));
    EXPECT_EQ(answer.text, "bounded IPC request failed"); // the tool's own limit comes first
    rig.machine.run_for(500);
    const uint64_t asked = rig.since_start();
    answer = rig.ask(Verb::set_password, bytes("second"));
    EXPECT_EQ(rig.since_start() - asked, 100u) << "no longer than a reply that is there takes";
    EXPECT_EQ(answer.status, Status::unavailable) << "the reply to the first is still owed";
    EXPECT_EQ(answer.text, "worker communication failed");
    EXPECT_EQ(rig.heard.size(), 1u) << "and nothing was sent before it";
    rig.machine.run_for(2000);
    answer = rig.ask(Verb::set_password, bytes("third"));
    EXPECT_EQ(answer.text, "refused") << "the late ok was thrown away";
    rig.stop();
}

// The control: the attack works where nobody remembers what is owed.
TEST(Admin, ALateReplyAnswersALaterRequestOfANaiveService) {
    winsim::machine machine;
    DWORD service = machine.make_process(winsim::system_token(), L"C:\\service.exe");
    machine.act_as(service);
    unique_file server(create_pipe(L"\\\\.\\pipe\\naive", false, true));
    machine.spawn(winsim::system_token(), L"C:\\worker.exe", [&](const std::wstring &) -> DWORD {
        unique_file pipe(open_pipe(L"\\\\.\\pipe\\naive", nullptr, 1000));
        std::vector<uint8_t> frame;
        for (Status status : {Status::ok, Status::failed}) {
            read_frame(pipe.get(), frame, nullptr, 60000);
            Sleep(status == Status::ok ? 7000 : 0);
            write_frame(pipe.get(), encode_response(Verb::set_password, status, ""), nullptr, 1000);
        }
        return 0;
    });
    ASSERT_TRUE(connect_pipe(server.get(), nullptr, 1000));
    std::vector<uint8_t> reply;
    auto naive = [&](const char *password) {
        return write_frame(server.get(), encode_request({Verb::set_password, bytes(password)}), nullptr,
                           5000) &&
               read_frame(server.get(), reply, nullptr, 5000);
    };
    EXPECT_FALSE(naive("first"));
    ASSERT_TRUE(naive("second"));
    EXPECT_EQ(reply[header_size], static_cast<uint8_t>(Status::ok)) << "a false ok for the second password";
}

TEST(Admin, ABrokenExchangeLosesTheChannelUntilTheNextLaunch) {
    service_rig rig;
    rig.plan.answer = [](const Request &request) {
        std::vector<uint8_t> half = encode_response(request.verb, Status::ok, "whole");
        if (request.verb == Verb::pairing_close) {
            half.resize(half.size() - 2);
        }
        return half;
    };
    rig.start();
    rig.machine.run_for(1000);
    Response later;
    rig.ask_later(Verb::pairing_close, {}, &later);
    rig.machine.run_for(6000);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(rig.ask(Verb::clear_password).text, "worker communication failed");
        rig.machine.run_for(1000);
    }
    EXPECT_EQ(rig.heard.size(), 1u);
    rig.ask(Verb::restart_worker);
    rig.machine.run_for(8000);
    EXPECT_EQ(rig.ask(Verb::clear_password).text, "whole");
    rig.stop();
}

TEST(Admin, ARequestThatBrokeOffOnTheWayOutLosesTheChannel) {
    service_rig rig;
    rig.plan.ack_every_ms = 4900;
    rig.start();
    rig.machine.run_for(1000);
    DWORD before = rig.machine.act_as(rig.service);
    rig.machine.fail("WriteFile", ERROR_NO_DATA);
    rig.machine.act_as(before);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(rig.ask(Verb::clear_password).text, "worker communication failed");
    }
    EXPECT_TRUE(rig.heard.empty());
    rig.stop();
}

TEST(Admin, TheWorkerIsProvedBeforeEachRequest) {
    service_rig rig;
    rig.start();
    rig.machine.run_for(500);
    for (DWORD worker : rig.machine.processes_of(program_path(L"TarnGliderHostWorker.exe"))) {
        rig.machine.set_token(worker, winsim::system_token(2));
    }
    EXPECT_EQ(rig.ask(Verb::clear_password).text, "worker communication failed");
    EXPECT_TRUE(rig.heard.empty());
    rig.stop();
}

TEST(Admin, FiveToolsAtOnceAreAllAnsweredOneAtATime) {
    service_rig rig;
    int inside = 0;
    rig.plan.answer_ms = [](const Request &) { return 600u; };
    rig.plan.answer = [&](const Request &request) {
        EXPECT_EQ(inside++, 0);
        Sleep(10);
        inside--;
        return encode_response(request.verb, Status::ok, "done");
    };
    rig.start();
    rig.machine.run_for(1000);
    Response answers[5];
    for (Response &answer : answers) {
        rig.ask_later(Verb::clear_password, {}, &answer);
    }
    rig.machine.run_for(4500);
    for (const Response &answer : answers) {
        EXPECT_EQ(answer.text, "done");
    }
    rig.plan = {};
    rig.stop();
}

// A client that goes no further at any step costs its instance 5 s and nobody else anything.
TEST(Admin, ClientsThatHangOrDieHoldNothing) {
    const std::vector<uint8_t> request = encode_request({Verb::stop_worker, {}});
    std::vector<uint8_t> trailing = request, wrong = request;
    trailing.push_back(0);
    wrong[8] = 1; // a length that the verb doesn't have
    const struct {
        const char *why;
        std::vector<uint8_t> sent;
        bool acted;
    } rows[] = {
        {"nothing", {}, false},
        {"a part of the header", {request.begin(), request.begin() + 11}, false},
        {"an oversized header", {'T', 'G', 'I', 'P', 1, 0, 1, 0, 1, 0x40, 0, 0}, false},
        {"an invalid frame", {wrong.begin(), wrong.end()}, false},
        {"the request, and takes no reply", request, true},
    };
    for (const auto &row : rows) {
        for (bool dies : {false, true}) {
            SCOPED_TRACE(std::string(row.why) + (dies ? ", and dies" : ", and hangs"));
            service_rig rig;
            rig.start();
            rig.machine.run_for(1000);
            size_t replied = 0;
            for (int i = 0; i < 4; i++) {
                rig.machine.spawn(winsim::admin_token(), L"C:\\slow.exe", [&](const std::wstring &) -> DWORD {
                    unique_file pipe(open_pipe(admin_pipe_name, nullptr, 1000));
                    std::vector<uint8_t> reply;
                    if (!row.sent.empty()) {
                        write_frame(pipe.get(), row.sent, nullptr, 1000);
                    }
                    Sleep(dies ? 50 : 20000);
                    replied += !dies && read_frame(pipe.get(), reply, nullptr, 0) ? 1u : 0u;
                    return 0;
                });
            }
            rig.machine.run_for(100);
            EXPECT_EQ(rig.ask(Verb::status).text.substr(0, 16), "service running;");
            EXPECT_EQ(rig.workers(), row.acted ? 0u : 1u);
            rig.machine.run_for(20000);
            EXPECT_EQ(replied, 0u) << "cut before it was read, or never written";
            rig.stop();
            EXPECT_EQ(rig.machine.breaches(), std::vector<std::string>());
        }
    }
}

TEST(Admin, NothingIsDoneForWhoIsNotProved) {
    const winsim::token_facts strangers[] = {winsim::user_token(), winsim::filtered_admin_token()};
    for (const winsim::token_facts &stranger : strangers) {
        for (int check = 0; check <= 2; check++) { // before it connects, at the first look, at the second
            SCOPED_TRACE(check);
            service_rig rig;
            rig.start();
            rig.machine.run_for(1000);
            int looks = 0;
            DWORD before = rig.machine.act_as(rig.service);
            rig.machine.before_call([&](const std::string &call) {
                if (call == "GetNamedPipeClientProcessId" && ++looks == check) {
                    rig.machine.set_token(rig.admin, stranger);
                }
            });
            rig.machine.act_as(before);
            if (check == 0) {
                rig.machine.set_token(rig.admin, stranger);
            }
            EXPECT_NE(rig.ask(Verb::stop_worker).status, Status::ok);
            rig.machine.run_for(2000);
            EXPECT_EQ(rig.workers(), 1u);
            rig.machine.act_as(rig.service);
            rig.machine.before_call(nullptr);
            rig.machine.act_as(before);
            rig.stop();
        }
    }
}

TEST(Admin, APasswordIsWipedAndInNoLogLine) {
    service_rig rig;
    rig.start();
    rig.machine.run_for(1000);
    wiped.clear();
    EXPECT_EQ(rig.ask(Verb::set_password, bytes("correct horse")).text, "done");
    rig.machine.run_for(6000);
    size_t payloads = 0, frames = 0;
    for (const std::string &buffer : wiped) {
        payloads += buffer == "correct horse";
        frames += buffer.size() == header_size + 13 && buffer.substr(header_size) == "correct horse";
    }
    EXPECT_EQ(payloads, 1u);
    EXPECT_EQ(frames, 3u) << "the tool's, the one the service read, and the one it sent on";
    rig.stop();
    for (const std::string &line : rig.lines()) {
        EXPECT_EQ(line.find("correct horse"), std::string::npos);
    }
}

TEST(Events, SecureAttentionOncePerSecondForAnAcknowledgedWorker) {
    const char *const sent = "secure attention dispatched", *const denied = "worker command denied",
                      *const blocked = "secure attention unavailable or policy blocked";
    const struct {
        const char *why;
        uint64_t first_ack, every;
        bool allowed;
        std::vector<const char *> replies; // to secure_attention, in order
        int sent;
    } rows[] = {
        {"before the first ack", 5000, 400, true, {denied, denied}, 0},
        {"999 ms are too few", 0, 999, true, {sent, denied, sent}, 2},
        {"1000 ms are enough", 0, 1000, true, {sent, sent}, 2},
        {"a failed one counts, too", 0, 999, false, {blocked, denied, blocked}, 2},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.why);
        service_rig rig;
        rig.sas_allowed = row.allowed;
        rig.plan.first_ack_ms = row.first_ack;
        rig.plan.ack_every_ms = 100000;
        rig.plan.busy_every_ms = row.every;
        rig.start();
        rig.machine.run_for(row.every * row.replies.size() + 100);
        std::vector<std::string> seen;
        for (const Response &reply : rig.event_replies) {
            if (reply.text != "worker acknowledged") {
                seen.push_back(reply.text);
            }
        }
        EXPECT_EQ(seen, std::vector<std::string>(row.replies.begin(), row.replies.end()));
        EXPECT_EQ(rig.sas_count, row.sent);
        const char *line = row.allowed ? "Secure attention request dispatched"
                                       : "Secure attention unavailable or policy blocked";
        EXPECT_EQ(rig.times(line).size(), static_cast<size_t>(row.sent));
        rig.stop();
    }
}

TEST(Events, OtherVerbsAreDeniedAndInvalidFramesEndTheChannel) {
    for (bool valid : {true, false}) {
        service_rig rig;
        rig.plan.busy_every_ms = 300;
        rig.plan.busy_frame = encode_request({Verb::stop_worker, {}});
        if (!valid) {
            rig.plan.busy_frame[6] = 11;
        }
        rig.start();
        rig.machine.run_for(1300);
        EXPECT_EQ(rig.event_replies.size(), valid ? 6u : 1u); // acks at 0 and 1000, four denials
        EXPECT_EQ(rig.event_replies.back().text, valid ? "worker command denied" : "worker acknowledged");
        EXPECT_EQ(rig.ask(Verb::clear_password).text, valid ? "done" : "worker unavailable");
        EXPECT_EQ(rig.workers(), 1u) << "the channel's end isn't the worker's";
        rig.stop();
    }
}

// A stranger on the worker's channel gets no launch and hears nothing but the order to stop; one on the events channel
// gets no acknowledgement.
TEST(Events, OnlyTheLaunchedWorkerIsHeard) {
    for (bool events : {false, true}) {
        service_rig rig;
        (events ? rig.plan.events_at : rig.plan.connect_at) = 500;
        rig.start();
        rig.machine.run_for(100);
        ASSERT_EQ(rig.workers(), 1u);
        DWORD worker = rig.machine.processes_of(program_path(L"TarnGliderHostWorker.exe"))[0];
        const std::wstring line = rig.machine.launch_of(worker).command_line;
        const size_t at = line.find(L"\\\\.\\pipe\\");
        const std::wstring name = line.substr(at, line.size() - at - 1) + (events ? L"-events" : L"");
        EXPECT_EQ(rig.machine.pipe_descriptor(name), "O:SYG:SYD:P(A;;GA;;;SY)");
        rig.machine.spawn(winsim::system_token(1), L"C:\\other.exe", [&](const std::wstring &) -> DWORD {
            unique_file pipe(open_pipe(name, nullptr, 1000));
            write_frame(pipe.get(), encode_request({Verb::worker_ack, {}}), nullptr, 1000);
            std::vector<uint8_t> frame;
            const bool heard = read_frame(pipe.get(), frame, nullptr, 10000);
            EXPECT_EQ(heard, !events);
            EXPECT_EQ(frame, heard ? encode_request({Verb::stop_worker, {}}) : std::vector<uint8_t>());
            return 0;
        });
        rig.machine.run_for(700);
        EXPECT_EQ(rig.ask(Verb::clear_password).text, "worker unavailable");
        EXPECT_EQ(rig.times("Host worker launched in console session 1").size(), events ? 1u : 0u);
        rig.stop();
    }
}

} // namespace
