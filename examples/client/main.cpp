// tarn-client: a client without a screen. It keeps an identity and the hosts that it knows in a folder, pairs with hosts,
// connects to them, and writes the video that a host streams.
#include <CLI/CLI.hpp>
#include <map>
#include <string>
#include <vector>

#include "client/connect.h"
#include "client/host_book.h"
#include "client/pair.h"
#include "client/paths.h"
#include "common/directory.h"
#include "common/platform.h"
#include "common/program.h"
#include "common/stream_protocol.h"
#include "common/text.h"

namespace {

constexpr const char *manual = R"(
A client pairs with a host once, and connects by name from then on:
  on the host:    tarn-host serve --video clip.h264 --pair --relay LINK     prints PIN and key code
  on the client:  tarn-client pair --relay LINK --code CODE                 asks for the PIN
                  tarn-client connect NAME --save out.h264
LINK is what tarn-server --link prints; on one network --address HOST:PORT or --discover does without a server.
A host that was told this client's key (tarn-host allow) needs no pairing: tarn-client connect HOST:PORT HOSTKEY.

The folder of --dir holds the files "identity" (the secret key: whoever reads it is this client), "hosts" (those that
it knows) and "relays" (the servers that it asks). Unless --dir names another, it is tarnglider/client in the user's
settings.

Results go to standard output, everything else to standard error. Ctrl+C ends cleanly.
Exit codes: 0 done, also when stopped; 1 failed, never connected, or the host fell silent; 2 wrong command line.)";

constexpr const char *status_help = R"(
Once a second a line on standard error tells: seconds since the session came up, class and endpoint of the path,
round trip, Mbit/s of all datagrams, frames a second, loss of video datagrams, shards rebuilt from parity, frames
lost for good. Frames are written in order; a lost one is told and left out.)";

constexpr const char *secret_help = R"(
The PIN or password comes from --secret-file, the variable TARN_SECRET, the terminal, or standard input; never from
the command line, which every user of the machine can read.)";

// Values as the command line gives them, where the options hold something else.
struct arguments {
    std::string folder;
    bool json = false;
    std::string which;
    std::vector<std::string> relays;
    std::string secret_file;
    std::string save;
    std::string compare;
    std::string cut;
    std::vector<std::string> clips;
    std::string clip_folder;
};

void add_link(CLI::App &command, app::link_options &link, arguments &a) {
    command
        .add_option("--relay", a.relays,
                    "Ask this server, beside those of the folder; @FILE: those of its lines")
        ->allow_extra_args(false)
        ->type_name("LINK|@FILE");
    command.add_option("--name", link.name, "What the host sees; without it the machine's name");
    command.add_flag("-q,--quiet", link.quiet, "Nothing on standard error but errors");
}

void add_session(CLI::App &command, app::link_options &link, std::string &host, std::string &key,
                 double &seconds) {
    command
        .add_option(
            "HOST", host,
            "Name, key code or key of a host; or ADDRESS, ADDRESS:PORT, NAME or NAME:PORT before a KEY")
        ->required();
    command.add_option("KEY", key, "The public key of the host at that address, as tarn-host key prints it");
    const std::map<std::string, uint32_t> routes = {{"any", TARN_ROUTE_ANY},
                                                    {"no-relay", TARN_ROUTE_NO_RELAY},
                                                    {"relay-only", TARN_ROUTE_RELAY_ONLY},
                                                    {"local-only", TARN_ROUTE_LOCAL_ONLY}};
    command
        .add_option("--route", link.route,
                    "any; no-relay: servers only introduce; relay-only; local-only: no server is asked")
        ->transform(CLI::CheckedTransformer(routes).description("{any,no-relay,relay-only,local-only}"))
        ->default_str("any");
    command.add_option("--seconds", seconds, "Stop after this time; 0: at the end")
        ->check(CLI::Range(0.0, 1e9))
        ->capture_default_str();
    command
        .add_option("--timeout", link.timeout_s,
                    "Seconds to wait for a session, and for a host that falls silent later")
        ->check(CLI::Range(0.1, 3600.0))
        ->capture_default_str();
}

