// Processes, jobs and sessions of the simulated machine.
#include "winsim/sim.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <bcrypt.h>
#include <userenv.h>

namespace winsim {

// Ends its members when its last handle is closed, if asked to. Children of a member are members, too.
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
    void add(const std::shared_ptr<process> &member, const std::shared_ptr<job> &itself) {
        members.push_back(member);
        member->in_job = itself;
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
constexpr const char *system_user = "S-1-5-18";

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

bool is_system(const token_facts &who) { return who.user == "SY" || who.user == system_user; }

bool is_administrator(const token_facts &who) {
    return who.elevated && std::any_of(who.groups.begin(), who.groups.end(), [](const std::string &group) {
               return group == "BA" || group == "S-1-5-32-544";
           });
}

bool has_enabled(const token_facts &who, const wchar_t *privilege) {
    const auto found = who.privileges.find(privilege);
    return found != who.privileges.end() && found->second;
}

process &known(DWORD id) {
    const auto found = process_by_id(id);
    if (!found) {
        std::fprintf(stderr, "winsim: there never was a process %u\n", id);
        std::abort();
    }
    return *found;
}

// A process by its handle, for those who may ask about it.
std::shared_ptr<process> process_asked(HANDLE handle) {
    const auto found = find_as<process>(handle);
    if (found && !(access_of(handle) & (PROCESS_QUERY_INFORMATION | PROCESS_QUERY_LIMITED_INFORMATION))) {
        refuse(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return found;
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
    const auto &programs = part<process_table>().programs;
    const auto installed = programs.find(fold(image));
    if (installed == programs.end()) {
        return nullptr;
    }
    first_thread first;
    first.of = new_process(who, image);
    first.of->launch.command_line = command_line;
    first.body = installed->second;
    first.run();
    return first.of;
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

void machine::end_process(DWORD id, DWORD exit_code) { end_process_now(known(id), exit_code); }
bool machine::running(DWORD id) const { return !known(id).ended; }
DWORD machine::exit_code(DWORD id) const { return known(id).code; }
DWORD machine::session_of(DWORD id) const { return known(id).who->session; }
std::wstring machine::command_line_of(DWORD id) const { return known(id).launch.command_line; }
launch_facts machine::launch_of(DWORD id) const { return known(id).launch; }
void machine::set_token(DWORD id, const token_facts &who) { *known(id).who = who; }
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
    enter("GetCurrentProcessId");
    return machine_exists() ? acting().id : 0;
}

DWORD WTSGetActiveConsoleSessionId() {
    enter("WTSGetActiveConsoleSessionId");
    return machine_exists() ? part<process_table>().console_session : 0xFFFFFFFF;
}

DWORD GetProcessId(HANDLE handle) {
    if (failing("GetProcessId")) {
        return 0;
    }
    const auto found = process_asked(handle);
    return found ? found->id : 0;
}

HANDLE OpenProcess(DWORD access, BOOL, DWORD id) {
    if (failing("OpenProcess")) {
        return nullptr;
    }
    const auto found = process_by_id(id);
    if (!found || (found->ended && found->handles == 0)) {
        refuse(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const token_facts &me = *acting().who;
    if (!is_system(me) && !is_administrator(me) && me.user != found->who->user) {
        refuse(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return make_handle(found, access);
}

BOOL TerminateProcess(HANDLE handle, UINT exit_code) {
    if (failing("TerminateProcess")) {
        return FALSE;
    }
    const auto found = find_as<process>(handle, PROCESS_TERMINATE);
    if (!found || found->ended) {
        return found ? refuse(ERROR_ACCESS_DENIED) : FALSE;
    }
    end_process_now(*found, exit_code);
    return TRUE;
}

BOOL GetExitCodeProcess(HANDLE handle, DWORD *exit_code) {
    if (failing("GetExitCodeProcess")) {
        return FALSE;
    }
    const auto found = process_asked(handle);
    return found ? (*exit_code = found->code, TRUE) : FALSE;
}

DWORD GetModuleFileNameW(HMODULE module, LPWSTR name, DWORD capacity) {
    if (failing("GetModuleFileNameW")) {
        return 0;
    }
    if (module) {
        refuse(ERROR_MOD_NOT_FOUND);
        return 0;
    }
    const std::wstring &image = acting().image;
    const size_t copied = std::min<size_t>(image.size(), capacity ? capacity - 1 : 0);
    if (capacity > 0) {
        std::copy_n(image.begin(), copied, name);
        name[copied] = L'\0';
    }
    SetLastError(copied < image.size() ? ERROR_INSUFFICIENT_BUFFER : ERROR_SUCCESS);
    return copied < image.size() ? capacity : static_cast<DWORD>(copied);
}

BOOL CreateEnvironmentBlock(LPVOID *environment, HANDLE handle, BOOL inherit) {
    if (failing("CreateEnvironmentBlock")) {
        return FALSE;
    }
    const auto whose = find_as<token>(handle, TOKEN_QUERY | TOKEN_DUPLICATE);
    if (!whose || inherit) { // the caller's own environment is nobody else's business
        return whose ? refuse(ERROR_INVALID_PARAMETER) : FALSE;
    }
    *environment = make_block(whose->facts->user.size() + 1, environment_kind);
    std::memcpy(*environment, whose->facts->user.c_str(), whose->facts->user.size());
    return TRUE;
}

BOOL DestroyEnvironmentBlock(LPVOID environment) {
    enter("DestroyEnvironmentBlock");
    return machine_exists() && free_block(environment, environment_kind) ? TRUE
                                                                         : refuse(ERROR_INVALID_PARAMETER);
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
    if (failing("CreateProcessAsUserW")) {
        return FALSE;
    }
    const auto whose = find_as<token>(handle, TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_ASSIGN_PRIMARY);
    if (!whose) {
        return FALSE;
    }
    if (!whose->primary) {
        return refuse(ERROR_BAD_TOKEN_TYPE);
    }
    if (!has_enabled(*acting().who, L"SeAssignPrimaryTokenPrivilege") ||
        !has_enabled(*acting().who, L"SeIncreaseQuotaPrivilege")) {
        return refuse(ERROR_PRIVILEGE_NOT_HELD);
    }
    const bool unicode = flags & CREATE_UNICODE_ENVIRONMENT;
    if (!application || !command_line || inherit || startup->cb != sizeof *startup ||
        (environment && !unicode)) {
        return refuse(
            ERROR_INVALID_PARAMETER); // handles to inherit and texts of other kinds are not modelled
    }
    const auto &programs = part<process_table>().programs;
    const auto installed = programs.find(fold(application));
    if (installed == programs.end() || !file_exists(application)) {
        return refuse(ERROR_FILE_NOT_FOUND);
    }
    const auto first = std::make_shared<first_thread>();
    first->of = new_process(*whose->facts, application);
    first->body = installed->second;
    launch_facts &launch = first->of->launch;
    launch.command_line = command_line;
    launch.directory = directory ? directory : L"";
    launch.desktop = startup->lpDesktop ? startup->lpDesktop : L"";
    launch.flags = flags;
    launch.environment = environment ? static_cast<const char *>(environment) : "";
    if (const auto inherited = acting().in_job.lock()) {
        inherited->add(first->of, inherited);
    }
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
    constexpr DWORD failed = 0xFFFFFFFF;
    if (failing("ResumeThread")) {
        return failed;
    }
    const auto found = find_as<first_thread>(handle);
    if (!found || found->of->ended) {
        return found ? (refuse(ERROR_ACCESS_DENIED), failed) : failed;
    }
    const DWORD before = found->suspended ? 1 : 0;
    if (found->suspended) {
        found->run();
    }
    return before;
}

HANDLE CreateJobObjectW(SECURITY_ATTRIBUTES *, LPCWSTR name) {
    if (failing("CreateJobObjectW")) {
        return nullptr;
    }
    if (name) {
        refuse(ERROR_NOT_SUPPORTED);
        return nullptr;
    }
    return make_handle(std::make_shared<job>());
}

BOOL SetInformationJobObject(HANDLE handle, JOBOBJECTINFOCLASS kind, LPVOID information, DWORD size) {
    if (failing("SetInformationJobObject")) {
        return FALSE;
    }
    const auto found = find_as<job>(handle);
    if (!found) {
        return FALSE;
    }
    if (kind != JobObjectExtendedLimitInformation || size != sizeof(JOBOBJECT_EXTENDED_LIMIT_INFORMATION)) {
        return refuse(size != sizeof(JOBOBJECT_EXTENDED_LIMIT_INFORMATION) ? ERROR_BAD_LENGTH
                                                                           : ERROR_NOT_SUPPORTED);
    }
    const auto *limits = static_cast<const JOBOBJECT_EXTENDED_LIMIT_INFORMATION *>(information);
    found->kill_on_close = limits->BasicLimitInformation.LimitFlags & JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    return TRUE;
}

BOOL AssignProcessToJobObject(HANDLE handle, HANDLE member) {
    if (failing("AssignProcessToJobObject")) {
        return FALSE;
    }
    const auto found = find_as<job>(handle);
    const auto added = found ? find_as<process>(member, PROCESS_SET_QUOTA | PROCESS_TERMINATE) : nullptr;
    if (!added || added->ended || !added->in_job.expired()) { // jobs within jobs are not modelled
        return added ? refuse(ERROR_ACCESS_DENIED) : FALSE;
    }
    found->add(added, found);
    return TRUE;
}

BOOL TerminateJobObject(HANDLE handle, UINT exit_code) {
    if (failing("TerminateJobObject")) {
        return FALSE;
    }
    const auto found = find_as<job>(handle);
    return found ? (found->end_members(exit_code), TRUE) : FALSE;
}

} // extern "C"
