// What a running host tells, and whom is its program's affair: tarn-host prints, the Windows worker writes its log.
// All but note are called on the thread that caused them, with the pairing desk's lock held where it is about pairing.
#pragma once

#include <cstdint>
#include <string>

#include <tarnglider/conn_host.h>

namespace app {

struct serve_totals {
    uint64_t sessions = 0;
    uint64_t frames = 0;
    uint64_t bytes = 0;     // of video
    uint64_t datagrams = 0; // parity included
    uint64_t dropped = 0;   // on purpose
    uint64_t clips_sent = 0;
    uint64_t clips_received = 0;
    uint64_t clips_failed = 0;
};

class host_voice {
public:
    virtual ~host_voice() = default;

    virtual void note(const std::string &line) = 0; // any thread; for a person who watches
    virtual void listening(uint16_t port, const uint8_t key[32]) = 0;
    virtual void ended(const serve_totals &totals) = 0;

    virtual void pairing_open(const tarn_host_pairing_state &state) = 0; // anew with each PIN
    virtual void pairing_closed() = 0;
    virtual void window_stays_closed() = 0; // only a person opens one
    virtual void
    guessed(const std::string &sources) = 0; // the window was closed on guessers at these addresses
    virtual void forgets_guessers(const std::string &why) = 0; // and a restart won't know
    virtual void paired(const conn_event &event) = 0;
    virtual void stranger(const uint8_t key[32]) = 0; // a device asked to be let in that nobody knows

    virtual void registered(const std::string &server, const std::string &seen, uint32_t rtt_us) = 0;
};

} // namespace app
