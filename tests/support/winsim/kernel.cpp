// Threads and time of the simulated machine.
//
// Every thread of the machine is a real one, but only the one that holds the baton runs: a thread that waits or is put
// aside chooses the next and posts its semaphore. So nothing here needs a lock, and the order is the seed's. Threads that
// the machine doesn't know (they were made while there was none, or not by std::thread) use mutexes as ever, and must
// make no simulated call.
//
// A thread whose process has ended leaves by an exception, at its next failing() or wait; while its destructors run,
// every call fails at once. Where the exception can't pass (a joinable std::thread, a destructor that calls), the thread
// is put aside for good.
#include "winsim/sim.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

namespace winsim {

namespace {

struct process_ended {}; // what a leaving thread throws

struct thread {
    thread() { sem_init(&turn, 0, 0); }
    ~thread() { sem_destroy(&turn); }
    thread(const thread &) = delete;
    thread &operator=(const thread &) = delete;

    sem_t turn;
    DWORD id = 0;
    bool test = false; // the one that made the machine: it outlives every process
    std::shared_ptr<process> home;
    DWORD error = 0;
    const std::function<bool()> *ready = nullptr; // what it waits for; null if it can go on
    uint64_t deadline = no_deadline;
    const char *why = "";
    bool leaves = true; // this wait ends with its process
    bool over = false;
    pthread_t native = {};
};

} // namespace

struct machine::state {
    explicit state(uint64_t s) : seed(s), random(s) {}

    uint64_t seed;
    std::mt19937_64 random;
    uint64_t now = 5000000000; // beyond 32 bits, as after 58 days
    std::vector<std::shared_ptr<thread>> threads;
    DWORD next_thread = 2;
    uint64_t steps = 0;
    bool closing = false;               // a machine on which nobody can run is no fault any more
    std::shared_ptr<process> next_home; // of the thread that start_thread makes
    std::vector<std::function<void()>> soon;
    std::map<std::type_index, std::shared_ptr<void>> parts;
};

namespace {

machine::state *the = nullptr;
thread_local thread *self = nullptr;
DWORD error_without_machine = 0;
std::terminate_handler terminate_before = nullptr;

bool is_leaving(const thread &one) { return one.home->ended && !one.test; }

bool can_run(const thread &one) {
    return !one.over &&
           (!one.ready || one.deadline <= the->now || (*one.ready)() || (one.leaves && is_leaving(one)));
}

void run_soon() {
    while (!the->soon.empty()) {
        auto due = std::move(the->soon);
        the->soon.clear();
        for (const auto &what : due) {
            what();
        }
    }
}

[[noreturn]] void report_stuck() {
    std::fprintf(stderr, "winsim, seed %llu: nobody can go on\n", static_cast<unsigned long long>(the->seed));
    for (const auto &one : the->threads) {
        if (!one->over) {
            std::fprintf(stderr, "  thread %u of process %u (%s) waits for %s\n", one->id, one->home->id,
                         narrow(one->home->image).c_str(), one->why);
        }
    }
    std::abort();
}

// Who goes on. The test's thread comes first, so that it sees the machine after each step.
std::shared_ptr<thread> choose() {
    ++the->steps;
    for (;;) {
        run_soon();
        std::vector<std::shared_ptr<thread>> able;
        for (const auto &one : the->threads) {
            if (can_run(*one)) {
                if (one->test && one->ready) {
                    return one;
                }
                able.push_back(one);
            }
        }
        if (!able.empty()) {
            // Without a seed in turn: the one after the calling thread.
            size_t at = the->seed ? the->random() % able.size() : 0;
            for (size_t i = 0; the->seed == 0 && i < able.size(); i++) {
                if (able[i]->id > self->id) {
                    at = i;
                    break;
                }
            }
            return able[at];
        }
        uint64_t next = no_deadline;
        for (const auto &one : the->threads) {
            next = one->over ? next : std::min(next, one->deadline);
        }
        if (next == no_deadline) {
            if (the->closing) {
                return the->threads.front();
            }
            report_stuck();
        }
        the->now = next;
    }
}

void switch_away() {
    const std::shared_ptr<thread> next = choose();
    if (next.get() != self) {
        sem_post(&next->turn);
        while (sem_wait(&self->turn) != 0) {
        }
    }
}

bool block(const std::function<bool()> &ready, uint64_t deadline, const char *why, bool leaves) {
    thread &me = *self;
    run_soon();
    for (;;) {
        if (ready()) {
            return true;
        }
        if (the->now >= deadline || (leaves && is_leaving(me)) || (me.test && the->closing)) {
            return false;
        }
        me.ready = &ready;
        me.deadline = deadline;
        me.why = why;
        me.leaves = leaves;
        switch_away();
        me.ready = nullptr;
        me.deadline = no_deadline;
    }
}

void end_thread() {
    thread_has_ended(self->id);
    self->over = true;
    const std::shared_ptr<thread> next = choose();
    self = nullptr;
    sem_post(&next->turn);
}

// The exception of a leaving thread met something that it can't pass. The thread stays, as its stack does.
void on_terminate() {
    if (!self || !is_leaving(*self)) {
        terminate_before();
    }
    end_thread();
    for (;;) {
        pause();
    }
}

// What a thread of the machine runs: its body, between its first turn and its end.
struct machine_thread : std::thread::_State {
    machine_thread(std::unique_ptr<std::thread::_State> b, std::shared_ptr<thread> r)
        : body(std::move(b)), record(std::move(r)) {}

