// What the example programs need of the operating system beyond the standard library. One file implements it for
// each system: platform_posix.cpp, platform_win32.cpp.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace app {

// Turns Ctrl+C (and SIGTERM where there is such a thing) into a flag that the main loop looks at. Called when nothing
// but that loop can wait any more.
void catch_stop_signals();
bool stop_requested();

// The command line behind the program's name, in UTF-8.
std::vector<std::string> utf8_arguments(int argc, char **argv);

// Where a program keeps its files unless it is told otherwise: a folder of its own below the user's settings.
// Throws if the environment doesn't say where those are.
std::filesystem::path default_directory(const char *role);

// Makes a folder, and those above it, for its owner alone; one that exists is left as it is. Throws.
void make_private_directory(const std::filesystem::path &path);

// Creates a file that only its owner may read, with this content on the disk when it returns; refuses to touch one
// that exists. Throws, leaving no file behind.
void create_private_file(const std::filesystem::path &path, std::string_view content);

// This machine's name, to show to others; empty if the system doesn't tell.
std::string machine_name();

// A variable of the environment, in UTF-8.
std::optional<std::string> environment(const char *name);

// Asks on the terminal and reads a line that isn't shown, into `line`, whose memory doesn't move if it has room for
// 1023 bytes. False if standard input is no terminal. Throws if it ends or the program is asked to stop.
bool ask_hidden(const std::string &prompt, std::string &line);

// Throws if others than its owner may read the file.
void require_private_file(const std::filesystem::path &path);

} // namespace app
