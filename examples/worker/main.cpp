// TarnGliderHostWorker.exe, the reference worker: what the Host service starts into the session of the console. It stands in
// for a real worker, which would capture the screen: it streams a video file or a test pattern, and sends clipboards
// back. What it does with the service and with the host engine, a real worker does, too; so this is where its author
// begins. From here on, in the order of a worker's life:
//
//   main.cpp              this: the steps of its life, and its threads
//   service_link.h        the two channels to the service, heartbeat and requests
//   worker_admin.h        the administrator's commands, carried out and saved
//   machine_store.h       the protected store, as a host sees it
//   worker_settings.h     what the settings mean
//   host/host_server.h    the host itself: engine, socket, sessions, pairing; the same as tarn-host's
//
// The contract with the service:
//
//   Launch    The service starts TarnGliderHostWorker.exe of its own directory, as SYSTEM, in a job that ends it with the
//             service, with the command line:  --supervisor PID --channel NAME
//             It refuses to if an ordinary user could change the program, a library beside it or a folder above it.
//   Channels  The worker connects to the pipe NAME and to NAME-events, each within 10 seconds, in any order, and proves
//             before it says a word that their server is the process PID, running as SYSTEM. The service proves that
//             its client is the process it launched, at the connection and before each request that it acts on.
//   Life      On the events channel the worker sends worker_ack and reads the reply: for the first time within 5
//             seconds, then at least every 5 seconds. On the same channel it may ask for the secure attention sequence,
//             once a second at most; this worker has no keyboard to need it.
//   Requests  On the worker channel the service sends one request at a time, verbs 1 to 8, and reads the answer for 5
//             seconds. The worker acts, saves what must outlive it, and answers with a status and a sentence: ok,
//             failed, or one of the two that are a worker's own (worker_admin.h). On ok to set_relays and
//             set_settings the service starts a new worker, which takes up what was saved.
//   Store     The worker writes the store, the service only checks it at its start, and refuses to run over anything
//             damaged. So the worker saves nothing that wouldn't load again, and when its store has failed it says so,
//             leaves, and lets the next worker look again.
//   End       stop_worker is answered within a second, and the worker is gone 3 seconds later, else its job ends it.
//             When a channel breaks, the worker leaves by itself. A worker that ends without being asked to is a
//             failure: the service starts the next one after 1, 2, 4, 8, 16, then 30 seconds.
//
// Three threads: this one runs the host; the link's two are the heartbeat and the requests. All end at one event.
#include <CLI/CLI.hpp>
#include <atomic>
#include <filesystem>
#include <memory>
#include <string>

#include <windows.h>

#include <ipc_transport.h>
#include <keystore.h>
#include <log.h>
#include <security.h>
#include <sysinfo.h>
#include <worker_process.h>

#include "common/program.h"
#include "common/text.h"
#include "worker/departure.h"
#include "worker/machine_store.h"
#include "worker/service_link.h"
#include "worker/worker_admin.h"
#include "worker/worker_settings.h"
#include "worker/worker_voice.h"

namespace {

constexpr const char *manual = R"(
The Host service starts this program by itself; there is nothing to do with it by hand. tarnctl is how an
administrator talks to it.

It streams "sample.h264" beside it, if there is one and the setting mode is 1, else a test pattern; and what comes from a
client's clipboard it sends back, if flag_a is 1. level sets the parity against loss: 0, 1 or 2; flag_b, whether clients
that search the network are answered. Its log is host.log in the folder "worker" of the service's store.

Exit codes: 0 stopped by the service, 1 failed, 2 wrong command line.)";

// A loop that hasn't turned for so long hangs. Opening the store at the start counts, too.
constexpr ULONGLONG turn_max_ms = 15000;

// Keeps the time of the host loop's last turn, for the heartbeat.
class turn_watch {
public:
    void turn() { last_ms_ = GetTickCount64(); }
    bool turning() const { return GetTickCount64() - last_ms_ <= turn_max_ms; }

private:
    std::atomic<ULONGLONG> last_ms_ = GetTickCount64();
};

