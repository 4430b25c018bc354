// What happens at the beginning of every simulated call: counting, hooks and failures on demand; and the breaches.
#include "winsim/sim.h"

#include <cstdio>
#include <cstdlib>
#include <set>

namespace winsim {

namespace {

// Calls of one name that are to fail, by process.
struct rule {
    DWORD process;
    std::string call;
    DWORD error;
    int nth;
    int count;
};

struct calls_made {
    std::map<std::string, int> counts;
    std::vector<std::string> breaches;
    std::vector<rule> rules;
    DWORD nth_process = 0; // fail_nth_call's
    int nth = 0;
    DWORD nth_error = 0;
    int failable = 0;
    std::string failed;
    DWORD hook_process = 0;
    std::function<void(const std::string &)> hook;
    std::set<DWORD> in_hook; // threads: the calls that a hook makes don't run it
};

void run_hook(calls_made &all, const char *call) {
    if (!all.hook || all.hook_process != acting().id || !all.in_hook.insert(thread_id()).second) {
        return;
    }
    const std::shared_ptr<void> leaving(nullptr, [&all](void *) { all.in_hook.erase(thread_id()); });
    const auto hook = all.hook; // it may end itself
    hook(call);
}

// Whether a test asked for this call to fail; the last error is set then.
bool fails_on_demand(calls_made &all, const char *call) {
    if (all.nth_process == acting().id && ++all.failable == all.nth) {
        all.failed = call;
        refuse(all.nth_error);
        return true;
    }
    for (auto one = all.rules.begin(); one != all.rules.end(); ++one) {
        if (one->process != acting().id || one->call != call || --one->nth > 0) {
            continue;
        }
        refuse(one->error);
        if (one->count != for_good && --one->count <= 0) {
            all.rules.erase(one);
        }
        return true;
    }
    return false;
}

bool begin_call(const char *call, bool can_fail) {
    if (!machine_exists()) {
        return !refuse(ERROR_NOT_READY);
    }
    if (!in_machine()) {
        std::fprintf(stderr, "winsim: %s by a thread outside the machine\n", call);
        std::abort();
    }
    if (can_fail) {
        leave_if_ended();
    }
    auto &all = part<calls_made>();
    ++all.counts[call];
    run_hook(all, call);
    maybe_switch();
    if (!can_fail) {
        return false;
    }
    leave_if_ended();
    if (acting().ended) { // a destructor of a thread that leaves, or a test that acts as the dead
        return !refuse(ERROR_OPERATION_ABORTED);
    }
    return fails_on_demand(all, call);
}

} // namespace

bool failing(const char *call) { return begin_call(call, true); }
void enter(const char *call) { begin_call(call, false); }

void breach(const std::string &what) {
    if (!acting().ended) { // its threads are on their way out, its handles are closed
        part<calls_made>().breaches.push_back("process " + std::to_string(acting().id) + " " + what);
    }
}

// -- the machine's face

void machine::fail(const std::string &call, DWORD error, int nth, int count) {
    part<calls_made>().rules.push_back({acting().id, call, error, nth, count});
}

void machine::fail_nth_call(int nth, DWORD error) {
    auto &all = part<calls_made>();
    all.nth_process = acting().id;
    all.nth = nth;
    all.nth_error = error;
    all.failable = 0;
    all.failed.clear();
}

int machine::failable_calls() const { return part<calls_made>().failable; }
std::string machine::failed_call() const { return part<calls_made>().failed; }

void machine::clear_failures() {
    part<calls_made>().rules.clear();
    part<calls_made>().nth = 0;
}

void machine::before_call(std::function<void(const std::string &)> hook) {
    part<calls_made>().hook_process = acting().id;
    part<calls_made>().hook = std::move(hook);
}

int machine::calls(const std::string &call) const { return part<calls_made>().counts[call]; }
std::vector<std::string> machine::breaches() const { return part<calls_made>().breaches; }

} // namespace winsim
