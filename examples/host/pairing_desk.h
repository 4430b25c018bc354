// The pairing of a running host: its window and the guard of it, what a person is told, and the list of clients, which
// "allow" and "remove" may change on the disk meanwhile. One thread.
//
//   closed       by time, by success, or never opened
//   open         with a deadline after --pair, without one on a host that has no clients
//   shut         the guard closed it; a file says so, and only --pair opens one again
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <tarnglider/conn_host.h>

#include "common/directory.h"
#include "host/window_guard.h"

namespace app {

class pairing_desk {
public:
    using note_sink = std::function<void(const std::string &line)>;

    // The engine and the folder outlive the desk.
    pairing_desk(tarn_host *engine, const directory &store, bool json, note_sink note);

    // At the start. `seconds`: of a window that a person asked for.
    void open(std::optional<uint32_t> seconds);

    void event(const conn_event &event);

    // Takes over what changed in the list of clients on the disk; to be called about once a second.
    void follow_list();

private:
    void announce() const;
    void guard(const conn_event &event);
    void shut();
    void paired(const conn_event &event);

    tarn_host *engine_;
    const directory &store_;
    bool json_;
    note_sink note_;
    window_guard guard_;
    std::optional<std::filesystem::file_time_type> list_time_;
};

} // namespace app
