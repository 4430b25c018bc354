// The stand-in for the system's header on the simulated machine (../machine.h): the types, constants and calls that the
// service and the store use, with the values and field names of the real one. Differences: DWORD is an unsigned int,
// wchar_t has the size the compiler gives it, constants are typed and calls have no calling convention.
#ifndef WINSIM_WINDOWS_H
#define WINSIM_WINDOWS_H

#include <cstddef>
#include <cstdint>

#define WINAPI

// -- types
typedef uint8_t BYTE, UCHAR, BOOLEAN, *LPBYTE, *PUCHAR;
typedef uint16_t WORD, SECURITY_DESCRIPTOR_CONTROL;
typedef uint32_t DWORD, ULONG, UINT, REGSAM, SECURITY_INFORMATION;
typedef int32_t LONG, HRESULT, NTSTATUS, LSTATUS;
typedef int BOOL;
typedef uint64_t ULONGLONG;
typedef int64_t LONGLONG;
typedef uintptr_t ULONG_PTR;
typedef intptr_t LONG_PTR;
typedef size_t SIZE_T;
typedef void *PVOID, *LPVOID, *HANDLE, *HLOCAL, *PSECURITY_DESCRIPTOR, *PSID, *BCRYPT_ALG_HANDLE;
typedef const void *LPCVOID;
typedef char *LPSTR;
typedef const char *LPCSTR;
typedef wchar_t *LPWSTR, *PWSTR;
typedef const wchar_t *LPCWSTR;
typedef struct HWND__ *HWND;
typedef struct HINSTANCE__ *HINSTANCE, *HMODULE;
typedef struct HKEY__ *HKEY;
typedef struct SC_HANDLE__ *SC_HANDLE;
typedef struct SERVICE_STATUS_HANDLE__ *SERVICE_STATUS_HANDLE;
using FARPROC = intptr_t (*)();

union LARGE_INTEGER {
    LONGLONG QuadPart;
};
struct SYSTEMTIME {
    WORD wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
};
struct SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
};
struct OVERLAPPED {
    ULONG_PTR Internal, InternalHigh;
    DWORD Offset, OffsetHigh;
    HANDLE hEvent;
};
struct PROCESS_INFORMATION {
    HANDLE hProcess, hThread;
    DWORD dwProcessId, dwThreadId;
};
struct STARTUPINFOW {
    DWORD cb;
    LPWSTR lpDesktop;
};
struct JOBOBJECT_EXTENDED_LIMIT_INFORMATION {
    struct {
        DWORD LimitFlags;
    } BasicLimitInformation;
};
enum JOBOBJECTINFOCLASS { JobObjectExtendedLimitInformation = 9 };

// -- constants
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)))
constexpr BOOL FALSE = 0, TRUE = 1;
constexpr DWORD INFINITE = 0xFFFFFFFF;
constexpr int MAX_PATH = 260;
constexpr HRESULT S_OK = 0, E_FAIL = static_cast<HRESULT>(0x80004005);

constexpr DWORD ERROR_SUCCESS = 0, NO_ERROR = 0, ERROR_FILE_NOT_FOUND = 2, ERROR_PATH_NOT_FOUND = 3,
                ERROR_ACCESS_DENIED = 5, ERROR_INVALID_HANDLE = 6, ERROR_NOT_ENOUGH_MEMORY = 8,
                ERROR_INVALID_DATA = 13, ERROR_NO_MORE_FILES = 18, ERROR_NOT_READY = 21,
                ERROR_GEN_FAILURE = 31, ERROR_SHARING_VIOLATION = 32, ERROR_FILE_EXISTS = 80,
                ERROR_INVALID_PARAMETER = 87, ERROR_BROKEN_PIPE = 109, ERROR_DISK_FULL = 112,
                ERROR_INSUFFICIENT_BUFFER = 122, ERROR_MOD_NOT_FOUND = 126, ERROR_PROC_NOT_FOUND = 127,
                ERROR_DIR_NOT_EMPTY = 145, ERROR_BUSY = 170, ERROR_ALREADY_EXISTS = 183,
                ERROR_PIPE_BUSY = 231, ERROR_NO_DATA = 232, ERROR_PIPE_NOT_CONNECTED = 233,
                ERROR_MORE_DATA = 234, WAIT_TIMEOUT = 258, ERROR_DIRECTORY = 267, ERROR_PIPE_CONNECTED = 535,
                ERROR_PIPE_LISTENING = 536, ERROR_OPERATION_ABORTED = 995, ERROR_IO_INCOMPLETE = 996,
                ERROR_IO_PENDING = 997, ERROR_SERVICE_REQUEST_TIMEOUT = 1053,
                ERROR_SERVICE_ALREADY_RUNNING = 1056, ERROR_SERVICE_DOES_NOT_EXIST = 1060,
                ERROR_SERVICE_NOT_ACTIVE = 1062, ERROR_FAILED_SERVICE_CONTROLLER_CONNECT = 1063,
                ERROR_SERVICE_SPECIFIC_ERROR = 1066, ERROR_SERVICE_EXISTS = 1073, ERROR_NOT_FOUND = 1168,
                ERROR_NOT_ALL_ASSIGNED = 1300, ERROR_PRIVILEGE_NOT_HELD = 1314, ERROR_INVALID_SID = 1337,
                ERROR_BAD_TOKEN_TYPE = 1349;
