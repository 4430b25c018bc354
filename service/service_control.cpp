// The service's life under the service control manager. service_main runs on a thread of the dispatcher and alone
// reports the status; control runs on another and touches nothing but the two events, under event_lock: it may still
// be called while service_main ends, and must not meet a closed handle.
#include "service_control.h"

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "handles.h"
#include "keystore.h"
#include "log.h"
#include "security.h"
#include "supervisor.h"

namespace host_service {
namespace {

constexpr int dispatcher_failed = 2;
constexpr DWORD stop_step_ms = 1000; // between two reports of a stop that goes on; well below its wait hint

// What the service reports in each of its states. A pending state counts its reports in the check point.
struct state_row {
    DWORD state;
    DWORD controls;
    DWORD wait_hint_ms;
    bool pending;
};
constexpr state_row start_pending = {SERVICE_START_PENDING, 0, 10000, true};
constexpr state_row running = {
    SERVICE_RUNNING, SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_SESSIONCHANGE, 0, false};
constexpr state_row stop_pending = {SERVICE_STOP_PENDING, 0, 5000, true};
constexpr state_row stopped = {SERVICE_STOPPED, 0, 0, false};

SERVICE_STATUS status = {SERVICE_WIN32_OWN_PROCESS, 0, 0, 0, 0, 0, 0}; // as last reported
SERVICE_STATUS_HANDLE status_handle = nullptr;

std::mutex event_lock;
HANDLE stop_event = nullptr; // these two as control sees them: null when there is nothing to set
HANDLE wake_event = nullptr;

void report(const state_row &row, DWORD exit_code = NO_ERROR) {
    status.dwCurrentState = row.state;
    status.dwControlsAccepted = row.controls;
    status.dwWin32ExitCode = exit_code;
    status.dwCheckPoint = row.pending ? status.dwCheckPoint + 1 : 0;
    status.dwWaitHint = row.wait_hint_ms;
    SetServiceStatus(status_handle, &status);
}

// Both events for as long as it lives: shown to control first, and taken from it again before their owners close them.
class visible_events {
public:
    visible_events(HANDLE stop, HANDLE wake) { show(stop, wake); }
    ~visible_events() { show(nullptr, nullptr); }
    visible_events(const visible_events &) = delete;
    visible_events &operator=(const visible_events &) = delete;

private:
    static void show(HANDLE stop, HANDLE wake) {
        const std::lock_guard guard(event_lock);
        stop_event = stop;
        wake_event = wake;
    }
};

void set_if_any(HANDLE event) {
    if (event != nullptr) {
        SetEvent(event);
    }
}

DWORD WINAPI control(DWORD code, DWORD, void *, void *) {
    const std::lock_guard guard(event_lock);
    switch (code) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
        set_if_any(stop_event);
        set_if_any(wake_event);
        break;
    case SERVICE_CONTROL_SESSIONCHANGE:
        set_if_any(wake_event); // the supervisor asks for the console session itself
        break;
    default:
        break;
    }
    return NO_ERROR;
}

// Runs the supervisor on a thread of its own until it has ended, and answers its result. A wait that fails, like an
// event that is missing, ends as an orderly stop: a supervisor that nobody could stop any more must not run on.
DWORD run_supervisor(HANDLE stop, HANDLE wake) {
    const unique_handle done_event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::atomic<DWORD> result = 0;
    std::thread supervisor([&] {
        result = supervise(stop, wake);
        set_if_any(done_event.get());
    });
    const HANDLE either[] = {stop, done_event.get()};
    const DWORD first = done_event ? WaitForMultipleObjects(2, either, FALSE, INFINITE) : WAIT_FAILED;
    if (first != WAIT_OBJECT_0 + 1) {
        SetEvent(stop);
        SetEvent(wake);
        report(stop_pending);
        while (done_event && WaitForSingleObject(done_event.get(), stop_step_ms) == WAIT_TIMEOUT) {
            report(stop_pending);
        }
    }
    supervisor.join();
    return result;
}

void WINAPI service_main(DWORD, LPWSTR *) {
    const unique_handle stop(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const unique_handle wake(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    const visible_events events(stop.get(), wake.get());
    status_handle = RegisterServiceCtrlHandlerExW(service_name, control, nullptr);
    if (status_handle == nullptr) {
        return;
    }
    report(start_pending);
    if (!stop || !wake || !system_process(GetCurrentProcess()) ||
        !keystore::configureHostStore(keystore::HostStoreScope::Machine, nullptr)) {
        report(stopped, ERROR_ACCESS_DENIED);
        return;
    }
    log_open(false, keystore::hostStoreDirectory());
    report(running);
    const DWORD result = run_supervisor(stop.get(), wake.get());
    log_close();
    report(stopped, result == 0 ? NO_ERROR : ERROR_SERVICE_SPECIFIC_ERROR);
}

} // namespace

int run_service() {
    std::wstring name = service_name;
    const SERVICE_TABLE_ENTRYW table[] = {{name.data(), service_main}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : dispatcher_failed;
}

} // namespace host_service
