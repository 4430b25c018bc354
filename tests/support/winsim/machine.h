// An in-memory Windows machine for the tests: what <windows.h> of this folder declares works on the one machine that
// exists at the time. The sources of the service and the store compile against it and run unchanged.
//
// Time and threads. One thread runs at a time; it goes on until it waits (for an object, a transfer, a mutex, a thread,
// or Sleep), then another that can go on is chosen, by seed. When none can, the clock jumps to the earliest deadline;
// if there is none either, the test is stuck, and the machine says who waits for what and aborts. So nothing depends
// on the real machine's speed, and a seed replays exactly. std::thread and std::mutex take part: their calls are
// wrapped at link time. The test's own thread is one of them: it runs in the process that the test chose (act_as).
//
// Rules that the machine enforces, each breach being an entry of breaches(): a handle closed twice, used after it was
// closed or used as what it is not; an event closed, or a thread ended, while a transfer that signals it is in flight.
//
// Security descriptors are written in SDDL, e.g. "O:BAG:BAD:P(A;;FA;;;SY)". Known there: SY, BA, BU, AU, WD, IU, TI for
// TrustedInstaller, and S-1-...
#ifndef WINSIM_MACHINE_H
#define WINSIM_MACHINE_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <windows.h>

namespace winsim {

// Who a process is.
struct token_facts {
    std::string user = "S-1-5-21-1-2-3-1001"; // SID text, or an SDDL name such as "SY"
    std::vector<std::string> groups = {};     // likewise; those that are enabled
    DWORD session = 1;
    bool elevated = false;
    std::map<std::wstring, bool> privileges = {}; // held ones, and whether they are enabled
};
token_facts system_token(DWORD session = 0); // LocalSystem with the privileges the service needs, disabled
token_facts admin_token(DWORD session = 1);  // an elevated administrator
token_facts filtered_admin_token(DWORD session = 1); // the same person without elevation
token_facts user_token(DWORD session = 1);

// A program that processes run: given its command line, answers the exit code.
using program = std::function<DWORD(const std::wstring &command_line)>;

// How a process was started.
struct launch_facts {
    std::wstring command_line = {};
    std::wstring directory = {}; // its working directory
    std::wstring desktop = {};
    DWORD flags = 0;
    std::string environment = {}; // the user whose block it was given; empty if none
    bool job_first = false;       // it was in a job before its first instruction
};

// A service as it is registered, and what it last reported.
struct service_facts {
    std::wstring display = {}, path = {}, account = {}, group = {}, dependencies = {};
    DWORD type = SERVICE_WIN32_OWN_PROCESS;
    DWORD start = 0;
    DWORD error_control = 0;
    DWORD reset_s = 0; // of the failure actions
    std::wstring reboot_message = {}, command = {};
    std::vector<SC_ACTION> actions = {};
    SERVICE_STATUS status = {SERVICE_WIN32_OWN_PROCESS, SERVICE_STOPPED, 0, 0, 0, 0, 0};
    DWORD process = 0;                        // the one that was started last; 0 for none
    std::vector<SERVICE_STATUS> reports = {}; // to SetServiceStatus since the start
};

// What was started through ShellExecuteExW.
struct shell_start {
    std::wstring verb, file, parameters;
    int show;
};

// A network adapter; addresses as "192.168.1.20/24" or "fe80::1/64".
struct adapter {
    std::wstring name; // as a user knows it
    DWORD type = 6;    // Ethernet
    std::vector<std::string> addresses = {};
    bool up = true;
};

// How the calls of a process fail: see machine::fail.
constexpr int for_good = -1;

class machine {
public:
    explicit machine(uint64_t seed = 1);
    ~machine(); // ends every other process and thread
    machine(const machine &) = delete;
    machine &operator=(const machine &) = delete;

    // -- time
    uint64_t now_ms() const;   // what GetTickCount64 answers
    void run_for(uint64_t ms); // lets the others run that long
    // Lets the others run until holds, which it asks after each step of theirs; false if it didn't come to that.
    bool run_until(const std::function<bool()> &holds, uint64_t limit_ms);
    void sleep_machine(uint64_t ms); // the clock goes on, waits don't count: the machine was asleep

