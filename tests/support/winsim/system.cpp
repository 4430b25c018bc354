// The small facts of the system: names, time, texts, libraries, known folders, processes and network adapters.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <list>
#include <utility>

#include <iphlpapi.h>

#include "winsim/files.h"
#include "winsim/own_closer.h"

namespace winsim {
namespace {

struct system_facts {
    std::wstring dns_name = L"Workshop-PC";
    std::wstring netbios_name = L"WORKSHOP-PC";
    std::vector<adapter> adapters;
    std::map<std::wstring, std::map<std::string, FARPROC>> libraries; // by folded path
    DWORD dll_directories = 0;
    std::vector<shell_start> shell_starts;
    LONGLONG counted = 0; // answers of the performance counter: no two are alike
};

system_facts &facts() { return part<system_facts>(); }

constexpr char task_memory[] = "task memory";
constexpr char library_list[] =
    "O:TIG:TID:P(A;;FA;;;TI)(A;;0x1200a9;;;SY)(A;;0x1200a9;;;BA)(A;;0x1200a9;;;BU)";
constexpr std::chrono::sys_days clock_start = std::chrono::year(2026) / 1 / 2;

struct library : own_closer {
    std::wstring path;
    std::string describe() const override { return "library " + narrow(path); }
};

struct process_list : object {
    std::vector<std::pair<DWORD, std::wstring>> left; // the next one is the last
    std::string describe() const override { return "list of processes"; }
};

// Copies a text with its end, if it fits; *size is the capacity before, the length or what is needed behind.
BOOL copy_name(const std::wstring &text, wchar_t *out, DWORD *size, DWORD error) {
    const DWORD given = *size;
    *size = static_cast<DWORD>(text.size() + (given <= text.size()));
    if (given <= text.size()) {
        return refuse(error);
    }
    std::copy_n(text.c_str(), text.size() + 1, out);
    return TRUE;
}

// What a UTF-8 conversion answers: the length, after a copy if there is room asked for.
template <class Char>
int copy_text(const std::basic_string<Char> &text, Char *out, int capacity) {
    const int length = static_cast<int>(text.size());
    if (capacity != 0 && capacity < length) {
        return refuse(ERROR_INSUFFICIENT_BUFFER);
    }
    std::copy_n(text.data(), capacity != 0 ? length : 0, out);
    return length;
}

// The character at the front of text, and how many bytes it takes; a broken one is U+FFFD.
std::pair<uint32_t, size_t> decode(const std::string &text, size_t at) {
    const auto byte = [&](size_t i) { return i < text.size() ? static_cast<uint32_t>(text[i] & 0xFF) : 0; };
    const uint32_t first = byte(at);
    const size_t size = first < 0x80   ? 1
                        : first < 0xC2 ? 0
                        : first < 0xE0 ? 2
                        : first < 0xF0 ? 3
                        : first < 0xF5 ? 4
                                       : 0;
    uint32_t code = size < 2 ? first : first & (0x7Fu >> size);
    for (size_t i = 1; i < size; i++) {
        if ((byte(at + i) & 0xC0) != 0x80) {
            return {0xFFFD, i};
        }
        code = code << 6 | (byte(at + i) & 0x3F);
    }
    constexpr uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool good = size > 0 && code >= least[size] && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
    return good ? std::pair(code, size) : std::pair(uint32_t{0xFFFD}, std::max<size_t>(size, 1));
}

BOOL next_process(process_list &list, PROCESSENTRY32W *entry) {
    if (entry->dwSize != sizeof *entry || list.left.empty()) {
        return refuse(list.left.empty() ? ERROR_NO_MORE_FILES : ERROR_INVALID_PARAMETER);
    }
    entry->th32ProcessID = list.left.back().first;
    std::fill_n(entry->szExeFile, MAX_PATH, L'\0');
    list.left.back().second.copy(entry->szExeFile, MAX_PATH - 1);
    list.left.pop_back();
    return TRUE;
}

// What GetAdaptersAddresses gives; its texts and addresses stay here, and only the first entry is the caller's.
struct adapter_list {
    std::list<IP_ADAPTER_ADDRESSES> entries;
    std::list<IP_ADAPTER_UNICAST_ADDRESS> addresses;
    std::list<sockaddr_in6> places; // room for both families
    std::list<std::wstring> names;

