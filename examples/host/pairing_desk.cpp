// The pairing of a running host.
#include "host/pairing_desk.h"

#include <stdexcept>

#include "common/text.h"

namespace app {

pairing_desk::pairing_desk(tarn_host *engine, host_store &store, host_voice &voice)
    : engine_(engine), store_(store), voice_(voice) {
    store_.clients_changed(); // what is there now, the engine has
}

void pairing_desk::begin() {
    const std::lock_guard held(lock_);
    if (store_.window_closed()) {
        voice_.window_stays_closed();
        tarn_host_pairing_close(engine_);
    }
    announce();
}

void pairing_desk::open(uint32_t seconds) {
    const std::lock_guard held(lock_);
    guard_.opened();
    store_.set_window_closed(false);
    tarn_host_pairing_open(engine_, seconds);
    announce();
}

void pairing_desk::close() {
    const std::lock_guard held(lock_);
    tarn_host_pairing_close(engine_);
}

bool pairing_desk::remove(const uint8_t key[32]) {
    const std::lock_guard held(lock_);
    tarn_client_list list = store_.clients();
    if (tarn_client_list_remove(&list, key) != 0) return false;
    store_.save(list);
    tarn_host_remove_client(engine_, key);
    return true;
}

void pairing_desk::announce() const {
    tarn_host_pairing_state state{};
    tarn_host_pairing_status(engine_, &state);
    // For want of random numbers there may be no window; the engine says so.
    if (state.open != 0) voice_.pairing_open(state);
    tarn_secure_wipe(&state, sizeof state);
}

void pairing_desk::event(const conn_event &event) {
    const std::lock_guard held(lock_);
    switch (event.kind) {
    case TARN_EV_HOST_PAIRED:
        paired(event);
        break;
    case TARN_EV_PAIR_ATTEMPT_FAILED:
    case TARN_EV_NEW_PIN:
        guard(event);
        break;
    case TARN_EV_PAIRING_CLOSED:
        voice_.pairing_closed();
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
    voice_.guessed(guard_.sources());
    try {
        store_.set_window_closed(true);
    } catch (const std::exception &error) {
        voice_.forgets_guessers(error.what());
    }
}

// The list in the store is the one that counts: a client that was removed there doesn't come back with another's pairing.
void pairing_desk::paired(const conn_event &event) {
    voice_.paired(event);
    try {
        tarn_client_list list = store_.clients();
        if (tarn_client_list_add(&list, event.key, event.name) < 0)
            throw std::runtime_error("the list of clients is full");
        store_.save(list);
    } catch (const std::exception &error) {
        voice_.note(std::string("this client is forgotten when the host ends: ") + error.what());
    }
}

void pairing_desk::follow_list() {
    const std::lock_guard held(lock_);
    if (!store_.clients_changed()) return;
    try {
        const tarn_client_list wanted = store_.clients();
        tarn_client_list known{};
        tarn_host_export_clients(engine_, &known);
        for (int i = 0; i < known.count; i++) {
            const tarn_client_entry &client = known.entries[i];
            if (tarn_client_list_find(&wanted, client.key) >= 0) continue;
            tarn_host_remove_client(engine_, client.key);
            voice_.note(format("\"%s\" (%s) is no longer let in", client.name, key_code(client.key).c_str()));
        }
        for (int i = 0; i < wanted.count; i++) {
            const tarn_client_entry &client = wanted.entries[i];
            const int at = tarn_client_list_find(&known, client.key);
            if (at >= 0 && std::string(known.entries[at].name) == client.name) continue;
            tarn_host_add_client(engine_, client.key, client.name);
            if (at < 0)
                voice_.note(format("\"%s\" (%s) is let in", client.name, key_code(client.key).c_str()));
        }
    } catch (const std::exception &error) {
        voice_.note(std::string("the list of clients changed, and that changes nothing here: ") +
                    error.what());
    }
}

} // namespace app
