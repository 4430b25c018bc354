// The worker's voice: lines of its log, and what its status tells of guessers. Any thread. No PIN gets into the log.
#pragma once

#include <mutex>

#include "host/host_voice.h"

namespace app {

class worker_voice : public host_voice {
public:
    void note(const std::string &line) override;
    void listening(uint16_t port, const uint8_t key[32]) override;
    void ended(const serve_totals &totals) override;
    void pairing_open(const tarn_host_pairing_state &state) override;
    void pairing_closed() override;
    void window_stays_closed() override;
    void guessed(const std::string &sources) override;
    void forgets_guessers(const std::string &why) override;
    void paired(const conn_event &event) override;
    void stranger(const uint8_t key[32]) override;
    void registered(const std::string &server, const std::string &seen, uint32_t rtt_us) override;

    // The addresses of those on whom the last window was closed; empty if it wasn't.
    std::string guessers() const;

private:
    mutable std::mutex lock_;
    std::string guessers_;
};

} // namespace app
