// What tarnctl understands and what it says, apart from Windows: settings, clients and relay lists as an administrator
// gives them, checked before anything is sent; and the service's answers in plain words. Pure functions; those that
// check throw usage_error or std::runtime_error with a sentence.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <ipc_protocol.h>
#include <tarnglider/conn_lists.h>

#include "common/text.h"

namespace app {

// Text from outside, safe to print: control characters, those that turn the direction of writing and bytes that are no
// UTF-8 come out as \n, \t, \r or \xNN.
std::string printable(std::string_view text);

// Puts each "NAME=VALUE" into the record. Throws usage_error, with the record unchanged, for an unknown name, one that
// comes twice, or a value that is no plain number in its range. Returns whether all eight were named.
bool assign_settings(host_service::Settings &settings, const std::vector<std::string> &assignments);

// A line for each setting, with its range and default, for --help.
std::string settings_help();

// The key that KEY-OR-CODE means: a key's 64 hexadecimal digits as they stand; a key code by the list of paired clients,
// null if that can't be read.
public_key find_client(const std::string &which, const tarn_client_list *clients);

// Why the service or its worker wouldn't take this list of relay servers, empty if they would. It names the line, but shows
// no link, since links hold keys.
std::string relays_fault(std::string_view text);

// An answer of the service as lines for a person. Anything but ok comes with what it means and what to do.
std::string answer_text(host_service::Verb verb, const host_service::Response &response);

// "ok", "denied", ... for scripts.
const char *status_name(host_service::Status status);

} // namespace app
