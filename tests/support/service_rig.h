// A simulated machine with the service's files on it, supervise() running in a service process, and a worker program
// that does what its plan says. With service_stand_ins.cpp hlog and dispatch_sas are stand-ins: lines are kept with
// their time, the secure attention sequence is counted.
#ifndef SERVICE_RIG_H
#define SERVICE_RIG_H

#include <functional>
#include <string>
#include <vector>

#include "ipc_protocol.h"
#include "winsim/machine.h"

constexpr wchar_t program_dir[] = L"C:\\Program Files\\TarnGlider";
constexpr uint64_t never = UINT64_MAX;

inline std::wstring program_path(const std::wstring &name) {
    return std::wstring(program_dir) + L"\\" + name;
}

// What the worker does, in ms from its start. It sends worker_ack at first_ack_ms and then every ack_every_ms.
struct worker_plan {
    std::function<void()> prologue;
    uint64_t connect_at = 0; // its channel
    uint64_t events_at = 0;  // its events channel
    uint64_t first_ack_ms = 0;
    uint64_t ack_every_ms = 1000;
    uint64_t acks_end_ms = never;   // the last one comes before
    uint64_t busy_every_ms = never; // sends busy_frame, which keeps the events channel alive
    std::vector<uint8_t> busy_frame =
        host_service::encode_request({host_service::Verb::secure_attention, {}});
    uint64_t exit_ms = never;
    bool answers_stop = true;
    uint64_t leaves_after_ms = 0; // of stop_worker
    // Answers a request on the worker channel after that long: a whole frame; an empty one is no answer.
    std::function<std::vector<uint8_t>(const host_service::Request &)> answer =
        [](const host_service::Request &to) {
            return host_service::encode_response(to.verb, host_service::Status::ok, "done");
        };
    std::function<uint64_t(const host_service::Request &)> answer_ms;
};

// A worker's start, as the machine saw it.
struct launch {
    uint64_t at_ms;
    DWORD session;
    DWORD console; // at that moment, and how long it has been that
    uint64_t since_move_ms;
    size_t others;     // workers that ran already
    bool was_disabled; // as the test last asked for, before this tick
};

class service_rig {
public:
    explicit service_rig(uint64_t seed = 1);
    ~service_rig();

    void start();    // the service process; supervise has made its first pass
    uint64_t stop(); // the service's stop; answers how long it took
    uint64_t since_start() const;
    void move_console(DWORD session);
    void fail_service_call(int nth, DWORD error); // the n-th call of the service from now on
    DWORD result() const;                         // of supervise
    size_t workers() const;
    // One administrator's request through transact, from a process of its own.
    host_service::Response ask(host_service::Verb verb, std::vector<uint8_t> payload = {});
    void ask_later(host_service::Verb verb, std::vector<uint8_t> payload, host_service::Response *answer);
    std::vector<std::string> lines() const;                     // the log
    std::vector<uint64_t> times(const std::string &line) const; // ms since start() of each such line

    static service_rig *current;
    winsim::machine machine;
    std::vector<std::pair<uint64_t, std::string>> log; // ticks and lines
    worker_plan plan;                                  // of every worker that starts from now on
    std::vector<launch> launches;
    std::vector<host_service::Request> heard; // on the worker channel, by any worker
    std::vector<host_service::Response> event_replies;
    std::function<void()> prologue; // what the service process does before it supervises
    bool sas_allowed = true;
    int sas_count = 0;
    bool told_to_stop = false; // stop_worker was answered, and no restart_worker since
    DWORD service = 0;
    DWORD admin = 0;

private:
    DWORD run_worker(const std::wstring &command_line);
    uint64_t started_ms_ = 0;
    uint64_t moved_ms_ = 0;
    uint64_t told_ms_ = 0;
    HANDLE stop_event_ = nullptr;
    HANDLE wake_event_ = nullptr;
    DWORD result_ = 0xFFFF;
};

#endif
