// The layer that all stored items share: the store's health, sealing, the atomic write and the bounded read. A write
// makes a new file of a random name and moves it over the old one, so that a reader, or a crash at any point, finds
// one of them whole. Any thread.
#include "keystore_internal.h"

#include <array>
#include <cwchar>
#include <stdexcept>
#include <utility>

#include <windows.h>

#include <bcrypt.h>
#include <dpapi.h>
#include <knownfolders.h>
#include <sddl.h>

#include "handles.h"
#include "security.h"

namespace keystore {

namespace {

using host_service::local_memory;
using host_service::owned;
using host_service::unique_descriptor;
using host_service::unique_file;
using host_service::unique_handle;

// Owned by Administrators; full access for SYSTEM and Administrators, nothing inherited, nothing for anybody else.
constexpr wchar_t machine_file_sddl[] = L"O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)";

// What data protection hands out, wiped before it is released.
struct protection_output {
    DATA_BLOB blob{};
    ~protection_output() {
        if (blob.pbData) {
            tarn_secure_wipe(blob.pbData, blob.cbData);
            LocalFree(blob.pbData);
        }
    }
};

// A folder's path as the system hands it out.
struct folder_text {
    PWSTR text = nullptr;
    ~folder_text() { CoTaskMemFree(text); }
};

template <class Call>
bool patiently(Call call) {
    constexpr int tries_again = 10;
    constexpr DWORD apart_ms = 20;
    for (int again = 0; !call(); again++) {
        const DWORD error = GetLastError();
        if (again == tries_again || (error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION)) {
            return false;
        }
        Sleep(apart_ms);
    }
    return true;
}

// Full access for the process's user and SYSTEM, nothing inherited; empty if the user can't be told.
std::wstring user_file_sddl() {
    unique_handle token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put())) {
        return {};
    }
    // A TOKEN_USER and behind it a SID, which has 68 bytes at most.
    alignas(TOKEN_USER) std::array<uint8_t, 256> user;
    DWORD size = 0;
    if (!GetTokenInformation(token.get(), TokenUser, user.data(), user.size(), &size)) {
        return {};
    }
    owned<local_memory<LPWSTR>> sid;
    if (!ConvertSidToStringSidW(reinterpret_cast<const TOKEN_USER *>(user.data())->User.Sid, sid.put())) {
        return {};
    }
    return std::wstring(L"D:P(A;;FA;;;") + sid.get() + L")(A;;FA;;;SY)";
}

unique_descriptor file_descriptor() {
    const std::wstring sddl = machine_scope() ? machine_file_sddl : user_file_sddl();
    unique_descriptor descriptor;
    if (sddl.empty() || !ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1,
                                                                              descriptor.put(), nullptr)) {
        return {};
    }
    return descriptor;
}

// The directory is safe, and so is the file to be replaced, if there is one.
bool safe_target(const std::wstring &path) {
    return host_service::protected_path(state().machine_dir, true) &&
           (look(path) == presence::absent || host_service::protected_path(path, true));
}

// The target's path with a suffix that nobody can guess; empty if there is no randomness.
std::wstring temporary_for(const std::wstring &path) {
    std::array<uint8_t, 16> random;
    if (!system_random(random.data(), random.size())) {
        return {};
    }
    std::wstring temporary = path + L".tmp-";
    for (const uint8_t byte : random) {
        temporary += L"0123456789abcdef"[byte >> 4];
        temporary += L"0123456789abcdef"[byte & 15];
    }
    return temporary;
}

// Opens only a file that it makes itself, and never through a link. Without a descriptor, which happens to users alone,
// the file gets its directory's default access.
unique_file create_new(const std::wstring &path, PSECURITY_DESCRIPTOR descriptor) {
    SECURITY_ATTRIBUTES attributes{};
    attributes.nLength = sizeof attributes;
    attributes.lpSecurityDescriptor = descriptor;
    attributes.bInheritHandle = FALSE;
    return unique_file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, descriptor ? &attributes : nullptr,
                                   CREATE_NEW, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

bool write_whole(HANDLE file, const void *data, size_t size) {
    if (size == 0) {
        return true;
    }
    DWORD written = 0;
    return size <= UINT32_MAX && WriteFile(file, data, static_cast<DWORD>(size), &written, nullptr) &&
           written == size;
}

} // namespace

// ---- State

store_state &state() {
    static store_state only;
    return only;
}

void failHostStore(const std::string &message) {
    if (!machine_scope()) {
        return;
    }
    const std::lock_guard held(state().failure_lock);
    if (state().healthy.exchange(false)) {
        state().failure = message;
    }
}

void fatal(const char *message) {
    failHostStore(message);
    throw std::runtime_error(message);
}

bool hostStoreHealthy(std::string *reason) {
    if (state().healthy) {
        return true;
    }
    if (reason) {
        const std::lock_guard held(state().failure_lock);
        *reason = state().failure;
    }
    return false;
}

HostStoreScope hostStoreScope() { return state().scope; }

// ---- System calls

presence look(const std::wstring &path) {
    if (GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES) {
        return presence::present;
    }
    const DWORD error = GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? presence::absent
                                                                          : presence::unknown;
}

bool known_folder(const KNOWNFOLDERID &id, std::wstring &out) {
    folder_text folder;
    if (FAILED(SHGetKnownFolderPath(id, 0, nullptr, &folder.text))) {
        return false;
    }
    out = folder.text;
    return true;
}

