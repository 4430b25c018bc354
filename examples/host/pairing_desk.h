// The pairing of a running host: its window and the guard of it, what a person is told, and the list of clients, which
// others may change in the store meanwhile. Any thread: one lock, taken before the engine's.
//
//   closed       by time, by success, by a person, or never opened
//   open         with a deadline where a person opened it, without one on a host that has no clients
//   shut         the guard closed it; the store knows, and only a person opens one again
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include <tarnglider/conn_host.h>

#include "host/host_store.h"
#include "host/host_voice.h"
#include "host/window_guard.h"

namespace app {

class pairing_desk {
public:
    // All three outlive the desk.
    pairing_desk(tarn_host *engine, host_store &store, host_voice &voice);

    // At the start: a host that knows no client has a window open, unless only a person may open one.
    void begin();

    // A person opens a window, or closes it.
    void open(uint32_t seconds);
    void close();

    // Lets a client in no longer; false if it wasn't. Throws if the store doesn't take that, with nothing changed.
    bool remove(const uint8_t key[32]);

    void event(const conn_event &event);

    // Takes over what others changed in the list of clients; to be called about once a second.
    void follow_list();

private:
    void announce() const;
    void guard(const conn_event &event);
    void shut();
    void paired(const conn_event &event);

    std::mutex lock_;
    tarn_host *engine_;
    host_store &store_;
    host_voice &voice_;
    window_guard guard_;
};

} // namespace app
