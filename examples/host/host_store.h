// What a running host remembers, wherever its program keeps it: tarn-host in a folder, the Windows worker in the
// machine's protected store. Functions throw std::runtime_error with a sentence for a person. The host calls those that
// change something under a lock of its own, one at a time.
#pragma once

#include <tarnglider/conn_lists.h>

#include "common/directory.h"

namespace app {

class host_store {
public:
    virtual ~host_store() = default;

    virtual void load_identity(identity &out) = 0;
    virtual void relays(relay_list &out) = 0;
    virtual void password(secret_text &line) = 0; // the stored form; empty if there is none

    virtual tarn_client_list clients() = 0;
    virtual void save(const tarn_client_list &list) = 0;
    // Whether somebody else changed the list of clients since this was last asked.
    virtual bool clients_changed() = 0;

    // Whether only a person may open a pairing window: guessers closed the last one, or that is this host's rule.
    virtual bool window_closed() = 0;
    virtual void set_window_closed(bool closed) = 0;
};

} // namespace app
