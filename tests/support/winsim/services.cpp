// The service manager. Starting a service runs the program of its binary path as SYSTEM in session 0; that program's
// dispatcher runs service_main on a thread of its own, hands controls to the handler, and returns when the service has
// reported that it stopped. A service whose process ends without that counts as stopped, too.
#include <algorithm>
#include <cstring>
#include <deque>

#include "winsim/own_closer.h"

namespace winsim {
namespace {

struct control_request {
    DWORD control;
    DWORD event;
    bool handled = false;
};

struct service {
    std::wstring name;
    service_facts facts = {};
    bool connected = false; // its process has called the dispatcher
    bool deleted = false;   // goes when it has stopped
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

std::shared_ptr<service> find_service(const std::wstring &name) {
    auto found = services().find(fold(name));
    if (found == services().end()) {
        return nullptr;
    }
    std::shared_ptr<service> known = found->second;
    if (known->facts.process != 0 && !known->stopped() && known->process_gone()) {
        known->facts.status = {SERVICE_WIN32_OWN_PROCESS, SERVICE_STOPPED, 0, ERROR_PROCESS_ABORTED, 0, 0, 0};
    }
    if (known->deleted && known->stopped()) {
        services().erase(found);
        return nullptr;
    }
    return known;
}

std::shared_ptr<service> service_of_process(DWORD id) {
    for (const auto &[name, known] : services()) {
        if (known->facts.process == id) {
            return known;
        }
    }
    return nullptr;
}

// The service that a handle stands for, brought up to date; null with the error set.
std::shared_ptr<service> service_of(SC_HANDLE handle, DWORD needed) {
    std::shared_ptr<manager_handle> found = find_as<manager_handle>(handle, needed);
    if (!found || !found->of) {
        SetLastError(found ? ERROR_INVALID_HANDLE : GetLastError());
        return nullptr;
    }
    find_service(found->of->name);
    return found->of;
}

SC_HANDLE open_handle(std::shared_ptr<service> of, DWORD access) {
    auto made = std::make_shared<manager_handle>();
    made->of = std::move(of);
    return static_cast<SC_HANDLE>(make_handle(made, access));
}

SC_HANDLE none(DWORD error) {
    refuse(error);
    return nullptr;
}

// A null text leaves what was there.
void assign(std::wstring &to, const wchar_t *from) { to = from != nullptr ? from : to; }

void configure(service_facts &facts, DWORD type, DWORD start, DWORD error_control, const wchar_t *path,
               const wchar_t *group, const wchar_t *dependencies, const wchar_t *account,
               const wchar_t *display) {
    const auto set = [](DWORD &to, DWORD from) { to = from == SERVICE_NO_CHANGE ? to : from; };
    set(facts.type, type);
    set(facts.start, start);
    set(facts.error_control, error_control);
    assign(facts.path, path);
    assign(facts.group, group);
    assign(facts.dependencies, dependencies);
    assign(facts.account, account);
    assign(facts.display, display);
}

// The program of a binary path: what stands in quotes, or up to the first blank.
std::wstring image_of(const std::wstring &path) {
    const bool quoted = path.starts_with(L"\"");
    return path.substr(quoted, path.find(quoted ? L'"' : L' ', quoted) - quoted);
}

// Hands a control to the service's process and waits until its handler has answered.
void deliver(const std::shared_ptr<service> &to, DWORD control, DWORD event) {
    if (to->facts.process == 0) {
        return; // planted by a test
    }
    auto request = std::make_shared<control_request>(control_request{control, event});
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

bool machine::service_exists(const std::wstring &name) const { return find_service(name) != nullptr; }

void machine::control_service(const std::wstring &name, DWORD control, DWORD event) {
    deliver(find_service(name), control, event);
}

} // namespace winsim

using namespace winsim;

SC_HANDLE OpenSCManagerW(LPCWSTR, LPCWSTR, DWORD access) {
    if (failing("OpenSCManagerW")) {
        return nullptr;
    }
    const bool allowed = acting().who->elevated || access == SC_MANAGER_CONNECT;
    return allowed ? open_handle(nullptr, access) : none(ERROR_ACCESS_DENIED);
}

SC_HANDLE CreateServiceW(SC_HANDLE handle, LPCWSTR name, LPCWSTR display, DWORD access, DWORD type,
                         DWORD start, DWORD error_control, LPCWSTR path, LPCWSTR group, DWORD *,
                         LPCWSTR dependencies, LPCWSTR account, LPCWSTR) {
    if (failing("CreateServiceW") || !find_as<manager_handle>(handle, SC_MANAGER_CREATE_SERVICE)) {
        return nullptr;
    }
    if (std::shared_ptr<service> known = find_service(name)) {
        return none(known->deleted ? ERROR_SERVICE_MARKED_FOR_DELETE : ERROR_SERVICE_EXISTS);
    }
    auto made = std::make_shared<service>(service{name});
    configure(made->facts, type, start, error_control, path, group, dependencies, account, display);
    services()[fold(name)] = made;
    return open_handle(made, access);
}

SC_HANDLE OpenServiceW(SC_HANDLE handle, LPCWSTR name, DWORD access) {
    if (failing("OpenServiceW") || !find_as<manager_handle>(handle, SC_MANAGER_CONNECT)) {
        return nullptr;
    }
    std::shared_ptr<service> known = find_service(name);
    if (!known) {
        return none(ERROR_SERVICE_DOES_NOT_EXIST);
    }
    const DWORD for_all = SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | READ_CONTROL;
    const bool allowed = acting().who->elevated || (access & ~for_all) == 0;
    return allowed ? open_handle(known, access) : none(ERROR_ACCESS_DENIED);
}

BOOL ChangeServiceConfigW(SC_HANDLE handle, DWORD type, DWORD start, DWORD error_control, LPCWSTR path,
                          LPCWSTR group, DWORD *, LPCWSTR dependencies, LPCWSTR account, LPCWSTR,
                          LPCWSTR display) {
    std::shared_ptr<service> known =
        failing("ChangeServiceConfigW") ? nullptr : service_of(handle, SERVICE_CHANGE_CONFIG);
    if (!known || known->deleted) {
        return known ? refuse(ERROR_SERVICE_MARKED_FOR_DELETE) : FALSE;
    }
    configure(known->facts, type, start, error_control, path, group, dependencies, account, display);
    return TRUE;
}

BOOL ChangeServiceConfig2W(SC_HANDLE handle, DWORD level, LPVOID value) {
    std::shared_ptr<service> known = failing("ChangeServiceConfig2W")
                                         ? nullptr
                                         : service_of(handle, SERVICE_CHANGE_CONFIG | SERVICE_START);
    if (!known || level != SERVICE_CONFIG_FAILURE_ACTIONS) {
        return known ? refuse(ERROR_INVALID_PARAMETER) : FALSE;
    }
    const SERVICE_FAILURE_ACTIONSW &wanted = *static_cast<SERVICE_FAILURE_ACTIONSW *>(value);
    known->facts.reset_s = wanted.dwResetPeriod;
    assign(known->facts.reboot_message, wanted.lpRebootMsg);
    assign(known->facts.command, wanted.lpCommand);
    known->facts.actions.assign(wanted.lpsaActions, wanted.lpsaActions + wanted.cActions);
    return TRUE;
}

BOOL StartServiceW(SC_HANDLE handle, DWORD, LPCWSTR *) {
    std::shared_ptr<service> known = failing("StartServiceW") ? nullptr : service_of(handle, SERVICE_START);
    if (!known || !known->stopped() || known->deleted) {
        return known
                   ? refuse(known->deleted ? ERROR_SERVICE_MARKED_FOR_DELETE : ERROR_SERVICE_ALREADY_RUNNING)
                   : FALSE;
    }
    std::shared_ptr<process> made =
        start_installed(system_token(0), image_of(known->facts.path), known->facts.path);
    if (!made) {
        return refuse(ERROR_FILE_NOT_FOUND);
    }
    known->facts.process = made->id;
    known->facts.status = {known->facts.type, SERVICE_START_PENDING, 0, 0, 0, 0, 2000};
    known->facts.reports.clear();
    known->connected = false;
    known->handler = nullptr;
    const auto connected = [&] { return known->connected || made->ended; };
    wait_until(connected, clock_ms() + 30000, "a service's dispatcher");
    return known->connected ? TRUE : refuse(ERROR_SERVICE_REQUEST_TIMEOUT);
}

BOOL ControlService(SC_HANDLE handle, DWORD control, SERVICE_STATUS *status) {
    const DWORD needed = control == SERVICE_CONTROL_STOP ? SERVICE_STOP : SERVICE_ALL_ACCESS;
    std::shared_ptr<service> known = failing("ControlService") ? nullptr : service_of(handle, needed);
    if (!known) {
        return FALSE;
    }
    const DWORD state = known->facts.status.dwCurrentState;
    if (state != SERVICE_RUNNING) {
        return refuse(state == SERVICE_STOPPED ? ERROR_SERVICE_NOT_ACTIVE : ERROR_SERVICE_CANNOT_ACCEPT_CTRL);
    }
    if (control == SERVICE_CONTROL_STOP &&
        (known->facts.status.dwControlsAccepted & SERVICE_ACCEPT_STOP) == 0) {
        return refuse(ERROR_INVALID_SERVICE_CONTROL);
    }
    deliver(known, control, 0);
    *status = known->facts.status;
    return TRUE;
}

BOOL QueryServiceStatus(SC_HANDLE handle, SERVICE_STATUS *status) {
    std::shared_ptr<service> known =
        failing("QueryServiceStatus") ? nullptr : service_of(handle, SERVICE_QUERY_STATUS);
    if (known) {
        *status = known->facts.status;
    }
    return known != nullptr;
}

BOOL QueryServiceStatusEx(SC_HANDLE handle, SC_STATUS_TYPE, BYTE *out, DWORD size, DWORD *needed) {
    std::shared_ptr<service> known =
        failing("QueryServiceStatusEx") ? nullptr : service_of(handle, SERVICE_QUERY_STATUS);
    if (!known) {
        return FALSE;
    }
    SERVICE_STATUS_PROCESS status{};
    std::memcpy(&status, &known->facts.status, sizeof known->facts.status);
    status.dwProcessId = known->stopped() ? 0 : known->facts.process;
    *needed = sizeof status;
    if (size < sizeof status) {
        return refuse(ERROR_INSUFFICIENT_BUFFER);
    }
    std::memcpy(out, &status, sizeof status);
    return TRUE;
}

BOOL DeleteService(SC_HANDLE handle) {
    std::shared_ptr<service> known = failing("DeleteService") ? nullptr : service_of(handle, DELETE);
    if (!known || known->deleted) {
        return known ? refuse(ERROR_SERVICE_MARKED_FOR_DELETE) : FALSE;
    }
    known->deleted = true;
    find_service(known->name);
    return TRUE;
}

BOOL CloseServiceHandle(SC_HANDLE handle) {
    enter("CloseServiceHandle");
    return close_own<manager_handle>(handle);
}

BOOL StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRYW *table) {
    if (failing("StartServiceCtrlDispatcherW")) {
        return FALSE;
    }
    std::shared_ptr<service> own = service_of_process(acting().id);
    if (!own || own->connected) {
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
        std::shared_ptr<control_request> request = own->requests.front();
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
    if (failing("RegisterServiceCtrlHandlerExW")) {
        return nullptr;
    }
    std::shared_ptr<service> own = service_of_process(acting().id);
    if (!own || fold(own->name) != fold(name)) {
        refuse(ERROR_SERVICE_DOES_NOT_EXIST);
        return nullptr;
    }
    own->handler = handler;
    own->context = context;
    return reinterpret_cast<SERVICE_STATUS_HANDLE>(own.get());
}

BOOL SetServiceStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS *status) {
    if (failing("SetServiceStatus")) {
        return FALSE;
    }
    std::shared_ptr<service> own = service_of_process(acting().id);
    if (!own || reinterpret_cast<SERVICE_STATUS_HANDLE>(own.get()) != handle) {
        return refuse(ERROR_INVALID_HANDLE);
    }
    own->facts.status = *status;
    own->facts.reports.push_back(*status);
    return TRUE;
}
