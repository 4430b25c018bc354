// The service manager. Starting a service runs the program of its binary path as SYSTEM in session 0; that program's
// dispatcher runs service_main on a thread of its own, hands controls to the handler, and returns when the service has
// reported that it stopped. A service whose process ends without that counts as stopped, too.
#include <cstring>
#include <deque>

#include "winsim/sim.h"

namespace winsim {
namespace {

struct control_request {
    DWORD control, event;
    bool handled = false;
};

struct service {
    std::wstring name;
    service_facts facts = {};
    bool connected = false; // its process has called the dispatcher
    LPHANDLER_FUNCTION_EX handler = nullptr;
    void *context = nullptr;
    std::deque<std::shared_ptr<control_request>> requests = {};

    bool stopped() const { return facts.status.dwCurrentState == SERVICE_STOPPED; }
    bool process_gone() const { return process_by_id(facts.process)->ended; }
};

struct manager {
    std::map<std::wstring, std::shared_ptr<service>> services; // by folded name
};

// A handle of the manager, or of one service.
struct manager_handle : own_closer {
    std::shared_ptr<service> of; // null for the manager's own
    std::string describe() const override { return of ? "service " + narrow(of->name) : "service manager"; }
};

auto &services() { return part<manager>().services; }

std::shared_ptr<service> service_of_process(DWORD id) {
    for (const auto &[name, known] : services()) {
        if (known->facts.process == id) {
            return known;
        }
    }
    return nullptr;
}

// The service that the handle of a call stands for, brought up to date; null with the error set.
std::shared_ptr<service> asked_service(const char *call, SC_HANDLE handle, DWORD needed) {
    const auto found = asked<manager_handle>(call, handle, needed);
    if (!found || !found->of) {
        return nullptr;
    }
    service_facts &facts = found->of->facts;
    if (facts.process != 0 && found->of->process_gone()) {
        facts.status.dwCurrentState = SERVICE_STOPPED;
    }
    return found->of;
}

SC_HANDLE open_handle(std::shared_ptr<service> of, DWORD access) {
    auto made = std::make_shared<manager_handle>();
    made->of = std::move(of);
    return static_cast<SC_HANDLE>(make_handle(made, access));
}

// A null text leaves what was there.
void assign(std::wstring &to, const wchar_t *from) { to = from != nullptr ? from : to; }

void configure(service_facts &facts, DWORD type, DWORD start, DWORD error_control, const wchar_t *path,
               const wchar_t *group, const wchar_t *dependencies, const wchar_t *account,
               const wchar_t *display) {
    facts.type = type;
    facts.start = start;
    facts.error_control = error_control;
    assign(facts.path, path);
    assign(facts.group, group);
    assign(facts.dependencies, dependencies);
    assign(facts.account, account);
    assign(facts.display, display);
}

// Hands a control to the service's process and waits until its handler has answered.
void deliver(const std::shared_ptr<service> &to, DWORD control) {
    if (to->facts.process == 0) {
        return; // planted by a test
    }
    auto request = std::make_shared<control_request>(control_request{control, 0});
    to->requests.push_back(request);
    wait_until([&] { return request->handled || to->process_gone(); }, clock_ms() + 30000,
               "a control's handler");
}

} // namespace

service_facts &machine::service(const std::wstring &name) {
    auto &known = services()[fold(name)];
    if (!known) {
        known = std::make_shared<winsim::service>();
        known->name = name;
    }
    return known->facts;
}

bool machine::service_exists(const std::wstring &name) const { return services().contains(fold(name)); }

void machine::control_service(const std::wstring &name, DWORD control) {
    deliver(services().at(fold(name)), control);
}

} // namespace winsim

using namespace winsim;

SC_HANDLE OpenSCManagerW(LPCWSTR, LPCWSTR, DWORD access) {
    BEGIN_CALL(nullptr);
    const bool allowed = acting().who->elevated || access == SC_MANAGER_CONNECT;
    return allowed ? open_handle(nullptr, access) : (refuse(ERROR_ACCESS_DENIED), nullptr);
}

SC_HANDLE CreateServiceW(SC_HANDLE handle, LPCWSTR name, LPCWSTR display, DWORD access, DWORD type,
                         DWORD start, DWORD error_control, LPCWSTR path, LPCWSTR group, DWORD *,
                         LPCWSTR dependencies, LPCWSTR account, LPCWSTR) {
    if (!asked<manager_handle>(__func__, handle, SC_MANAGER_CREATE_SERVICE)) {
        return nullptr;
    }
    auto &known = services()[fold(name)];
    if (known) {
        return refuse(ERROR_SERVICE_EXISTS), nullptr;
    }
    known = std::make_shared<service>(service{name});
    configure(known->facts, type, start, error_control, path, group, dependencies, account, display);
    return open_handle(known, access);
}

SC_HANDLE OpenServiceW(SC_HANDLE handle, LPCWSTR name, DWORD access) {
    if (!asked<manager_handle>(__func__, handle, SC_MANAGER_CONNECT)) {
        return nullptr;
    }
    const auto known = services().find(fold(name));
    if (known == services().end()) {
        return refuse(ERROR_SERVICE_DOES_NOT_EXIST), nullptr;
    }
    const bool allowed = acting().who->elevated || access == SERVICE_QUERY_STATUS;
    return allowed ? open_handle(known->second, access) : (refuse(ERROR_ACCESS_DENIED), nullptr);
}