constexpr DWORD WAIT_OBJECT_0 = 0, WAIT_FAILED = 0xFFFFFFFF, STILL_ACTIVE = 259;
// Access rights, generic ones first, and those of files, pipes, processes and events.
constexpr DWORD GENERIC_READ = 0x80000000, GENERIC_WRITE = 0x40000000, GENERIC_EXECUTE = 0x20000000,
                GENERIC_ALL = 0x10000000, DELETE = 0x00010000, READ_CONTROL = 0x00020000,
                WRITE_DAC = 0x00040000, WRITE_OWNER = 0x00080000, SYNCHRONIZE = 0x00100000,
                FILE_READ_DATA = 0x0001, FILE_LIST_DIRECTORY = 0x0001, FILE_WRITE_DATA = 0x0002,
                FILE_ADD_FILE = 0x0002, FILE_APPEND_DATA = 0x0004, FILE_ADD_SUBDIRECTORY = 0x0004,
                FILE_CREATE_PIPE_INSTANCE = 0x0004, FILE_WRITE_EA = 0x0010, FILE_EXECUTE = 0x0020,
                FILE_DELETE_CHILD = 0x0040, FILE_READ_ATTRIBUTES = 0x0080, FILE_WRITE_ATTRIBUTES = 0x0100,
                FILE_ALL_ACCESS = 0x001F01FF, FILE_GENERIC_READ = 0x00120089, FILE_GENERIC_WRITE = 0x00120116,
                FILE_GENERIC_EXECUTE = 0x001200A0, PROCESS_TERMINATE = 0x0001, PROCESS_SET_QUOTA = 0x0100,
                PROCESS_QUERY_LIMITED_INFORMATION = 0x1000, PROCESS_ALL_ACCESS = 0x001FFFFF;
// Files and pipes.
constexpr DWORD FILE_SHARE_READ = 1, FILE_SHARE_WRITE = 2, FILE_SHARE_DELETE = 4, CREATE_NEW = 1,
                CREATE_ALWAYS = 2, OPEN_EXISTING = 3, OPEN_ALWAYS = 4, FILE_ATTRIBUTE_READONLY = 0x1,
                FILE_ATTRIBUTE_DIRECTORY = 0x10, FILE_ATTRIBUTE_NORMAL = 0x80,
                FILE_ATTRIBUTE_REPARSE_POINT = 0x400, INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF,
                FILE_FLAG_OVERLAPPED = 0x40000000, FILE_FLAG_OPEN_REPARSE_POINT = 0x00200000,
                FILE_FLAG_FIRST_PIPE_INSTANCE = 0x00080000, SECURITY_SQOS_PRESENT = 0x00100000,
                SECURITY_IDENTIFICATION = 0x00010000, SECURITY_DELEGATION = 0x00030000,
                PIPE_ACCESS_DUPLEX = 3, PIPE_TYPE_BYTE = 0, PIPE_READMODE_BYTE = 0, PIPE_WAIT = 0,
                PIPE_REJECT_REMOTE_CLIENTS = 8;
// Processes, jobs and memory.
constexpr DWORD CREATE_SUSPENDED = 0x00000004, CREATE_UNICODE_ENVIRONMENT = 0x00000400,
                CREATE_NO_WINDOW = 0x08000000, JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE = 0x2000;

