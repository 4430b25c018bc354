// Processes, jobs and sessions of the simulated machine.
#include "winsim/sim.h"

#include <algorithm>
#include <cstring>

namespace winsim {

// Ends its members when its last handle is closed, if asked to.
struct job : object {
    std::vector<std::weak_ptr<process>> members;
    bool kill_on_close = false;

    void end_members(DWORD exit_code) {
        const auto ended = std::move(members);
        members.clear();
        for (const auto &one : ended) {
            if (const auto alive = one.lock()) {
                end_process_now(*alive, exit_code);
            }
        }
    }
    void last_handle_closed() override {
        if (kill_on_close) {
            end_members(0);
        }
    }
    std::string describe() const override { return "job"; }
};

namespace {

struct process_table {
    std::vector<std::shared_ptr<process>> all; // ended ones too
    DWORD next_id = 1000;
    std::map<std::wstring, program> programs; // by image, folded
    DWORD console_session = 1;
};

constexpr const char *environment_kind = "environment block";

// A process's first thread, as CreateProcessAsUserW hands it out.
struct first_thread : object {
    std::shared_ptr<process> of;
    program body;
    bool suspended = true;

    void run() {
        suspended = false;
        of->launch.job_first = !of->in_job.expired();
        start_thread(of,
                     [made = of, what = body] { end_process_now(*made, what(made->launch.command_line)); });
    }
    bool signalled() const override { return of->ended; }
    std::string describe() const override { return "thread of process " + std::to_string(of->id); }
};

// Of a new process of an installed program; null if none is installed for the image.
std::shared_ptr<first_thread> installed_thread(const token_facts &who, const std::wstring &image,
                                               const std::wstring &command_line) {
    const auto &programs = part<process_table>().programs;
    const auto installed = programs.find(fold(image));
    if (installed == programs.end()) {
        return nullptr;
    }
    const auto made = std::make_shared<first_thread>();
    made->of = new_process(who, image);
    made->of->launch.command_line = command_line;
    made->body = installed->second;
    return made;
}

} // namespace

std::shared_ptr<process> process_by_id(DWORD id) {
    for (const auto &one : part<process_table>().all) {
        if (one->id == id) {
            return one;
        }
    }
    return nullptr;
}

std::shared_ptr<process> new_process(const token_facts &who, const std::wstring &image) {
    auto &table = part<process_table>();
    const auto made = std::make_shared<process>();
    made->id = table.next_id += 4;
    made->who = std::make_shared<token_facts>(who);
    made->image = image;
    made->launch.command_line = L"\"" + image + L"\"";
    table.all.push_back(made);
    return made;
}

std::shared_ptr<process> start_installed(const token_facts &who, const std::wstring &image,
                                         const std::wstring &command_line) {
    const auto first = installed_thread(who, image, command_line);
    if (first) {
        first->run();
    }
    return first ? first->of : nullptr;
}

std::vector<std::shared_ptr<process>> running_processes() {
    std::vector<std::shared_ptr<process>> running = part<process_table>().all;
    std::erase_if(running, [](const auto &one) { return one->ended; });
    return running;
}

// Its threads see `ended` at their next call or wait.
void end_process_now(process &ended, DWORD exit_code) {
    if (!ended.ended) {
        ended.ended = true;
        ended.code = exit_code;
        close_handles_of(ended);
    }
}

// -- the machine's face

DWORD machine::make_process(const token_facts &who, const std::wstring &image) {
    return new_process(who, image)->id;
}

DWORD machine::spawn(const token_facts &who, const std::wstring &image, program body) {
    const auto first = std::make_shared<first_thread>();
    first->of = new_process(who, image);
    first->body = std::move(body);
    first->run();
    return first->of->id;
}

void machine::install_program(const std::wstring &image, program body) {
    part<process_table>().programs[fold(image)] = std::move(body);
}

void machine::end_process(DWORD id, DWORD exit_code) { end_process_now(*process_by_id(id), exit_code); }
bool machine::running(DWORD id) const { return !process_by_id(id)->ended; }
DWORD machine::exit_code(DWORD id) const { return process_by_id(id)->code; }
DWORD machine::session_of(DWORD id) const { return process_by_id(id)->who->session; }
launch_facts machine::launch_of(DWORD id) const { return process_by_id(id)->launch; }
void machine::set_token(DWORD id, const token_facts &who) { *process_by_id(id)->who = who; }
void machine::set_console_session(DWORD session) { part<process_table>().console_session = session; }

std::vector<DWORD> machine::processes_of(const std::wstring &image) const {
    std::vector<DWORD> ids;
    for (const auto &one : running_processes()) {
        if (fold(one->image) == fold(image)) {
            ids.push_back(one->id);
        }
    }
    return ids;
}

} // namespace winsim

