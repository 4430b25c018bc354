// tarn-client: a client without a screen. It keeps an identity in a folder, connects to a host and writes the video
// that the host streams.
#include <CLI/CLI.hpp>

#include "client/connect.h"
#include "common/directory.h"
#include "common/platform.h"
#include "common/program.h"
#include "common/text.h"

namespace {

constexpr const char *manual = R"(
A host lets in the clients whose keys it was told, and a client proves the host by its key. By hand:
  on the client:  tarn-client key                         prints the client's key
  on the host:    tarn-host allow CLIENTKEY "living room" trusts it
                  tarn-host serve --video clip.h264       prints the port and the host's key
  on the client:  tarn-client connect HOST:PORT HOSTKEY --save out.h264

The folder of --dir holds the files "identity" (the secret key: whoever reads it is this client) and "hosts" (the
hosts that it met). Unless --dir names another, it is tarnglider/client in the user's settings.

Results go to standard output, everything else to standard error. Ctrl+C ends cleanly.
Exit codes: 0 done, also when stopped; 1 failed, never connected, or the host fell silent; 2 wrong command line.)";

constexpr const char *status_help = R"(
Once a second a line on standard error tells: seconds since the session came up, class and endpoint of the path,
round trip, Mbit/s of all datagrams, frames a second, loss of video datagrams, shards rebuilt from parity, frames
lost for good. Frames are written in order; a lost one is told and left out.)";

} // namespace

int main(int argc, char **argv) {
    CLI::App program("TarnGlider client: receives the video that a host streams", "tarn-client");
    program.footer(manual);
    program.require_subcommand(1);
    std::string folder;
    program.add_option("--dir", folder, "Folder of the identity and the list of hosts")
        ->type_name("FOLDER")
        ->envname("TARN_CLIENT_DIR");

    CLI::App *key =
        program.add_subcommand("key", "Print this client's public key, making an identity if there is none");
    bool json = false;
    key->add_flag("--json", json, "Print a JSON object, with the key code");

    CLI::App *connect = program.add_subcommand("connect", "Connect to a host and receive its stream");
    app::connect_options options;
    std::string host_key;
    std::string save;
    connect->footer(status_help);
    connect
        ->add_option("HOST", options.host,
                     "ADDRESS, ADDRESS:PORT, NAME or NAME:PORT; the port is 9876 unless given")
        ->required();
    connect->add_option("KEY", host_key, "The host's public key, as tarn-host key prints it")->required();
    connect->add_option("--save", save, "Write the video to this file, over what it holds")
        ->type_name("FILE");
    connect->add_option("--seconds", options.seconds, "Stop after this time; 0: at the stream's end")
        ->check(CLI::Range(0.0, 1e9))
        ->capture_default_str();
    connect
        ->add_option("--timeout", options.timeout_s,
                     "Seconds to wait for a session, and for a host that falls silent later")
        ->check(CLI::Range(0.1, 3600.0))
        ->capture_default_str();
    connect->add_flag("--json", options.json, "Print one JSON object at the end");
    connect->add_flag("-q,--quiet", options.quiet, "Nothing on standard error but errors");

    return app::run_program(program, argc, argv, [&] {
        if (program.got_subcommand(connect)) options.key = app::parse_key(host_key, "KEY");
        if (!save.empty()) options.save = app::path_from_utf8(save);
        const app::directory store(folder.empty() ? app::default_directory("client")
                                                  : app::path_from_utf8(folder));
        if (program.got_subcommand(key)) return app::print_key(store, json);
        return app::connect(store, options);
    });
}