// -- security
constexpr BYTE SID_REVISION = 1;
constexpr DWORD SECURITY_MAX_SID_SIZE = 68;
struct SID {
    BYTE Revision, SubAuthorityCount;
    struct {
        BYTE Value[6]; // big-endian
    } IdentifierAuthority;
    DWORD SubAuthority[1];
};
enum WELL_KNOWN_SID_TYPE { WinLocalSystemSid = 22, WinBuiltinAdministratorsSid = 26 };

constexpr BYTE ACCESS_ALLOWED_ACE_TYPE = 0x0, ACCESS_DENIED_ACE_TYPE = 0x1, SYSTEM_AUDIT_ACE_TYPE = 0x2,
               ACCESS_ALLOWED_OBJECT_ACE_TYPE = 0x5, OBJECT_INHERIT_ACE = 0x1, CONTAINER_INHERIT_ACE = 0x2,
               INHERIT_ONLY_ACE = 0x8, INHERITED_ACE = 0x10;
struct ACE_HEADER {
    BYTE AceType, AceFlags;
    WORD AceSize;
};
struct ACCESS_ALLOWED_ACE {
    ACE_HEADER Header;
    DWORD Mask, SidStart; // the latter is the first four bytes of the SID
};
struct ACL {
    BYTE AclRevision, Sbz1;
    WORD AclSize, AceCount, Sbz2;
};
using PACL = ACL *;

constexpr DWORD SDDL_REVISION_1 = 1;
constexpr WORD SE_DACL_PRESENT = 0x0004, SE_DACL_AUTO_INHERITED = 0x0400, SE_DACL_PROTECTED = 0x1000;
constexpr DWORD OWNER_SECURITY_INFORMATION = 0x1, DACL_SECURITY_INFORMATION = 0x4, ERROR_INVALID_OWNER = 1307,
                ERROR_NO_IMPERSONATION_TOKEN = 1309;
enum SE_OBJECT_TYPE { SE_FILE_OBJECT = 1 };

constexpr DWORD SE_PRIVILEGE_ENABLED = 0x2;
constexpr wchar_t SE_TCB_NAME[] = L"SeTcbPrivilege",
                  SE_ASSIGNPRIMARYTOKEN_NAME[] = L"SeAssignPrimaryTokenPrivilege",
                  SE_INCREASE_QUOTA_NAME[] = L"SeIncreaseQuotaPrivilege";
struct LUID {
    DWORD LowPart;
};
struct TOKEN_PRIVILEGES {
    DWORD PrivilegeCount;
    struct {
        LUID Luid;
        DWORD Attributes;
    } Privileges[1];
};

constexpr DWORD TOKEN_ASSIGN_PRIMARY = 0x0001, TOKEN_DUPLICATE = 0x0002, TOKEN_IMPERSONATE = 0x0004,
                TOKEN_QUERY = 0x0008, TOKEN_ADJUST_PRIVILEGES = 0x0020, TOKEN_ADJUST_DEFAULT = 0x0080,
                TOKEN_ADJUST_SESSIONID = 0x0100, TOKEN_ALL_ACCESS = 0x000F01FF;
enum TOKEN_INFORMATION_CLASS { TokenUser = 1, TokenSessionId = 12, TokenElevation = 20 };
enum TOKEN_TYPE { TokenPrimary = 1 };
enum SECURITY_IMPERSONATION_LEVEL { SecurityIdentification = 1, SecurityImpersonation = 2 };
struct TOKEN_USER {
    struct {
        PSID Sid;
    } User;
};
struct TOKEN_ELEVATION {
    DWORD TokenIsElevated;
};

// -- directories
constexpr DWORD MOVEFILE_REPLACE_EXISTING = 0x1, MOVEFILE_WRITE_THROUGH = 0x8;

struct WIN32_FIND_DATAW {
    DWORD dwFileAttributes, nFileSizeHigh, nFileSizeLow;
    wchar_t cFileName[MAX_PATH];
};

// -- registry
#define HKEY_CURRENT_USER (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000001)))
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000002)))
constexpr DWORD REG_SZ = 1, REG_DWORD = 4;
constexpr REGSAM KEY_SET_VALUE = 0x2;
constexpr DWORD RRF_RT_REG_SZ = 0x2, RRF_RT_REG_DWORD = 0x10, ERROR_UNSUPPORTED_TYPE = 1630;

