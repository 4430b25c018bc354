// The secure attention sequence: a chain of refusals, each of which must be passed for the sequence to go out. No
// state; only the events thread calls it.
#include "sas.h"

#include <string>

#include "handles.h"
#include "security.h"

namespace host_service {
namespace {

constexpr wchar_t policy_key[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\System";
constexpr wchar_t policy_value[] = L"SoftwareSASGeneration";
constexpr DWORD policy_services = 1;            // services may generate the sequence
constexpr DWORD policy_services_and_access = 3; // they and the ease-of-access programs
constexpr DWORD path_capacity = 260;

struct library_handle {
    using type = HMODULE;
    static type none() { return nullptr; }
    static void close(type library) { FreeLibrary(library); }
};
using unique_library = owned<library_handle>;

using send_sas = void(WINAPI *)(BOOL as_user);

// The value is an administrator's to set; one that is missing or of another type forbids the sequence.
bool policy_allows_services() {
    DWORD policy = 0;
    DWORD size = sizeof policy;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, policy_key, policy_value, RRF_RT_REG_DWORD, nullptr, &policy,
                     &size) != ERROR_SUCCESS) {
        return false;
    }
    return policy == policy_services || policy == policy_services_and_access;
}

bool still_running(HANDLE process) {
    return process != nullptr && WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
}

bool runs_as_system_in(HANDLE process, DWORD session) {
    DWORD actual = 0;
    return system_process(process, &actual) && session != 0 && actual == session;
}

bool send() {
    wchar_t directory[path_capacity];
    const UINT length = GetSystemDirectoryW(directory, path_capacity);
    if (length == 0 || length >= path_capacity) {
        return false;
    }
    const std::wstring path = std::wstring(directory) + L"\\sas.dll";
    const unique_library library(LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32));
    if (!library) {
        return false;
    }
    const auto function =
        reinterpret_cast<send_sas>(reinterpret_cast<void *>(GetProcAddress(library.get(), "SendSAS")));
    if (function == nullptr) {
        return false;
    }
    function(FALSE);
    return true;
}

} // namespace

bool dispatch_sas(HANDLE worker_process, DWORD session) {
    if (!policy_allows_services()) {
        return false;
    }
    if (!still_running(worker_process)) {
        return false;
    }
    if (!runs_as_system_in(worker_process, session)) {
        return false;
    }
    if (session != WTSGetActiveConsoleSessionId()) {
        return false; // the sequence reaches the console and nothing else
    }
    if (!RevertToSelf()) {
        return false;
    }
    return send();
}

} // namespace host_service
