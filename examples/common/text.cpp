// Text in and out of the example programs.
#include "common/text.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <iterator>

#include <tarnglider/secure.h>

namespace app {

public_key parse_key(const std::string &text, const char *what) {
    public_key key{};
    if (tarn_hex_decode(key.data(), key.size(), text.c_str()) != 0)
        throw usage_error(
            format("%s \"%s\" is not a key: 64 hexadecimal digits, as the command key prints them", what,
                   text.c_str()));
    return key;
}

std::string key_text(const uint8_t key[32]) {
    char text[65];
    tarn_hex_encode(text, key, 32);
    return text;
}

std::string key_code(const uint8_t key[32]) {
    char text[TARN_KEY_CODE_TEXT];
    tarn_key_code(text, key);
    return text;
}

bool same_key_code(const uint8_t key[32], const std::string &text) {
    uint8_t wanted[TARN_KEY_CODE_BYTES];
    uint8_t id[TARN_KEY_ID_SIZE];
    if (tarn_key_code_parse(wanted, text.c_str()) != 0) return false;
    tarn_key_id(id, key);
    return std::equal(std::begin(wanted), std::end(wanted), id);
}

std::string time_text(uint64_t seconds) {
    if (seconds == 0) return "-";
    using namespace std::chrono;
    const sys_seconds time{std::chrono::seconds(static_cast<int64_t>(seconds))};
    const sys_days day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    return format("%04d-%02u-%02u %02d:%02d", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()));
}

std::string addr_text(const tarn_addr &addr) {
    char text[64];
    tarn_addr_format(text, sizeof text, &addr);
    return text;
}

std::string utf8(const std::filesystem::path &path) {
    const std::u8string text = path.u8string();
    return std::string(text.begin(), text.end());
}

std::filesystem::path path_from_utf8(const std::string &text) {
    return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

std::optional<std::filesystem::path> optional_path(const std::string &text) {
    if (text.empty()) return std::nullopt;
    return path_from_utf8(text);
}

std::string format(const char *pattern, ...) {
    va_list args;
    va_start(args, pattern);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, pattern, args);
    va_end(args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, pattern, again);
    va_end(again);
    return text;
}

void say(const std::string &line) {
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
}

} // namespace app
