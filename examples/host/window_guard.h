// Says when a pairing window has to close: a guesser may try some nine PINs a second for as long as it stands open, and
// the engine replaces a PIN after ten wrong ones but never closes the window by itself. So five replaced PINs are the
// end: fifty attempts at a million PINs, and a person looks. No clock, no engine.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <tarnglider/conn_addr.h>

namespace app {

class window_guard {
public:
    static constexpr int replaced_pins_max = 5;

    // A window opens: all counts begin again.
    void opened();

    // A PIN attempt from this address failed.
    void failed(const tarn_addr &from);

    // The PIN was replaced. True if that was the last one: the window has to close.
    bool pin_replaced();

    // "192.0.2.1 (48), 192.0.2.7 (2)": the addresses of the failed attempts, the busiest first, and how many of each.
    std::string sources() const;

private:
    // More addresses than can be told are counted together.
    static constexpr size_t sources_max = 8;
    struct source {
        tarn_addr addr; // its port 0: a guesser has many
        uint64_t attempts;
    };

    int replaced_ = 0;
    uint64_t others_ = 0;
    std::vector<source> sources_;
};

} // namespace app
