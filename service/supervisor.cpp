// The supervisor's loop: one pass at least every 100 ms decides from its own reads of clock, console and flags.
//
//   state         holds while                                   left by
//   idle          no worker, not disabled, no valid console     a valid console
//   back-off      no worker, now before next_launch_ms          time
//   launching     inside start_worker                           success: started; failure: back-off
//   started       running, not acknowledged                     worker_ack: acknowledged; 15 s or exit: back-off
//   acknowledged  running, acknowledged                         5 s without worker_ack or exit: back-off; channel
//                                                               gone: started, its 15 s counted from the last ack
//   disabled      disabled, no worker                           restart_worker
//
// A restart request takes a running worker to launching without delay, stop_worker to disabled; a moved console ends
// it without delay or a line, and the next pass launches in the new session.
#include "supervisor.h"

#include <array>

#include "ipc_transport.h"
#include "log.h"
#include "supervisor_runtime.h"

namespace host_service {
namespace {

constexpr DWORD no_session = 0xFFFFFFFF;
constexpr uint64_t started_limit_ms = 15000;     // from the launch, or the last ack of a channel that is gone
constexpr uint64_t acknowledged_limit_ms = 5000; // from one ack to the next
constexpr uint64_t proven_ms = 60000;            // a worker older than this has earned a fresh back-off
constexpr uint32_t doubling_failures = 5;        // 1, 2, 4, 8 and 16 s, and then the longest pause
constexpr uint64_t first_delay_ms = 1000;
constexpr uint64_t longest_delay_ms = 30000;
constexpr DWORD pass_ms = 100;

// The pause before the next launch, after so many failures in a row before this one.
uint64_t restart_delay_ms(uint32_t failures) {
    return failures < doubling_failures ? first_delay_ms << failures : longest_delay_ms;
}

enum class verdict { healthy, failed, requested, moved };

class supervision {
public:
    explicit supervision(Runtime &runtime) : runtime_(runtime) {}

    void pass() {
        uint64_t now = GetTickCount64();
        DWORD console = WTSGetActiveConsoleSessionId();
        if (!running_) {
            // Without a worker there is nothing to restart, and a pause isn't cut.
            runtime_.restart_requested = false;
        } else {
            switch (judge(now, console)) {
            case verdict::healthy:
                if (runtime_.acknowledged && now - launched_ms_ > proven_ms) {
                    failures_ = 0;
                }
                return;
            case verdict::moved:
                stop();
                next_launch_ms_ = 0;
                return;
            case verdict::failed:
                stop();
                postpone(now);
                hlog("Host worker stopped; restart delayed");
                break;
            case verdict::requested:
                stop();
                break;
            }
        }
        launch(now, console);
    }

private:
    // A death comes before a request: a worker that died in the pass of a restart counts as failed.
    verdict judge(uint64_t now, DWORD console) {
        if (!runtime_.worker.alive() || silent(now)) {
            return verdict::failed;
        }
        bool restart = runtime_.restart_requested.exchange(false);
        if (restart || runtime_.disabled) {
            return verdict::requested;
        }
        return console == session_ && valid_session(console) ? verdict::healthy : verdict::moved;
    }

    // The flag is read before the time, as the events thread writes the time before the flag. An ack that lands after
    // now was read is no silence.
    bool silent(uint64_t now) const {
        uint64_t limit = runtime_.acknowledged ? acknowledged_limit_ms : started_limit_ms;
        uint64_t last = runtime_.last_ack_ms;
        return now > last && now - last > limit;
    }

    void launch(uint64_t now, DWORD console) {
        if (runtime_.disabled || !valid_session(console) || now < next_launch_ms_) {
            return;
        }
        if (!runtime_.start_worker(console)) {
            runtime_.stop_worker_now();
            postpone(GetTickCount64());
            hlog("Host worker launch failed; protected path, session or system privilege unavailable");
            return;
        }
        hlog("Host worker launched in console session %lu", static_cast<unsigned long>(console));
        running_ = true;
        session_ = console;
        launched_ms_ = now;
    }

    void stop() {
        runtime_.stop_worker_now();
        running_ = false;
        session_ = no_session;
    }

    void postpone(uint64_t from_ms) {
        next_launch_ms_ = from_ms + restart_delay_ms(failures_);
        if (failures_ < doubling_failures) {
            failures_++; // more make no difference
        }
    }

    Runtime &runtime_;
    bool running_ = false;        // launched and not yet stopped
    DWORD session_ = no_session;  // the console session it was launched in
    uint64_t next_launch_ms_ = 0; // no launch before this tick
    uint64_t launched_ms_ = 0;    // tick at the start of the pass that launched it
    uint32_t failures_ = 0;       // in a row
};

using admin_pipes = std::array<HANDLE, admin_pipe_instances>;

// All instances or none: whoever took the name before the service did would be the one that tools talk to.
bool create_admin_pipes(admin_pipes &pipes) {
    for (size_t i = 0; i < pipes.size(); i++) {
        pipes[i] = create_pipe(admin_pipe_name, true, i == 0);
        if (pipes[i] == INVALID_HANDLE_VALUE) {
            while (i > 0) {
                CloseHandle(pipes[--i]);
            }
            return false;
        }
    }
    return true;
}

} // namespace

DWORD supervise(HANDLE stop_event, HANDLE wake_event) {
    Runtime runtime;
    runtime.stop_event = stop_event;
    runtime.wake_event = wake_event;

    admin_pipes pipes;
    if (!create_admin_pipes(pipes)) {
        return 2;
    }
    std::array<std::thread, admin_pipe_instances> admins;
    for (size_t i = 0; i < pipes.size(); i++) {
        admins[i] = std::thread([pipe = pipes[i], &runtime] { serve_administrators(pipe, runtime); });
    }

    supervision loop(runtime);
    const HANDLE signals[] = {stop_event, wake_event};
    while (WaitForSingleObject(stop_event, 0) != WAIT_OBJECT_0) {
        loop.pass();
        WaitForMultipleObjects(2, signals, FALSE, pass_ms);
    }

    for (std::thread &admin : admins) {
        admin.join();
    }
    runtime.stop_worker_now();
    return 0;
}

} // namespace host_service
