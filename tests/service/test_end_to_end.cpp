// The service's whole life on the simulated machine, with the product's own sources from wmain to the store and the log:
// installed, driven by an administrator's tool, restarted and removed, in twenty orders of the threads. The worker is
// the rig's; it saves through the store what it is told, and tells what the store holds.
#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

#include "ipc_transport.h"
#include "keystore_internal.h"
#include "service_rig.h"

using namespace host_service;

int wmain(int argc, wchar_t **argv); // main.cpp's

namespace {

using texts = std::vector<std::string>;
using bytes = std::vector<uint8_t>;
const std::wstring name = L"TarnGliderHost", service_image = program_path(L"TarnGliderHostService.exe"),
                   base = L"C:\\ProgramData\\TarnGlider";
const std::string password_line = "tarnglider-pw1 " + std::string(32, 'a') + " 8 1 " + std::string(64, 'b');
const bytes client(32, 7);
int attentions; // calls of SendSAS
void send_sas(BOOL) { attentions++; }

bytes to_bytes(const std::string &text) { return {text.begin(), text.end()}; }

// What the store's memory is when a real process starts. Here all processes share it.
void start_anew() {
    keystore::store_state &state = keystore::state();
    state.healthy = true;
    state.failure.clear();
    state.configured = false;
    state.scope = keystore::HostStoreScope::User;
    state.machine_dir.clear();
}

// One verb's effect on the store; for status what the store holds: port, relay, length of the password's line, clients.
bytes act(const Request &request) {
    const auto &[verb, payload] = request;
    bool done = true;
    std::string text = "done", stored;
    Settings settings;
    tarn_client_list clients = keystore::load_clients();
    tarn_relay_config relays = keystore::load_relays();
    if (verb == Verb::status) {
        done = !keystore::readHostFile(L"settings", stored) || decode_settings(to_bytes(stored), &settings);
        text = std::to_string(settings.port) + " " + relays.servers[0].host + " " +
               std::to_string(keystore::load_password_blob().size()) + " " + std::to_string(clients.count);
    } else if (verb == Verb::pairing_open || verb == Verb::remove_client) { // somebody pairs at once
        done = (verb == Verb::pairing_open ? tarn_client_list_add(&clients, client.data(), "phone")
                                           : tarn_client_list_remove(&clients, payload.data())) == 0 &&
               keystore::save_clients(clients);
    } else if (verb == Verb::set_password || verb == Verb::clear_password) {
        done = keystore::save_password_blob(payload == to_bytes("secret") ? password_line : "");
    } else if (verb == Verb::set_relays) {
        done = tarn_relay_config_load(&relays, payload.data(), payload.size()) == 0 &&
               keystore::save_relays(relays);
    } else if (verb == Verb::set_settings) {
        done = keystore::writeHostFile(L"settings", payload.data(), payload.size());
    }
    return encode_response(verb, done ? Status::ok : Status::failed, text);
}

struct EndToEnd : testing::TestWithParam<uint64_t> {
    service_rig rig{GetParam()};
    winsim::machine &machine = rig.machine;

