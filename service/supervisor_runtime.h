// What the supervisor's loop, the four admin threads and the events thread of each launch share. Internal to the
// supervisor; nothing else includes it.
//
// lock guards the worker's handles and every exchange on worker_pipe. The flags are atomics, set without it. Only the
// loop's thread makes, closes or replaces a handle here. The events thread never takes lock: what it reads of the
// worker doesn't change between start_worker and the moment it is joined.
#ifndef HOST_SERVICE_SUPERVISOR_RUNTIME_H
#define HOST_SERVICE_SUPERVISOR_RUNTIME_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include <windows.h>

#include "ipc_protocol.h"
#include "worker_process.h"

namespace host_service {

// What can be read next on the worker channel of this launch.
enum class channel_state {
    clear, // nothing: the worker owes no reply
    owed,  // a reply that came too late; it must never answer a later request
    lost,  // unknown, since an exchange broke off in the middle; good for nothing until the next launch
};

struct Runtime {
    HANDLE stop_event = nullptr;               // the service's; not owned
    HANDLE wake_event = nullptr;               // hurries the loop; not owned
    HANDLE worker_stop_event = nullptr;        // one for each launch; ends what waits on the events channel
    HANDLE worker_pipe = INVALID_HANDLE_VALUE; // requests to the worker
    HANDLE events_pipe = INVALID_HANDLE_VALUE; // requests of the worker
    WorkerProcess worker;
    std::mutex lock;
    channel_state channel = channel_state::clear; // guarded by lock
    std::atomic<bool> acknowledged = false; // the worker has sent worker_ack and its events channel lives
    std::atomic<bool> disabled = false;     // an administrator stopped the worker
    std::atomic<bool> restart_requested = false;
    std::atomic<uint64_t> last_ack_ms = 0; // tick of the last worker_ack, or of the launch
    uint64_t last_sas_ms = 0; // tick of the last secure attention attempt; the events thread's alone
    std::thread events_thread;

    // Makes both channels, launches the worker into session and waits until it has connected and is proved. What a
    // failed start leaves behind is stop_worker_now's to clear.
    bool start_worker(DWORD session);

    // Asks the worker to leave, ends its events thread and its channels, grants it 3 s and then ends what remains.
    void stop_worker_now();

    // Sends request to the worker and relays its reply; false if the exchange failed, with lock held by the caller.
    // reply then holds nothing. A reply that came too late for an earlier request is never taken for this one's.
    bool exchange(const Request &request, std::vector<uint8_t> &reply);
};

// The body of one admin thread: serves one instance of the admin pipe until stop_event is signalled, and closes it.
void serve_administrators(HANDLE pipe, Runtime &runtime);

} // namespace host_service

#endif
