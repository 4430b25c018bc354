// The machine's store and program files as tarnctl looks at them.
#include "ctl/machine_files.h"

#include <algorithm>
#include <stdexcept>

#include <windows.h>

#include <knownfolders.h>
#include <shlobj.h>
#include <wincrypt.h>

#include <handles.h>
#include <security.h>

namespace app {
namespace {

constexpr LONGLONG file_max = 1048575; // what the store itself reads
constexpr wchar_t service_name[] = L"TarnGliderHost";

struct service_closer {
    using type = SC_HANDLE;
    static type none() { return nullptr; }
    static void close(type handle) { CloseServiceHandle(handle); }
};
using unique_service = host_service::owned<service_closer>;

stored read_item(const wchar_t *name, std::string &out) {
    const std::wstring path = store_directory() + L"\\" + name;
    if (is_missing(path)) return stored::missing;
    return host_service::protected_path(path, true) && read_file(path, out) ? stored::read
                                                                            : stored::unreadable;
}

} // namespace

std::wstring store_base() {
    PWSTR folder = nullptr;
    const HRESULT result = SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &folder);
    const std::wstring base = SUCCEEDED(result) ? std::wstring(folder) + L"\\TarnGlider" : L"";
    CoTaskMemFree(folder);
    if (base.empty()) throw std::runtime_error("the system doesn't tell where ProgramData is");
    return base;
}

std::wstring store_directory() { return store_base() + L"\\Host"; }

std::optional<std::wstring> service_directory() {
    const unique_service manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) return std::nullopt;
    const unique_service service(OpenServiceW(manager.get(), service_name, SERVICE_QUERY_CONFIG));
    if (!service) return std::nullopt;
    std::vector<uint8_t> memory(8192); // the most that the system ever needs
    auto *config = reinterpret_cast<QUERY_SERVICE_CONFIGW *>(memory.data());
    DWORD needed = 0;
    if (!QueryServiceConfigW(service.get(), config, static_cast<DWORD>(memory.size()), &needed))
        return std::nullopt;
    std::wstring path = config->lpBinaryPathName;
    if (path.size() > 1 && path.front() == L'"') path = path.substr(1, path.find(L'"', 1) - 1);
    const size_t slash = path.rfind(L'\\');
    if (slash == std::wstring::npos) return std::nullopt;
    return path.substr(0, slash);
}

bool is_missing(const std::wstring &path) {
    if (GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES) return false;
    const DWORD error = GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

std::optional<std::vector<std::wstring>> list_folder(const std::wstring &folder, const wchar_t *pattern) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW entry{};
    const host_service::unique_find search(FindFirstFileW((folder + L"\\" + pattern).c_str(), &entry));
    if (!search) {
        if (GetLastError() == ERROR_FILE_NOT_FOUND) return names;
        return std::nullopt;
    }
    do {
        const std::wstring name = entry.cFileName;
        if (name != L"." && name != L"..") names.push_back(name);
    } while (FindNextFileW(search.get(), &entry));
    if (GetLastError() != ERROR_NO_MORE_FILES) return std::nullopt;
    std::sort(names.begin(), names.end());
    return names;
}

bool read_file(const std::wstring &path, std::string &out) {
    const host_service::unique_file file(CreateFileW(path.c_str(), GENERIC_READ,
                                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                                     nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size{};
    if (!file || !GetFileSizeEx(file.get(), &size) || size.QuadPart > file_max) return false;
    out.resize(static_cast<size_t>(size.QuadPart));
    DWORD got = 0;
    return ReadFile(file.get(), out.data(), static_cast<DWORD>(out.size()), &got, nullptr) &&
           got == out.size();
}

bool unseal(const std::string &sealed, secret_text &out) {
    std::string copy = sealed; // the call wants it writable
    DATA_BLOB in{static_cast<DWORD>(copy.size()), reinterpret_cast<BYTE *>(copy.data())};
    DATA_BLOB plain{};
    if (sealed.empty() ||
        !CryptUnprotectData(&in, nullptr, nullptr, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &plain))
        return false;
    out.text.assign(reinterpret_cast<const char *>(plain.pbData), plain.cbData);
    SecureZeroMemory(plain.pbData, plain.cbData);
    LocalFree(plain.pbData);
    return true;
}

stored read_settings(host_service::Settings &settings) {
    std::string bytes;
    const stored result = read_item(L"settings", bytes);
    if (result != stored::read) return result;
    const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
    return host_service::decode_settings({data, bytes.size()}, &settings) ? result : stored::unreadable;
}

stored read_clients(tarn_client_list &clients) {
    std::string text;
    const stored result = read_item(L"authorized_clients", text);
    if (result != stored::read) return result;
    return tarn_client_list_load(&clients, text.data(), text.size()) == 0 ? result : stored::unreadable;
}

} // namespace app