    EndToEnd() {
        attentions = 0;
        machine.install_library(L"C:\\Windows\\System32\\sas.dll",
                                {{"SendSAS", reinterpret_cast<FARPROC>(reinterpret_cast<void *>(send_sas))}});
        machine.set_registry(L"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\System",
                             L"SoftwareSASGeneration", DWORD{1});
        machine.install_program(service_image,
                                [this](const std::wstring &) { return start_anew(), run(L""); });
        rig.plan.prologue = [] {
            start_anew();
            EXPECT_TRUE(keystore::configureHostStore(keystore::HostStoreScope::Machine, nullptr));
        };
        rig.plan.answer = act;
        machine.act_as(rig.admin);
    }
    // The service's program, as the manager starts it or, with an argument, as an administrator does. It leaves no handle.
    DWORD run(std::wstring argument) {
        const bool own = argument.empty();
        const DWORD process =
            own ? GetCurrentProcessId() : machine.make_process(winsim::admin_token(), service_image);
        const DWORD before = machine.act_as(process);
        wchar_t *arguments[] = {nullptr, argument.data()};
        const int code = wmain(own ? 1 : 2, arguments);
        Sleep(1); // the service's own thread is at its end
        EXPECT_EQ(machine.open_handles(process), texts());
        machine.act_as(before);
        machine.end_process(process);
        return static_cast<DWORD>(code);
    }
    std::string ask(Verb verb, const bytes &payload = {}) {
        const Response answer = rig.ask(verb, payload);
        return (answer.status == Status::ok ? "" : "no: ") + answer.text;
    }
    // The n-th worker, heard twice: the first time the service may not be done with its launch.
    const launch &worker(size_t nth) {
        EXPECT_TRUE(machine.run_until([&] { return rig.launches.size() >= nth; }, 20000));
        const size_t heard = rig.event_replies.size();
        EXPECT_TRUE(machine.run_until([&] { return rig.event_replies.size() > heard + 1; }, 5000));
        EXPECT_TRUE(rig.launches.size() == nth && rig.workers() == 1);
        return rig.launches.back();
    }
};
INSTANTIATE_TEST_SUITE_P(Seeds, EndToEnd, testing::Range<uint64_t>(1, 21));

TEST_P(EndToEnd, ALifeFromInstallationToRemoval) {
    auto before = machine.tree(L"C:\\");
    ASSERT_EQ(run(L"--install"), 0u);
    EXPECT_EQ(worker(1).session, 1u);
    const DWORD first = machine.service(name).process;
    const std::string unset = ask(Verb::status);
    EXPECT_TRUE(unset.starts_with("service running; 9876 ") && unset.ends_with(" 0 0")) << unset;
    EXPECT_EQ(ask(Verb::pairing_open, {60, 0, 0, 0}) + ask(Verb::pairing_close), "donedone");
    EXPECT_EQ(ask(Verb::set_password, to_bytes("secret")), "done");
    EXPECT_EQ(ask(Verb::set_relays, to_bytes("tarnglider-relays-v1\ntarnglider-relay://r.example:1#k\n")),
              "done");
    worker(2);
    EXPECT_EQ(ask(Verb::set_settings, encode_settings({.port = 1234})), "done");
    worker(3);
    EXPECT_EQ(ask(Verb::restart_worker), "worker restart requested");
    worker(4);
    EXPECT_EQ(ask(Verb::stop_worker), "worker stop requested");
    machine.run_for(500);
    EXPECT_EQ(ask(Verb::status), "no: service running; worker unavailable");
    EXPECT_EQ(rig.workers() + run(L"--remove-data"), 3u) << "the service runs";
    rig.plan.busy_every_ms = 600; // the next one asks for the secure attention sequence
    EXPECT_EQ(ask(Verb::restart_worker), "worker restart requested");
    worker(5);
    rig.plan.busy_every_ms = never;
    EXPECT_TRUE(machine.run_until([&] { return rig.event_replies.back().status == Status::denied; }, 5000));
    EXPECT_EQ(attentions, 1);

    rig.move_console(2);
    machine.control_service(name, SERVICE_CONTROL_SESSIONCHANGE);
    EXPECT_EQ(worker(6).session, 2u);
    for (const size_t nth : {7u, 8u}) {
        const uint64_t crash = machine.now_ms();
        machine.end_process(machine.processes_of(program_path(L"TarnGliderHostWorker.exe")).at(0), 3);
        EXPECT_EQ((worker(nth).at_ms - crash) / 500, nth == 7 ? 2 : 4) << "one second, then two";
    }

    machine.control_service(name, SERVICE_CONTROL_STOP);
    EXPECT_TRUE(machine.run_until([&] { return !machine.running(first); }, 10000));
    EXPECT_TRUE(rig.workers() == 0 && !machine.pipe_exists(admin_pipe_name));
    EXPECT_EQ(run(L"--install"), 0u) << "what is registered is started";
    const DWORD second = machine.service(name).process;
    worker(9);
    EXPECT_EQ(ask(Verb::status), "service running; 1234 r.example 116 1");
    EXPECT_EQ(ask(Verb::remove_client, client) + ask(Verb::clear_password), "donedone");
    EXPECT_EQ(ask(Verb::status), "service running; 1234 r.example 0 0");
    EXPECT_EQ(run(L"--remove-data"), 1u) << "a worker runs";
    EXPECT_EQ(run(L"--uninstall"), 0u);
    EXPECT_TRUE(machine.run_until([&] { return !machine.running(second); }, 1000));

    std::istringstream log(machine.read(base + L"\\Host\\host.log"));
    std::string ends, last; // last words, and a time
    for (std::string line; std::getline(log, line); last = line.substr(0, 25)) {
        EXPECT_LE(last, line.substr(0, 25));
        ends += line.substr(line.rfind(' '), line.size() - line.rfind(' ') - 1);
    }
    EXPECT_EQ(ends, " ---- 1 1 1 1 1 dispatched 2 delayed 2 delayed 2 ---- 2");
    EXPECT_EQ(run(L"--remove-data"), 0u);
    before.insert(std::ranges::upper_bound(before, L"C:\\ProgramData"), base); // which other programs may use
    EXPECT_EQ(machine.tree(L"C:\\"), before);
    EXPECT_FALSE(machine.service_exists(name) || machine.pipe_exists(admin_pipe_name));
    EXPECT_TRUE(machine.processes_of(service_image).empty() && rig.workers() == 0 &&
                machine.calls("RegCreateKeyExW") == 0);
    EXPECT_EQ(machine.open_handles(rig.admin), texts());
    EXPECT_EQ(machine.breaches(), texts());
}

} // namespace
