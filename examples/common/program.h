// What the example programs do alike around their commands.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <nlohmann/json_fwd.hpp>

#include "common/directory.h"

namespace app {

// Reads the command line into `program`, then runs `command`, which returns the exit code. --help prints the manual.
// Whatever goes wrong becomes one line on standard error, and the exit code 2 for a wrong command line, else 1.
int run_program(CLI::App &program, int argc, char **argv, const std::function<int()> &command);

// One JSON object a line on standard output, at once.
void print_json(const nlohmann::ordered_json &object);

// The command "key" of both programs.
int print_key(const directory &store, bool json);

} // namespace app
