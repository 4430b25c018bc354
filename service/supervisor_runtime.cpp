// One launch of the worker, from its two channels to the end of its process, and the thread that hears its heartbeat.
#include "supervisor_runtime.h"

#include "ipc_transport.h"
#include "log.h"
#include "sas.h"

#include <tarnglider/secure.h>

namespace host_service {
namespace {

constexpr DWORD connect_limit_ms = 10000; // for the worker to come to each of its channels
constexpr DWORD event_limit_ms = 5000;    // between two requests of the worker, and for each reply to it
constexpr DWORD exchange_limit_ms = 5000; // for each direction of a request to the worker
constexpr DWORD owed_limit_ms = 100;      // for a late reply, which is either there already or not
constexpr DWORD farewell_limit_ms = 1000; // for each direction of stop_worker
constexpr DWORD leave_limit_ms = 3000;    // for the worker to end by itself after it
constexpr uint64_t sas_interval_ms = 999; // a secure attention attempt comes later than this after the last

struct reply {
    Status status = Status::denied;
    const char *text = "worker command denied";
};

// The sequence goes out for a worker that has acknowledged, at most once a second, counted from the last attempt.
reply secure_attention(Runtime &runtime) {
    uint64_t now = GetTickCount64();
    if (!runtime.acknowledged || now - runtime.last_sas_ms <= sas_interval_ms) {
        return {};
    }
    runtime.last_sas_ms = now;
    if (!dispatch_sas(runtime.worker.process, runtime.worker.session)) {
        hlog("Secure attention unavailable or policy blocked");
        return {Status::failed, "secure attention unavailable or policy blocked"};
    }
    hlog("Secure attention request dispatched");
    return {Status::ok, "secure attention dispatched"};
}

reply answer_worker(Runtime &runtime, Verb verb) {
    if (verb == Verb::worker_ack) {
        // The time before the flag: who sees the flag sees a time that belongs to it.
        runtime.last_ack_ms = GetTickCount64();
        runtime.acknowledged = true;
        return {Status::ok, "worker acknowledged"};
    }
    if (verb == Verb::secure_attention) {
        return secure_attention(runtime);
    }
    return {};
}

bool is_worker(const Runtime &runtime, HANDLE pipe) {
    return pipe_client(pipe, false, runtime.worker.process, runtime.worker.session);
}

// One request of the worker and its reply; false ends the channel. The peer is proved anew before it is acted on.
bool serve_event(Runtime &runtime) {
    std::vector<uint8_t> frame;
    Request request;
    if (!read_frame(runtime.events_pipe, frame, runtime.worker_stop_event, event_limit_ms) ||
        !decode_request(frame.data(), frame.size(), &request) || !is_worker(runtime, runtime.events_pipe)) {
        return false;
    }
    reply answer = answer_worker(runtime, request.verb);
    return write_frame(runtime.events_pipe, encode_response(request.verb, answer.status, answer.text),
                       runtime.worker_stop_event, event_limit_ms);
}

// The events thread. A worker that never came leaves the flags and the loop alone: the launch fails without it.
void serve_events(Runtime &runtime) {
    if (!connect_pipe(runtime.events_pipe, runtime.worker_stop_event, connect_limit_ms) ||
        !is_worker(runtime, runtime.events_pipe)) {
        return;
    }
    while (serve_event(runtime)) {
    }
    runtime.acknowledged = false;
    SetEvent(runtime.wake_event);
}

void close_pipe(HANDLE &pipe) {
    if (pipe != INVALID_HANDLE_VALUE) {
        CancelIoEx(pipe, nullptr);
        CloseHandle(pipe);
        pipe = INVALID_HANDLE_VALUE;
    }
}

// Neither result matters: a worker that doesn't answer is ended all the same.
void ask_to_leave(Runtime &runtime) {
    std::vector<uint8_t> ignored;
    write_frame(runtime.worker_pipe, encode_request({Verb::stop_worker, {}}), runtime.worker_stop_event,
                farewell_limit_ms);
    read_frame(runtime.worker_pipe, ignored, runtime.worker_stop_event, farewell_limit_ms);
}

} // namespace

bool Runtime::start_worker(DWORD session) {
    std::lock_guard held(lock);
    std::wstring name = worker_channel_name();
    if (name.empty()) {
        return false;
    }
    channel = channel_state::clear;
    worker_stop_event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    worker_pipe = create_pipe(name, false, true);
    events_pipe = create_pipe(name + L"-events", false, true);
    if (worker_stop_event == nullptr || worker_pipe == INVALID_HANDLE_VALUE ||
        events_pipe == INVALID_HANDLE_VALUE) {
        return false;
    }
    if (!worker.start(session, name)) {
        return false;
    }
    acknowledged = false;
    last_ack_ms = GetTickCount64();
    events_thread = std::thread([this] { serve_events(*this); });
    // A worker that ends before it connects is not waited for: it should be back after the first short pause.
    return connect_pipe(worker_pipe, stop_event, connect_limit_ms, worker.process) &&
           is_worker(*this, worker_pipe);
}

void Runtime::stop_worker_now() {
    acknowledged = false;
    {
        std::lock_guard held(lock);
        if (worker.alive() && worker_pipe != INVALID_HANDLE_VALUE) {
            ask_to_leave(*this);
            channel =
                channel_state::lost; // its reply may be owed, and an administrator's thread may wait for lock
        }
        if (worker_stop_event != nullptr) {
            SetEvent(worker_stop_event);
        }
    }
    // Without lock, so that an administrator's request that holds it can't hold up the join, nor be held up by it.
    if (events_thread.joinable()) {
        events_thread.join();
    }
    std::lock_guard held(lock);
    close_pipe(worker_pipe);
    close_pipe(events_pipe);
    if (worker.process != nullptr) {
        WaitForSingleObject(worker.process, leave_limit_ms);
    }
    worker.stop();
    if (worker_stop_event != nullptr) {
        CloseHandle(worker_stop_event);
        worker_stop_event = nullptr;
    }
}

bool Runtime::exchange(const Request &request, std::vector<uint8_t> &reply) {
    if (channel == channel_state::owed) {
        std::vector<uint8_t> late;
        frame_read outcome = read_frame_outcome(worker_pipe, late, stop_event, owed_limit_ms);
        if (outcome != frame_read::nothing) {
            channel = outcome == frame_read::whole ? channel_state::clear : channel_state::lost;
        }
    }
    if (channel != channel_state::clear) {
        return false;
    }
    std::vector<uint8_t> frame = encode_request(request);
    bool sent = write_frame(worker_pipe, frame, stop_event, exchange_limit_ms);
    tarn_secure_wipe(frame.data(), frame.size());
    if (!sent) {
        channel = channel_state::lost;
        return false;
    }
    frame_read outcome = read_frame_outcome(worker_pipe, reply, stop_event, exchange_limit_ms);
    if (outcome != frame_read::whole) {
        channel = outcome == frame_read::nothing ? channel_state::owed : channel_state::lost;
        return false;
    }
    return true;
}

} // namespace host_service
