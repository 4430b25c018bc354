// Bytes for codec tests: hexadecimal text to bytes and back. A vector made here has no spare capacity, so that the
// address sanitizer sees a read past its end.
#ifndef TEST_HEX_BYTES_H
#define TEST_HEX_BYTES_H

#include <stdint.h>

#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;

inline bytes unhex(const std::string &text) {
    bytes out(text.size() / 2);
    for (size_t i = 0; i < out.size(); i++) {
        out[i] = static_cast<uint8_t>(std::stoi(text.substr(2 * i, 2), nullptr, 16));
    }
    return out;
}

inline std::string hex(const uint8_t *data, size_t size) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < size; i++) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}

inline std::string hex(const bytes &b) { return hex(b.data(), b.size()); }

// The first `size` bytes, in a block of exactly that size.
inline bytes prefix(const bytes &b, size_t size) { return bytes(b.data(), b.data() + size); }

#endif