BOOL ChangeServiceConfigW(SC_HANDLE handle, DWORD type, DWORD start, DWORD error_control, LPCWSTR path,
                          LPCWSTR group, DWORD *, LPCWSTR dependencies, LPCWSTR account, LPCWSTR,
                          LPCWSTR display) {
    const auto known = asked_service(__func__, handle, SERVICE_CHANGE_CONFIG);
    if (known) {
        configure(known->facts, type, start, error_control, path, group, dependencies, account, display);
    }
    return known != nullptr;
}

BOOL ChangeServiceConfig2W(SC_HANDLE handle, DWORD level, LPVOID value) {
    const auto known = asked_service(__func__, handle, SERVICE_CHANGE_CONFIG | SERVICE_START);
    if (!known || level != SERVICE_CONFIG_FAILURE_ACTIONS) {
        return FALSE;
    }
    const SERVICE_FAILURE_ACTIONSW &wanted = *static_cast<SERVICE_FAILURE_ACTIONSW *>(value);
    known->facts.reset_s = wanted.dwResetPeriod;
    assign(known->facts.reboot_message, wanted.lpRebootMsg);
    assign(known->facts.command, wanted.lpCommand);
    known->facts.actions.assign(wanted.lpsaActions, wanted.lpsaActions + wanted.cActions);
    return TRUE;
}

BOOL StartServiceW(SC_HANDLE handle, DWORD, LPCWSTR *) {
    const auto known = asked_service(__func__, handle, SERVICE_START);
    if (!known || !known->stopped()) {
        return known ? refuse(ERROR_SERVICE_ALREADY_RUNNING) : FALSE;
    }
    const std::wstring &path = known->facts.path; // the program, in quotes
    const auto made = start_installed(system_token(0), path.substr(1, path.size() - 2), path);
    known->facts.process = made->id;
    known->facts.status = {known->facts.type, SERVICE_START_PENDING, 0, 0, 0, 0, 2000};
    known->facts.reports.clear();
    known->connected = false;
    known->handler = nullptr;
    wait_until([&] { return known->connected || made->ended; }, no_deadline, "a service's dispatcher");
    return known->connected ? TRUE : refuse(ERROR_SERVICE_REQUEST_TIMEOUT);
}

BOOL ControlService(SC_HANDLE handle, DWORD control, SERVICE_STATUS *status) {
    const auto known = asked_service(__func__, handle, SERVICE_STOP);
    const DWORD accepted = known ? known->facts.status.dwControlsAccepted : 0;
    if (control != SERVICE_CONTROL_STOP || (accepted & SERVICE_ACCEPT_STOP) == 0) {
        return known ? refuse(ERROR_SERVICE_NOT_ACTIVE) : FALSE;
    }
    deliver(known, control);
    *status = known->facts.status;
    return TRUE;
}

BOOL QueryServiceStatus(SC_HANDLE handle, SERVICE_STATUS *status) {
    const auto known = asked_service(__func__, handle, SERVICE_QUERY_STATUS);
    return known ? (*status = known->facts.status, TRUE) : FALSE;
}

BOOL QueryServiceStatusEx(SC_HANDLE handle, SC_STATUS_TYPE, BYTE *out, DWORD size, DWORD *needed) {
    const auto known = asked_service(__func__, handle, SERVICE_QUERY_STATUS);
    SERVICE_STATUS_PROCESS status{};
    *needed = sizeof status;
    if (!known || size < sizeof status) {
        return known ? refuse(ERROR_INSUFFICIENT_BUFFER) : FALSE;
    }
    static_cast<SERVICE_STATUS &>(status) = known->facts.status;
    status.dwProcessId = known->stopped() ? 0 : known->facts.process;
    std::memcpy(out, &status, sizeof status);
    return TRUE;
}

BOOL DeleteService(SC_HANDLE handle) {
    const auto known = asked_service(__func__, handle, DELETE);
    return known && services().erase(fold(known->name)) != 0;
}

BOOL CloseServiceHandle(SC_HANDLE handle) { return close_own<manager_handle>(__func__, handle); }

BOOL StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRYW *table) {
    BEGIN_CALL(FALSE);
    const auto own = service_of_process(acting().id);
    if (!own) {
        return refuse(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    }
    own->connected = true;
    start_thread(process_by_id(acting().id), [own, main = table->lpServiceProc] {
        LPWSTR arguments[] = {own->name.data(), nullptr};
        main(1, arguments);
    });
    while (!own->stopped()) {
        wait_until([&] { return !own->requests.empty() || own->stopped(); }, no_deadline, "a control");
        if (own->requests.empty()) {
            continue;
        }
        const auto request = own->requests.front();
        own->requests.pop_front();
        if (own->handler != nullptr) {
            own->handler(request->control, request->event, nullptr, own->context);
        }
        request->handled = true;
    }
    return TRUE;
}

SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerExW(LPCWSTR name, LPHANDLER_FUNCTION_EX handler,
                                                    LPVOID context) {
    BEGIN_CALL(nullptr);
    const auto own = service_of_process(acting().id);
    if (!own || fold(own->name) != fold(name)) {
        return nullptr;
    }
    own->handler = handler;
    own->context = context;
    return reinterpret_cast<SERVICE_STATUS_HANDLE>(own.get());
}

BOOL SetServiceStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS *status) {
    BEGIN_CALL(FALSE);
    const auto own = service_of_process(acting().id);
    if (!own || reinterpret_cast<SERVICE_STATUS_HANDLE>(own.get()) != handle) {
        return refuse(ERROR_INVALID_HANDLE);
    }
    own->facts.status = *status;
    own->facts.reports.push_back(*status);
    return TRUE;
}
