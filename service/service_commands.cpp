// The switches, each a flat list of steps: every guard clause ends with the exit code that stands for it. One thread,
// no state.
#include "service_commands.h"

#include <algorithm>
#include <cstdio>
#include <cwctype>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

#include <objbase.h>
#include <shlobj.h>
#include <tlhelp32.h>

#include "handles.h"
#include "security.h"
#include "service_control.h"
#include "worker_process.h"

namespace host_service {
namespace {

constexpr wchar_t display_name[] = L"TarnGlider Host";
constexpr wchar_t account_name[] = L"LocalSystem";
constexpr std::wstring_view worker_image = L"TarnGliderHostWorker.exe";
constexpr wchar_t data_directory[] = L"\\TarnGlider\\Host"; // below the folder for all programs' data

constexpr DWORD failure_reset_s = 86400; // a day without a failure, and the delays begin again
constexpr DWORD restart_delays_ms[] = {5000, 15000, 30000};

constexpr int stop_polls = 100;
constexpr DWORD stop_poll_ms = 100;

struct service_handle {
    using type = SC_HANDLE;
    static type none() { return nullptr; }
    static void close(type handle) { CloseServiceHandle(handle); }
};
using unique_service = owned<service_handle>;

bool run_by_administrator() { return elevated_admin_process(GetCurrentProcess()); }

// Null values would leave what an earlier installation, or somebody else, had set.
bool update_registration(SC_HANDLE service, const std::wstring &command) {
    return ChangeServiceConfigW(service, SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                                command.c_str(), L"", nullptr, L"\0", account_name, L"", display_name) != 0;
}

unique_service register_service(SC_HANDLE manager, const std::wstring &command) {
    unique_service service(CreateServiceW(manager, service_name, display_name, SERVICE_ALL_ACCESS,
                                          SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                                          command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
    if (service || GetLastError() != ERROR_SERVICE_EXISTS) {
        return service;
    }
    service.reset(OpenServiceW(manager, service_name, SERVICE_ALL_ACCESS));
    if (service && !update_registration(service.get(), command)) {
        service.reset();
    }
    return service;
}

bool restart_on_failure(SC_HANDLE service) {
    SC_ACTION actions[std::size(restart_delays_ms)];
    for (size_t i = 0; i < std::size(actions); i++) {
        actions[i] = {SC_ACTION_RESTART, restart_delays_ms[i]};
    }
    wchar_t none[] = L""; // as above: a null would keep an old text
    SERVICE_FAILURE_ACTIONSW failure = {failure_reset_s, none, none, static_cast<DWORD>(std::size(actions)),
                                        actions};
    return ChangeServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, &failure) != 0;
}

bool is_stopped(SC_HANDLE service) {
    SERVICE_STATUS status = {};
    return QueryServiceStatus(service, &status) && status.dwCurrentState == SERVICE_STOPPED;
}

bool is_worker(const wchar_t *image) {
    return std::ranges::equal(std::wstring_view(image), worker_image, [](wchar_t left, wchar_t right) {
        return std::towlower(static_cast<wint_t>(left)) == std::towlower(static_cast<wint_t>(right));
    });
}

// True only if every process was looked at, and none has the worker's name.
bool no_worker_runs() {
    const unique_file snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!snapshot) {
        return false;
    }
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    if (!Process32FirstW(snapshot.get(), &entry)) {
        return false;
    }
    do {
        if (is_worker(entry.szExeFile)) {
            return false;
        }
    } while (Process32NextW(snapshot.get(), &entry));
    return GetLastError() == ERROR_NO_MORE_FILES;
}

// The store's directory; empty on failure.
std::wstring machine_store() {
    PWSTR text = nullptr;
    std::wstring directory;
    if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &text))) {
        directory = std::wstring(text) + data_directory;
    }
    CoTaskMemFree(text);
    return directory;
}

bool collect_tree(const std::wstring &root, std::vector<std::wstring> &files,
                  std::vector<std::wstring> &directories);

bool collect_entry(const std::wstring &path, DWORD attributes, std::vector<std::wstring> &files,
                   std::vector<std::wstring> &directories) {
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        return false; // what lies behind it isn't ours to delete
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        files.push_back(path);
        return protected_path(path, true);
    }
    if (!collect_tree(path, files, directories)) {
        return false;
    }
    directories.push_back(path);
    return true;
}

