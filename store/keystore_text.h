// Readers of the store's small texts: pure functions over any bytes, without a locale. Numbers are plain decimal digits,
// whole and in their range: no sign, no wrap. White space is what C takes for it: blank, tab, line feed, vertical tab,
// form feed, carriage return.
#ifndef KEYSTORE_TEXT_H
#define KEYSTORE_TEXT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace keystore {

inline bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
inline bool is_digit(char c) { return c >= '0' && c <= '9'; }
inline bool is_hex(char c) { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// Takes the next field off the text; empty at its end.
inline std::string_view next_field(std::string_view &text) {
    const auto start = std::find_if_not(text.begin(), text.end(), is_space);
    const auto end = std::find_if(start, text.end(), is_space);
    const std::string_view field(start, end);
    text = std::string_view(end, text.end());
    return field;
}

inline bool hex_field(std::string_view field, size_t digits) {
    return field.size() == digits && std::all_of(field.begin(), field.end(), is_hex);
}

// *value is set if the field is a number from low to high.
inline bool number_field(std::string_view field, uint32_t low, uint32_t high, uint32_t *value) {
    if (field.empty() || !std::all_of(field.begin(), field.end(), is_digit)) {
        return false;
    }
    uint64_t sum = 0;
    for (const char digit : field) {
        sum = sum * 10 + static_cast<uint64_t>(digit - '0');
        if (sum > high) { // before the next digit, so that the sum stays far below 2^64
            return false;
        }
    }
    if (sum < low) {
        return false;
    }
    *value = static_cast<uint32_t>(sum);
    return true;
}

// The line of the pairing password: five fields with white space between them, and perhaps around them. They are the
// tag, 16 bytes of salt, the number of blocks, the number of passes, and 32 bytes of key.
inline bool valid_password_line(std::string_view text) {
    uint32_t blocks = 0;
    uint32_t passes = 0;
    return next_field(text) == "tarnglider-pw1" && hex_field(next_field(text), 32) &&
           number_field(next_field(text), 8, 1048576, &blocks) &&
           number_field(next_field(text), 1, 16, &passes) && hex_field(next_field(text), 64) &&
           next_field(text).empty();
}

// A host id, from 1 to 4294967295; 0 for anything else. White space may stand before it, and behind it, up to the very
// end, the characters in `trailing`.
inline uint32_t parse_host_id(std::string_view text, std::string_view trailing) {
    text = text.substr(0, text.find_last_not_of(trailing) + 1); // nothing found is the largest number, so 0
    uint32_t id = 0;
    return number_field({std::find_if_not(text.begin(), text.end(), is_space), text.end()}, 1, UINT32_MAX,
                        &id)
               ? id
               : 0;
}

} // namespace keystore

#endif
