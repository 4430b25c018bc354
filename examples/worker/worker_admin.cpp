// The administrator's commands.
#include "worker/worker_admin.h"

#include <algorithm>
#include <exception>

#include <tarnglider/conn_host.h>
#include <tarnglider/conn_relay.h>

#include "common/secret.h"
#include "common/server_text.h"
#include "common/text.h"
#include "worker/worker_settings.h"

namespace app {
namespace {

using host_service::Request;
using host_service::Response;
using host_service::Status;
using host_service::Verb;

Response done(std::string text) { return {Status::ok, std::move(text)}; }

// A name in a status: whoever paired chose it, and the parts of a status are told apart by semicolons.
std::string quoted(const char *name) {
    std::string text = name;
    std::replace(text.begin(), text.end(), ';', ',');
    return '"' + text + '"';
}

// Owns a copy of the pairing's state, which holds the PIN.
struct pairing_state {
    tarn_host_pairing_state of{};
    explicit pairing_state(tarn_host *engine) { tarn_host_pairing_status(engine, &of); }
    pairing_state(const pairing_state &) = delete;
    pairing_state &operator=(const pairing_state &) = delete;
    ~pairing_state() { tarn_secure_wipe(&of, sizeof of); }
};

std::string server_state_text(const tarn_server_status &server) {
    switch (server.status) {
    case TARN_SERVER_REGISTERED:
        return "registered, sees this host at " + addr_text(server.public_addr);
    case TARN_SERVER_UNRESOLVED:
        return "its name can't be resolved";
    case TARN_SERVER_SILENT:
        return "no answer";
    case TARN_SERVER_ERROR:
        return "it refuses: " + server_error_text(server.error);
    default:
        return "registering";
    }
}

} // namespace

Response worker_admin::act(const Request &request) {
    try {
        return carry_out(request);
    } catch (const std::exception &error) {
        return {Status::failed, error.what()};
    }
}

Response worker_admin::carry_out(const Request &request) {
    switch (request.verb) {
    case Verb::status:
        return status();
    case Verb::pairing_open:
        return open_pairing(host_service::read_u32(request.payload.data()));
    case Verb::pairing_close:
        server_.desk().close();
        return done("the pairing window is closed");
    case Verb::set_password:
        return set_password(request.payload);
    case Verb::clear_password:
        return clear_password();
    case Verb::remove_client:
        return remove_client(request.payload.data());
    case Verb::set_relays:
        return set_relays(request.payload);
    case Verb::set_settings:
        return set_settings(request.payload);
    default:
        return {Status::denied, "that is no command for a worker"};
    }
}

// The service puts "service running; " before this, so it goes on in the same manner.
Response worker_admin::status() const {
    std::string text = pairing_text();
    const unsigned port = server_.port();
    text += format("; listening on UDP port %u", port);
    if (port != settings_.port)
        text += format(", since port %u is taken by another program", unsigned{settings_.port});
    text += format("; sessions: %u", static_cast<unsigned>(server_.sessions()));
    text += servers_text();
    text += clients_text();
    text += "; settings: " + settings_text(settings_);
    return done(text);
}

std::string worker_admin::pairing_text() const {
    const pairing_state state(server_.engine());
    std::string text = format("key code %s; pairing ", state.of.code);
    if (state.of.open != 0) {
        text += format("open for %u s, PIN %s", state.of.seconds_left, state.of.pin);
    } else {
        text += "closed";
        const std::string guessers = voice_.guessers();
        if (!guessers.empty()) text += ", because somebody was guessing PINs, from " + guessers;
    }
    text += state.of.password_set == 0 ? ", no password" : ", password set";
    if (state.of.password_locked != 0) text += " and locked after wrong attempts";
    return text;
}

std::string worker_admin::servers_text() const {
    std::string text;
    tarn_server_status server{};
    for (int i = 0; tarn_host_server_status(server_.engine(), i, &server) == 0; i++)
        text += format("; server %s port %u: %s", server.host, unsigned{server.port},
                       server_state_text(server).c_str());
    return text.empty() ? "; no server" : text;
}

std::string worker_admin::clients_text() const {
    tarn_client_list list{};
    tarn_host_export_clients(server_.engine(), &list);
    if (list.count == 0) return "; no client is known";
    std::string text;
    for (int i = 0; i < list.count; i++)
        text += format("; client %s %s", key_code(list.entries[i].key).c_str(),
                       quoted(list.entries[i].name).c_str());
    return text;
}

Response worker_admin::open_pairing(uint32_t seconds) {
    server_.desk().open(seconds);
    const pairing_state state(server_.engine());
    if (state.of.open == 0)
        return {Status::failed, "no window can be opened: the system gives no random numbers"};
    return done(format("the pairing window is open for %u s: PIN %s, key code %s", state.of.seconds_left,
                       state.of.pin, state.of.code));
}

// Takes as long as Argon2id with 64 MiB; the engine serves meanwhile, and the heart beats on its own thread. The engine
// makes the stored form in the shape that the store demands of it.
Response worker_admin::set_password(const std::vector<uint8_t> &bytes) {
    secret_text password;
    password.text.assign(bytes.begin(), bytes.end());
    secret_text line;
    line.text.resize(TARN_PASSWORD_LINE_SIZE);
    if (tarn_host_set_password(server_.engine(), password.text.c_str(), line.text.data(), line.text.size()) !=
        0)
        return {Status::failed, "the password can't be derived: 64 MiB of memory are needed for it"};
    line.text.resize(line.text.find('\0'));
    store_.save_password(line);
    return done("the pairing password is set");
}

Response worker_admin::clear_password() {
    tarn_host_clear_password(server_.engine());
    store_.clear_password();
    return done("there is no pairing password any more");
}

Response worker_admin::remove_client(const uint8_t key[32]) {
    if (!server_.desk().remove(key)) return {no_such_client, "no client with this key is known"};
    return done("the client " + key_code(key) + " is no longer let in");
}

// Saved only: on ok the service starts a new worker, which takes them up.
Response worker_admin::set_relays(const std::vector<uint8_t> &text) {
    relay_list list;
    if (tarn_relay_config_load(&list.config, text.data(), text.size()) != 0)
        return {not_acceptable,
                "that is no list of relay servers: a line tarnglider-relays-v1, then a link a line, "
                "of 8 servers at most"};
    store_.save_relays(list);
    return done(
        format("saved %d relay servers; a new worker takes them up", static_cast<int>(list.config.count)));
}

// Saved only, likewise.
Response worker_admin::set_settings(const std::vector<uint8_t> &record) {
    host_service::Settings settings;
    if (!host_service::decode_settings(record, &settings))
        return {not_acceptable, "a setting is out of its range"};
    store_.save(settings);
    return done("saved the settings; a new worker takes them up");
}

} // namespace app