// Everything below root, children before parents; false if anything there isn't private. What a search that ends early
// leaves out is still in its directory later, and keeps that from being removed.
bool collect_tree(const std::wstring &root, std::vector<std::wstring> &files,
                  std::vector<std::wstring> &directories) {
    if (!protected_path(root, true)) {
        return false;
    }
    const std::wstring pattern = root + L"\\*";
    WIN32_FIND_DATAW found = {};
    const unique_find search(FindFirstFileW(pattern.c_str(), &found));
    if (!search) {
        return GetLastError() == ERROR_FILE_NOT_FOUND;
    }
    do {
        const std::wstring name = found.cFileName;
        if (name == L"." || name == L"..") {
            continue;
        }
        if (!collect_entry(root + L"\\" + name, found.dwFileAttributes, files, directories)) {
            return false;
        }
    } while (FindNextFileW(search.get(), &found));
    return true;
}

// Looked at a second time, right before it goes: it may have been replaced since it was collected.
bool delete_file(const std::wstring &path) { return protected_path(path, true) && DeleteFileW(path.c_str()); }

bool remove_directory(const std::wstring &path) {
    return protected_path(path, true) && RemoveDirectoryW(path.c_str());
}

int delete_tree(const std::wstring &root) {
    std::vector<std::wstring> files;
    std::vector<std::wstring> directories;
    if (!collect_tree(root, files, directories)) {
        return remove_tree_unsafe;
    }
    if (!std::ranges::all_of(files, delete_file)) {
        return remove_file_failed;
    }
    if (!std::ranges::all_of(directories, remove_directory)) {
        return remove_directory_failed;
    }
    return remove_directory(root) ? remove_done : remove_root_failed;
}

} // namespace

int install_service() {
    if (!run_by_administrator()) {
        return install_denied;
    }
    const std::wstring directory = executable_directory();
    const std::wstring path = directory + service_executable;
    if (!protected_ancestors(directory) || !protected_path(directory, false) ||
        !protected_path(path, false)) {
        return install_unsafe;
    }
    const unique_service manager(
        OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE));
    if (!manager) {
        return install_no_manager;
    }
    const unique_service service = register_service(manager.get(), L"\"" + path + L"\"");
    if (!service) {
        return install_failed;
    }
    if (!restart_on_failure(service.get())) {
        return install_failed;
    }
    if (!StartServiceW(service.get(), 0, nullptr) && GetLastError() != ERROR_SERVICE_ALREADY_RUNNING) {
        return install_failed;
    }
    return install_done;
}

int uninstall_service() {
    if (!run_by_administrator()) {
        return uninstall_denied;
    }
    const unique_service manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) {
        return uninstall_no_manager;
    }
    const unique_service service(
        OpenServiceW(manager.get(), service_name, DELETE | SERVICE_STOP | SERVICE_QUERY_STATUS));
    if (!service) {
        return GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST ? uninstall_done : uninstall_no_service;
    }
    SERVICE_STATUS status = {};
    ControlService(service.get(), SERVICE_CONTROL_STOP, &status);
    for (int poll = 0; poll < stop_polls; poll++) {
        if (is_stopped(service.get())) {
            return DeleteService(service.get()) ? uninstall_done : uninstall_failed;
        }
        Sleep(stop_poll_ms);
    }
    return uninstall_failed;
}

int print_status() {
    const unique_service manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) {
        return status_no_manager;
    }
    const unique_service service(OpenServiceW(manager.get(), service_name, SERVICE_QUERY_STATUS));
    if (!service) {
        std::printf("service absent\n");
        return status_absent;
    }
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    if (!QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE *>(&status),
                              sizeof status, &needed)) {
        return status_unknown;
    }
    std::printf("service %s; pid %lu\n", status.dwCurrentState == SERVICE_RUNNING ? "running" : "stopped",
                static_cast<unsigned long>(status.dwProcessId));
    return status_printed;
}

int remove_data() {
    if (!run_by_administrator() || !no_worker_runs()) {
        return remove_denied;
    }
    const unique_service manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) {
        return remove_no_manager;
    }
    const unique_service service(OpenServiceW(manager.get(), service_name, SERVICE_QUERY_STATUS));
    if (!service && GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST) {
        return remove_service_unknown;
    }
    if (service && !is_stopped(service.get())) {
        return remove_service_runs;
    }
    const std::wstring root = machine_store();
    if (root.empty()) {
        return remove_no_folder;
    }
    if (GetFileAttributesW(root.c_str()) == INVALID_FILE_ATTRIBUTES) {
        const DWORD error = GetLastError();
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? remove_done
                                                                              : remove_root_unknown;
    }
    return delete_tree(root);
}

} // namespace host_service
