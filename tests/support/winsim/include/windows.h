// The stand-in for the system's header on the simulated machine (../machine.h): the types, constants and calls that the
// service and the store use, with the values and field names of the real one. Differences: DWORD is an unsigned int,
// wchar_t has the size the compiler gives it, constants are typed and calls have no calling convention.
#ifndef WINSIM_WINDOWS_H
#define WINSIM_WINDOWS_H

#include <cstddef>
#include <cstdint>

#define WINAPI
#define CALLBACK
#define NTAPI
#define STDMETHODCALLTYPE

// -- types
using BYTE = uint8_t;
using UCHAR = uint8_t;
using PUCHAR = UCHAR *;
using LPBYTE = BYTE *;
using BOOLEAN = uint8_t;
using WORD = uint16_t;
using USHORT = uint16_t;
using DWORD = uint32_t;
using ULONG = uint32_t;
using UINT = uint32_t;
using LONG = int32_t;
using INT = int;
using BOOL = int;
using CHAR = char;
using WCHAR = wchar_t;
using ULONG64 = uint64_t;
using DWORD64 = uint64_t;
using ULONGLONG = uint64_t;
using LONGLONG = int64_t;
using ULONG_PTR = uintptr_t;
using DWORD_PTR = uintptr_t;
using UINT_PTR = uintptr_t;
using LONG_PTR = intptr_t;
using INT_PTR = intptr_t;
using SIZE_T = size_t;
using HRESULT = LONG;
using NTSTATUS = LONG;
using LSTATUS = LONG;
using PVOID = void *;
using LPVOID = void *;
using LPCVOID = const void *;
using LPDWORD = DWORD *;
using PDWORD = DWORD *;
using PULONG = ULONG *;
using LPBOOL = BOOL *;
using PBOOL = BOOL *;
using LPSTR = char *;
using LPCSTR = const char *;
using LPWSTR = wchar_t *;
using PWSTR = wchar_t *;
using LPCWSTR = const wchar_t *;
using PCWSTR = const wchar_t *;
using HANDLE = void *;
using PHANDLE = HANDLE *;
using LPHANDLE = HANDLE *;
using HLOCAL = void *;
using HWND = struct HWND__ *;
using HINSTANCE = struct HINSTANCE__ *;
using HMODULE = HINSTANCE;
using FARPROC = INT_PTR (*)();
using PSECURITY_DESCRIPTOR = void *;
using PSID = void *;

union LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
};
using PLARGE_INTEGER = LARGE_INTEGER *;

union ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    ULONGLONG QuadPart;
};

struct GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};

struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

struct SYSTEMTIME {
    WORD wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
};
using LPSYSTEMTIME = SYSTEMTIME *;

struct SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
};
using LPSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES *;

struct OVERLAPPED {
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    DWORD Offset;
    DWORD OffsetHigh;
    HANDLE hEvent;
};
using LPOVERLAPPED = OVERLAPPED *;

struct PROCESS_INFORMATION {
    HANDLE hProcess;
    HANDLE hThread;
    DWORD dwProcessId;
    DWORD dwThreadId;
};
using LPPROCESS_INFORMATION = PROCESS_INFORMATION *;

struct STARTUPINFOW {
    DWORD cb;
    LPWSTR lpReserved;
    LPWSTR lpDesktop;
    LPWSTR lpTitle;
    DWORD dwX, dwY, dwXSize, dwYSize, dwXCountChars, dwYCountChars, dwFillAttribute;
    DWORD dwFlags;
    WORD wShowWindow;
    WORD cbReserved2;
    LPBYTE lpReserved2;
    HANDLE hStdInput, hStdOutput, hStdError;
};
using LPSTARTUPINFOW = STARTUPINFOW *;

struct JOBOBJECT_BASIC_LIMIT_INFORMATION {
    LARGE_INTEGER PerProcessUserTimeLimit;
    LARGE_INTEGER PerJobUserTimeLimit;
    DWORD LimitFlags;
    SIZE_T MinimumWorkingSetSize;
    SIZE_T MaximumWorkingSetSize;
    DWORD ActiveProcessLimit;
    ULONG_PTR Affinity;
    DWORD PriorityClass;
    DWORD SchedulingClass;
};

struct IO_COUNTERS {
    ULONGLONG ReadOperationCount, WriteOperationCount, OtherOperationCount;
    ULONGLONG ReadTransferCount, WriteTransferCount, OtherTransferCount;
};

