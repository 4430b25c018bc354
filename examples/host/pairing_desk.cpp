// The pairing of a running host.
#include "host/pairing_desk.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "common/program.h"
#include "common/text.h"

namespace app {

pairing_desk::pairing_desk(tarn_host *engine, const directory &store, bool json, note_sink note)
    : engine_(engine), store_(store), json_(json), note_(std::move(note)), list_time_(store.clients_time()) {}

void pairing_desk::open(std::optional<uint32_t> seconds) {
    guard_.opened();
    if (seconds) {
        store_.set_window_closed(false);
        tarn_host_pairing_open(engine_, *seconds);
    } else if (store_.window_closed()) {
        note_("the pairing window was closed on guessers and stays closed; --pair opens one");
        tarn_host_pairing_close(engine_);
    }
    announce();
}

// A person reads the PIN here; it goes to standard output as a result does.
void pairing_desk::announce() const {
    tarn_host_pairing_state state{};
    tarn_host_pairing_status(engine_, &state);
    if (state.open == 0) return; // for want of random numbers, there may be no PIN; the engine says so
    if (json_) {
        print_json({{"event", "pairing"},
                    {"pin", state.pin},
                    {"key_code", state.code},
                    {"seconds", state.seconds_left}});
    } else {
        std::printf("pairing pin=%s code=%s\n", state.pin, state.code);
        std::fflush(stdout);
        note_(state.seconds_left > 0
                  ? format("the pairing window is open for %u s", state.seconds_left)
                  : "no client is known yet: the pairing window is open until the first one has paired");
    }
    tarn_secure_wipe(&state, sizeof state);
}

void pairing_desk::event(const conn_event &event) {
    switch (event.kind) {
    case TARN_EV_HOST_PAIRED:
        paired(event);
        break;
    case TARN_EV_PAIR_ATTEMPT_FAILED:
    case TARN_EV_NEW_PIN:
        guard(event);
        break;
    case TARN_EV_PAIRING_CLOSED:
        if (json_) print_json({{"event", "pairing_closed"}});
        break;
    default:
        break;
    }
}

void pairing_desk::guard(const conn_event &event) {
    if (event.kind == TARN_EV_PAIR_ATTEMPT_FAILED) {
        // Detail 2 says that the attempts are used up, and names no attempt of its own.
        if (event.method == TARN_SECRET_PIN && event.detail == 1) guard_.failed(event.addr);
    } else if (guard_.pin_replaced()) {
        shut();
    } else {
        announce();
    }
}

void pairing_desk::shut() {
    tarn_host_pairing_close(engine_);
    say("tarn-host: somebody is guessing PINs: the pairing window is closed. Wrong attempts came from " +
        guard_.sources() + ". When you are sure of what that was, start the host with --pair");
    if (json_) print_json({{"event", "guessed"}, {"sources", guard_.sources()}});
    try {
        store_.set_window_closed(true);
    } catch (const std::exception &error) {
        note_(std::string("a restart will not remember that: ") + error.what());
    }
}

// The list on the disk is the one that counts: a client that was removed there doesn't come back with another's pairing.
void pairing_desk::paired(const conn_event &event) {
    if (json_)
        print_json({{"event", "paired"},
                    {"name", event.name},
                    {"key", key_text(event.key)},
                    {"method", event.method == TARN_SECRET_PIN ? "PIN" : "password"}});
    try {
        tarn_client_list list = store_.clients();
        if (tarn_client_list_add(&list, event.key, event.name) < 0)
            throw std::runtime_error("the list of clients is full");
        store_.save(list);
    } catch (const std::exception &error) {
        note_(std::string("this client is forgotten when the host ends: ") + error.what());
    }
}

void pairing_desk::follow_list() {
    const auto time = store_.clients_time();
    if (time == list_time_) return;
    list_time_ = time;
    try {
        const tarn_client_list wanted = store_.clients();
        tarn_client_list known{};
        tarn_host_export_clients(engine_, &known);
        for (int i = 0; i < known.count; i++) {
            const tarn_client_entry &client = known.entries[i];
            if (tarn_client_list_find(&wanted, client.key) >= 0) continue;
            tarn_host_remove_client(engine_, client.key);
            note_(format("\"%s\" (%s) is no longer let in", client.name, key_code(client.key).c_str()));
        }
        for (int i = 0; i < wanted.count; i++) {
            const tarn_client_entry &client = wanted.entries[i];
            const int at = tarn_client_list_find(&known, client.key);
            if (at >= 0 && std::string(known.entries[at].name) == client.name) continue;
            tarn_host_add_client(engine_, client.key, client.name);
            if (at < 0) note_(format("\"%s\" (%s) is let in", client.name, key_code(client.key).c_str()));
        }
    } catch (const std::exception &error) {
        note_(std::string("the list of clients changed, and that changes nothing here: ") + error.what());
    }
}

} // namespace app
