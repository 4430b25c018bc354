// The registry, the service manager and the small facts of the system, as <windows.h> and its siblings declare them.
// Only what the sources call.
#ifndef WINSIM_SERVICES_H
#define WINSIM_SERVICES_H

#include <windows.h>

// -- registry
using HKEY = struct HKEY__ *;
using REGSAM = DWORD;
#define HKEY_CURRENT_USER (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000001)))
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000002)))
constexpr DWORD REG_SZ = 1;
constexpr DWORD REG_DWORD = 4;
constexpr REGSAM KEY_SET_VALUE = 0x2;
constexpr DWORD RRF_RT_REG_SZ = 0x2;
constexpr DWORD RRF_RT_REG_DWORD = 0x10;
constexpr DWORD ERROR_UNSUPPORTED_TYPE = 1630;

extern "C" {
LSTATUS RegGetValueW(HKEY key, LPCWSTR subkey, LPCWSTR name, DWORD flags, DWORD *type, void *out,
                     DWORD *size);
LSTATUS RegCreateKeyExW(HKEY key, LPCWSTR subkey, DWORD reserved, LPWSTR kind, DWORD options, REGSAM access,
                        const SECURITY_ATTRIBUTES *security, HKEY *out, DWORD *disposition);
LSTATUS RegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE *bytes, DWORD size);
LSTATUS RegDeleteValueW(HKEY key, LPCWSTR name);
LSTATUS RegCloseKey(HKEY key);
}

// -- service manager
using SC_HANDLE = struct SC_HANDLE__ *;
using SERVICE_STATUS_HANDLE = struct SERVICE_STATUS_HANDLE__ *;
constexpr DWORD SC_MANAGER_CONNECT = 0x1;
constexpr DWORD SC_MANAGER_CREATE_SERVICE = 0x2;
constexpr DWORD SERVICE_QUERY_CONFIG = 0x1;
constexpr DWORD SERVICE_CHANGE_CONFIG = 0x2;
constexpr DWORD SERVICE_QUERY_STATUS = 0x4;
constexpr DWORD SERVICE_START = 0x10;
constexpr DWORD SERVICE_STOP = 0x20;
constexpr DWORD SERVICE_ALL_ACCESS = 0xF01FF;
constexpr DWORD SERVICE_NO_CHANGE = 0xFFFFFFFF;
constexpr DWORD SERVICE_WIN32_OWN_PROCESS = 0x10;
constexpr DWORD SERVICE_AUTO_START = 2;
constexpr DWORD SERVICE_ERROR_NORMAL = 1;
constexpr DWORD SERVICE_STOPPED = 1;
constexpr DWORD SERVICE_START_PENDING = 2;
constexpr DWORD SERVICE_STOP_PENDING = 3;
constexpr DWORD SERVICE_RUNNING = 4;
constexpr DWORD SERVICE_ACCEPT_STOP = 0x1;
constexpr DWORD SERVICE_ACCEPT_SHUTDOWN = 0x4;
constexpr DWORD SERVICE_ACCEPT_SESSIONCHANGE = 0x80;
constexpr DWORD SERVICE_CONTROL_STOP = 1;
constexpr DWORD SERVICE_CONTROL_SHUTDOWN = 5;
constexpr DWORD SERVICE_CONTROL_SESSIONCHANGE = 14;
constexpr DWORD SERVICE_CONFIG_FAILURE_ACTIONS = 2;
constexpr DWORD ERROR_INVALID_SERVICE_CONTROL = 1052;
constexpr DWORD ERROR_PROCESS_ABORTED = 1067;

struct SERVICE_STATUS {
    DWORD dwServiceType;
    DWORD dwCurrentState;
    DWORD dwControlsAccepted;
    DWORD dwWin32ExitCode;
    DWORD dwServiceSpecificExitCode;
    DWORD dwCheckPoint;
    DWORD dwWaitHint;
};
struct SERVICE_STATUS_PROCESS {
    DWORD dwServiceType;
    DWORD dwCurrentState;
    DWORD dwControlsAccepted;
    DWORD dwWin32ExitCode;
    DWORD dwServiceSpecificExitCode;
    DWORD dwCheckPoint;
    DWORD dwWaitHint;
    DWORD dwProcessId;
    DWORD dwServiceFlags;
};
enum SC_STATUS_TYPE { SC_STATUS_PROCESS_INFO = 0 };
enum SC_ACTION_TYPE { SC_ACTION_NONE = 0, SC_ACTION_RESTART = 1 };
struct SC_ACTION {
    SC_ACTION_TYPE Type;
    DWORD Delay;
};
struct SERVICE_FAILURE_ACTIONSW {
    DWORD dwResetPeriod;
    LPWSTR lpRebootMsg;
    LPWSTR lpCommand;
    DWORD cActions;
    SC_ACTION *lpsaActions;
};
using LPSERVICE_MAIN_FUNCTIONW = void (*)(DWORD count, LPWSTR *arguments);
using LPHANDLER_FUNCTION_EX = DWORD (*)(DWORD control, DWORD event, LPVOID data, LPVOID context);
struct SERVICE_TABLE_ENTRYW {
    LPWSTR lpServiceName;
    LPSERVICE_MAIN_FUNCTIONW lpServiceProc;
};