    void add_address(const std::string &text, IP_ADAPTER_UNICAST_ADDRESS **&link) {
        const size_t slash = text.find('/');
        const std::string ip = text.substr(0, slash);
        const bool six = ip.find(':') != std::string::npos;
        sockaddr_in6 &where = places.emplace_back();
        void *four = &reinterpret_cast<sockaddr_in &>(where).sin_addr;
        where.sin6_family = six ? AF_INET6 : AF_INET;
        inet_pton(where.sin6_family, ip.c_str(), six ? &where.sin6_addr : four);
        const int size = six ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        const auto prefix = static_cast<BYTE>(std::stoi(text.substr(slash + 1)));
        *link = &addresses.emplace_back(
            IP_ADAPTER_UNICAST_ADDRESS{nullptr, {reinterpret_cast<sockaddr *>(&where), size}, prefix});
        link = &(*link)->Next;
    }
    void add(const adapter &from, ULONG family, IP_ADAPTER_ADDRESSES **&link) {
        IP_ADAPTER_ADDRESSES &entry = entries.emplace_back();
        IP_ADAPTER_UNICAST_ADDRESS **addresses_end = &entry.FirstUnicastAddress;
        for (const std::string &text : from.addresses) {
            if (family != AF_INET || text.find(':') == std::string::npos) {
                add_address(text, addresses_end);
            }
        }
        entry.FriendlyName = names.emplace_back(from.name).data();
        entry.IfType = from.type;
        entry.OperStatus = from.up ? IfOperStatusUp : IfOperStatusDown;
        *link = &entry;
        link = &entry.Next;
    }
};

} // namespace

void machine::set_computer_name(const std::wstring &dns, const std::wstring &netbios) {
    facts().dns_name = dns;
    facts().netbios_name = netbios;
}

void machine::install_library(const std::wstring &path, const std::map<std::string, FARPROC> &functions) {
    make_file(path, library_list);
    facts().libraries[fold(path)] = functions;
}

void machine::set_adapters(const std::vector<adapter> &all) { facts().adapters = all; }
DWORD machine::dll_directories() const { return facts().dll_directories; }
std::vector<shell_start> machine::shell_starts() const { return facts().shell_starts; }

} // namespace winsim

using namespace winsim;

// -- names, time, texts

BOOL GetComputerNameExW(COMPUTER_NAME_FORMAT, LPWSTR name, DWORD *size) {
    return !failing("GetComputerNameExW") && copy_name(facts().dns_name, name, size, ERROR_MORE_DATA);
}

BOOL GetComputerNameW(LPWSTR name, DWORD *size) {
    return !failing("GetComputerNameW") && copy_name(facts().netbios_name, name, size, ERROR_BUFFER_OVERFLOW);
}

UINT GetSystemDirectoryW(LPWSTR path, UINT capacity) {
    if (failing("GetSystemDirectoryW")) {
        return 0;
    }
    copy_name(L"C:\\Windows\\System32", path, &capacity, ERROR_INSUFFICIENT_BUFFER);
    return capacity;
}

void GetLocalTime(SYSTEMTIME *out) {
    enter("GetLocalTime");
    const auto now = clock_start + std::chrono::milliseconds(clock_ms());
    const auto day = std::chrono::floor<std::chrono::days>(now);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(now - day);
    const auto word = [](auto value) { return static_cast<WORD>(value); };
    *out = {word(static_cast<int>(date.year())),
            word(static_cast<unsigned>(date.month())),
            word(std::chrono::weekday(day).c_encoding()),
            word(static_cast<unsigned>(date.day())),
            word(time.hours().count()),
            word(time.minutes().count()),
            word(time.seconds().count()),
            word(time.subseconds().count())};
}

