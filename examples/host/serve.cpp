// The command "serve" of tarn-host: a host whose store is a folder and whose voice are standard output and error.
#include "host/serve.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "common/platform.h"
#include "common/program.h"
#include "common/text.h"
#include "host/host_server.h"

namespace app {
namespace {

class folder_store : public host_store {
public:
    folder_store(const directory &folder, const relay_list &more) : folder_(folder), more_(more) {}

    void load_identity(identity &out) override { folder_.load_identity(out); }
    void password(secret_text &line) override { folder_.password(line); }
    tarn_client_list clients() override { return folder_.clients(); }
    void save(const tarn_client_list &list) override { folder_.save(list); }
    bool window_closed() override { return folder_.window_closed(); }
    void set_window_closed(bool closed) override { folder_.set_window_closed(closed); }

    void relays(relay_list &out) override {
        folder_.relays(out);
        for (int i = 0; i < more_.config.count; i++) {
            if (tarn_relay_config_add(&out.config, &more_.config.servers[i]) < 0)
                throw usage_error("there can be no more than 8 relay servers, those of the folder included");
        }
    }

    bool clients_changed() override {
        const auto time = folder_.clients_time();
        const bool changed = time != list_time_;
        list_time_ = time;
        return changed;
    }

private:
    const directory &folder_;
    const relay_list &more_; // of the command line
    std::optional<std::filesystem::file_time_type> list_time_;
};

// Results go to standard output, as lines of words or of JSON; everything else goes to standard error.
class console_voice : public host_voice {
public:
    console_voice(bool json, bool quiet) : json_(json), quiet_(quiet) {}

    void note(const std::string &line) override {
        if (!quiet_) say("tarn-host: " + line);
    }

    void listening(uint16_t port, const uint8_t public_key[32]) override {
        const std::string key = key_text(public_key);
        const std::string code = key_code(public_key);
        if (json_)
            return print_json({{"event", "listening"}, {"port", port}, {"key", key}, {"key_code", code}});
        print(format("listening port=%u key=%s code=%s", unsigned{port}, key.c_str(), code.c_str()));
    }

    void ended(const serve_totals &totals) override {
        if (!json_) return;
        print_json({{"event", "ended"},
                    {"sessions", totals.sessions},
                    {"frames", totals.frames},
                    {"bytes", totals.bytes},
                    {"datagrams", totals.datagrams},
                    {"dropped", totals.dropped},
                    {"clips_sent", totals.clips_sent},
                    {"clips_received", totals.clips_received},
                    {"clips_failed", totals.clips_failed}});
    }

    // A person reads the PIN here; it goes to standard output as a result does.
    void pairing_open(const tarn_host_pairing_state &state) override {
        if (json_)
            return print_json({{"event", "pairing"},
                               {"pin", state.pin},
                               {"key_code", state.code},
                               {"seconds", state.seconds_left}});
        print(format("pairing pin=%s code=%s", state.pin, state.code));
        note(state.seconds_left > 0
                 ? format("the pairing window is open for %u s", state.seconds_left)
                 : "no client is known yet: the pairing window is open until the first one has paired");
    }

    void pairing_closed() override {
        if (json_) print_json({{"event", "pairing_closed"}});
    }

    void window_stays_closed() override {
        note("the pairing window was closed on guessers and stays closed; --pair opens one");
    }

    void guessed(const std::string &sources) override {
        say("tarn-host: somebody is guessing PINs: the pairing window is closed. Wrong attempts came from " +
            sources + ". When you are sure of what that was, start the host with --pair");
        if (json_) print_json({{"event", "guessed"}, {"sources", sources}});
    }

    void forgets_guessers(const std::string &why) override {
        note("a restart will not remember that: " + why);
    }

    void paired(const conn_event &event) override {
        if (!json_) return;
        print_json({{"event", "paired"},
                    {"name", event.name},
                    {"key", key_text(event.key)},
                    {"method", event.method == TARN_SECRET_PIN ? "PIN" : "password"}});
    }

    void stranger(const uint8_t key[32]) override {
        note("to let that device in, pair with it, or run: tarn-host allow " + key_text(key) + " NAME");
    }

    void registered(const std::string &server, const std::string &seen, uint32_t rtt_us) override {
        if (json_)
            return print_json(
                {{"event", "registered"}, {"server", server}, {"public", seen}, {"rtt_us", rtt_us}});
        print("registered server=" + server + " public=" + seen);
    }

private:
    static void print(const std::string &line) {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    }

    bool json_;
    bool quiet_;
};

} // namespace

int serve(const directory &folder, serve_options &options) {
    server_settings &settings = options.server;
    if (options.video) settings.video = load_video(*options.video);
    if (options.frame_rate) {
        settings.stream.frame_rate = *options.frame_rate;
    } else if (settings.video && settings.video->frame_rate) {
        settings.stream.frame_rate = *settings.video->frame_rate;
    }
    folder_store store(folder, options.relays);
    console_voice voice(options.json, options.quiet);
    host_server server(store, voice, settings);
    catch_stop_signals();
    if (options.pair_s) {
        server.desk().open(*options.pair_s);
    } else {
        server.desk().begin();
    }
    server.run(stop_requested);
    return 0;
}

} // namespace app
