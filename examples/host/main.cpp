// tarn-host: a host without a screen. It keeps an identity and a list of trusted clients in a folder, and streams a
// video file to each client that connects.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>

#include <tarnglider/conn_lists.h>

#include "common/directory.h"
#include "common/platform.h"
#include "common/program.h"
#include "common/stream_protocol.h"
#include "common/text.h"
#include "host/serve.h"

namespace {

constexpr const char *manual = R"(
A host answers clients over UDP and lets in those whose keys it was told. By hand:
  on the client:  tarn-client key                         prints the client's key
  on the host:    tarn-host allow CLIENTKEY "living room" trusts it
                  tarn-host serve --video clip.h264       prints the port and the host's key
  on the client:  tarn-client connect HOST:PORT HOSTKEY --save out.h264

The folder of --dir holds the files "identity" (the secret key: whoever reads it is this host) and
"authorized_clients". Unless --dir names another, it is tarnglider/host in the user's settings.

Results go to standard output, everything else to standard error.
Exit codes: 0 done, 1 failed, 2 wrong command line.)";

void allow(const app::directory &store, const std::string &key_argument, const std::string &name) {
    const app::public_key key = app::parse_key(key_argument, "KEY");
    tarn_client_list list = store.clients();
    const bool known = tarn_client_list_find(&list, key.data()) >= 0;
    const int index = tarn_client_list_add(&list, key.data(), name.c_str());
    if (index < 0)
        throw std::runtime_error(
            app::format("the list of clients is full (%d); remove one of its lines first",
                        static_cast<int>(TARN_LIST_MAX)));
    store.save(list);
    app::say(app::format("tarn-host: %s \"%s\" (%s)", known ? "renamed" : "allowed", list.entries[index].name,
                         app::key_code(key.data()).c_str()));
}

void add_serve(CLI::App &program, app::serve_options &options, std::string &video, std::string &address,
               double &rate) {
    CLI::App *serve = program.add_subcommand("serve", "Stream a video to each client that connects");
    serve->add_option("--video", video, "H.264 Annex B file to send")->required()->type_name("FILE");
    options.port = app::default_port;
    serve->add_option("--port", options.port, "UDP port; 0 takes any free one")->capture_default_str();
    serve->add_option("--bind", address, "Listen on this address alone")->type_name("ADDRESS");
    serve->add_flag("--once", options.once, "Exit when the first stream is over");
    serve->add_flag("--loop", options.stream.loop, "Begin the video again at its end, for ever");

    const char *pace = "Pace (without any of these: the frame rate that the video states, else 30)";
    CLI::Option *fps = serve->add_option("--fps", rate, "Frames a second, in place of the video's own rate")
                           ->check(CLI::Range(0.1, 1000.0))
                           ->group(pace);
    CLI::Option *speed = serve->add_option("--speed", options.stream.speed, "Times the frame rate")
                             ->check(CLI::Range(0.01, 1000.0))
                             ->capture_default_str()
                             ->group(pace);
    serve->add_option("--bitrate", options.stream.bitrate, "Mbit/s of video, whatever the frame rate")
        ->check(CLI::Range(0.001, 10000.0))
        ->excludes(fps)
        ->excludes(speed)
        ->group(pace);

    const char *loss = "Loss";
    serve->add_option("--fec", options.stream.fec_percent, "Parity in percent of a frame's data")
        ->check(CLI::Range(0, 1000))
        ->capture_default_str()
        ->group(loss);
    serve
        ->add_option("--min-parity", options.stream.min_parity,
                     "Least parity datagrams for each group of up to 64")
        ->check(CLI::Range(0, 255))
        ->capture_default_str()
        ->group(loss);
    serve->add_option("--loss", options.loss, "Percent of the video datagrams that the host drops on purpose")
        ->check(CLI::Range(0.0, 100.0))
        ->capture_default_str()
        ->group(loss);
    serve->add_option("--seed", options.seed, "Which datagrams --loss drops: the same ones for the same seed")
        ->capture_default_str()
        ->group(loss);

    serve->add_flag("--json", options.json,
                    "One JSON object on standard output when listening, one at the end");
    serve->add_flag("-q,--quiet", options.quiet, "Nothing on standard error but errors");
}

} // namespace

int main(int argc, char **argv) {
    CLI::App program("TarnGlider host: streams a video file to the clients that it trusts", "tarn-host");
    program.footer(manual);
    program.require_subcommand(1);
    std::string folder;
    program.add_option("--dir", folder, "Folder of the identity and the list of clients")
        ->type_name("FOLDER")
        ->envname("TARN_HOST_DIR");

    CLI::App *key =
        program.add_subcommand("key", "Print this host's public key, making an identity if there is none");
    bool json = false;
    key->add_flag("--json", json, "Print a JSON object, with the key code");

    CLI::App *trust =
        program.add_subcommand("allow", "Trust a client; a running host learns it at its next start");
    std::string client_key;
    std::string client_name;
    trust->add_option("KEY", client_key, "The client's public key, as tarn-client key prints it")->required();
    trust->add_option("NAME", client_name, "A name to know it by")->required();

    app::serve_options options;
    std::string video;
    std::string address;
    double rate = 0;
    add_serve(program, options, video, address, rate);

    return app::run_program(program, argc, argv, [&] {
        if (!address.empty()) {
            options.address.emplace();
            if (tarn_addr_parse(&*options.address, address.c_str(), options.port) != 0)
                throw app::usage_error("--bind \"" + address + "\" is not an IPv4 or IPv6 address");
        }
        if (rate > 0) options.frame_rate = rate;
        options.video = app::path_from_utf8(video);
        const app::directory store(folder.empty() ? app::default_directory("host")
                                                  : app::path_from_utf8(folder));
        if (program.got_subcommand(key)) return app::print_key(store, json);
        if (program.got_subcommand(trust)) {
            allow(store, client_key, client_name);
            return 0;
        }
        return app::serve(store, options);
    });
}
