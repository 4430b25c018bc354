// The small texts of the store, the password's line and the host id, from outside: each verdict must be that of a second
// reading, which takes the text apart another way.
#include <stdint.h>
#include <stdlib.h>

#include <locale>
#include <sstream>
#include <string>
#include <vector>

#include "keystore_text.h"

static void check(bool holds) {
    if (!holds) abort();
}

static bool hex(const std::string &field) {
    return field.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

// The number that the digits make, 0 if it has none of 1 to limit or anything but digits.
static uint64_t number(std::string digits, uint64_t limit) {
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) return 0;
    digits.erase(0, digits.find_first_not_of('0'));
    const uint64_t value = digits.empty() || digits.size() > 10 ? 0 : std::stoull(digits);
    return value <= limit ? value : 0;
}

static void password(const std::string &text) {
    std::istringstream in(text);
    in.imbue(std::locale::classic());
    std::vector<std::string> fields;
    for (std::string field; in >> field;)
        fields.push_back(field);
    const bool good = fields.size() == 5 && fields[0] == "tarnglider-pw1" && fields[1].size() == 32 &&
                      hex(fields[1]) && number(fields[2], 1048576) >= 8 && number(fields[3], 16) >= 1 &&
                      fields[4].size() == 64 && hex(fields[4]);
    check(keystore::valid_password_line(text) == good);
}

static void host_id(std::string text, const char *trailing) {
    const uint32_t id = keystore::parse_host_id(text, trailing);
    check(keystore::parse_host_id(text + trailing, trailing) == id);
    while (!text.empty() && std::string(trailing).find(text.back()) != std::string::npos)
        text.pop_back();
    text.erase(0, text.find_first_not_of(" \t\n\v\f\r"));
    check(number(text, UINT32_MAX) == id);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(data, data + size);
    password(text);
    host_id(text, "\r\n");
    host_id(text, " \r\n");
    return 0;
}
