// The worker's end of its two channels to the service.
#include "worker/service_link.h"

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

#include <ipc_transport.h>
#include <tarnglider/secure.h>

namespace app {
namespace {

using host_service::Request;
using host_service::Response;
using host_service::Status;
using host_service::Verb;

// The service waits 10 seconds for each connection.
constexpr DWORD connect_ms = 9000;
// Pause and answer together stay below the 5 seconds after which a silent worker is given up.
constexpr DWORD heartbeat_ms = 2000;
constexpr DWORD heartbeat_answer_ms = 1000; // for each direction
// The service reads a reply for 5 seconds, that to a stop for 1; after 3 it ends a worker that it stops.
constexpr DWORD reply_ms = 2000;
// Nothing hangs on this one: a wait for requests that ends in time begins anew.
constexpr DWORD request_wait_ms = 60000;
// What fits behind the service's own words in the reply to a status.
constexpr size_t text_max = 16000;

HANDLE connect(const std::wstring &name, DWORD supervisor, HANDLE cancel) {
    host_service::unique_file pipe(host_service::open_pipe(name, cancel, connect_ms));
    if (!pipe) throw std::runtime_error("the service's channel can't be reached");
    if (!host_service::pipe_server(pipe.get(), supervisor))
        throw std::runtime_error("whoever serves the channel is not the service");
    return pipe.release();
}

void wipe(std::vector<uint8_t> &bytes) { tarn_secure_wipe(bytes.data(), bytes.size()); }

} // namespace

service_channels::service_channels(const launch &from, const departure &leaving)
    : requests(connect(from.channel, from.supervisor, leaving.event())),
      events(connect(from.channel + L"-events", from.supervisor, leaving.event())) {}

heartbeat::heartbeat(HANDLE events, departure &leaving, std::function<bool()> alive)
    : events_(events), leaving_(leaving), alive_(std::move(alive)), thread_([this] { run(); }) {}

heartbeat::~heartbeat() {
    leaving_.leave(1, "the worker ends");
    thread_.join();
}

void heartbeat::run() {
    do {
        if (alive_() && !beat()) leaving_.leave(1, "the events channel broke");
    } while (WaitForSingleObject(leaving_.event(), heartbeat_ms) == WAIT_TIMEOUT);
}

bool heartbeat::beat() {
    const std::vector<uint8_t> frame = host_service::encode_request({Verb::worker_ack, {}});
    std::vector<uint8_t> reply;
    Status status = Status::failed;
    std::string text;
    return host_service::write_frame(events_, frame, leaving_.event(), heartbeat_answer_ms) &&
           host_service::read_frame(events_, reply, leaving_.event(), heartbeat_answer_ms) &&
           host_service::decode_response(reply.data(), reply.size(), Verb::worker_ack, &status, &text) &&
           status == Status::ok;
}

request_loop::request_loop(HANDLE requests, departure &leaving, request_handler handler)
    : requests_(requests), leaving_(leaving), handler_(std::move(handler)), thread_([this] { run(); }) {}

request_loop::~request_loop() {
    leaving_.leave(1, "the worker ends");
    thread_.join();
}

void request_loop::run() {
    while (!leaving_.leaving()) {
        std::vector<uint8_t> frame;
        switch (host_service::read_frame_outcome(requests_, frame, leaving_.event(), request_wait_ms)) {
        case host_service::frame_read::nothing:
            break;
        case host_service::frame_read::broken:
            leaving_.leave(1, "the worker channel broke");
            break;
        case host_service::frame_read::whole:
            serve(frame);
            break;
        }
    }
}

void request_loop::serve(std::vector<uint8_t> &frame) {
    Request request;
    const bool valid = host_service::decode_request(frame.data(), frame.size(), &request);
    wipe(frame); // it may hold a password
    if (!valid) return leaving_.leave(1, "the worker channel carries what is no request");
    Response answer{Status::ok, "worker stopping"};
    HANDLE cancel = leaving_.event();
    if (request.verb == Verb::stop_worker) {
        // First the reason, since the service closes both channels behind its stop; the reply goes out all the same.
        leaving_.leave(0, "the service stops this worker");
        cancel = nullptr;
    } else {
        answer = handler_(request);
    }
    wipe(request.payload);
    answer.text.resize(std::min(answer.text.size(), text_max));
    const std::vector<uint8_t> reply =
        host_service::encode_response(request.verb, answer.status, answer.text);
    if (!host_service::write_frame(requests_, reply, cancel, reply_ms))
        leaving_.leave(1, "the worker channel broke");
}

} // namespace app
