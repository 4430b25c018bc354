// The machine's protected store, as the host behind the worker sees it. configureHostStore has passed before one is made.
// A load that meets damage, and a save that fails, throw and leave the store failed for the rest of the process: the
// worker then leaves, and what the next one finds decides. Any thread, but saves one at a time: the pairing desk saves
// the clients, the request thread everything else.
#pragma once

#include <ipc_protocol.h>

#include "host/host_store.h"

namespace app {

class machine_store : public host_store {
public:
    void load_identity(identity &out) override;
    void relays(relay_list &out) override;
    void password(secret_text &line) override;
    tarn_client_list clients() override;
    void save(const tarn_client_list &list) override;

    // Nobody else writes the list: an administrator's commands come through this very worker.
    bool clients_changed() override { return false; }

    // A machine that nobody sits at opens no window by itself, neither on its first run nor after a restart; each one
    // is an administrator's. So there is nothing to remember of guessers.
    bool window_closed() override { return true; }
    void set_window_closed(bool) override {}

    void save_relays(const relay_list &list);
    void save_password(const secret_text &line);
    void clear_password();

    // The defaults if nothing is stored.
    host_service::Settings settings();
    void save(const host_service::Settings &settings);
};

} // namespace app
