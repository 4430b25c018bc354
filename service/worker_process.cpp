// The launch of the worker, as a list of steps in the order in which they are taken. What a launch makes is in owners,
// so that a step that fails leaves nothing, and the process itself is ended unless it was handed over.
#include "worker_process.h"

#include <cstdint>
#include <iterator>
#include <utility>

#include <bcrypt.h>
#include <userenv.h>

#include "handles.h"
#include "security.h"

namespace host_service {
namespace {

constexpr wchar_t worker_name[] = L"\\TarnGliderHostWorker.exe";

// What the worker is linked with; each must be there.
constexpr const wchar_t *library_names[] = {L"avcodec-62.dll", L"avutil-60.dll", L"swscale-9.dll",
                                            L"swresample-6.dll"};

// To act for the system, to start a process under another token, and to charge it with quotas.
constexpr const wchar_t *privilege_names[] = {L"SeTcbPrivilege", L"SeAssignPrimaryTokenPrivilege",
                                              L"SeIncreaseQuotaPrivilege"};

constexpr DWORD path_cap = 32768;   // the longest path that Windows knows, in characters
constexpr DWORD end_wait_ms = 5000; // how long a process that was ended may take to go

struct environment_memory {
    using type = void *;
    static type none() { return nullptr; }
    static void close(type block) { DestroyEnvironmentBlock(block); }
};
using unique_environment = owned<environment_memory>;

// One launch. Each step needs those above it.
class launch {
public:
    launch(DWORD session, const std::wstring &channel) : session_(session), channel_(channel) {}
    launch(const launch &) = delete;
    launch &operator=(const launch &) = delete;
    ~launch();

    // All steps; the job goes to worker at once, the process at the end.
    bool into(WorkerProcess &worker);

private:
    bool find_worker();
    bool program_protected() const;
    bool named_libraries_protected() const;
    bool all_libraries_protected() const;
    bool make_token();
    bool make_environment();
    bool make_job(HANDLE *job) const;
    bool create_suspended();
    bool run_in(HANDLE job) const;

    bool file_protected(const wchar_t *name) const {
        return protected_path(directory_ + L"\\" + name, false);
    }