// -- service manager
constexpr DWORD SC_MANAGER_CONNECT = 0x1, SC_MANAGER_CREATE_SERVICE = 0x2, SERVICE_QUERY_CONFIG = 0x1,
                SERVICE_CHANGE_CONFIG = 0x2, SERVICE_QUERY_STATUS = 0x4, SERVICE_START = 0x10,
                SERVICE_STOP = 0x20, SERVICE_ALL_ACCESS = 0xF01FF, SERVICE_WIN32_OWN_PROCESS = 0x10,
                SERVICE_AUTO_START = 2, SERVICE_ERROR_NORMAL = 1, SERVICE_STOPPED = 1,
                SERVICE_START_PENDING = 2, SERVICE_STOP_PENDING = 3, SERVICE_RUNNING = 4,
                SERVICE_ACCEPT_STOP = 0x1, SERVICE_ACCEPT_SHUTDOWN = 0x4, SERVICE_ACCEPT_SESSIONCHANGE = 0x80,
                SERVICE_CONTROL_STOP = 1, SERVICE_CONTROL_SHUTDOWN = 5, SERVICE_CONTROL_SESSIONCHANGE = 14,
                SERVICE_CONFIG_FAILURE_ACTIONS = 2;

struct SERVICE_STATUS {
    DWORD dwServiceType, dwCurrentState, dwControlsAccepted, dwWin32ExitCode, dwServiceSpecificExitCode,
        dwCheckPoint, dwWaitHint;
};
struct SERVICE_STATUS_PROCESS : SERVICE_STATUS {
    DWORD dwProcessId, dwServiceFlags;
};
enum SC_STATUS_TYPE { SC_STATUS_PROCESS_INFO = 0 };
enum SC_ACTION_TYPE { SC_ACTION_RESTART = 1 };
struct SC_ACTION {
    SC_ACTION_TYPE Type;
    DWORD Delay;
};
struct SERVICE_FAILURE_ACTIONSW {
    DWORD dwResetPeriod;
    LPWSTR lpRebootMsg, lpCommand;
    DWORD cActions;
    SC_ACTION *lpsaActions;
};
using LPSERVICE_MAIN_FUNCTIONW = void (*)(DWORD count, LPWSTR *arguments);
using LPHANDLER_FUNCTION_EX = DWORD (*)(DWORD control, DWORD event, LPVOID data, LPVOID context);
struct SERVICE_TABLE_ENTRYW {
    LPWSTR lpServiceName;
    LPSERVICE_MAIN_FUNCTIONW lpServiceProc;
};

// -- names, time, texts
enum COMPUTER_NAME_FORMAT { ComputerNamePhysicalDnsHostname = 5 };
constexpr UINT CP_UTF8 = 65001;
constexpr DWORD ERROR_BUFFER_OVERFLOW = 111;

// -- libraries
constexpr DWORD LOAD_LIBRARY_SEARCH_APPLICATION_DIR = 0x200, LOAD_LIBRARY_SEARCH_SYSTEM32 = 0x800;

// -- known folders and data protection
struct KNOWNFOLDERID {
    DWORD Data1;
};
struct DATA_BLOB {
    DWORD cbData;
    BYTE *pbData;
};
constexpr KNOWNFOLDERID FOLDERID_ProgramData = {0x62AB5D82}, FOLDERID_RoamingAppData = {0x3EB685DB},
                        FOLDERID_LocalAppData = {0xF1B32785};
constexpr DWORD CRYPTPROTECT_UI_FORBIDDEN = 0x1, CRYPTPROTECT_LOCAL_MACHINE = 0x4;
constexpr bool SUCCEEDED(HRESULT result) { return result >= 0; }
constexpr bool FAILED(HRESULT result) { return result < 0; }

// -- the list of processes, and starting one as the shell does
constexpr DWORD TH32CS_SNAPPROCESS = 0x2;
struct PROCESSENTRY32W {
    DWORD dwSize, th32ProcessID;
    wchar_t szExeFile[MAX_PATH];
};
constexpr ULONG SEE_MASK_NOCLOSEPROCESS = 0x40;
constexpr int SW_HIDE = 0;
struct SHELLEXECUTEINFOW {
    DWORD cbSize;
    ULONG fMask;
    HWND hwnd;
    LPCWSTR lpVerb, lpFile, lpParameters, lpDirectory;
    int nShow;
    HINSTANCE hInstApp;
    HANDLE hProcess;
};

// -- environments and random numbers
constexpr ULONG BCRYPT_USE_SYSTEM_PREFERRED_RNG = 2;
constexpr NTSTATUS STATUS_UNSUCCESSFUL = static_cast<NTSTATUS>(0xC0000001);

