// Inside the simulated machine: what its sources share. kernel.cpp has threads and time, objects.cpp handles, events
// and waits; pipes, processes (and jobs), tokens, security, files, registry, services and system are built on them.
// No locks: one thread runs at a time (see machine.h).
#ifndef WINSIM_SIM_H
#define WINSIM_SIM_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <typeindex>
#include <vector>

#include "winsim/machine.h"

namespace winsim {

// -- every simulated call begins with one of these. Both run the hook, count, may let another thread run, and are
// where a thread of a process that has ended leaves (by an exception that only the machine catches). failing answers
// true, with the last error set, if the call is to fail: it then returns its failure at once and has no effect. enter
// is for calls that can't fail.
bool failing(const char *call);
void enter(const char *call);
#define BEGIN_CALL(answer_of_failure)                                                                        \
    if (failing(__func__)) return answer_of_failure

// Sets the last error and answers FALSE, so that a refusal is one line: return refuse(ERROR_ACCESS_DENIED);
BOOL refuse(DWORD error);
void breach(const std::string &what);

// -- the parts of the machine that exists: each source keeps what it knows in a struct of its own, made at the first use
// and gone with the machine. part<files>().root ...
std::shared_ptr<void> &part_slot(std::type_index type);
template <class T>
T &part() {
    std::shared_ptr<void> &slot = part_slot(typeid(T));
    if (!slot) {
        slot = std::make_shared<T>();
    }
    return *static_cast<T *>(slot.get());
}
bool in_machine();     // the calling thread is the machine's
bool machine_exists(); // calls made without one (by static destructors, say) answer failure

// -- objects: whatever a handle can stand for. Kept alive by its handles and by whoever else holds it.
struct object {
    virtual ~object() = default;
    virtual bool signalled() const { return false; }
    virtual void consumed() {}       // a wait took it: an auto-reset event resets here
    virtual void handle_closing() {} // one of its handles is being closed by a call: the place for breaches
    virtual void last_handle_closed() {}      // of all processes
    virtual std::string describe() const = 0; // for leaks: "event", "pipe \\.\pipe\x"
    int handles = 0;
    int waits = 0; // threads that wait for it
};

// What ReadFile, WriteFile, GetFileSizeEx and FlushFileBuffers work on, once their arguments are checked.
struct stream : object {
    virtual BOOL read(void *bytes, DWORD size, DWORD *moved, OVERLAPPED *overlapped) = 0;
    virtual BOOL write(const void *bytes, DWORD size, DWORD *moved, OVERLAPPED *overlapped) = 0;
    virtual BOOL size(LARGE_INTEGER *) { return refuse(ERROR_INVALID_HANDLE); }
    virtual BOOL flush() { return TRUE; }
};

// A token: the process's own (facts shared with it) or a copy.
struct token : object {
    std::shared_ptr<token_facts> facts;
    bool primary = true;
    std::string describe() const override { return "token of " + facts->user; }
};

struct job;

struct process : object {
    struct entry {
        std::shared_ptr<object> what;
        DWORD access; // granted when the handle was made
    };

    DWORD id = 0;
    std::shared_ptr<token_facts> who; // of its primary token
    std::wstring image;
    launch_facts launch;
    std::map<HANDLE, entry> open;
    std::weak_ptr<job> in_job;
    bool ended = false;
    DWORD code = STILL_ACTIVE;

