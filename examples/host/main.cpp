// tarn-host: a host without a screen. It keeps an identity and a list of trusted clients in a folder, lets clients pair,
// and streams a video file to each that connects.
#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "common/clip_link.h"
#include "common/directory.h"
#include "common/platform.h"
#include "common/program.h"
#include "common/stream_protocol.h"
#include "common/text.h"
#include "host/admin.h"
#include "host/serve.h"

namespace {

constexpr const char *manual = R"(
A host answers clients over UDP and lets in those that it knows. It gets to know them by pairing, or by their keys:
  on the host:    tarn-host serve --video clip.h264 --pair --relay LINK     prints PIN and key code
  on the client:  tarn-client pair --relay LINK --code CODE                 asks for the PIN; then
                  tarn-client connect NAME --save out.h264
LINK is what tarn-server --link prints; on one network --address HOST:PORT or --discover does without a server.

A pairing window closes after its time, with the first success, and when somebody guesses: after 50 wrong attempts
it stays closed, also over a restart, until a person starts the host with --pair. A host that knows no client has a
window open until the first one has paired. A password (set-password) stands at any time and locks itself for ten
minutes after ten wrong attempts, so let it be long.

The folder of --dir holds the files "identity" (the secret key: whoever reads it is this host),
"authorized_clients", "password" and, if you make it, "relays": a line tarnglider-relays-v1, then a link a line.
Unless --dir names another, it is tarnglider/host in the user's settings.

Results go to standard output, everything else to standard error.
Exit codes: 0 done, 1 failed, 2 wrong command line.)";

// Values as the command line gives them, where the options hold something else.
struct serve_arguments {
    std::string video;
    std::string address;
    double rate = 0;
    uint32_t pair_s = 120;
    CLI::Option *pair = nullptr;
    std::vector<std::string> relays;
    std::vector<std::string> clips;
    std::string clip_folder;
};

void add_reach(CLI::App &serve, app::serve_options &options, serve_arguments &arguments) {
    options.server.port = app::default_port;
    serve.add_option("--port", options.server.port, "UDP port; 0 takes any free one")->capture_default_str();
    serve.add_option("--bind", arguments.address, "Listen on this address alone")->type_name("ADDRESS");
    serve.add_option("--name", options.server.name, "What clients see; without it the machine's name");
    serve
        .add_option("--relay", arguments.relays,
                    "Register with this server, beside those of the folder; @FILE: with those of its lines")
        ->allow_extra_args(false)
        ->type_name("LINK|@FILE");
    arguments.pair = serve
                         .add_option("--pair", arguments.pair_s,
                                     "Open a pairing window, for 120 seconds unless a number says otherwise")
                         ->expected(0, 1)
                         ->default_str("120")
                         ->check(CLI::Range(1U, 86400U))
                         ->type_name("SECONDS");
    serve
        .add_option("--clip-send", arguments.clips,
                    "Offer this PNG or text file to the clipboard of each client; may be repeated")
        ->allow_extra_args(false)
        ->type_name("FILE");
    serve
        .add_option("--clip-save", arguments.clip_folder, "Save what clients' clipboards send in this folder")
        ->type_name("FOLDER");
}

CLI::App *add_serve(CLI::App &program, app::serve_options &options, serve_arguments &arguments) {
    CLI::App *serve =
        program.add_subcommand("serve", "Let clients pair, and stream a video to each that connects");
    serve->add_option("--video", arguments.video, "H.264 Annex B file to send")->type_name("FILE");
    add_reach(*serve, options, arguments);
    serve
        ->add_option("--sessions", options.server.sessions_max,
                     "Exit when so many sessions are over; 0: never")
        ->capture_default_str();
    serve->add_flag("--loop", options.server.stream.loop, "Begin the video again at its end, for ever");

    const char *pace = "Pace (without any of these: the frame rate that the video states, else 30)";
    CLI::Option *fps =
        serve->add_option("--fps", arguments.rate, "Frames a second, in place of the video's own rate")
            ->check(CLI::Range(0.1, 1000.0))
            ->group(pace);
    CLI::Option *speed = serve->add_option("--speed", options.server.stream.speed, "Times the frame rate")
                             ->check(CLI::Range(0.01, 1000.0))
                             ->capture_default_str()
                             ->group(pace);
    serve->add_option("--bitrate", options.server.stream.bitrate, "Mbit/s of video, whatever the frame rate")
        ->check(CLI::Range(0.001, 10000.0))
        ->excludes(fps)
        ->excludes(speed)
        ->group(pace);

    const char *loss = "Loss";
    serve->add_option("--fec", options.server.stream.fec_percent, "Parity in percent of a frame's data")
        ->check(CLI::Range(0, 1000))
        ->capture_default_str()
        ->group(loss);
    serve
        ->add_option("--min-parity", options.server.stream.min_parity,
                     "Least parity datagrams for each group of up to 64")
        ->check(CLI::Range(0, 255))
        ->capture_default_str()
        ->group(loss);
    serve
        ->add_option("--loss", options.server.loss,
                     "Percent of the video and clipboard datagrams that the host drops on purpose")
        ->check(CLI::Range(0.0, 100.0))
        ->capture_default_str()
        ->group(loss);
    serve
        ->add_option("--seed", options.server.seed,
                     "Which datagrams --loss drops: the same ones for the same seed")
        ->capture_default_str()
        ->group(loss);

    serve->add_flag("--json", options.json,
                    "JSON objects on standard output, one a line: listening, PINs, servers, the end");
    serve->add_flag("-q,--quiet", options.quiet, "Nothing on standard error but errors");
    return serve;
}

