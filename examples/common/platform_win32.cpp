// The example programs on Windows. Files lie below the user's profile, whose access list keeps other users out; a
// folder that the user names has the protection that it has.
#include "common/platform.h"

#include <atomic>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include <windows.h>

#include <shellapi.h>

#include "common/text.h"

namespace app {
namespace {

std::atomic<bool> stop_flag = false;

// Runs on a thread of the system's.
BOOL WINAPI on_console_event(DWORD event) {
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) return FALSE;
    stop_flag.store(true);
    return TRUE;
}

[[noreturn]] void fail(const char *what, const std::filesystem::path &path, DWORD code) {
    throw std::runtime_error(std::string(what) + " " + utf8(path) + ": " +
                             std::system_category().message(static_cast<int>(code)));
}

// `length` characters in UTF-8; -1: up to the terminator. Text that is no UTF-16 comes out marked, never unseen.
std::string narrow(const wchar_t *text, int length) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, length, result.data(), size, nullptr, nullptr);
    if (length < 0) result.resize(result.size() - 1);
    return result;
}

} // namespace

void catch_stop_signals() { SetConsoleCtrlHandler(on_console_event, TRUE); }

bool stop_requested() { return stop_flag.load(); }

std::vector<std::string> utf8_arguments(int, char **) {
    int count = 0;
    wchar_t **wide = CommandLineToArgvW(GetCommandLineW(), &count);
    if (wide == nullptr) throw std::runtime_error("the command line can't be read");
    std::vector<std::string> result;
    for (int i = 1; i < count; i++)
        result.push_back(utf8(std::filesystem::path(wide[i])));
    LocalFree(wide);
    return result;
}

std::filesystem::path default_directory(const char *role) {
    const wchar_t *settings = _wgetenv(L"APPDATA");
    if (settings == nullptr || settings[0] == L'\0')
        throw std::runtime_error("APPDATA is not set; say where to keep the identity with --dir");
    return std::filesystem::path(settings) / L"TarnGlider" / role;
}

void make_private_directory(const std::filesystem::path &path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error || !std::filesystem::is_directory(path))
        fail("can't make the folder", path, error ? static_cast<DWORD>(error.value()) : ERROR_DIRECTORY);
}

void create_private_file(const std::filesystem::path &path, std::string_view content) {
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) fail("can't write", path, GetLastError());
    DWORD written = 0;
    const bool done =
        WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr) &&
        written == content.size() && FlushFileBuffers(file);
    const DWORD code = GetLastError();
    CloseHandle(file);
    if (done) return;
    DeleteFileW(path.c_str());
    fail("can't write", path, code);
}

std::string machine_name() {
    wchar_t name[256];
    DWORD size = 256;
    return GetComputerNameExW(ComputerNamePhysicalDnsHostname, name, &size)
               ? utf8(std::filesystem::path(name))
               : "";
}

std::optional<std::string> environment(const char *name) {
    const wchar_t *value = _wgetenv(path_from_utf8(name).c_str());
    if (value == nullptr) return std::nullopt;
    return narrow(value, -1);
}

bool ask_hidden(const std::string &prompt, std::string &line) {
    const HANDLE console = GetStdHandle(STD_INPUT_HANDLE);
    DWORD mode = 0;
    if (!GetConsoleMode(console, &mode)) return false;
    std::fprintf(stderr, "%s", prompt.c_str());
    std::fflush(stderr);
    SetConsoleMode(console, (mode | ENABLE_LINE_INPUT | ENABLE_PROCESSED_INPUT) & ~DWORD{ENABLE_ECHO_INPUT});
    wchar_t typed[512];
    DWORD count = 0;
    const bool done = ReadConsoleW(console, typed, 512, &count, nullptr) && count > 0;
    SetConsoleMode(console, mode);
    std::fprintf(stderr, "\n");
    while (count > 0 && (typed[count - 1] == L'\r' || typed[count - 1] == L'\n'))
        count--;
    if (done) line = narrow(typed, static_cast<int>(count));
    SecureZeroMemory(typed, sizeof typed);
    if (!done) throw std::runtime_error("cancelled");
    return true;
}

void require_private_file(const std::filesystem::path &) {}

} // namespace app
