// The commands of tarnctl that ask the service. Each sends one request, prints the answer and returns the exit code: 0 only
// for ok. What can't be meant, or can't be read, throws usage_error or std::runtime_error before anything is sent.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <ipc_protocol.h>

namespace app {

// A verb without a payload.
int ask(host_service::Verb verb, bool json);

int open_pairing(uint32_t seconds, bool json);
int set_password(bool json);
int remove_client(const std::string &which, bool json);
int set_settings(const std::vector<std::string> &assignments, bool json);

// `file`: its name, or "-" for standard input.
int set_relays(const std::string &file, bool json);

// Asks each server of the list, without the service. 0 only if all answer.
int try_relays(const std::string &file, bool json);

} // namespace app
