// The admin pipe's side of the supervisor: one request and one reply for each connection of an elevated administrator.
#include "ipc_transport.h"
#include "supervisor_runtime.h"

#include <tarnglider/secure.h>

#include "handles.h"

namespace host_service {
namespace {

constexpr DWORD client_limit_ms = 5000; // for a client to come, to send, to take its reply and to leave

struct reply {
    Status status = Status::unavailable;
    std::string text;
};

// Bytes of a request, which can hold a password.
struct wiped_frame {
    std::vector<uint8_t> bytes;
    ~wiped_frame() { tarn_secure_wipe(bytes.data(), bytes.size()); }
};

struct wiped_request : Request {
    ~wiped_request() { tarn_secure_wipe(payload.data(), payload.size()); }
};

bool is_administrator(HANDLE pipe) { return pipe_client(pipe, true, nullptr, 0); }

void ask_for_restart(Runtime &runtime) {
    runtime.restart_requested = true;
    SetEvent(runtime.wake_event);
}

reply forward(Runtime &runtime, const Request &request) {
    if (!runtime.acknowledged || !runtime.worker.alive() || runtime.worker_pipe == INVALID_HANDLE_VALUE) {
        return {Status::unavailable, "worker unavailable"};
    }
    std::vector<uint8_t> frame;
    if (!pipe_client(runtime.worker_pipe, false, runtime.worker.process, runtime.worker.session) ||
        !runtime.exchange(request, frame)) {
        return {Status::unavailable, "worker communication failed"};
    }
    reply answer;
    if (!decode_response(frame.data(), frame.size(), request.verb, &answer.status, &answer.text)) {
        return {Status::failed, "invalid worker reply"};
    }
    return answer;
}

reply decide(Runtime &runtime, const Request &request) {
    switch (request.verb) {
    case Verb::restart_worker:
        runtime.disabled = false;
        ask_for_restart(runtime);
        return {Status::ok, "worker restart requested"};
    case Verb::stop_worker:
        runtime.disabled = true;
        SetEvent(runtime.wake_event);
        return {Status::ok, "worker stop requested"};
    case Verb::worker_ack:
    case Verb::secure_attention:
        return {Status::denied, "worker command denied on administrator channel"};
    default:
        return forward(runtime, request);
    }
}

// With lock held until the reply stands, so that requests reach the worker one at a time.
reply answer_administrator(Runtime &runtime, const Request &request) {
    std::lock_guard held(runtime.lock);
    reply answer = decide(runtime, request);
    if (request.verb == Verb::status) {
        answer.text.insert(
            0, "service running; "); // a tool learns that the service lives even if the worker doesn't
    }
    // Relays and settings take effect only in a new worker process.
    if (answer.status == Status::ok &&
        (request.verb == Verb::set_relays || request.verb == Verb::set_settings)) {
        ask_for_restart(runtime);
    }
    return answer;
}

// One connection. Whoever isn't proved, or sends anything but one valid request, gets no reply.
void serve_client(HANDLE pipe, Runtime &runtime) {
    wiped_frame frame;
    wiped_request request;
    if (!is_administrator(pipe) || !read_frame(pipe, frame.bytes, runtime.stop_event, client_limit_ms) ||
        !decode_request(frame.bytes.data(), frame.bytes.size(), &request) || !is_administrator(pipe)) {
        return;
    }
    reply answer = answer_administrator(runtime, request);
    if (write_frame(pipe, encode_response(request.verb, answer.status, answer.text), runtime.stop_event,
                    client_limit_ms)) {
        wait_client_close(pipe, runtime.stop_event, client_limit_ms);
    }
}

} // namespace

void serve_administrators(HANDLE pipe, Runtime &runtime) {
    unique_file instance(pipe);
    while (WaitForSingleObject(runtime.stop_event, 0) != WAIT_OBJECT_0) {
        if (connect_pipe(pipe, runtime.stop_event, client_limit_ms)) {
            serve_client(pipe, runtime);
        }
        DisconnectNamedPipe(pipe);
    }
}

} // namespace host_service