    void _M_run() override {
        self = record.get();
        while (sem_wait(&self->turn) != 0) {
        }
        try {
            leave_if_ended();
            body->_M_run();
        } catch (const process_ended &) {
        }
        body.reset();
        end_thread();
    }

    std::unique_ptr<std::thread::_State> body;
    std::shared_ptr<thread> record;
};

} // namespace

// -- what the machine's other sources use

void leave_if_ended() {
    if (is_leaving(*self) && std::uncaught_exceptions() == 0) {
        throw process_ended{};
    }
}

void maybe_switch() {
    if (by_chance(4)) {
        switch_away();
    }
}

bool in_machine() { return self; }

BOOL refuse(DWORD error) {
    SetLastError(error);
    return FALSE;
}

std::shared_ptr<void> &part_slot(std::type_index type) { return the->parts[type]; }
bool machine_exists() { return the != nullptr; }
process &acting() { return *self->home; }
DWORD thread_id() { return self->id; }
std::mt19937_64 &random_source() { return the->random; }
bool by_chance(unsigned one_in) { return the->seed != 0 && the->random() % one_in == 0; }
uint64_t clock_ms() { return the->now; }
uint64_t deadline_after(DWORD timeout_ms) {
    return timeout_ms == INFINITE ? no_deadline : the->now + timeout_ms;
}
void soon(std::function<void()> what) { the->soon.push_back(std::move(what)); }

bool wait_until(const std::function<bool()> &ready, uint64_t deadline_ms, const char *why) {
    const bool held = block(ready, deadline_ms, why, true);
    leave_if_ended();
    return held;
}

void start_thread(std::shared_ptr<process> in_process, std::function<void()> body) {
    the->next_home = std::move(in_process);
    std::thread(std::move(body)).detach();
}

// -- the machine's face: itself and its time

machine::machine(uint64_t seed) {
    if (the) {
        std::fputs("winsim: there is a machine already\n", stderr);
        std::abort();
    }
    state_ = std::make_unique<state>(seed);
    the = state_.get();
    the->threads.push_back(std::make_shared<thread>());
    self = the->threads.front().get();
    self->id = 1;
    self->test = true;
    self->home = new_process(user_token(), L"C:\\test.exe");
    terminate_before = std::set_terminate(on_terminate);
}

machine::~machine() {
    clear_failures();
    before_call(nullptr);
    for (const auto &one : running_processes()) {
        end_process_now(*one, 1);
    }
    const auto alone = [] {
        return std::all_of(the->threads.begin(), the->threads.end(),
                           [](const auto &one) { return one->test || one->over; });
    };
    the->closing = true;
    while (!alone()) {
        const uint64_t before = the->steps;
        const std::function<bool()> never = [] { return false; };
        self->ready = &never;
        switch_away();
        self->ready = nullptr;
        if (the->steps == before + 1) {
            break; // the others wait for each other, for ever
        }
    }
    std::set_terminate(terminate_before);
    the->soon.clear();
    the->parts.clear();
    the = nullptr;
    self = nullptr;
}

uint64_t machine::now_ms() const { return the->now; }

void machine::run_for(uint64_t ms) {
    block([] { return false; }, the->now + ms, "the test's time", true);
}

bool machine::run_until(const std::function<bool()> &holds, uint64_t limit_ms) {
    const uint64_t limit = the->now + limit_ms;
    while (!holds()) {
        if (the->now >= limit) {
            return false;
        }
        const uint64_t before = the->steps + 1; // choosing the other is the first
        block([before] { return the->steps > before; }, limit, "the test's condition", true);
    }
    return true;
}

void machine::sleep_machine(uint64_t ms) {
    the->now += ms;
    for (const auto &one : the->threads) {
        one->deadline += one->deadline == no_deadline ? 0 : ms;
    }
}

DWORD machine::act_as(DWORD id) {
    const DWORD before = acting().id;
    self->home = process_by_id(id);
    return before;
}

} // namespace winsim