void settle(app::serve_options &options, const serve_arguments &arguments) {
    if (!arguments.address.empty()) {
        options.server.address.emplace();
        if (tarn_addr_parse(&*options.server.address, arguments.address.c_str(), options.server.port) != 0)
            throw app::usage_error("--bind \"" + arguments.address + "\" is not an IPv4 or IPv6 address");
    }
    if (arguments.rate > 0) options.frame_rate = arguments.rate;
    if (!arguments.video.empty()) options.video = app::path_from_utf8(arguments.video);
    if (arguments.pair->count() > 0) options.pair_s = arguments.pair_s;
    for (const std::string &link : arguments.relays)
        options.relays.add(link);
    options.server.clips = app::load_clips(arguments.clips, arguments.clip_folder);
}

} // namespace

int main(int argc, char **argv) {
    CLI::App program(
        "TarnGlider host: streams a video file and exchanges clipboards with the clients that it trusts",
        "tarn-host");
    program.footer(manual);
    program.require_subcommand(1);
    std::string folder;
    program.add_option("--dir", folder, "Folder of the identity, the list of clients and the rest")
        ->type_name("FOLDER")
        ->envname("TARN_HOST_DIR");

    bool json = false;
    CLI::App *key =
        program.add_subcommand("key", "Print this host's public key, making an identity if there is none");
    key->add_flag("--json", json, "Print a JSON object, with the key code");

    CLI::App *trust = program.add_subcommand("allow", "Let a client in, or rename it");
    std::string client_key;
    std::string client_name;
    trust->add_option("KEY", client_key, "The client's public key, as tarn-client key prints it")->required();
    trust->add_option("NAME", client_name, "A name to know it by")->required();

    CLI::App *clients = program.add_subcommand("clients", "List the clients that are let in");
    clients->add_flag("--json", json, "One JSON object a line");

    CLI::App *remove = program.add_subcommand("remove", "Let a client in no longer");
    std::string which;
    remove->add_option("CLIENT", which, "Its key, key code or name")->required();

    CLI::App *set_password =
        program.add_subcommand("set-password", "Set the password that clients may pair with");
    std::string password_file;
    set_password->footer(
        "The password comes from --password-file, the variable TARN_PASSWORD, the terminal, or "
        "standard input.");
    set_password->add_option("--password-file", password_file, "Read it from the first line of this file")
        ->type_name("FILE");
    CLI::App *clear_password = program.add_subcommand("clear-password", "Pair by password no longer");

    app::serve_options options;
    serve_arguments arguments;
    CLI::App *serve = add_serve(program, options, arguments);

    return app::run_program(program, argc, argv, [&] {
        if (program.got_subcommand(serve)) settle(options, arguments);
        const app::directory store(folder.empty() ? app::default_directory("host")
                                                  : app::path_from_utf8(folder));
        if (program.got_subcommand(key)) return app::print_key(store, json);
        if (program.got_subcommand(serve)) return app::serve(store, options);
        if (program.got_subcommand(trust)) app::allow_client(store, client_key, client_name);
        if (program.got_subcommand(clients)) app::list_clients(store, json);
        if (program.got_subcommand(remove)) app::remove_client(store, which);
        if (program.got_subcommand(set_password)) app::set_password(store, app::optional_path(password_file));
        if (program.got_subcommand(clear_password)) app::clear_password(store);
        return 0;
    });
}
