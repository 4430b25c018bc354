// The commands of tarn-host that look after its folder. Each prints its result and throws std::runtime_error.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "common/directory.h"

namespace app {

void allow_client(const directory &store, const std::string &key, const std::string &name);
void list_clients(const directory &store, bool json);

// `which`: a key, a key code or a name that only one client has.
void remove_client(const directory &store, const std::string &which);

// Takes the password from `file`, the environment's TARN_PASSWORD, the terminal or standard input.
void set_password(const directory &store, const std::optional<std::filesystem::path> &file);
void clear_password(const directory &store);

} // namespace app