// -- calls on errors, time and threads, and what the linker puts in the place of the threads' library

using namespace winsim;

extern "C" {

DWORD GetLastError() { return self ? self->error : error_without_machine; }
void SetLastError(DWORD error) { (self ? self->error : error_without_machine) = error; }

ULONGLONG GetTickCount64() {
    enter(__func__);
    return the ? the->now : 0;
}

void Sleep(DWORD ms) {
    enter(__func__);
    if (the) {
        wait_until([] { return false; }, deadline_after(ms), "Sleep");
    }
}

// The names are the linker's: -Wl,--wrap.
int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
void __real__ZNSt6thread4joinEv(std::thread *joined);
void __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread *made, std::unique_ptr<std::thread::_State> body, void (*depends)());

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    if (!self) {
        return __real_pthread_mutex_lock(mutex);
    }
    maybe_switch();
    const std::function<bool()> is_free = [mutex] {
        return pthread_mutex_trylock(mutex) == 0 && __real_pthread_mutex_unlock(mutex) == 0;
    };
    int taken = pthread_mutex_trylock(mutex);
    while (taken == EBUSY) {
        block(is_free, no_deadline, "a mutex", false);
        taken = pthread_mutex_trylock(mutex);
    }
    return taken;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    const int given = __real_pthread_mutex_unlock(mutex);
    if (self) {
        maybe_switch();
    }
    return given;
}

void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread *made, std::unique_ptr<std::thread::_State> body, void (*depends)()) {
    std::shared_ptr<thread> record;
    const bool first =
        self && the->next_home; // of a process: the call that starts one notes it before it runs
    if (self) {
        record = std::make_shared<thread>();
        record->id = the->next_thread++;
        record->home = first ? std::move(the->next_home) : self->home;
        the->next_home = nullptr;
        the->threads.push_back(record);
        body = std::make_unique<machine_thread>(std::move(body), record);
    }
    __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
        made, std::move(body), depends);
    if (self) {
        record->native = made->native_handle();
        first ? void() : maybe_switch();
    }
}

void __wrap__ZNSt6thread4joinEv(std::thread *joined) {
    if (self) {
        // The newest: the system may use a handle again once its thread was joined.
        const pthread_t native = joined->native_handle();
        const auto found =
            std::find_if(the->threads.rbegin(), the->threads.rend(),
                         [native](const auto &one) { return pthread_equal(one->native, native); });
        if (found != the->threads.rend()) {
            const std::shared_ptr<thread> other = *found;
            block([&other] { return other->over; }, no_deadline, "a thread's end", false);
            std::erase(the->threads, other);
        }
    }
    __real__ZNSt6thread4joinEv(joined);
}

} // extern "C"