extern "C" {
SC_HANDLE OpenSCManagerW(LPCWSTR machine, LPCWSTR database, DWORD access);
SC_HANDLE CreateServiceW(SC_HANDLE manager, LPCWSTR name, LPCWSTR display, DWORD access, DWORD type,
                         DWORD start, DWORD error_control, LPCWSTR path, LPCWSTR group, DWORD *tag,
                         LPCWSTR dependencies, LPCWSTR account, LPCWSTR password);
SC_HANDLE OpenServiceW(SC_HANDLE manager, LPCWSTR name, DWORD access);
BOOL ChangeServiceConfigW(SC_HANDLE service, DWORD type, DWORD start, DWORD error_control, LPCWSTR path,
                          LPCWSTR group, DWORD *tag, LPCWSTR dependencies, LPCWSTR account, LPCWSTR password,
                          LPCWSTR display);
BOOL ChangeServiceConfig2W(SC_HANDLE service, DWORD level, LPVOID value);
BOOL StartServiceW(SC_HANDLE service, DWORD count, LPCWSTR *arguments);
BOOL ControlService(SC_HANDLE service, DWORD control, SERVICE_STATUS *status);
BOOL QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS *status);
BOOL QueryServiceStatusEx(SC_HANDLE service, SC_STATUS_TYPE level, BYTE *out, DWORD size, DWORD *needed);
BOOL DeleteService(SC_HANDLE service);
BOOL CloseServiceHandle(SC_HANDLE handle);
BOOL StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRYW *table);
SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerExW(LPCWSTR name, LPHANDLER_FUNCTION_EX handler,
                                                    LPVOID context);
BOOL SetServiceStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS *status);
}

// -- names, time, texts
enum COMPUTER_NAME_FORMAT { ComputerNamePhysicalDnsHostname = 5 };
constexpr UINT CP_UTF8 = 65001;
constexpr DWORD ERROR_BUFFER_OVERFLOW = 111;

extern "C" {
BOOL GetComputerNameExW(COMPUTER_NAME_FORMAT format, LPWSTR name, DWORD *size);
BOOL GetComputerNameW(LPWSTR name, DWORD *size);
UINT GetSystemDirectoryW(LPWSTR path, UINT capacity);
void GetLocalTime(SYSTEMTIME *out);
BOOL QueryPerformanceCounter(LARGE_INTEGER *out);
int WideCharToMultiByte(UINT page, DWORD flags, LPCWSTR text, int length, LPSTR out, int capacity,
                        LPCSTR missing, BOOL *used_missing);
int MultiByteToWideChar(UINT page, DWORD flags, LPCSTR text, int length, LPWSTR out, int capacity);
}

// -- libraries
constexpr DWORD LOAD_LIBRARY_SEARCH_APPLICATION_DIR = 0x200;
constexpr DWORD LOAD_LIBRARY_SEARCH_SYSTEM32 = 0x800;

extern "C" {
BOOL SetDefaultDllDirectories(DWORD flags);
HMODULE LoadLibraryExW(LPCWSTR path, HANDLE reserved, DWORD flags);
FARPROC GetProcAddress(HMODULE module, LPCSTR name);
BOOL FreeLibrary(HMODULE module);
}

// -- known folders and data protection
using KNOWNFOLDERID = GUID;
struct DATA_BLOB {
    DWORD cbData;
    BYTE *pbData;
};
constexpr KNOWNFOLDERID FOLDERID_ProgramData = {
    0x62AB5D82, 0xFDC1, 0x4DC3, {0xA9, 0xDD, 0x07, 0x0D, 0x1D, 0x49, 0x5D, 0x97}};
constexpr KNOWNFOLDERID FOLDERID_RoamingAppData = {
    0x3EB685DB, 0x65F9, 0x4CF6, {0xA0, 0x3A, 0xE3, 0xEF, 0x65, 0x72, 0x9F, 0x3D}};
constexpr KNOWNFOLDERID FOLDERID_LocalAppData = {
    0xF1B32785, 0x6FBA, 0x4FCF, {0x9D, 0x55, 0x7B, 0x8E, 0x7F, 0x15, 0x70, 0x91}};
constexpr DWORD CRYPTPROTECT_UI_FORBIDDEN = 0x1;
constexpr DWORD CRYPTPROTECT_LOCAL_MACHINE = 0x4;
constexpr bool SUCCEEDED(HRESULT result) { return result >= 0; }
constexpr bool FAILED(HRESULT result) { return result < 0; }

extern "C" {
HRESULT SHGetKnownFolderPath(const KNOWNFOLDERID &folder, DWORD flags, HANDLE token, PWSTR *out);
void CoTaskMemFree(LPVOID memory);
BOOL CryptProtectData(DATA_BLOB *plain, LPCWSTR description, DATA_BLOB *entropy, PVOID reserved, void *prompt,
                      DWORD flags, DATA_BLOB *sealed);
BOOL CryptUnprotectData(DATA_BLOB *sealed, LPWSTR *description, DATA_BLOB *entropy, PVOID reserved,
                        void *prompt, DWORD flags, DATA_BLOB *plain);
}

// -- the list of processes, and starting one as the shell does
constexpr DWORD TH32CS_SNAPPROCESS = 0x2;
struct PROCESSENTRY32W {
    DWORD dwSize;
    DWORD th32ProcessID;
    wchar_t szExeFile[MAX_PATH];
};
constexpr ULONG SEE_MASK_NOCLOSEPROCESS = 0x40;
constexpr int SW_HIDE = 0;
struct SHELLEXECUTEINFOW {
    DWORD cbSize;
    ULONG fMask;
    HWND hwnd;
    LPCWSTR lpVerb;
    LPCWSTR lpFile;
    LPCWSTR lpParameters;
    LPCWSTR lpDirectory;
    int nShow;
    HINSTANCE hInstApp;
    HANDLE hProcess;
};

extern "C" {
HANDLE CreateToolhelp32Snapshot(DWORD what, DWORD process);
BOOL Process32FirstW(HANDLE snapshot, PROCESSENTRY32W *entry);
BOOL Process32NextW(HANDLE snapshot, PROCESSENTRY32W *entry);
BOOL ShellExecuteExW(SHELLEXECUTEINFOW *info);
}

#endif
