// Text in and out of the example programs: errors, keys, endpoints, lines for the person who watches.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include <tarnglider/conn_addr.h>

namespace app {

// A command line that can't be meant: exit code 2. Every other exception is exit code 1.
struct usage_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

using public_key = std::array<uint8_t, 32>;

// Reads 64 hexadecimal digits; throws usage_error. `what` names the key in the message.
public_key parse_key(const std::string &text, const char *what);
std::string key_text(const uint8_t key[32]);
std::string key_code(const uint8_t key[32]);

// Is `text` the key code of this key, in any form that a person may type?
bool same_key_code(const uint8_t key[32], const std::string &text);

// Unix seconds as "2026-01-31 12:00" in UTC; "-" for 0.
std::string time_text(uint64_t seconds);

std::string addr_text(const tarn_addr &addr);

// File names are UTF-8 wherever they are text.
std::string utf8(const std::filesystem::path &path);
std::filesystem::path path_from_utf8(const std::string &text);
std::optional<std::filesystem::path> optional_path(const std::string &text); // none for an empty text

// printf into a string.
[[gnu::format(printf, 1, 2)]] std::string format(const char *pattern, ...);

// One line to standard error, at once.
void say(const std::string &line);

} // namespace app