    // -- processes
    // A process with its first thread; one without a thread, to be acted as; what CreateProcessAsUserW runs.
    DWORD spawn(const token_facts &who, const std::wstring &image, program body);
    DWORD make_process(const token_facts &who, const std::wstring &image);
    void install_program(const std::wstring &image, program body);
    void end_process(DWORD id, DWORD exit_code = 1); // as if killed: threads end, handles close
    bool running(DWORD id) const;
    DWORD exit_code(DWORD id) const;
    DWORD session_of(DWORD id) const;
    launch_facts launch_of(DWORD id) const;
    std::vector<DWORD> processes_of(const std::wstring &image) const; // running ones
    void set_token(DWORD id, const token_facts &who);
    void set_console_session(DWORD session);
    DWORD act_as(DWORD id); // whose calls the calling thread's are from now on; answers whose they were

    // -- failing calls
    // Calls named so by the acting process: the n-th from now on (1 is the next) fails with error, count times.
    void fail(const std::string &call, DWORD error, int nth = 1, int count = 1);
    // Any call that can fail: the n-th from now on fails with error. 0 only counts: failable_calls answers how many.
    void fail_nth_call(int nth, DWORD error);
    int failable_calls() const;      // since the last fail_nth_call
    std::string failed_call() const; // the one that fail_nth_call made fail; empty if it didn't come to that
    void clear_failures();
    // Runs before each call of the process the hook was set by, with the call's name; null ends it.
    void before_call(std::function<void(const std::string &)> hook);
    int calls(const std::string &call) const; // how often it was called so far, by anybody

    // -- what is left, and what was done wrong
    std::vector<std::string> open_handles(DWORD process) const; // one line each: what it stands for
    std::vector<std::string> breaches() const;

    // -- pipes
    void pipe_pieces(size_t bytes); // no transfer moves more at once; 0: as much as it can
    bool pipe_exists(const std::wstring &name) const;
    std::string pipe_descriptor(const std::wstring &name) const; // the SDDL text it was created with
    // CreateNamedPipeW's figures for the latest instance, in their order, and whether its handle can be inherited.
    std::vector<DWORD> pipe_setup(const std::wstring &name) const;
    DWORD pipe_client_flags(const std::wstring &name) const; // what the last client's CreateFileW was given

    // -- files; paths as "C:\\dir\\file", found without regard to case
    void make_directory(const std::wstring &path, const std::string &sddl); // parents must exist; "C:\\" does
    void make_file(const std::wstring &path, const std::string &sddl, const std::string &bytes = "");
    // A directory with the reparse attribute, and a link to a file.
    void make_junction(const std::wstring &path, const std::string &sddl);
    void make_link(const std::wstring &path, const std::string &sddl, const std::wstring &target);
    void set_descriptor(const std::wstring &path, const std::string &sddl); // "" takes the descriptor away
    std::string descriptor(const std::wstring &path) const;
    bool exists(const std::wstring &path) const;
    std::string read(const std::wstring &path) const;
    DWORD last_move_flags() const;                                  // of MoveFileExW
    void remove(const std::wstring &path);                          // with all below it
    std::vector<std::wstring> tree(const std::wstring &path) const; // every path below it, sorted

    // -- registry; keys as L"HKLM\\SOFTWARE\\..." or L"HKCU\\...", the acting process's user's
    void set_registry(const std::wstring &key, const std::wstring &name, DWORD value);
    void set_registry(const std::wstring &key, const std::wstring &name, const std::wstring &text);
    std::wstring registry_text(const std::wstring &key, const std::wstring &name) const; // with its end

    // -- services
    service_facts &service(const std::wstring &name); // to look at and to change; registered if it wasn't
    bool service_exists(const std::wstring &name) const;
    void control_service(const std::wstring &name, DWORD control); // by the system, to its handler

    // -- the system. Local time is 2026-01-02 00:00:00.000 plus now_ms(). A machine's data protection refuses what
    // another one sealed.
    void set_computer_name(const std::wstring &dns, const std::wstring &netbios); // empty: none
    void set_adapters(const std::vector<adapter> &all);
    void install_library(const std::wstring &path, const std::map<std::string, FARPROC> &functions);
    DWORD dll_directories() const;                 // what SetDefaultDllDirectories was given, 0 before
    std::vector<shell_start> shell_starts() const; // a file without an installed program gives no process

    // Runs when memory with a secret passes through a call: "CryptProtectData" its input, "CryptUnprotectData" its
    // output. A test can then watch that memory until it is wiped.
    void on_secret(std::function<void(const std::string &call, const void *bytes, size_t size)> hook);

    struct state; // of its threads and its time; private to kernel.cpp

private:
    std::unique_ptr<state> state_;
};

} // namespace winsim

#endif