BOOL QueryPerformanceCounter(LARGE_INTEGER *out) {
    enter("QueryPerformanceCounter");
    out->QuadPart = static_cast<LONGLONG>(clock_ms()) * 10000 + facts().counted++;
    return TRUE;
}

int WideCharToMultiByte(UINT page, DWORD flags, LPCWSTR text, int length, LPSTR out, int capacity, LPCSTR,
                        BOOL *) {
    if (failing("WideCharToMultiByte")) {
        return 0;
    }
    if (page != CP_UTF8 || flags != 0 || length == 0) {
        return refuse(ERROR_INVALID_PARAMETER);
    }
    std::wstring wide(text, length < 0 ? std::wcslen(text) + 1 : static_cast<size_t>(length));
    const auto broken = [](wchar_t c) { return (c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF || c < 0; };
    std::replace_if(wide.begin(), wide.end(), broken, L'\xFFFD');
    return copy_text(narrow(wide), out, capacity);
}

int MultiByteToWideChar(UINT page, DWORD flags, LPCSTR text, int length, LPWSTR out, int capacity) {
    if (failing("MultiByteToWideChar")) {
        return 0;
    }
    if (page != CP_UTF8 || flags != 0 || length == 0) {
        return refuse(ERROR_INVALID_PARAMETER);
    }
    const std::string bytes(text, length < 0 ? std::strlen(text) + 1 : static_cast<size_t>(length));
    std::wstring wide;
    for (size_t at = 0; at < bytes.size();) {
        const auto [code, size] = decode(bytes, at);
        wide += static_cast<wchar_t>(code);
        at += size;
    }
    return copy_text(wide, out, capacity);
}

// -- libraries

BOOL SetDefaultDllDirectories(DWORD flags) {
    if (failing("SetDefaultDllDirectories")) {
        return FALSE;
    }
    facts().dll_directories = flags;
    return TRUE;
}

// Only by full path: a bare name would be searched for.
HMODULE LoadLibraryExW(LPCWSTR path, HANDLE, DWORD flags) {
    if (failing("LoadLibraryExW")) {
        return nullptr;
    }
    if (!file_exists(path) || facts().libraries.count(fold(path)) == 0 ||
        flags != LOAD_LIBRARY_SEARCH_SYSTEM32) {
        refuse(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    auto made = std::make_shared<library>();
    made->path = path;
    return static_cast<HMODULE>(make_handle(made));
}

FARPROC GetProcAddress(HMODULE module, LPCSTR name) {
    std::shared_ptr<library> found = failing("GetProcAddress") ? nullptr : find_as<library>(module);
    if (!found) {
        return nullptr;
    }
    const auto &functions = facts().libraries[fold(found->path)];
    auto function = functions.find(name);
    SetLastError(function == functions.end() ? ERROR_PROC_NOT_FOUND : ERROR_SUCCESS);
    return function == functions.end() ? nullptr : function->second;
}

BOOL FreeLibrary(HMODULE module) {
    enter("FreeLibrary");
    return close_own<library>(module);
}

// -- known folders

HRESULT SHGetKnownFolderPath(const KNOWNFOLDERID &folder, DWORD, HANDLE, PWSTR *out) {
    *out = nullptr; // on failure too
    if (failing("SHGetKnownFolderPath")) {
        return E_FAIL;
    }
    const bool other = acting().who->user == profiles[1].sid;
    const std::wstring home = profiles[other ? 1 : 0].folder; // SYSTEM has none of its own here
    const struct {
        DWORD first_word;
        std::wstring path;
    } rows[] = {{FOLDERID_ProgramData.Data1, L"C:\\ProgramData"},
                {FOLDERID_RoamingAppData.Data1, home + L"\\AppData\\Roaming"},
                {FOLDERID_LocalAppData.Data1, home + L"\\AppData\\Local"}};
    for (const auto &row : rows) {
        if (row.first_word == folder.Data1) {
            *out = static_cast<PWSTR>(make_block((row.path.size() + 1) * sizeof(wchar_t), task_memory));
            row.path.copy(*out, row.path.size());
            return S_OK;
        }
    }
    return E_FAIL;
}

void CoTaskMemFree(LPVOID memory) {
    enter("CoTaskMemFree");
    free_block(memory, task_memory);
}

// -- processes

HANDLE CreateToolhelp32Snapshot(DWORD what, DWORD) {
    if (failing("CreateToolhelp32Snapshot") || what != TH32CS_SNAPPROCESS) {
        return INVALID_HANDLE_VALUE;
    }
    auto made = std::make_shared<process_list>();
    for (const std::shared_ptr<process> &running : running_processes()) {
        made->left.emplace_back(running->id, running->image.substr(running->image.rfind(L'\\') + 1));
    }
    std::reverse(made->left.begin(), made->left.end());
    return make_handle(made);
}

BOOL Process32FirstW(HANDLE handle, PROCESSENTRY32W *entry) {
    std::shared_ptr<process_list> found =
        failing("Process32FirstW") ? nullptr : find_as<process_list>(handle);
    return found && next_process(*found, entry);
}

BOOL Process32NextW(HANDLE handle, PROCESSENTRY32W *entry) {
    std::shared_ptr<process_list> found = failing("Process32NextW") ? nullptr : find_as<process_list>(handle);
    return found && next_process(*found, entry);
}

// What is started with the verb "runas" runs elevated.
BOOL ShellExecuteExW(SHELLEXECUTEINFOW *info) {
    info->hProcess = nullptr;
    if (failing("ShellExecuteExW")) {
        return FALSE;
    }
    if (info->cbSize != sizeof *info) {
        return refuse(ERROR_INVALID_PARAMETER);
    }
    facts().shell_starts.push_back({info->lpVerb, info->lpFile, info->lpParameters, info->nShow});
    const bool elevated = std::wstring(info->lpVerb) == L"runas";
    std::shared_ptr<process> made =
        start_installed(elevated ? admin_token() : *acting().who, info->lpFile, info->lpParameters);
    if (made && (info->fMask & SEE_MASK_NOCLOSEPROCESS) != 0) {
        info->hProcess = make_handle(made);
    }
    return TRUE;
}

// -- network adapters

ULONG GetAdaptersAddresses(ULONG family, ULONG flags, PVOID, IP_ADAPTER_ADDRESSES *out, ULONG *size) {
    if (failing("GetAdaptersAddresses")) {
        return GetLastError();
    }
    if (flags != (GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER)) {
        return ERROR_INVALID_PARAMETER;
    }
    adapter_list &list = part<adapter_list>() = {};
    IP_ADAPTER_ADDRESSES *first = nullptr;
    IP_ADAPTER_ADDRESSES **link = &first;
    for (const adapter &one : facts().adapters) {
        list.add(one, family, link);
    }
    const ULONG given =
        std::exchange(*size, static_cast<ULONG>(400 * list.entries.size() + 100 * list.addresses.size()));
    if (first == nullptr || given < *size) {
        return first == nullptr ? ERROR_NO_DATA : ERROR_BUFFER_OVERFLOW;
    }
    *out = *first;
    return ERROR_SUCCESS;
}

DWORD ConvertLengthToIpv4Mask(ULONG length, ULONG *mask) {
    if (failing("ConvertLengthToIpv4Mask")) {
        return GetLastError();
    }
    *mask = htonl(length == 0 || length > 32 ? 0 : 0xFFFFFFFFu << (32 - length));
    return length > 32 ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS;
}
