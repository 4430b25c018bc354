// The Host worker as a process: placed as SYSTEM on the interactive desktop of one session, inside a job that ends it
// with the service, and only after every file it would load has been shown to be out of ordinary users' reach.
#ifndef HOST_SERVICE_WORKER_PROCESS_H
#define HOST_SERVICE_WORKER_PROCESS_H

#include <string>

#include <windows.h>

namespace host_service {

// The directory of the running executable, without a trailing backslash; empty on failure.
std::wstring executable_directory();

// A pipe name that nobody can guess, new for each launch; empty on failure.
std::wstring worker_channel_name();

// A session that can own the console: neither 0 (services) nor 0xFFFFFFFF (none).
bool valid_session(DWORD session);

// Empty, or one process with its job; owns both handles. One thread starts and stops it.
class WorkerProcess {
public:
    WorkerProcess() = default;
    WorkerProcess(const WorkerProcess &) = delete;
    WorkerProcess &operator=(const WorkerProcess &) = delete;
    ~WorkerProcess() { stop(); }

    // Ends an earlier worker, then launches "TarnGliderHostWorker.exe" of the service's directory with the command
    // line: "PATH" --supervisor PID --channel "CHANNEL". On failure nothing is left, neither process nor handle.
    bool start(DWORD session, const std::wstring &channel);

    // There is a process and it runs.
    bool alive() const;

    // Ends whatever remains; harmless on an empty one.
    void stop();

    HANDLE process = nullptr; // null when none; stays after the process has exited by itself, until stop
    HANDLE job = nullptr;     // ends its processes when closed
    DWORD session = 0;        // of the launch; 0 when none
};

} // namespace host_service

#endif
