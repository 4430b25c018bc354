// The log: one file, kept open for appending, one older file beside it. g_lock guards all state and orders the lines;
// it is held across echo, write and rotation, so that a rotation loses none. Messages are formatted outside it, in the
// calling thread's own buffer, so that a slow format holds nobody back.
#include "log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <mutex>

#include <windows.h>

#include <objbase.h>
#include <sddl.h>
#include <shlobj.h>

#include "handles.h"
#include "keystore.h"
#include "security.h"

namespace host_service {
namespace {

constexpr uint64_t rotation_threshold = 10485759; // bytes; a file above it, so of 10 MiB, is full
constexpr size_t message_size = 2048;
constexpr size_t line_size = 2400; // a message with its stamp and line end always fits
constexpr size_t banner_size = 128;

// SYSTEM and Administrators may do anything, nobody else may do anything.
constexpr wchar_t machine_log_descriptor[] = L"O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)";

enum class echo { plain, stamped };

std::mutex g_lock;
std::wstring g_path;
unique_file g_file;
uint64_t g_size = 0; // of the file, as counted here
bool g_echo = false;

// In doubt the file is there, and has to prove that it is safe.
bool log_file_exists() {
    if (GetFileAttributesW(g_path.c_str()) != INVALID_FILE_ATTRIBUTES) {
        return true;
    }
    const DWORD error = GetLastError();
    return error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND;
}

// Opens g_path, with g_lock held. A machine log has its descriptor from its first moment, and no link is followed.
void open_file() {
    g_file.reset();
    g_size = 0;
    const bool machine = keystore::hostStoreScope() == keystore::HostStoreScope::Machine;
    unique_descriptor descriptor;
    if (machine) {
        if (log_file_exists() && !protected_path(g_path, true)) {
            keystore::failHostStore("machine log protection invalid");
            return;
        }
        if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(machine_log_descriptor, SDDL_REVISION_1,
                                                                  descriptor.put(), nullptr)) {
            keystore::failHostStore("machine log security unavailable");
            return;
        }
    }
    SECURITY_ATTRIBUTES attributes = {sizeof attributes, descriptor.get(), FALSE};
    g_file.reset(CreateFileW(g_path.c_str(), FILE_APPEND_DATA,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                             machine ? &attributes : nullptr, OPEN_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!g_file) {
        if (machine) {
            keystore::failHostStore("machine log open failed");
        }
        return;
    }
    LARGE_INTEGER size = {};
    if (GetFileSizeEx(g_file.get(), &size)) {
        g_size = static_cast<uint64_t>(size.QuadPart);
    }
}

// If the rename fails the same file is opened again and grows on; the next line tries once more.
void rotate() {
    g_file.reset();
    MoveFileExW(g_path.c_str(), (g_path + L".1").c_str(), MOVEFILE_REPLACE_EXISTING);
    open_file();
}

void print_line(const SYSTEMTIME &now, const char *message, echo form) {
    if (form == echo::stamped) {
        std::printf("[%02u:%02u:%02u.%03u] ", unsigned{now.wHour}, unsigned{now.wMinute},
                    unsigned{now.wSecond}, unsigned{now.wMilliseconds});
    }
    std::printf("%s\n", message);
    std::fflush(stdout);
}

// With g_lock held.
void write_line(const char *message, echo form) {
    SYSTEMTIME now = {};
    GetLocalTime(&now);
    char line[line_size];
    const int length =
        std::snprintf(line, sizeof line, "[%04u-%02u-%02u %02u:%02u:%02u.%03u] %s\r\n", unsigned{now.wYear},
                      unsigned{now.wMonth}, unsigned{now.wDay}, unsigned{now.wHour}, unsigned{now.wMinute},
                      unsigned{now.wSecond}, unsigned{now.wMilliseconds}, message);
    if (length < 0) {
        return;
    }
    if (g_echo) {
        print_line(now, message, form);
    }
    if (!g_file) {
        return;
    }
    const size_t size = std::min(static_cast<size_t>(length), sizeof line - 1);
    DWORD written = 0;
    if (WriteFile(g_file.get(), line, static_cast<DWORD>(size), &written, nullptr)) {
        g_size += written;
    }
    if (g_size > rotation_threshold) {
        rotate();
    }
}

[[gnu::format(printf, 2, 0)]] void log_message(echo form, const char *format, va_list arguments) {
    char message[message_size];
    if (std::vsnprintf(message, sizeof message, format, arguments) < 0) {
        message[0] = '\0'; // something that can't be shown happened: still worth its stamp
    }
    const std::lock_guard guard(g_lock);
    write_line(message, form);
}

// "." if the user's folder can't be found.
std::wstring local_app_data() {
    PWSTR text = nullptr;
    std::wstring folder;
    if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_LocalAppData, 0, nullptr, &text))) {
        folder = text;
    }
    CoTaskMemFree(text);
    return folder.empty() ? L"." : folder;
}

} // namespace

void log_open(bool console, const std::wstring &directory) {
    const std::lock_guard guard(g_lock);
    g_echo = console;
    g_path = directory + L"\\host.log";
    open_file();
    char banner[banner_size];
    std::snprintf(banner, sizeof banner, "---- TarnGlider (Windows) started (pid %lu, %s) ----",
                  static_cast<unsigned long>(GetCurrentProcessId()), console ? "console" : "tray");
    write_line(banner, echo::stamped);
}

void log_open(bool console) {
    const std::wstring directory = local_app_data() + L"\\TarnGlider";
    CreateDirectoryW(directory.c_str(), nullptr);
    log_open(console, directory);
}

void log_close() {
    const std::lock_guard guard(g_lock);
    g_file.reset();
}

void hlog(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log_message(echo::stamped, format, arguments);
    va_end(arguments);
}

void hsay(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log_message(echo::plain, format, arguments);
    va_end(arguments);
}

std::wstring log_file_path() {
    const std::lock_guard guard(g_lock);
    return g_path;
}

} // namespace host_service