bool writable_log(const std::wstring &path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return GetLastError() == ERROR_FILE_NOT_FOUND;
    return (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY)) == 0 &&
           host_service::protected_path(path, true);
}

// The log is not worth failing for, and one that can't be kept safe would fail the store: then there is none.
void open_log() {
    const std::wstring folder = keystore::hostStoreDirectory() + L"\\worker";
    if (host_service::create_private_directory(folder) && writable_log(folder + L"\\host.log"))
        host_service::log_open(false, folder);
}

std::optional<app::video_file> load_sample() {
    const std::filesystem::path path = host_service::executable_directory() + L"\\sample.h264";
    std::error_code error;
    if (!std::filesystem::exists(path, error)) return std::nullopt;
    try {
        return app::load_video(path);
    } catch (const std::exception &problem) {
        host_service::hlog("%s; the test pattern takes its place", problem.what());
        return std::nullopt;
    }
}

// A worker that couldn't run for want of its port could not be told another one either. So it takes any free port then,
// and its status says so.
std::unique_ptr<app::host_server> open_server(app::machine_store &store, app::worker_voice &voice,
                                              app::server_settings &settings) {
    try {
        return std::make_unique<app::host_server>(store, voice, settings);
    } catch (const std::exception &problem) {
        if (!keystore::hostStoreHealthy()) throw;
        host_service::hlog("%s; any free port takes its place", problem.what());
    }
    settings.port = 0;
    return std::make_unique<app::host_server>(store, voice, settings);
}

// From the store to the end. Returns when the worker leaves.
void work(HANDLE requests, app::departure &leaving, turn_watch &watch) {
    app::machine_store store;
    app::worker_voice voice;
    const host_service::Settings settings = store.settings();
    app::server_settings applied = app::apply_settings(settings, load_sample());
    applied.name = computer_name_utf8();
    const std::unique_ptr<app::host_server> server = open_server(store, voice, applied);
    server->desk().begin();

    app::worker_admin admin(*server, store, voice, settings);
    const app::request_loop loop(requests, leaving, [&](const auto &request) { return admin.act(request); });
    try {
        server->run([&] {
            watch.turn();
            std::string reason;
            if (!keystore::hostStoreHealthy(&reason)) leaving.leave(1, "the store has failed: " + reason);
            return leaving.leaving();
        });
    } catch (const std::exception &problem) {
        leaving.leave(1, problem.what());
    }
}

int run(const app::launch &launch) {
    app::departure leaving;
    turn_watch watch;
    const app::service_channels channels(launch, leaving);
    const app::heartbeat heart(channels.events.get(), leaving, [&] { return watch.turning(); });

    std::string reason;
    if (!keystore::configureHostStore(keystore::HostStoreScope::Machine, &reason))
        throw std::runtime_error("the store can't be used: " + reason);
    open_log();
    try {
        work(channels.requests.get(), leaving, watch);
    } catch (const std::exception &problem) {
        leaving.leave(1, problem.what());
    }
    host_service::hlog("the worker leaves: %s", leaving.why().c_str());
    host_service::log_close();
    return leaving.exit_code();
}

} // namespace

int main(int argc, char **argv) {
    // Before anything is loaded: no library of the current folder or the path.
    if (!SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32)) return 1;

    CLI::App program("TarnGlider reference worker: the host that the Host service runs",
                     "TarnGliderHostWorker");
    program.footer(manual);
    app::launch launch;
    uint32_t supervisor = 0;
    std::string channel;
    program.add_option("--supervisor", supervisor, "Process id of the service that starts it")
        ->required()
        ->check(CLI::Range(1U, UINT32_MAX))
        ->type_name("PID");
    program.add_option("--channel", channel, "Pipe on which the service sends its requests")
        ->required()
        ->type_name("NAME");
    return app::run_program(program, argc, argv, [&] {
        if (!channel.starts_with(R"(\\.\pipe\)"))
            throw app::usage_error("--channel names no pipe of this machine");
        launch.supervisor = supervisor;
        launch.channel = to_wide(channel);
        return run(launch);
    });
}
