// System facts and a user's settings: the host id, names and paths, start at logon, the firewall rule, text conversion.
// No state. The host id is the one thing here that lives in the store and follows its scope.
#include "sysinfo.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cwchar>
#include <stdexcept>
#include <string_view>

#include <windows.h>

#include <shellapi.h>

#include "handles.h"
#include "keystore_internal.h"
#include "keystore_text.h"
#include "log.h"

namespace {

using host_service::unique_file;
using host_service::unique_handle;

struct registry_key {
    using type = HKEY;
    static type none() { return nullptr; }
    static void close(type key) { RegCloseKey(key); }
};
using unique_key = host_service::owned<registry_key>;

constexpr wchar_t run_key[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t run_value[] = L"TarnGlider";
constexpr size_t path_cap = 520; // characters of a program's path that are looked at

uint32_t new_host_id() {
    uint32_t id = 0;
    while (id == 0) {
        id = random_u32();
    }
    return id;
}

uint32_t machine_host_id() {
    std::string text;
    if (keystore::readHostFile(L"host_id", text)) {
        const uint32_t id = keystore::parse_host_id(text, "\r\n");
        if (id == 0) {
            keystore::fatal("machine host id malformed");
        }
        return id;
    }
    const uint32_t id = new_host_id();
    text = std::to_string(id) + "\n";
    if (!keystore::writeHostFile(L"host_id", text.data(), text.size())) {
        throw std::runtime_error("machine host id persistence failed");
    }
    return id;
}

// The id in a user's file, or 0.
uint32_t read_user_host_id(const std::wstring &path) {
    const unique_file file(
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    std::array<char, 255> text;
    DWORD size = 0;
    if (!file || !ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &size, nullptr)) {
        return 0;
    }
    return keystore::parse_host_id({text.data(), size}, " \r\n");
}

// Nothing here is worth the store's own write: an id that is lost is made anew.
bool write_user_host_id(const std::wstring &path, uint32_t id) {
    const std::string text = std::to_string(id) + "\n";
    const std::wstring temporary = path + L".tmp";
    unique_file file(CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    DWORD written = 0;
    if (!file || !WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
        written != text.size()) {
        return false;
    }
    file.reset();
    return keystore::patient_move(temporary, path, MOVEFILE_REPLACE_EXISTING);
}

uint32_t user_host_id() {
    const std::wstring path = keystore::path_of(L"host_id");
    uint32_t id = read_user_host_id(path);
    if (id == 0) {
        id = new_host_id();
        if (!write_user_host_id(path, id)) {
            host_service::hlog("warning: could not persist the host id");
        }
    }
    return id;
}

} // namespace

uint32_t load_or_create_host_id() { return keystore::machine_scope() ? machine_host_id() : user_host_id(); }

std::string computer_name_utf8() {
    constexpr size_t name_max = 63; // bytes
    std::array<wchar_t, 256> buffer;
    DWORD size = buffer.size();
    if (!GetComputerNameExW(ComputerNamePhysicalDnsHostname, buffer.data(), &size) || size == 0) {
        size = buffer.size();
        if (!GetComputerNameW(buffer.data(), &size) || size == 0) {
            return "Windows PC";
        }
    }
    std::string name = to_utf8({buffer.data(), size});
    if (name.size() > name_max) {
        size_t cut = name_max;
        while (cut > 0 && (name[cut] & 0xC0) == 0x80) {
            cut--;
        }
        name.resize(cut);
    }
    return name;
}

std::wstring exe_path() {
    std::array<wchar_t, path_cap> buffer;
    const DWORD size = GetModuleFileNameW(nullptr, buffer.data(), buffer.size());
    // Of a path that was cut the function may count the terminator, too.
    return {buffer.data(), wcsnlen(buffer.data(), size)};
}

// ---- Start at logon

bool autostart_enabled() {
    std::array<wchar_t, path_cap> value{};
    DWORD bytes = sizeof value;
    if (RegGetValueW(HKEY_CURRENT_USER, run_key, run_value, RRF_RT_REG_SZ, nullptr, value.data(), &bytes) !=
        ERROR_SUCCESS) {
        return false;
    }
    const std::wstring path = exe_path();
    return !path.empty() && std::wstring_view(value.data()).find(path) != std::wstring_view::npos;
}

bool set_autostart(bool enable) {
    unique_key key;
    if (RegCreateKeyExW(HKEY_CURRENT_USER, run_key, 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.put(),
                        nullptr) != ERROR_SUCCESS) {
        return false;
    }
    if (!enable) {
        const LSTATUS result = RegDeleteValueW(key.get(), run_value);
        return result == ERROR_SUCCESS || result == ERROR_FILE_NOT_FOUND;
    }
    const std::wstring quoted = L"\"" + exe_path() + L"\"";
    return RegSetValueExW(key.get(), run_value, 0, REG_SZ, reinterpret_cast<const BYTE *>(quoted.c_str()),
                          static_cast<DWORD>((quoted.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
}

// ---- Firewall

bool add_firewall_rule(uint16_t) { // the rule names the program, so it holds for every port
    constexpr DWORD time_limit_ms = 15000;
    // The shell that runs elevated is the system's own, whatever lies beside this program.
    std::array<wchar_t, MAX_PATH> system;
    const UINT length = GetSystemDirectoryW(system.data(), system.size());
    if (length == 0 || length >= system.size()) {
        return false;
    }
    const std::wstring shell = std::wstring(system.data(), length) + L"\\cmd.exe";
    // Deleting first keeps one rule, that of the present path. The public profile stays closed.
    const std::wstring parameters =
        L"/c netsh advfirewall firewall delete rule name=\"TarnGlider\" >nul 2>&1"
        L" & netsh advfirewall firewall add rule name=\"TarnGlider\" dir=in action=allow program=\"" +
        exe_path() + L"\" protocol=UDP profile=private,domain";
    SHELLEXECUTEINFOW info{};
    info.cbSize = sizeof info;
    info.fMask = SEE_MASK_NOCLOSEPROCESS;
    info.lpVerb = L"runas";
    info.lpFile = shell.c_str();
    info.lpParameters = parameters.c_str();
    info.nShow = SW_HIDE;
    if (!ShellExecuteExW(&info) || !info.hProcess) {
        return false;
    }
    const unique_handle process(info.hProcess);
    DWORD exit_code = 0;
    return WaitForSingleObject(process.get(), time_limit_ms) == WAIT_OBJECT_0 &&
           GetExitCodeProcess(process.get(), &exit_code) && exit_code == 0;
}

// ---- Numbers and texts

uint32_t random_u32() {
    uint32_t value = 0;
    if (keystore::system_random(&value, sizeof value)) {
        return value;
    }
    LARGE_INTEGER counter{};
    QueryPerformanceCounter(&counter);
    return (static_cast<uint32_t>(counter.QuadPart) * 0x9e3779b1u) ^
           static_cast<uint32_t>(GetCurrentProcessId());
}

std::string to_utf8(const std::wstring &text) {
    if (text.empty() || text.size() > INT_MAX) {
        return {};
    }
    const int size = static_cast<int>(text.size());
    const int needed = WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(std::max(needed, 0)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), size, out.data(), needed, nullptr, nullptr);
    return out;
}

std::wstring to_wide(const std::string &text) {
    if (text.empty() || text.size() > INT_MAX) {
        return {};
    }
    const int size = static_cast<int>(text.size());
    const int needed = MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
    std::wstring out(static_cast<size_t>(std::max(needed, 0)), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), size, out.data(), needed);
    return out;
}
