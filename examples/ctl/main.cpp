// tarnctl: the administrator's tool of the Host service. It asks the service over its local pipe, one request a run, and
// proves before that who serves the pipe.
#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include <windows.h>

#include "common/program.h"
#include "ctl/commands.h"
#include "ctl/ctl_text.h"
#include "ctl/store_check.h"

namespace {

using host_service::Verb;

constexpr const char *manual = R"(
The service admits administrators alone: run this in an elevated console. To let a device in:
  tarnctl pair                      opens the pairing window for 120 seconds and shows PIN and key code
  tarn-client pair --code CODE ...  on the device; it asks for the PIN
  tarnctl pair-close                closes the window again, and the success of a pairing does, too
After 50 wrong attempts the worker closes the window; tarnctl status tells from where they came.

The worker answers what concerns pairing, clients, relays and settings; the service keeps nothing of that while no
worker runs. restart and stop are the service's own: a worker that was stopped stays so until restart, or until the
machine starts anew.

Answers go to standard output, refusals and errors to standard error. When no answer came in time, the request may
have been carried out all the same, and tarnctl says so.
Exit codes: 0 ok, 1 refused or failed, 2 wrong command line.)";

constexpr const char *settings_manual = R"(
Settings that aren't named stay as they are: tarnctl reads the current ones from the service's store; where nothing was
ever set, those are the usual ones. If the store can't be read here, all eight have to be named. On success the
service starts a new worker, and sessions end.
)";

constexpr const char *relays_manual = R"(
FILE holds a line tarnglider-relays-v1, then one link of a server a line, eight at most; a list without links means that
no server is used. The links hold keys: keep the file where only administrators read it, or send it in from another
program with "-". On success the service starts a new worker, and sessions end.)";

constexpr const char *check_manual = R"(
Makes the checks that the service makes at its start and before each worker, over the program's folder, the folders
above it, the libraries beside it, and the store with its items, and names path and reason of each refusal. Changes
nothing. docs/operations.md tells how each is mended.)";

// Values as the command line gives them.
struct arguments {
    bool json = false;
    uint32_t seconds = 120;
    std::string client;
    std::string relays;
    std::string relays_to_check;
    std::vector<std::string> settings;
};

CLI::App *group(CLI::App &program, const char *name, const char *text) {
    return program.add_subcommand(name, text)->require_subcommand(1);
}

} // namespace

int main(int argc, char **argv) {
    // Before anything is loaded: no library of the current folder or the path.
    if (!SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32)) return 1;

    CLI::App program("TarnGlider administration: asks the Host service of this machine", "tarnctl");
    program.footer(manual);
    program.require_subcommand(1);
    program.fallthrough(); // --json may stand behind the command, too
    arguments a;
    program.add_flag("--json", a.json, "Print answers as JSON: status 0 is ok");

    CLI::App *status = program.add_subcommand("status", "Show what the service and its worker do");
    CLI::App *pair = program.add_subcommand("pair", "Open the pairing window; shows its PIN");
    pair->add_option("SECONDS", a.seconds, "How long it stands open")
        ->check(CLI::Range(30U, 300U))
        ->capture_default_str();
    CLI::App *pair_close = program.add_subcommand("pair-close", "Close the pairing window");

    CLI::App *password = group(program, "password", "The password that devices may pair with");
    CLI::App *password_set = password->add_subcommand(
        "set",
        "Set it: asks without echo, or takes the variable TARN_PASSWORD or the first line of standard input");
    CLI::App *password_clear = password->add_subcommand("clear", "Pair by password no longer");

    CLI::App *clients = group(program, "clients", "The devices that are let in");
    CLI::App *clients_remove =
        clients->add_subcommand("remove", "Let a device in no longer; its sessions end");
    clients_remove->add_option("KEY-OR-CODE", a.client, "Its key, 64 hexadecimal digits, or its key code")
        ->required();

    CLI::App *relays = group(program, "relays", "The rendezvous and relay servers");
    relays->footer(relays_manual);
    CLI::App *relays_set = relays->add_subcommand("set", "Replace the list of servers");
    relays_set->add_option("FILE", a.relays, "The list; - reads standard input")->required();
    CLI::App *relays_check = relays->add_subcommand("check", "Ask each server of a list whether it is there");
    relays_check->add_option("FILE", a.relays_to_check, "The list; - reads standard input")->required();

    CLI::App *settings = group(program, "settings", "The worker's settings");
    CLI::App *settings_set = settings->add_subcommand("set", "Change some of them");
    settings_set->add_option("NAME=VALUE", a.settings, "Which, and to what")->required();
    settings_set->footer(settings_manual + app::settings_help());

    CLI::App *restart = program.add_subcommand("restart", "Start the worker anew, also one that was stopped");
    CLI::App *stop = program.add_subcommand("stop", "Stop the worker until restart");

    CLI::App *store = group(program, "store", "The service's files");
    CLI::App *store_check =
        store->add_subcommand("check", "Say what of program and store the service refuses");
    store_check->footer(check_manual);

    return app::run_program(program, argc, argv, [&] {
        if (program.got_subcommand(status)) return app::ask(Verb::status, a.json);
        if (program.got_subcommand(pair)) return app::open_pairing(a.seconds, a.json);
        if (program.got_subcommand(pair_close)) return app::ask(Verb::pairing_close, a.json);
        if (password->got_subcommand(password_set)) return app::set_password(a.json);
        if (password->got_subcommand(password_clear)) return app::ask(Verb::clear_password, a.json);
        if (clients->got_subcommand(clients_remove)) return app::remove_client(a.client, a.json);
        if (relays->got_subcommand(relays_set)) return app::set_relays(a.relays, a.json);
        if (relays->got_subcommand(relays_check)) return app::try_relays(a.relays_to_check, a.json);
        if (settings->got_subcommand(settings_set)) return app::set_settings(a.settings, a.json);
        if (program.got_subcommand(restart)) return app::ask(Verb::restart_worker, a.json);
        if (program.got_subcommand(stop)) return app::ask(Verb::stop_worker, a.json);
        if (store->got_subcommand(store_check)) return app::check_store(a.json);
        return 2;
    });
}