// -- calls
extern "C" {
DWORD GetLastError();
void SetLastError(DWORD error);
ULONGLONG GetTickCount64();
void Sleep(DWORD ms);
HLOCAL LocalFree(HLOCAL memory);
BOOL CloseHandle(HANDLE handle);
HANDLE CreateEventW(SECURITY_ATTRIBUTES *security, BOOL manual_reset, BOOL initial_state, LPCWSTR name);
BOOL SetEvent(HANDLE event);
DWORD WaitForSingleObject(HANDLE handle, DWORD timeout_ms);
DWORD WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL all, DWORD timeout_ms);
HANDLE CreateFileW(LPCWSTR name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security, DWORD disposition,
                   DWORD flags, HANDLE pattern);
BOOL ReadFile(HANDLE file, LPVOID bytes, DWORD size, DWORD *moved, OVERLAPPED *overlapped);
BOOL WriteFile(HANDLE file, LPCVOID bytes, DWORD size, DWORD *moved, OVERLAPPED *overlapped);
BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER *size);
BOOL FlushFileBuffers(HANDLE file);
HANDLE CreateNamedPipeW(LPCWSTR name, DWORD open_mode, DWORD pipe_mode, DWORD max_instances, DWORD out_size,
                        DWORD in_size, DWORD default_timeout_ms, SECURITY_ATTRIBUTES *security);
BOOL ConnectNamedPipe(HANDLE pipe, OVERLAPPED *overlapped);
BOOL DisconnectNamedPipe(HANDLE pipe);
BOOL GetNamedPipeClientProcessId(HANDLE pipe, ULONG *id);
BOOL GetNamedPipeServerProcessId(HANDLE pipe, ULONG *id);
BOOL GetOverlappedResult(HANDLE file, OVERLAPPED *overlapped, DWORD *moved, BOOL wait);
BOOL CancelIoEx(HANDLE file, OVERLAPPED *overlapped);
HANDLE GetCurrentProcess();
DWORD GetCurrentProcessId();
DWORD GetProcessId(HANDLE process);
HANDLE OpenProcess(DWORD access, BOOL inherit, DWORD id);
BOOL TerminateProcess(HANDLE process, UINT exit_code);
BOOL GetExitCodeProcess(HANDLE process, DWORD *exit_code);
DWORD GetModuleFileNameW(HMODULE module, LPWSTR name, DWORD capacity);
BOOL CreateProcessAsUserW(HANDLE token, LPCWSTR application, LPWSTR command_line,
                          SECURITY_ATTRIBUTES *process_security, SECURITY_ATTRIBUTES *thread_security,
                          BOOL inherit, DWORD flags, LPVOID environment, LPCWSTR directory,
                          STARTUPINFOW *startup, PROCESS_INFORMATION *made);
DWORD ResumeThread(HANDLE thread);
HANDLE CreateJobObjectW(SECURITY_ATTRIBUTES *security, LPCWSTR name);
BOOL SetInformationJobObject(HANDLE job, JOBOBJECTINFOCLASS kind, LPVOID information, DWORD size);
BOOL AssignProcessToJobObject(HANDLE job, HANDLE process);
BOOL TerminateJobObject(HANDLE job, UINT exit_code);
DWORD WTSGetActiveConsoleSessionId();
BOOL ConvertStringSecurityDescriptorToSecurityDescriptorW(const wchar_t *text, DWORD revision,
                                                          PSECURITY_DESCRIPTOR *out, DWORD *size);
BOOL ConvertStringSidToSidW(const wchar_t *text, PSID *out);
BOOL ConvertSidToStringSidW(PSID sid, wchar_t **out);
BOOL EqualSid(PSID left, PSID right);
BOOL IsWellKnownSid(PSID sid, WELL_KNOWN_SID_TYPE type);
BOOL CreateWellKnownSid(WELL_KNOWN_SID_TYPE type, PSID domain, PSID out, DWORD *size);
BOOL GetAce(PACL list, DWORD index, void **out);
BOOL GetSecurityDescriptorControl(PSECURITY_DESCRIPTOR descriptor, SECURITY_DESCRIPTOR_CONTROL *control,
                                  DWORD *revision);
DWORD GetNamedSecurityInfoW(const wchar_t *name, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID *owner,
                            PSID *group, PACL *dacl, PACL *sacl, PSECURITY_DESCRIPTOR *descriptor);