struct JOBOBJECT_EXTENDED_LIMIT_INFORMATION {
    JOBOBJECT_BASIC_LIMIT_INFORMATION BasicLimitInformation;
    IO_COUNTERS IoInfo;
    SIZE_T ProcessMemoryLimit, JobMemoryLimit, PeakProcessMemoryUsed, PeakJobMemoryUsed;
};

enum JOBOBJECTINFOCLASS { JobObjectBasicLimitInformation = 2, JobObjectExtendedLimitInformation = 9 };

// -- constants
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)))
constexpr BOOL FALSE = 0;
constexpr BOOL TRUE = 1;
constexpr DWORD INFINITE = 0xFFFFFFFF;
constexpr int MAX_PATH = 260;
constexpr HRESULT S_OK = 0;
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005);

constexpr DWORD ERROR_SUCCESS = 0;
constexpr DWORD NO_ERROR = 0;
constexpr DWORD ERROR_INVALID_FUNCTION = 1;
constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_INVALID_DATA = 13;
constexpr DWORD ERROR_NO_MORE_FILES = 18;
constexpr DWORD ERROR_NOT_READY = 21;
constexpr DWORD ERROR_BAD_LENGTH = 24;
constexpr DWORD ERROR_GEN_FAILURE = 31;
constexpr DWORD ERROR_SHARING_VIOLATION = 32;
constexpr DWORD ERROR_HANDLE_EOF = 38;
constexpr DWORD ERROR_NOT_SUPPORTED = 50;
constexpr DWORD ERROR_BAD_NETPATH = 53;
constexpr DWORD ERROR_FILE_EXISTS = 80;
constexpr DWORD ERROR_INVALID_PARAMETER = 87;
constexpr DWORD ERROR_BROKEN_PIPE = 109;
constexpr DWORD ERROR_DISK_FULL = 112;
constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
constexpr DWORD ERROR_INVALID_NAME = 123;
constexpr DWORD ERROR_MOD_NOT_FOUND = 126;
constexpr DWORD ERROR_PROC_NOT_FOUND = 127;
constexpr DWORD ERROR_DIR_NOT_EMPTY = 145;
constexpr DWORD ERROR_BUSY = 170;
constexpr DWORD ERROR_ALREADY_EXISTS = 183;
constexpr DWORD ERROR_ENVVAR_NOT_FOUND = 203;
constexpr DWORD ERROR_PIPE_BUSY = 231;
constexpr DWORD ERROR_NO_DATA = 232;
constexpr DWORD ERROR_PIPE_NOT_CONNECTED = 233;
constexpr DWORD ERROR_MORE_DATA = 234;
constexpr DWORD WAIT_TIMEOUT = 258;
constexpr DWORD ERROR_NO_MORE_ITEMS = 259;
constexpr DWORD ERROR_DIRECTORY = 267;
constexpr DWORD ERROR_PIPE_CONNECTED = 535;
constexpr DWORD ERROR_PIPE_LISTENING = 536;
constexpr DWORD ERROR_OPERATION_ABORTED = 995;
constexpr DWORD ERROR_IO_INCOMPLETE = 996;
constexpr DWORD ERROR_IO_PENDING = 997;
constexpr DWORD ERROR_NO_TOKEN = 1008;
constexpr DWORD ERROR_INVALID_FLAGS = 1004;
constexpr DWORD ERROR_SERVICE_REQUEST_TIMEOUT = 1053;
constexpr DWORD ERROR_SERVICE_ALREADY_RUNNING = 1056;
constexpr DWORD ERROR_SERVICE_DISABLED = 1058;
constexpr DWORD ERROR_SERVICE_DOES_NOT_EXIST = 1060;
constexpr DWORD ERROR_SERVICE_CANNOT_ACCEPT_CTRL = 1061;
constexpr DWORD ERROR_SERVICE_NOT_ACTIVE = 1062;
constexpr DWORD ERROR_FAILED_SERVICE_CONTROLLER_CONNECT = 1063;
constexpr DWORD ERROR_SERVICE_SPECIFIC_ERROR = 1066;
constexpr DWORD ERROR_SERVICE_MARKED_FOR_DELETE = 1072;
constexpr DWORD ERROR_SERVICE_EXISTS = 1073;
constexpr DWORD ERROR_NOT_FOUND = 1168;
constexpr DWORD ERROR_CANCELLED = 1223;
constexpr DWORD ERROR_NOT_ALL_ASSIGNED = 1300;
constexpr DWORD ERROR_NO_SUCH_PRIVILEGE = 1313;
constexpr DWORD ERROR_PRIVILEGE_NOT_HELD = 1314;
constexpr DWORD ERROR_INVALID_ACL = 1336;
constexpr DWORD ERROR_INVALID_SID = 1337;
constexpr DWORD ERROR_INVALID_SECURITY_DESCR = 1338;
constexpr DWORD ERROR_BAD_IMPERSONATION_LEVEL = 1346;
constexpr DWORD ERROR_BAD_TOKEN_TYPE = 1349;
constexpr DWORD ERROR_NO_SYSTEM_RESOURCES = 1450;

