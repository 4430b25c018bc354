// The worker's end of its two channels to the service, and a thread for each:
//
//   events channel   the heartbeat: worker_ack every 2 seconds, and the reply read. The service gives up a worker after 5
//                    seconds without one.
//   worker channel   the requests: each is decoded, acted on and answered, one at a time, within 5 seconds.
//
// Two threads, because a request may take its seconds while the heart must beat. Whatever goes wrong on either channel
// can't be mended from here: the worker leaves, and the service starts another.
#pragma once

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <handles.h>
#include <ipc_protocol.h>

#include "worker/departure.h"

namespace app {

// What the service says on the command line.
struct launch {
    DWORD supervisor = 0; // process id of the service
    std::wstring channel; // pipe name of the worker channel; the events channel's has "-events" behind it
};

// Both pipes, connected, and the process that serves them proved: SYSTEM, running, and the one that the command line
// names. Nothing is read or written before. The constructor throws std::runtime_error.
struct service_channels {
    service_channels(const launch &from, const departure &leaving);
    host_service::unique_file requests;
    host_service::unique_file events;
};

class heartbeat {
public:
    // Beats from now on, while `alive` says so: a worker whose work hangs must not claim to live. All outlive this.
    heartbeat(HANDLE events, departure &leaving, std::function<bool()> alive);
    heartbeat(const heartbeat &) = delete;
    heartbeat &operator=(const heartbeat &) = delete;
    ~heartbeat(); // leaves, if nobody did, and waits for the thread

private:
    void run();
    bool beat();

    HANDLE events_;
    departure &leaving_;
    std::function<bool()> alive_;
    std::thread thread_;
};

class request_loop {
public:
    using request_handler = std::function<host_service::Response(const host_service::Request &request)>;

    // Answers requests from now on: stop_worker by itself, every other verb by the handler. All outlive this.
    request_loop(HANDLE requests, departure &leaving, request_handler handler);
    request_loop(const request_loop &) = delete;
    request_loop &operator=(const request_loop &) = delete;
    ~request_loop(); // leaves, if nobody did, and waits for the thread

private:
    void run();
    void serve(std::vector<uint8_t> &frame);

    HANDLE requests_;
    departure &leaving_;
    request_handler handler_;
    std::thread thread_;
};

} // namespace app