CLI::App *add_pair(CLI::App &program, app::pair_options &options, arguments &a) {
    CLI::App *pair = program.add_subcommand("pair", "Prove a PIN or password to a host, and keep the host");
    pair->footer(secret_help);
    pair->add_option("--address", options.address,
                     "Where the host is: ADDRESS, ADDRESS:PORT, NAME or NAME:PORT")
        ->type_name("HOST");
    pair->add_flag("--discover", options.discover, "Search for the host on this network");
    options.port = app::default_port;
    pair->add_option("--port", options.port, "Port that --discover asks")->capture_default_str();
    pair->add_option("--code", options.code, "The host's key code; no other host is paired with")
        ->type_name("CODE");
    const std::map<std::string, int> kinds = {
        {"auto", TARN_PAIR_AUTOMATIC}, {"pin", TARN_SECRET_PIN}, {"password", TARN_SECRET_PASSWORD}};
    pair->add_option("--kind", options.kind, "What the secret is; auto: six digits are tried as a PIN first")
        ->transform(CLI::CheckedTransformer(kinds).description("{auto,pin,password}"))
        ->default_str("auto");
    pair->add_option("--secret-file", a.secret_file, "Read the secret from the first line of this file")
        ->type_name("FILE");
    pair->add_option("--as", options.as, "Keep the host under this name; without it under its own")
        ->type_name("NAME");
    add_link(*pair, options.link, a);
    pair->add_flag("--json", options.link.json, "Print one JSON object at the end");
    return pair;
}

CLI::App *add_connect(CLI::App &program, app::connect_options &options, arguments &a) {
    CLI::App *connect = program.add_subcommand("connect", "Connect to a host and receive its stream");
    connect->footer(status_help);
    add_session(*connect, options.link, options.host, options.key, options.seconds);
    connect->add_option("--save", a.save, "Write the video to this file, over what it holds")
        ->type_name("FILE");
    connect->add_option("--clip-send", a.clips, "Offer this PNG or text file to the host; may be repeated")
        ->allow_extra_args(false)
        ->type_name("FILE");
    connect->add_option("--clip-save", a.clip_folder, "Save what the host's clipboard sends in this folder")
        ->type_name("FOLDER");
    add_link(*connect, options.link, a);
    connect->add_flag("--json", options.link.json, "Print one JSON object at the end");
    const char *show = "For demonstration";
    connect
        ->add_option(
            "--cut-direct", a.cut,
            "Drop the datagrams of all paths but the relay's, AT seconds into the session and for SECONDS")
        ->type_name("AT:SECONDS")
        ->group(show);
    connect->add_option("--compare", a.compare, "Compare each frame with this video, which the host sends")
        ->type_name("FILE")
        ->group(show);
    return connect;
}

CLI::App *add_paths(CLI::App &program, app::paths_options &options, arguments &a) {
    CLI::App *paths = program.add_subcommand("paths", "Show all paths to a host, once a second");
    paths->footer("\nThe path with a star carries the traffic.");
    add_session(*paths, options.link, options.host, options.key, options.seconds);
    add_link(*paths, options.link, a);
    paths->add_flag("--json", options.link.json, "One JSON object a second");
    return paths;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App program("TarnGlider client: receives the video that a host streams", "tarn-client");
    program.footer(manual);
    program.require_subcommand(1);
    arguments a;
    program.add_option("--dir", a.folder, "Folder of the identity, the list of hosts and the servers")
        ->type_name("FOLDER")
        ->envname("TARN_CLIENT_DIR");

    CLI::App *key =
        program.add_subcommand("key", "Print this client's public key, making an identity if there is none");
    key->add_flag("--json", a.json, "Print a JSON object, with the key code");
    app::pair_options pair_options;
    CLI::App *pair = add_pair(program, pair_options, a);
    app::connect_options connect_options;
    CLI::App *connect = add_connect(program, connect_options, a);
    app::paths_options paths_options;
    CLI::App *paths = add_paths(program, paths_options, a);
    CLI::App *hosts = program.add_subcommand("hosts", "List the hosts that are known");
    hosts->add_flag("--json", a.json, "One JSON object a line");
    CLI::App *forget = program.add_subcommand("forget", "Know a host no longer");
    forget->add_option("HOST", a.which, "Its key, key code or name")->required();

    return app::run_program(program, argc, argv, [&] {
        app::link_options &link = program.got_subcommand(pair)      ? pair_options.link
                                  : program.got_subcommand(connect) ? connect_options.link
                                                                    : paths_options.link;
        for (const std::string &text : a.relays)
            link.relays.add(text);
        if (!a.cut.empty()) link.cut = app::parse_cut(a.cut);
        pair_options.secret_file = app::optional_path(a.secret_file);
        connect_options.save = app::optional_path(a.save);
        connect_options.compare = app::optional_path(a.compare);
        connect_options.clips = app::load_clips(a.clips, a.clip_folder);
        const app::directory store(a.folder.empty() ? app::default_directory("client")
                                                    : app::path_from_utf8(a.folder));
        if (program.got_subcommand(key)) return app::print_key(store, a.json);
        if (program.got_subcommand(pair)) return app::pair(store, pair_options);
        if (program.got_subcommand(connect)) return app::connect(store, connect_options);
        if (program.got_subcommand(paths)) return app::show_paths(store, paths_options);
        if (program.got_subcommand(hosts)) app::list_hosts(store, a.json);
        if (program.got_subcommand(forget)) app::forget_host(store, a.which);
        return 0;
    });
}