constexpr DWORD WAIT_OBJECT_0 = 0;
constexpr DWORD WAIT_ABANDONED_0 = 0x80;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;
constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;
constexpr DWORD STILL_ACTIVE = 259;

// Access rights, generic ones first, and those of files, pipes, processes and events.
constexpr DWORD GENERIC_READ = 0x80000000;
constexpr DWORD GENERIC_WRITE = 0x40000000;
constexpr DWORD GENERIC_EXECUTE = 0x20000000;
constexpr DWORD GENERIC_ALL = 0x10000000;
constexpr DWORD MAXIMUM_ALLOWED = 0x02000000;
constexpr DWORD DELETE = 0x00010000;
constexpr DWORD READ_CONTROL = 0x00020000;
constexpr DWORD WRITE_DAC = 0x00040000;
constexpr DWORD WRITE_OWNER = 0x00080000;
constexpr DWORD SYNCHRONIZE = 0x00100000;
constexpr DWORD STANDARD_RIGHTS_REQUIRED = 0x000F0000;
constexpr DWORD STANDARD_RIGHTS_READ = READ_CONTROL;
constexpr DWORD STANDARD_RIGHTS_WRITE = READ_CONTROL;
constexpr DWORD STANDARD_RIGHTS_EXECUTE = READ_CONTROL;
constexpr DWORD STANDARD_RIGHTS_ALL = 0x001F0000;
constexpr DWORD FILE_READ_DATA = 0x0001;
constexpr DWORD FILE_LIST_DIRECTORY = 0x0001;
constexpr DWORD FILE_WRITE_DATA = 0x0002;
constexpr DWORD FILE_ADD_FILE = 0x0002;
constexpr DWORD FILE_APPEND_DATA = 0x0004;
constexpr DWORD FILE_ADD_SUBDIRECTORY = 0x0004;
constexpr DWORD FILE_CREATE_PIPE_INSTANCE = 0x0004;
constexpr DWORD FILE_READ_EA = 0x0008;
constexpr DWORD FILE_WRITE_EA = 0x0010;
constexpr DWORD FILE_EXECUTE = 0x0020;
constexpr DWORD FILE_TRAVERSE = 0x0020;
constexpr DWORD FILE_DELETE_CHILD = 0x0040;
constexpr DWORD FILE_READ_ATTRIBUTES = 0x0080;
constexpr DWORD FILE_WRITE_ATTRIBUTES = 0x0100;
constexpr DWORD FILE_ALL_ACCESS = 0x001F01FF;
constexpr DWORD FILE_GENERIC_READ = 0x00120089;
constexpr DWORD FILE_GENERIC_WRITE = 0x00120116;
constexpr DWORD FILE_GENERIC_EXECUTE = 0x001200A0;
constexpr DWORD PROCESS_TERMINATE = 0x0001;
constexpr DWORD PROCESS_DUP_HANDLE = 0x0040;
constexpr DWORD PROCESS_SET_QUOTA = 0x0100;
constexpr DWORD PROCESS_QUERY_INFORMATION = 0x0400;
constexpr DWORD PROCESS_QUERY_LIMITED_INFORMATION = 0x1000;
constexpr DWORD PROCESS_ALL_ACCESS = 0x001FFFFF;

