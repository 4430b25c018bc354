// The administrator's commands, as the service passes them on: each is carried out on the running host and saved in the
// store before it is answered. The service has checked who asks and that the request is well formed; what it would
// refuse at its next start is checked here before it is saved. One thread, the link's.
#pragma once

#include <cstdint>

#include <ipc_protocol.h>

#include "host/host_server.h"
#include "worker/machine_store.h"
#include "worker/worker_voice.h"

namespace app {

// The two results that the service leaves to a worker.
constexpr host_service::Status no_such_client = host_service::Status::status_code_1;
constexpr host_service::Status not_acceptable = host_service::Status::status_code_4;

class worker_admin {
public:
    // All outlive this.
    worker_admin(host_server &server, machine_store &store, const worker_voice &voice,
                 const host_service::Settings &settings)
        : server_(server), store_(store), voice_(voice), settings_(settings) {}

    // Answers in a sentence. Never throws: a failure is an answer, too.
    host_service::Response act(const host_service::Request &request);

private:
    host_service::Response carry_out(const host_service::Request &request);
    host_service::Response status() const;
    host_service::Response open_pairing(uint32_t seconds);
    host_service::Response set_password(const std::vector<uint8_t> &bytes);
    host_service::Response clear_password();
    host_service::Response remove_client(const uint8_t key[32]);
    host_service::Response set_relays(const std::vector<uint8_t> &text);
    host_service::Response set_settings(const std::vector<uint8_t> &record);
    std::string pairing_text() const;
    std::string servers_text() const;
    std::string clients_text() const;

    host_server &server_;
    machine_store &store_;
    const worker_voice &voice_;
    const host_service::Settings &settings_;
};

} // namespace app
