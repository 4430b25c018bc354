// Frames of the local channels and settings records from outside: what is taken must encode to the same bytes, and
// what is refused must leave the outputs alone.
#include <stdlib.h>

#include <algorithm>

#include "ipc_protocol.h"

using namespace host_service;

static void check(bool holds) {
    if (!holds) abort();
}

static bool same(const std::vector<uint8_t> &bytes, const uint8_t *data, size_t size) {
    return std::equal(bytes.begin(), bytes.end(), data, data + size);
}

static void header(const uint8_t *data, size_t size) {
    uint16_t verb = 0xA5A5;
    uint32_t length = 0xA5A5A5A5;
    const bool taken = decode_header(data, size, &verb, &length);
    const bool told = size >= 12 && std::equal(data, data + 6, "TGIP\1\0");
    check(taken == (told && length <= 16384));
    check(told ? verb == (data[6] | data[7] << 8) && length == read_u32(data + 8)
               : verb == 0xA5A5 && length == 0xA5A5A5A5);
}

static void request(const uint8_t *data, size_t size) {
    Request out = {Verb::remove_client, {7}};
    if (decode_request(data, size, &out)) {
        check(valid_request(out) && same(encode_request(out), data, size));
    } else {
        check(out.verb == Verb::remove_client && out.payload == std::vector<uint8_t>{7});
    }
}

static void response(const uint8_t *data, size_t size) {
    const Verb verb = static_cast<Verb>(size < 8 ? 1 : data[6] | (data[7] & 0x7F) << 8);
    Status status = Status::denied;
    std::string text = "before";
    if (decode_response(data, size, verb, &status, &text)) {
        check(status <= Status::failed && same(encode_response(verb, status, text), data, size));
    } else {
        check(status == Status::denied && text == "before");
    }
}

static void settings(const uint8_t *data, size_t size) {
    Settings out = {1};
    if (decode_settings({data, size}, &out)) {
        check(same(encode_settings(out), data, size));
    } else {
        check(out.port == 1 && out.bitrate_kbps == Settings().bitrate_kbps);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    header(data, size);
    request(data, size);
    response(data, size);
    settings(data, size);
    return 0;
}
