// The worker's voice.
#include "worker/worker_voice.h"

#include <log.h>

#include "common/text.h"

namespace app {

void worker_voice::note(const std::string &line) { host_service::hlog("%s", line.c_str()); }

void worker_voice::listening(uint16_t port, const uint8_t key[32]) {
    note(format("listening on UDP port %u; key code %s", unsigned{port}, key_code(key).c_str()));
}

void worker_voice::ended(const serve_totals &totals) {
    note(format("the end: %llu sessions, %llu frames in %llu datagrams, %llu clipboards echoed",
                static_cast<unsigned long long>(totals.sessions),
                static_cast<unsigned long long>(totals.frames),
                static_cast<unsigned long long>(totals.datagrams),
                static_cast<unsigned long long>(totals.clips_sent)));
}

void worker_voice::pairing_open(const tarn_host_pairing_state &state) {
    const std::lock_guard held(lock_);
    guessers_.clear();
    note(format("the pairing window is open for %u s", state.seconds_left));
}

// The engine's own line tells why; so it does of a registration.
void worker_voice::pairing_closed() {}
void worker_voice::registered(const std::string &, const std::string &, uint32_t) {}

void worker_voice::window_stays_closed() {
    note("no pairing window is open until an administrator opens one");
}

void worker_voice::guessed(const std::string &sources) {
    const std::lock_guard held(lock_);
    guessers_ = sources;
    note("somebody is guessing PINs: the pairing window is closed. Wrong attempts came from " + sources);
}

void worker_voice::forgets_guessers(const std::string &) {}

void worker_voice::paired(const conn_event &event) {
    note(format("paired with \"%s\" (%s) by %s", event.name, key_code(event.key).c_str(),
                event.method == TARN_SECRET_PIN ? "PIN" : "password"));
}

void worker_voice::stranger(const uint8_t key[32]) {
    note("a device that nobody knows asked to be let in; its key code is " + key_code(key));
}

std::string worker_voice::guessers() const {
    const std::lock_guard held(lock_);
    return guessers_;
}

} // namespace app