BOOL OpenProcessToken(HANDLE process, DWORD access, HANDLE *out);
BOOL GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS what, void *out, DWORD size, DWORD *needed);
BOOL SetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS what, void *value, DWORD size);
BOOL DuplicateToken(HANDLE token, SECURITY_IMPERSONATION_LEVEL level, HANDLE *out);
BOOL DuplicateTokenEx(HANDLE token, DWORD access, SECURITY_ATTRIBUTES *attributes,
                      SECURITY_IMPERSONATION_LEVEL level, TOKEN_TYPE type, HANDLE *out);
BOOL CheckTokenMembership(HANDLE token, PSID sid, BOOL *member);
BOOL LookupPrivilegeValueW(const wchar_t *system, const wchar_t *name, LUID *out);
BOOL AdjustTokenPrivileges(HANDLE token, BOOL disable_all, TOKEN_PRIVILEGES *wanted, DWORD size,
                           TOKEN_PRIVILEGES *before, DWORD *needed);
BOOL RevertToSelf();
DWORD GetFileAttributesW(const wchar_t *path);
BOOL CreateDirectoryW(const wchar_t *path, SECURITY_ATTRIBUTES *attributes);
BOOL MoveFileExW(const wchar_t *from, const wchar_t *to, DWORD flags);
BOOL DeleteFileW(const wchar_t *path);
BOOL RemoveDirectoryW(const wchar_t *path);
HANDLE FindFirstFileW(const wchar_t *pattern, WIN32_FIND_DATAW *out);
BOOL FindNextFileW(HANDLE search, WIN32_FIND_DATAW *out);
BOOL FindClose(HANDLE search);
LSTATUS RegGetValueW(HKEY key, LPCWSTR subkey, LPCWSTR name, DWORD flags, DWORD *type, void *out,
                     DWORD *size);
LSTATUS RegCreateKeyExW(HKEY key, LPCWSTR subkey, DWORD reserved, LPWSTR kind, DWORD options, REGSAM access,
                        const SECURITY_ATTRIBUTES *security, HKEY *out, DWORD *disposition);
LSTATUS RegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE *bytes, DWORD size);
LSTATUS RegDeleteValueW(HKEY key, LPCWSTR name);
LSTATUS RegCloseKey(HKEY key);
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
BOOL GetComputerNameExW(COMPUTER_NAME_FORMAT format, LPWSTR name, DWORD *size);
BOOL GetComputerNameW(LPWSTR name, DWORD *size);
UINT GetSystemDirectoryW(LPWSTR path, UINT capacity);
void GetLocalTime(SYSTEMTIME *out);
BOOL QueryPerformanceCounter(LARGE_INTEGER *out);
int WideCharToMultiByte(UINT page, DWORD flags, LPCWSTR text, int length, LPSTR out, int capacity,
                        LPCSTR missing, BOOL *used_missing);
int MultiByteToWideChar(UINT page, DWORD flags, LPCSTR text, int length, LPWSTR out, int capacity);
BOOL SetDefaultDllDirectories(DWORD flags);
HMODULE LoadLibraryExW(LPCWSTR path, HANDLE reserved, DWORD flags);
FARPROC GetProcAddress(HMODULE module, LPCSTR name);
BOOL FreeLibrary(HMODULE module);
HRESULT SHGetKnownFolderPath(const KNOWNFOLDERID &folder, DWORD flags, HANDLE token, PWSTR *out);
void CoTaskMemFree(LPVOID memory);
BOOL CryptProtectData(DATA_BLOB *plain, LPCWSTR description, DATA_BLOB *entropy, PVOID reserved, void *prompt,
                      DWORD flags, DATA_BLOB *sealed);
BOOL CryptUnprotectData(DATA_BLOB *sealed, LPWSTR *description, DATA_BLOB *entropy, PVOID reserved,
                        void *prompt, DWORD flags, DATA_BLOB *plain);
HANDLE CreateToolhelp32Snapshot(DWORD what, DWORD process);
BOOL Process32FirstW(HANDLE snapshot, PROCESSENTRY32W *entry);
BOOL Process32NextW(HANDLE snapshot, PROCESSENTRY32W *entry);
BOOL ShellExecuteExW(SHELLEXECUTEINFOW *info);
BOOL CreateEnvironmentBlock(LPVOID *environment, HANDLE token, BOOL inherit);
BOOL DestroyEnvironmentBlock(LPVOID environment);
NTSTATUS BCryptGenRandom(BCRYPT_ALG_HANDLE algorithm, PUCHAR bytes, ULONG size, ULONG flags);
}

#endif
