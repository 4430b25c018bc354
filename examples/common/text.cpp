// Text in and out of the example programs.
#include "common/text.h"

#include <cstdarg>
#include <cstdio>

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