bool system_random(void *out, size_t size) {
    return BCryptGenRandom(nullptr, static_cast<PUCHAR>(out), static_cast<ULONG>(size),
                           BCRYPT_USE_SYSTEM_PREFERRED_RNG) == 0;
}

bool patient_move(const std::wstring &from, const std::wstring &to, DWORD flags) {
    return patiently([&] { return MoveFileExW(from.c_str(), to.c_str(), flags); });
}

bool patient_delete(const std::wstring &path) {
    return patiently([&] { return DeleteFileW(path.c_str()); });
}

// ---- Places

std::wstring hostStoreDirectory() {
    if (machine_scope()) {
        return state().machine_dir;
    }
    std::wstring folder;
    return known_folder(FOLDERID_RoamingAppData, folder) ? folder + L"\\TarnGlider" : std::wstring();
}

std::wstring path_of(const wchar_t *name) { return app_data_dir() + L"\\" + name; }

// ---- Sealing

bool dpapi(bool protect, const std::vector<uint8_t> &in, std::vector<uint8_t> &out) {
    if (in.size() > UINT32_MAX) {
        return false;
    }
    // The interface wants memory that it may write to and a pointer even for no bytes at all; it writes nothing.
    uint8_t nothing = 0;
    DATA_BLOB input{};
    input.cbData = static_cast<DWORD>(in.size());
    input.pbData = in.empty() ? &nothing : const_cast<uint8_t *>(in.data());
    const DWORD scope_flag = machine_scope() ? CRYPTPROTECT_LOCAL_MACHINE : 0;
    protection_output output;
    const BOOL done = protect ? CryptProtectData(&input, L"TarnGlider", nullptr, nullptr, nullptr,
                                                 CRYPTPROTECT_UI_FORBIDDEN | scope_flag, &output.blob)
                              : CryptUnprotectData(&input, nullptr, nullptr, nullptr, nullptr,
                                                   CRYPTPROTECT_UI_FORBIDDEN, &output.blob);
    if (!done) {
        return false;
    }
    out.assign(output.blob.pbData, output.blob.pbData + output.blob.cbData);
    return true;
}

// ---- Writing

bool write_private(const std::wstring &path, const void *data, size_t size) {
    if (machine_scope() && !state().healthy) {
        return false;
    }
    unique_descriptor descriptor = file_descriptor();
    if (machine_scope() && (!descriptor || !safe_target(path))) {
        return false;
    }
    const std::wstring temporary = temporary_for(path);
    if (temporary.empty()) {
        return false;
    }
    unique_file file = create_new(temporary, descriptor.get());
    descriptor.reset();
    if (!file) {
        return false;
    }
    const bool written = write_whole(file.get(), data, size) && FlushFileBuffers(file.get());
    file.reset();
    if (!written || !patient_move(temporary, path, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        patient_delete(temporary);
        return false;
    }
    return true;
}

bool write_protected(const std::wstring &path, std::string_view plain) {
    const wiped_bytes copy{{plain.begin(), plain.end()}};
    std::vector<uint8_t> sealed;
    return dpapi(true, copy.bytes, sealed) && write_private(path, sealed.data(), sealed.size());
}

bool writeHostFile(const wchar_t *name, const void *data, size_t size) {
    // Without a dot no name can be that of a temporary file, and without the others none lies elsewhere.
    if (!name || *name == L'\0' || std::wcspbrk(name, L"\\/.:")) {
        return false;
    }
    if (state().healthy && write_private(path_of(name), data, size)) {
        return true;
    }
    failHostStore("machine file write failed");
    return false;
}

// ---- Reading

bool read_file(const std::wstring &path, std::vector<uint8_t> &out) {
    if (machine_scope() && !host_service::protected_path(path, true)) {
        return false;
    }
    const unique_file file(
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size{};
    if (!file || !GetFileSizeEx(file.get(), &size) || size.QuadPart < 0 ||
        static_cast<uint64_t>(size.QuadPart) >= file_limit) {
        return false;
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(size.QuadPart));
    DWORD got = 0;
    if (!bytes.empty() &&
        (!ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &got, nullptr) ||
         got != bytes.size())) {
        return false;
    }
    out = std::move(bytes);
    return true;
}

int read_protected(const std::wstring &path, std::string &out) {
    const presence there = look(path);
    if (there != presence::present) {
        return there == presence::absent ? 0 : -1;
    }
    std::vector<uint8_t> sealed;
    wiped_bytes plain;
    if (!read_file(path, sealed) || !dpapi(false, sealed, plain.bytes)) {
        return -1;
    }
    // From characters, not from another type's range, which the library would first copy to a text of its own.
    out.assign(reinterpret_cast<const char *>(plain.bytes.data()), plain.bytes.size());
    return 1;
}

bool readHostFile(const wchar_t *name, std::string &out) {
    if (!name || *name == L'\0' || std::wcschr(name, L':')) {
        return false;
    }
    const std::wstring path = path_of(name);
    if (look(path) == presence::absent) {
        return false;
    }
    std::vector<uint8_t> bytes;
    if (read_file(path, bytes)) {
        out.assign(bytes.begin(), bytes.end());
        return true;
    }
    if (machine_scope()) {
        fatal("machine file unreadable");
    }
    return false;
}

} // namespace keystore

std::wstring app_data_dir() {
    if (keystore::machine_scope()) {
        return keystore::hostStoreDirectory();
    }
    std::wstring folder;
    if (!keystore::known_folder(FOLDERID_RoamingAppData, folder)) {
        folder = L".";
    }
    folder += L"\\TarnGlider";
    CreateDirectoryW(folder.c_str(), nullptr);
    return folder;
}