using namespace winsim;

extern "C" {

HANDLE GetCurrentProcess() { return INVALID_HANDLE_VALUE; } // the same value

DWORD GetCurrentProcessId() {
    enter(__func__);
    return machine_exists() ? acting().id : 0;
}

DWORD WTSGetActiveConsoleSessionId() {
    enter(__func__);
    return machine_exists() ? part<process_table>().console_session : 0xFFFFFFFF;
}

DWORD GetProcessId(HANDLE handle) {
    const auto found = asked<process>(__func__, handle, PROCESS_QUERY_LIMITED_INFORMATION);
    return found ? found->id : 0;
}

HANDLE OpenProcess(DWORD access, BOOL, DWORD id) {
    BEGIN_CALL(nullptr);
    const auto found = process_by_id(id);
    if (!found || (found->ended && found->handles == 0)) {
        return refuse(ERROR_INVALID_PARAMETER), nullptr;
    }
    if (!may_open(*acting().who, *found->who)) {
        return refuse(ERROR_ACCESS_DENIED), nullptr;
    }
    return make_handle(found, access);
}

BOOL TerminateProcess(HANDLE handle, UINT exit_code) {
    const auto found = asked<process>(__func__, handle, PROCESS_TERMINATE);
    if (!found || found->ended) {
        return found ? refuse(ERROR_ACCESS_DENIED) : FALSE;
    }
    end_process_now(*found, exit_code);
    return TRUE;
}

BOOL GetExitCodeProcess(HANDLE handle, DWORD *exit_code) {
    const auto found = asked<process>(__func__, handle, PROCESS_QUERY_LIMITED_INFORMATION);
    return found ? (*exit_code = found->code, TRUE) : FALSE;
}

DWORD GetModuleFileNameW(HMODULE, LPWSTR name, DWORD capacity) {
    BEGIN_CALL(0);
    const std::wstring &image = acting().image;
    const DWORD copied = static_cast<DWORD>(image.copy(name, capacity - 1));
    name[copied] = L'\0';
    return copied < image.size() ? capacity : copied;
}

BOOL CreateEnvironmentBlock(LPVOID *environment, HANDLE handle, BOOL inherit) {
    const auto whose = asked<token>(__func__, handle, TOKEN_QUERY | TOKEN_DUPLICATE);
    if (!whose || inherit) { // the caller's own environment is nobody else's business
        return whose ? refuse(ERROR_INVALID_PARAMETER) : FALSE;
    }
    *environment = make_block(whose->facts->user.size() + 1, environment_kind);
    std::memcpy(*environment, whose->facts->user.c_str(), whose->facts->user.size());
    return TRUE;
}

BOOL DestroyEnvironmentBlock(LPVOID environment) {
    enter(__func__);
    return machine_exists() && free_block(environment, environment_kind);
}

NTSTATUS BCryptGenRandom(BCRYPT_ALG_HANDLE algorithm, PUCHAR bytes, ULONG size, ULONG flags) {
    if (failing("BCryptGenRandom") || algorithm || flags != BCRYPT_USE_SYSTEM_PREFERRED_RNG) {
        return STATUS_UNSUCCESSFUL;
    }
    std::generate_n(bytes, size, [] { return static_cast<UCHAR>(random_source()() >> 56); });
    return 0;
}

BOOL CreateProcessAsUserW(HANDLE handle, LPCWSTR application, LPWSTR command_line, SECURITY_ATTRIBUTES *,
                          SECURITY_ATTRIBUTES *, BOOL inherit, DWORD flags, LPVOID environment,
                          LPCWSTR directory, STARTUPINFOW *startup, PROCESS_INFORMATION *made) {
    const auto whose = asked<token>(__func__, handle, TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_ASSIGN_PRIMARY);
    if (!whose) {
        return FALSE;
    }
    if (!whose->primary) {
        return refuse(ERROR_BAD_TOKEN_TYPE);
    }
    if (!enabled(*acting().who, SE_ASSIGNPRIMARYTOKEN_NAME) ||
        !enabled(*acting().who, SE_INCREASE_QUOTA_NAME)) {
        return refuse(ERROR_PRIVILEGE_NOT_HELD);
    }
    if (inherit || startup->cb != sizeof *startup || (environment && !(flags & CREATE_UNICODE_ENVIRONMENT))) {
        return refuse(ERROR_INVALID_PARAMETER);
    }
    const auto first =
        file_exists(application) ? installed_thread(*whose->facts, application, command_line) : nullptr;
    if (!first) {
        return refuse(ERROR_FILE_NOT_FOUND);
    }
    launch_facts &launch = first->of->launch;
    launch.directory = directory ? directory : L"";
    launch.desktop = startup->lpDesktop ? startup->lpDesktop : L"";
    launch.flags = flags;
    launch.environment = environment ? static_cast<const char *>(environment) : "";
    made->hProcess = make_handle(first->of);
    made->hThread = make_handle(first);
    made->dwProcessId = first->of->id;
    made->dwThreadId = first->of->id + 1;
    if (!(flags & CREATE_SUSPENDED)) {
        first->run();
    }
    return TRUE;
}

DWORD ResumeThread(HANDLE handle) {
    const auto found = asked<first_thread>(__func__, handle);
    if (!found || found->of->ended) {
        return 0xFFFFFFFF;
    }
    if (!found->suspended) {
        return 0;
    }
    found->run();
    return 1;
}

HANDLE CreateJobObjectW(SECURITY_ATTRIBUTES *, LPCWSTR) {
    BEGIN_CALL(nullptr);
    return make_handle(std::make_shared<job>());
}

BOOL SetInformationJobObject(HANDLE handle, JOBOBJECTINFOCLASS, LPVOID information, DWORD size) {
    const auto found = asked<job>(__func__, handle);
    if (found && size == sizeof(JOBOBJECT_EXTENDED_LIMIT_INFORMATION)) {
        const auto *limits = static_cast<const JOBOBJECT_EXTENDED_LIMIT_INFORMATION *>(information);
        if (limits->BasicLimitInformation.LimitFlags != JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE) {
            return refuse(ERROR_INVALID_PARAMETER); // all others would let go of a process
        }
        found->kill_on_close = true;
    }
    return found != nullptr;
}

BOOL AssignProcessToJobObject(HANDLE handle, HANDLE member) {
    const auto found = asked<job>(__func__, handle);
    const auto added = found ? find_as<process>(member, PROCESS_SET_QUOTA | PROCESS_TERMINATE) : nullptr;
    if (!added || added->ended || !added->in_job.expired()) { // jobs within jobs are not modelled
        return added ? refuse(ERROR_ACCESS_DENIED) : FALSE;
    }
    found->members.push_back(added);
    added->in_job = found;
    return TRUE;
}

BOOL TerminateJobObject(HANDLE handle, UINT exit_code) {
    const auto found = asked<job>(__func__, handle);
    return found ? (found->end_members(exit_code), TRUE) : FALSE;
}

} // extern "C"