    bool signalled() const override { return ended; }
    std::string describe() const override { return "process " + std::to_string(id); }
};

// The people of the machine, by the SIDs of admin_token and user_token.
constexpr struct {
    const char *sid;
    const wchar_t *folder;
} profiles[] = {{"S-1-5-21-1-2-3-1001", L"C:\\Users\\person"}, {"S-1-5-21-1-2-3-1002", L"C:\\Users\\other"}};

process &acting();                                // the process that the calling thread belongs to
std::shared_ptr<process> process_by_id(DWORD id); // null if there never was one
std::shared_ptr<process> new_process(const token_facts &who, const std::wstring &image);
// A running process of an installed program; null if none is installed for the image.
std::shared_ptr<process> start_installed(const token_facts &who, const std::wstring &image,
                                         const std::wstring &command_line);
void end_process_now(process &ended, DWORD exit_code);
std::vector<std::shared_ptr<process>> running_processes(); // in the order of their starts

// -- handles, in the acting process. Values are never used twice, so that a stale one is seen. access is what the caller
// was granted; find_as checks it.
HANDLE make_handle(std::shared_ptr<object> what, DWORD access = 0xFFFFFFFF);
// Null and ERROR_INVALID_HANDLE for a bad one, which is a breach. GetCurrentProcess() is the acting process.
std::shared_ptr<object> find_object(HANDLE handle);
DWORD access_of(HANDLE handle); // of a valid one
void wrong_kind(HANDLE handle);
// find_object for one kind: another kind is a breach, and ERROR_INVALID_HANDLE; without all the bits of needed granted
// it is null and ERROR_ACCESS_DENIED.
template <class T>
std::shared_ptr<T> find_as(HANDLE handle, DWORD needed = 0) {
    std::shared_ptr<object> what = find_object(handle);
    if (!what) {
        return nullptr;
    }
    std::shared_ptr<T> found = std::dynamic_pointer_cast<T>(what);
    if (!found) {
        wrong_kind(handle);
    } else if ((access_of(handle) & needed) != needed) {
        refuse(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return found;
}

// The beginning of a call about the object behind a handle: null if it is to fail.
template <class T>
std::shared_ptr<T> asked(const char *call, HANDLE handle, DWORD needed = 0) {
    return failing(call) ? nullptr : find_as<T>(handle, needed);
}

// Handles that have a closing call of their own (a search, a registry key, a service, a library): CloseHandle on one is
// a breach.
struct own_closer : object {
    bool closing = false;

    void handle_closing() override {
        if (!closing) {
            breach("CloseHandle of a " + describe());
        }
    }
};

template <class T>
BOOL close_own(const char *call, HANDLE handle) {
    enter(call);
    const auto found = machine_exists() ? find_as<T>(handle) : nullptr;
    if (!found) {
        return FALSE;
    }
    found->closing = true;
    return CloseHandle(handle);
}

void close_handles_of(process &ended);

// -- overlapped transfers: in flight from the call that begins one until its end was seen, by a wait for its event or by
// GetOverlappedResult. The event of one that is in flight must not be closed.
struct flight {
    bool finished = false;
    bool seen = false;
    bool abandoned = false; // its memory is not to be touched any more: a breach was noted
};

struct event : object {
    bool manual = true;
    bool set = false;
    std::vector<std::shared_ptr<flight>> flights;

    bool signalled() const override { return set; }
    void consumed() override;
    void handle_closing() override;
    std::string describe() const override { return "event"; }
};

void thread_has_ended(DWORD id); // looks for transfers that it left in flight

// -- memory that the system hands out. A block not freed shows up in open_handles as kind; freeing one that isn't there
// (or is of another kind) is a breach. "local memory" is LocalFree's.
void *make_block(size_t size, const char *kind); // zeroed
bool free_block(void *block, const char *kind);  // null is freed without effect
void *sim_local_alloc(size_t size);              // make_block(size, "local memory")

// -- waiting, inside a call: puts the calling thread aside until ready() holds or the clock reaches deadline_ms
// (no_deadline: never). Answers ready(). ready is asked after each step of any thread, on that thread, so it must be
// cheap and call nothing simulated.
constexpr uint64_t no_deadline = UINT64_MAX;
bool wait_until(const std::function<bool()> &ready, uint64_t deadline_ms, const char *why);
uint64_t clock_ms();
uint64_t deadline_after(DWORD timeout_ms); // INFINITE: no_deadline
void soon(std::function<void()> what);     // happens when a thread next waits, before its wait is looked at
DWORD thread_id();                         // the calling thread's
void leave_if_ended();                     // see failing
void maybe_switch();                       // lets another thread go first, by seed
std::mt19937_64 &random_source();          // by seed
bool by_chance(unsigned one_in);           // by seed; never with seed 0

// A thread of the machine beside the calling one, in the process in_process; std::thread's calls end here, too.
void start_thread(std::shared_ptr<process> in_process, std::function<void()> body);

std::string narrow(const std::wstring &text); // UTF-8
std::wstring fold(std::wstring text);         // lower case, for names that are found without regard to case

// -- supplied by tokens.cpp
bool may_open(const token_facts &who, const token_facts &whose); // a process, or its token
bool enabled(const token_facts &who, const wchar_t *privilege);

// -- supplied by security.cpp
std::string sddl_of(PSECURITY_DESCRIPTOR descriptor); // the text for it, as it was given
// Whether the descriptor grants all of desired; generic rights stand for those of files, in desired and in entries.
bool access_allowed(const token_facts &who, const std::string &sddl, DWORD desired);

// -- supplied by files.cpp: CreateFileW for a path that is no pipe's; the call has been counted already
HANDLE open_file(const std::wstring &path, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security,
                 DWORD disposition, DWORD flags);
bool file_exists(const std::wstring &path); // a file, no directory

} // namespace winsim

#endif