// Files and pipes.
constexpr DWORD FILE_SHARE_READ = 1;
constexpr DWORD FILE_SHARE_WRITE = 2;
constexpr DWORD FILE_SHARE_DELETE = 4;
constexpr DWORD CREATE_NEW = 1;
constexpr DWORD CREATE_ALWAYS = 2;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD OPEN_ALWAYS = 4;
constexpr DWORD TRUNCATE_EXISTING = 5;
constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x1;
constexpr DWORD FILE_ATTRIBUTE_HIDDEN = 0x2;
constexpr DWORD FILE_ATTRIBUTE_SYSTEM = 0x4;
constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
constexpr DWORD FILE_ATTRIBUTE_ARCHIVE = 0x20;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr DWORD FILE_ATTRIBUTE_TEMPORARY = 0x100;
constexpr DWORD FILE_ATTRIBUTE_REPARSE_POINT = 0x400;
constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;
constexpr DWORD FILE_FLAG_WRITE_THROUGH = 0x80000000;
constexpr DWORD FILE_FLAG_OVERLAPPED = 0x40000000;
constexpr DWORD FILE_FLAG_SEQUENTIAL_SCAN = 0x08000000;
constexpr DWORD FILE_FLAG_DELETE_ON_CLOSE = 0x04000000;
constexpr DWORD FILE_FLAG_BACKUP_SEMANTICS = 0x02000000;
constexpr DWORD FILE_FLAG_OPEN_REPARSE_POINT = 0x00200000;
constexpr DWORD FILE_FLAG_FIRST_PIPE_INSTANCE = 0x00080000;
constexpr DWORD SECURITY_SQOS_PRESENT = 0x00100000;
constexpr DWORD SECURITY_ANONYMOUS = 0x00000000;
constexpr DWORD SECURITY_IDENTIFICATION = 0x00010000;
constexpr DWORD SECURITY_IMPERSONATION = 0x00020000;
constexpr DWORD SECURITY_DELEGATION = 0x00030000;
constexpr DWORD SECURITY_EFFECTIVE_ONLY = 0x00080000;
constexpr DWORD PIPE_ACCESS_INBOUND = 1;
constexpr DWORD PIPE_ACCESS_OUTBOUND = 2;
constexpr DWORD PIPE_ACCESS_DUPLEX = 3;
constexpr DWORD PIPE_TYPE_BYTE = 0;
constexpr DWORD PIPE_READMODE_BYTE = 0;
constexpr DWORD PIPE_WAIT = 0;
constexpr DWORD PIPE_NOWAIT = 1;
constexpr DWORD PIPE_REJECT_REMOTE_CLIENTS = 8;
constexpr DWORD PIPE_UNLIMITED_INSTANCES = 255;

// Processes, jobs and memory.
constexpr DWORD CREATE_SUSPENDED = 0x00000004;
constexpr DWORD DETACHED_PROCESS = 0x00000008;
constexpr DWORD CREATE_UNICODE_ENVIRONMENT = 0x00000400;
constexpr DWORD CREATE_BREAKAWAY_FROM_JOB = 0x01000000;
constexpr DWORD CREATE_NO_WINDOW = 0x08000000;
constexpr DWORD JOB_OBJECT_LIMIT_BREAKAWAY_OK = 0x0800;
constexpr DWORD JOB_OBJECT_LIMIT_SILENT_BREAKAWAY_OK = 0x1000;
constexpr DWORD JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE = 0x2000;
constexpr UINT LMEM_FIXED = 0;
constexpr UINT LMEM_ZEROINIT = 0x40;
constexpr UINT LPTR = LMEM_FIXED | LMEM_ZEROINIT;

extern "C" {

// -- errors, time, memory
DWORD GetLastError();
void SetLastError(DWORD error);
ULONGLONG GetTickCount64();
void Sleep(DWORD ms);
HLOCAL LocalAlloc(UINT flags, SIZE_T size);
HLOCAL LocalFree(HLOCAL memory);

// -- handles, events, waits
BOOL CloseHandle(HANDLE handle);
HANDLE CreateEventW(SECURITY_ATTRIBUTES *security, BOOL manual_reset, BOOL initial_state, LPCWSTR name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);
DWORD WaitForSingleObject(HANDLE handle, DWORD timeout_ms);
DWORD WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL all, DWORD timeout_ms);

// -- files and pipes
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

// -- processes and jobs
HANDLE GetCurrentProcess();
DWORD GetCurrentProcessId();
DWORD GetCurrentThreadId();
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

} // extern "C"

#include "winsim_security.h"

#include "winsim_files.h"

#include "winsim_services.h"

#endif