    const DWORD session_;
    const std::wstring &channel_;
    std::wstring directory_;
    std::wstring worker_path_;
    unique_handle own_token_;
    unique_handle token_;
    unique_environment environment_;
    unique_handle thread_;
    unique_handle process_;
};

bool enable_privileges() {
    for (const wchar_t *name : privilege_names) {
        if (!enable_privilege(name)) {
            return false;
        }
    }
    return true;
}

bool launch::into(WorkerProcess &worker) {
    bool started = valid_session(session_) && system_process(GetCurrentProcess()) && find_worker() &&
                   program_protected() && named_libraries_protected() && all_libraries_protected() &&
                   enable_privileges() && make_token() && make_environment() && make_job(&worker.job) &&
                   create_suspended() && run_in(worker.job);
    if (started) {
        worker.process = process_.release();
        worker.session = session_;
    }
    return started;
}

launch::~launch() {
    if (process_) {
        TerminateProcess(process_.get(), 1);
        WaitForSingleObject(process_.get(), end_wait_ms);
    }
}

bool launch::find_worker() {
    directory_ = executable_directory();
    worker_path_ = directory_ + worker_name;
    return !directory_.empty();
}

bool launch::program_protected() const {
    return protected_ancestors(directory_) && protected_path(directory_, false) &&
           protected_path(worker_path_, false);
}

bool launch::named_libraries_protected() const {
    for (const wchar_t *name : library_names) {
        if (!file_protected(name)) {
            return false;
        }
    }
    return true;
}

// The loader prefers the worker's directory, so a library that nothing names counts as well.
bool launch::all_libraries_protected() const {
    WIN32_FIND_DATAW found = {};
    unique_find search(FindFirstFileW((directory_ + L"\\*.dll").c_str(), &found));
    if (!search) {
        return false;
    }
    do {
        if ((found.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) ||
            !file_protected(found.cFileName)) {
            return false;
        }
    } while (FindNextFileW(search.get(), &found));
    return GetLastError() == ERROR_NO_MORE_FILES;
}

// A copy of the service's own token, moved to the session.
bool launch::make_token() {
    DWORD session = session_;
    return OpenProcessToken(GetCurrentProcess(), TOKEN_DUPLICATE | TOKEN_QUERY, own_token_.put()) &&
           DuplicateTokenEx(own_token_.get(), TOKEN_ALL_ACCESS, nullptr, SecurityImpersonation, TokenPrimary,
                            token_.put()) &&
           SetTokenInformation(token_.get(), TokenSessionId, &session, sizeof session);
}

bool launch::make_environment() { return CreateEnvironmentBlock(environment_.put(), token_.get(), FALSE); }

bool launch::make_job(HANDLE *job) const {
    *job = CreateJobObjectW(nullptr, nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    return *job && SetInformationJobObject(*job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
}

bool launch::create_suspended() {
    std::wstring command_line = L"\"" + worker_path_ + L"\" --supervisor " +
                                std::to_wstring(GetCurrentProcessId()) + L" --channel \"" + channel_ + L"\"";
    wchar_t desktop[] = L"winsta0\\default";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.lpDesktop = desktop;
    PROCESS_INFORMATION created = {};
    if (!CreateProcessAsUserW(token_.get(), worker_path_.c_str(), command_line.data(), nullptr, nullptr,
                              FALSE, CREATE_SUSPENDED | CREATE_UNICODE_ENVIRONMENT | CREATE_NO_WINDOW,
                              environment_.get(), directory_.c_str(), &startup, &created)) {
        return false;
    }
    process_.reset(created.hProcess);
    thread_.reset(created.hThread);
    return true;
}

// Not a single instruction of the worker runs outside the job.
bool launch::run_in(HANDLE job) const {
    return AssignProcessToJobObject(job, process_.get()) &&
           ResumeThread(thread_.get()) != static_cast<DWORD>(-1);
}

} // namespace

std::wstring executable_directory() {
    std::wstring path(path_cap, L'\0');
    DWORD length = GetModuleFileNameW(nullptr, path.data(), path_cap);
    if (length == 0 || length >= path_cap) {
        return {};
    }
    path.resize(length);
    size_t last = path.rfind(L'\\');
    return last == path.npos ? std::wstring() : path.substr(0, last);
}

std::wstring worker_channel_name() {
    uint8_t bytes[16];
    if (BCryptGenRandom(nullptr, bytes, sizeof bytes, BCRYPT_USE_SYSTEM_PREFERRED_RNG) < 0) {
        return {};
    }
    std::wstring name = L"\\\\.\\pipe\\TarnGliderHostWorker-v1-";
    for (uint8_t byte : bytes) {
        name += L"0123456789abcdef"[byte >> 4];
        name += L"0123456789abcdef"[byte & 15];
    }
    return name;
}

bool valid_session(DWORD session) { return session != 0 && session != 0xFFFFFFFF; }

bool WorkerProcess::start(DWORD to_session, const std::wstring &channel) {
    stop();
    // What the launch holds is closed before the job.
    if (!launch(to_session, channel).into(*this)) {
        stop();
        return false;
    }
    return true;
}

bool WorkerProcess::alive() const { return process && WaitForSingleObject(process, 0) == WAIT_TIMEOUT; }

void WorkerProcess::stop() {
    if (unique_handle ended(std::exchange(job, nullptr)); ended) {
        TerminateJobObject(ended.get(), 0);
    }
    if (unique_handle ended(std::exchange(process, nullptr)); ended) {
        WaitForSingleObject(ended.get(), end_wait_ms);
    }
    session = 0;
}

} // namespace host_service
