// The small facts of the system: names, time, texts, libraries, known folders, processes and network adapters.
#include <algorithm>
#include <ctime>
#include <list>
#include <utility>

#include <iphlpapi.h>

#include "winsim/sim.h"

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
constexpr time_t clock_start_s = 1767312000; // 2026-01-02

struct library : own_closer {
    std::wstring path;
    std::string describe() const override { return "library " + narrow(path); }
};

struct process_list : object {
    std::vector<std::pair<DWORD, std::wstring>> left; // the next one is the last
    std::string describe() const override { return "list of processes"; }
};

// Copies a text with its end, if it fits; *size is the capacity before, the length or what is needed behind.
BOOL copy_name(const std::wstring &text, wchar_t *out, DWORD *size) {
    const DWORD given = *size;
    *size = static_cast<DWORD>(text.size() + (given <= text.size()));
    if (given <= text.size()) {
        return refuse(ERROR_INSUFFICIENT_BUFFER);
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

BOOL next_process(const char *call, HANDLE handle, PROCESSENTRY32W *entry) {
    const auto list = asked<process_list>(call, handle);
    if (!list || entry->dwSize != sizeof *entry || list->left.empty()) {
        return list ? refuse(list->left.empty() ? ERROR_NO_MORE_FILES : ERROR_INVALID_PARAMETER) : FALSE;
    }
    entry->th32ProcessID = list->left.back().first;
    entry->szExeFile[list->left.back().second.copy(entry->szExeFile, MAX_PATH - 1)] = L'\0';
    list->left.pop_back();
    return TRUE;
}

// What GetAdaptersAddresses gives; its texts and addresses stay here, and only the first entry is the caller's.
struct adapter_list {
    std::list<IP_ADAPTER_ADDRESSES> entries;
    std::list<IP_ADAPTER_UNICAST_ADDRESS> addresses;
    std::list<sockaddr_in> places;
    std::list<std::wstring> names;

    void add_address(const std::string &text, IP_ADAPTER_UNICAST_ADDRESS **&link) {
        const size_t slash = text.find('/');
        sockaddr_in &where = places.emplace_back();
        where.sin_family = AF_INET;
        if (inet_pton(AF_INET, text.substr(0, slash).c_str(), &where.sin_addr) ==
            1) { // others weren't asked for
            const auto prefix = static_cast<BYTE>(std::stoi(text.substr(slash + 1)));
            *link = &addresses.emplace_back(IP_ADAPTER_UNICAST_ADDRESS{
                nullptr, {reinterpret_cast<sockaddr *>(&where), sizeof where}, prefix});
            link = &(*link)->Next;
        }
    }
    void add(const adapter &from, IP_ADAPTER_ADDRESSES **&link) {
        IP_ADAPTER_ADDRESSES &entry = entries.emplace_back();
        IP_ADAPTER_UNICAST_ADDRESS **addresses_end = &entry.FirstUnicastAddress;
        for (const std::string &text : from.addresses) {
            add_address(text, addresses_end);
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
    return !failing("GetComputerNameExW") && copy_name(facts().dns_name, name, size);
}

BOOL GetComputerNameW(LPWSTR name, DWORD *size) {
    return !failing("GetComputerNameW") && copy_name(facts().netbios_name, name, size);
}

UINT GetSystemDirectoryW(LPWSTR path, UINT capacity) {
    BEGIN_CALL(0);
    copy_name(L"C:\\Windows\\System32", path, &capacity);
    return capacity;
}

void GetLocalTime(SYSTEMTIME *out) {
    enter(__func__);
    const time_t seconds = clock_start_s + static_cast<time_t>(clock_ms() / 1000);
    std::tm t{};
    gmtime_r(&seconds, &t);
    const auto word = [](auto value) { return static_cast<WORD>(value); };
    *out = {word(t.tm_year + 1900), word(t.tm_mon + 1), word(t.tm_wday), word(t.tm_mday),
            word(t.tm_hour),        word(t.tm_min),     word(t.tm_sec),  word(clock_ms() % 1000)};
}

BOOL QueryPerformanceCounter(LARGE_INTEGER *out) {
    enter(__func__);
    out->QuadPart = static_cast<LONGLONG>(clock_ms()) * 10000 + facts().counted++;
    return TRUE;
}

int WideCharToMultiByte(UINT page, DWORD flags, LPCWSTR text, int length, LPSTR out, int capacity, LPCSTR,
                        BOOL *) {
    BEGIN_CALL(0);
    if (page != CP_UTF8 || flags != 0 || length <= 0) { // other forms are not modelled
        return refuse(ERROR_INVALID_PARAMETER);
    }
    std::wstring wide(text, static_cast<size_t>(length));
    const auto broken = [](wchar_t c) { return (c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF || c < 0; };
    std::replace_if(wide.begin(), wide.end(), broken, L'\xFFFD');
    return copy_text(narrow(wide), out, capacity);
}

int MultiByteToWideChar(UINT page, DWORD flags, LPCSTR text, int length, LPWSTR out, int capacity) {
    BEGIN_CALL(0);
    if (page != CP_UTF8 || flags != 0 || length <= 0) { // other forms are not modelled
        return refuse(ERROR_INVALID_PARAMETER);
    }
    const std::string bytes(text, static_cast<size_t>(length));
    std::wstring wide; // the bytes are taken for well-formed
    for (const char c : bytes) {
        const auto byte = static_cast<uint8_t>(c);
        if (byte >= 0x80 && byte < 0xC0 && !wide.empty()) {
            wide.back() = wide.back() << 6 | (byte & 0x3F);
        } else {
            wide += byte & (byte < 0x80 ? 0x7F : byte < 0xE0 ? 0x1F : byte < 0xF0 ? 0x0F : 0x07);
        }
    }
    return copy_text(wide, out, capacity);
}

// -- libraries

BOOL SetDefaultDllDirectories(DWORD flags) {
    BEGIN_CALL(FALSE);
    facts().dll_directories = flags;
    return TRUE;
}

// Only by full path: a bare name would be searched for.
HMODULE LoadLibraryExW(LPCWSTR path, HANDLE, DWORD flags) {
    BEGIN_CALL(nullptr);
    if (!file_exists(path) || facts().libraries.count(fold(path)) == 0 ||
        flags != LOAD_LIBRARY_SEARCH_SYSTEM32) {
        return refuse(ERROR_MOD_NOT_FOUND), nullptr;
    }
    auto made = std::make_shared<library>();
    made->path = path;
    return static_cast<HMODULE>(make_handle(made));
}

FARPROC GetProcAddress(HMODULE module, LPCSTR name) {
    const auto found = asked<library>(__func__, module);
    if (!found) {
        return nullptr;
    }
    const auto &functions = facts().libraries[fold(found->path)];
    auto function = functions.find(name);
    SetLastError(function == functions.end() ? ERROR_PROC_NOT_FOUND : ERROR_SUCCESS);
    return function == functions.end() ? nullptr : function->second;
}

BOOL FreeLibrary(HMODULE module) { return close_own<library>(__func__, module); }

// -- known folders

HRESULT SHGetKnownFolderPath(const KNOWNFOLDERID &folder, DWORD, HANDLE, PWSTR *out) {
    *out = nullptr; // on failure too
    BEGIN_CALL(E_FAIL);
    const bool other = acting().who->user == profiles[1].sid;
    const std::wstring home = profiles[other ? 1 : 0].folder; // SYSTEM has none of its own here
    const std::wstring path = folder.Data1 == FOLDERID_ProgramData.Data1      ? L"C:\\ProgramData"
                              : folder.Data1 == FOLDERID_RoamingAppData.Data1 ? home + L"\\AppData\\Roaming"
                                                                              : home + L"\\AppData\\Local";
    *out = static_cast<PWSTR>(make_block((path.size() + 1) * sizeof(wchar_t), task_memory));
    path.copy(*out, path.size());
    return S_OK;
}

void CoTaskMemFree(LPVOID memory) {
    enter(__func__);
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

BOOL Process32FirstW(HANDLE handle, PROCESSENTRY32W *entry) { return next_process(__func__, handle, entry); }
BOOL Process32NextW(HANDLE handle, PROCESSENTRY32W *entry) { return next_process(__func__, handle, entry); }

// What is started with the verb "runas" runs elevated.
BOOL ShellExecuteExW(SHELLEXECUTEINFOW *info) {
    info->hProcess = nullptr;
    BEGIN_CALL(FALSE);
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
    BEGIN_CALL(GetLastError());
    if (family != AF_INET ||
        flags != (GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER)) {
        return ERROR_INVALID_PARAMETER;
    }
    adapter_list &list = part<adapter_list>() = {};
    IP_ADAPTER_ADDRESSES *first = nullptr;
    IP_ADAPTER_ADDRESSES **link = &first;
    for (const adapter &one : facts().adapters) {
        list.add(one, link);
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
    BEGIN_CALL(GetLastError());
    *mask = htonl(length == 0 || length > 32 ? 0 : 0xFFFFFFFFu << (32 - length));
    return length > 32 ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS;
}
