// The command "pair" of tarn-client.
#include "client/pair.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include <tarnglider/rendezvous.h>

#include "common/platform.h"
#include "common/program.h"
#include "common/secret.h"

namespace app {
namespace {

std::string found_text(const found_host &host) {
    return format("  %s  \"%s\"%s%s", addr_text(host.addr).c_str(), host.name.c_str(),
                  host.window ? ", takes a PIN" : "", host.password ? ", takes a password" : "");
}

// Several answer: with a key code the right one shows itself, else a person chooses.
void add_found(const pair_options &options, host_target &target) {
    const std::vector<found_host> found = search_lan(options.port);
    std::string list;
    for (const found_host &host : found) {
        target.candidates.push_back(host.addr);
        list += "\n" + found_text(host);
    }
    if (found.empty() && options.address.empty() && options.code.empty())
        throw std::runtime_error("no host answers on this network; give its address with --address");
    if (found.size() > 1 && options.code.empty())
        throw std::runtime_error("several hosts answer; give --address or --code:" + list);
    if (!options.link.quiet && !found.empty()) say("tarn-client: found on this network:" + list);
}

host_target make_target(const pair_options &options, int servers) {
    host_target target;
    target.code = options.code;
    target.label = options.code.empty() ? options.address : options.code;
    uint8_t code[TARN_KEY_CODE_BYTES];
    if (!options.code.empty() && tarn_key_code_parse(code, options.code.c_str()) != 0)
        throw usage_error("--code \"" + options.code +
                          "\" is not a key code: XXXX-XXXX, as the host prints it");
    if (options.address.empty() && !options.discover && options.code.empty())
        throw usage_error("say where the host is: --address, --discover, or --code and --relay");
    if (options.address.empty() && !options.discover && servers == 0)
        throw usage_error("a key code alone finds nothing: add --relay LINK, --discover or --address");
    if (!options.address.empty()) target.candidates.push_back(resolve_host(options.address));
    return target;
}

class pair_program {
public:
    pair_program(const directory &store, const pair_options &options, const host_target &target)
        : store_(store), options_(options), link_(store, options.link, target) {}
    int run();

private:
    void start();
    void take_event(const conn_event &event);
    void paired(const conn_event &event);
    std::string reason(const conn_event &event) const;

    const directory &store_;
    const pair_options &options_;
    host_link link_;
    bool over_ = false;
    std::string error_ = "stopped before it was paired";
};

void pair_program::start() {
    secret_text secret;
    read_secret({options_.secret_file, "TARN_SECRET", "PIN or password of the host", false}, secret);
    if (tarn_client_pair(link_.engine(), secret.text.c_str(), options_.kind) != 0)
        throw std::runtime_error("the engine refuses this secret");
}

int pair_program::run() {
    start();
    link_.run({[this](const conn_event &event) { take_event(event); }, [](auto, auto) {},
               [this](int64_t, const tarn_client_status &) -> std::optional<int64_t> {
                   if (over_ || stop_requested()) return std::nullopt;
                   return 1000000;
               }});
    if (error_.empty()) return 0;
    if (options_.link.json) print_json({{"paired", false}, {"error", error_}});
    say("tarn-client: not paired: " + error_);
    return 1;
}

void pair_program::take_event(const conn_event &event) {
    if (event.kind == TARN_EV_CLIENT_PAIRED) paired(event);
    if (event.kind != TARN_EV_PAIR_FAILED) return;
    error_ = reason(event);
    over_ = true;
}

// The engine would go on to a session; pairing alone was asked for, and the host has no stream to spend on it.
void pair_program::paired(const conn_event &event) {
    tarn_client_status status{};
    tarn_client_status_get(link_.engine(), &status);
    tarn_client_session_close(link_.engine(), 0);
    over_ = true;
    error_.clear();
    int path = TARN_PATH_NONE;
    for (int i = 0; i < status.path_count; i++) {
        if (tarn_rv_endpoint_equal(&status.paths[i].addr, &event.addr) != 0) path = status.paths[i].path;
    }
    public_key key{};
    std::copy(std::begin(event.key), std::end(event.key), key.begin());
    std::string name = options_.as.empty() ? event.name : options_.as;
    if (name.empty()) name = key_code(event.key);
    remember_host(store_, key, name, path, event.addr);
    if (options_.link.relays.config.count > 0) {
        relay_list kept;
        kept.config = link_.relays();
        store_.save(kept);
    }
    if (options_.link.json) {
        print_json({{"paired", true},
                    {"name", name},
                    {"key_code", key_code(event.key)},
                    {"key", key_text(event.key)},
                    {"method", event.method == TARN_SECRET_PIN ? "PIN" : "password"},
                    {"path", tarn_path_name(path)},
                    {"endpoint", addr_text(event.addr)}});
    } else {
        std::printf("paired name=%s code=%s\n", name.c_str(), key_code(event.key).c_str());
        std::fflush(stdout);
    }
    link_.note("now run: tarn-client connect \"" + name + "\"");
}

std::string pair_program::reason(const conn_event &event) const {
    const bool pin = event.method == TARN_SECRET_PIN;
    switch (event.detail) {
    case TARN_PAIR_REASON_SECRET:
        return pin ? "wrong PIN" : "wrong password";
    case TARN_PAIR_REASON_LOCKED:
        return pin ? "too many wrong PINs; the host has a new one now"
                   : "locked: too many wrong passwords; try again in 600 s at the latest, unless the host "
                     "was "
                     "told otherwise";
    case TARN_PAIR_REASON_UNAVAILABLE:
        return pin ? "the host is not pairing: its window is closed; on the host run: tarn-host serve --pair"
                   : "the host takes no password; on the host run: tarn-host set-password";
    case TARN_PAIR_REASON_WRONG_HOST:
        return "wrong key: this host's key doesn't match the key code that was given";
    default:
        return link_.trouble();
    }
}

} // namespace

int pair(const directory &store, const pair_options &options) {
    relay_list relays;
    store.relays(relays);
    host_target target = make_target(options, relays.config.count + options.link.relays.config.count);
    if (options.discover) add_found(options, target);
    return pair_program(store, options, target).run();
}

} // namespace app
