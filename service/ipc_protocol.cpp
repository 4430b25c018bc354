// Framing, parsing and validation of the local channels' messages. Every reader checks the whole of its input before it
// writes an output, and no sum is formed from a length before that length has passed its limit.
#include "ipc_protocol.h"

#include <algorithm>
#include <utility>

namespace host_service {
namespace {

using byte_span = std::span<const uint8_t>;

constexpr uint8_t magic[4] = {'T', 'G', 'I', 'P'};
constexpr uint16_t version = 1;

uint16_t read_u16(const uint8_t *bytes) { return static_cast<uint16_t>(bytes[0] | bytes[1] << 8); }

void put_u16(std::vector<uint8_t> &out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

void put_u32(std::vector<uint8_t> &out, uint32_t value) {
    put_u16(out, static_cast<uint16_t>(value));
    put_u16(out, static_cast<uint16_t>(value >> 16));
}

// Strict UTF-8 without a NUL: these texts go on to functions that take terminated strings.
bool utf8(byte_span bytes) {
    // By the number of continuation bytes: the least value that needs so many; below it the form is overlong.
    constexpr uint32_t least[] = {0x01, 0x80, 0x800, 0x10000};
    size_t at = 0;
    while (at < bytes.size()) {
        const uint8_t lead = bytes[at++];
        const size_t more = lead < 0x80 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
        // 0x80 to 0xC1 are continuation bytes or leads of overlong forms; 0xF5 and above exceed any character.
        if ((lead >= 0x80 && lead < 0xC2) || lead > 0xF4 || bytes.size() - at < more) {
            return false;
        }
        uint32_t value = more == 0 ? lead : lead & (0x3Fu >> more);
        for (const uint8_t next : bytes.subspan(at, more)) {
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            value = value << 6 | (next & 0x3F);
        }
        at += more;
        if (value < least[more] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
            return false;
        }
    }
    return true;
}

bool pairing_window(byte_span bytes) {
    const uint32_t seconds = read_u32(bytes.data());
    return seconds >= 30 && seconds <= 300;
}

bool settings_record(byte_span bytes) {
    Settings scratch;
    return decode_settings(bytes, &scratch);
}

// What a request's payload must be: its size, and what its bytes must say where that matters.
struct payload_rule {
    Verb verb;
    size_t least;
    size_t most;
    bool (*holds)(byte_span);
};
constexpr payload_rule payload_rules[] = {
    {Verb::status, 0, 0, nullptr},
    {Verb::pairing_open, 4, 4, pairing_window},
    {Verb::pairing_close, 0, 0, nullptr},
    {Verb::set_password, 1, 256, utf8},
    {Verb::clear_password, 0, 0, nullptr},
    {Verb::remove_client, 32, 32, nullptr},
    {Verb::set_relays, 1, max_payload, utf8},
    {Verb::set_settings, settings_size, settings_size, settings_record},
    {Verb::restart_worker, 0, 0, nullptr},
    {Verb::stop_worker, 0, 0, nullptr},
    {Verb::worker_ack, 0, 0, nullptr},
    {Verb::secure_attention, 0, 0, nullptr},
};

// Empty for a payload that no frame can hold. The memory is taken once, so that no copy of a secret is left behind by
// a vector that grew.
std::vector<uint8_t> frame(uint16_t verb, byte_span payload) {
    std::vector<uint8_t> out;
    if (payload.size() > max_payload) {
        return out;
    }
    out.reserve(header_size + payload.size());
    out.assign(std::begin(magic), std::end(magic));
    put_u16(out, version);
    put_u16(out, verb);
    put_u32(out, static_cast<uint32_t>(payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

} // namespace

uint32_t read_u32(const uint8_t *bytes) {
    return static_cast<uint32_t>(read_u16(bytes)) | static_cast<uint32_t>(read_u16(bytes + 2)) << 16;
}

bool decode_header(const uint8_t *data, size_t size, uint16_t *verb, uint32_t *length) {
    if (data == nullptr || size < header_size || verb == nullptr || length == nullptr) {
        return false;
    }
    if (!std::equal(std::begin(magic), std::end(magic), data) || read_u16(data + 4) != version) {
        return false;
    }
    *verb = read_u16(data + 6);
    *length = read_u32(data + 8);
    return *length <= max_payload;
}

bool decode_settings(byte_span bytes, Settings *settings) {
    if (settings == nullptr || bytes.size() != settings_size) {
        return false;
    }
    Settings read;
    read.port = read_u16(&bytes[0]);
    read.frame_rate = read_u16(&bytes[2]);
    read.bitrate_kbps = read_u32(&bytes[4]);
    read.mode = bytes[8];
    read.flag_a = bytes[9];
    read.level = bytes[10];
    read.flag_b = bytes[11];
    read.packet_size = read_u16(&bytes[12]);
    const uint16_t reserved = read_u16(&bytes[14]);

    // One row per field, in wire order: the value read, the least and the most allowed.
    const struct {
        uint32_t value, least, most;
    } rows[] = {
        {read.port, 1, 65535}, {read.frame_rate, 1, 240},     {read.bitrate_kbps, 500, 500000},
        {read.mode, 1, 2},     {read.flag_a, 0, 1},           {read.level, 0, 2},
        {read.flag_b, 0, 1},   {read.packet_size, 512, 1400}, {reserved, 0, 0},
    };
    for (const auto &row : rows) {
        if (row.value < row.least || row.value > row.most) {
            return false;
        }
    }
    *settings = read;
    return true;
}

std::vector<uint8_t> encode_settings(const Settings &settings) {
    std::vector<uint8_t> out;
    out.reserve(settings_size);
    put_u16(out, settings.port);
    put_u16(out, settings.frame_rate);
    put_u32(out, settings.bitrate_kbps);
    out.insert(out.end(), {settings.mode, settings.flag_a, settings.level, settings.flag_b});
    put_u16(out, settings.packet_size);
    put_u16(out, 0);
    if (!settings_record(out)) {
        out.clear();
    }
    return out;
}

bool valid_request(const Request &request) {
    const size_t size = request.payload.size();
    for (const payload_rule &rule : payload_rules) {
        if (rule.verb == request.verb) {
            return size >= rule.least && size <= rule.most &&
                   (rule.holds == nullptr || rule.holds(request.payload));
        }
    }
    return false;
}

bool decode_request(const uint8_t *data, size_t size, Request *request) {
    uint16_t verb = 0;
    uint32_t length = 0;
    if (request == nullptr || !decode_header(data, size, &verb, &length) || size - header_size != length) {
        return false;
    }
    Request read = {static_cast<Verb>(verb), {data + header_size, data + size}};
    if (!valid_request(read)) {
        return false;
    }
    *request = std::move(read);
    return true;
}

std::vector<uint8_t> encode_request(const Request &request) {
    if (!valid_request(request)) {
        return {};
    }
    return frame(static_cast<uint16_t>(request.verb), request.payload);
}

std::vector<uint8_t> encode_response(Verb verb, Status status, std::string_view text) {
    if (text.size() > max_reply_text) {
        return {};
    }
    std::vector<uint8_t> payload;
    payload.reserve(4 + text.size());
    put_u32(payload, static_cast<uint32_t>(status));
    payload.insert(payload.end(), text.begin(), text.end());
    return frame(static_cast<uint16_t>(verb) | response_flag, payload);
}

bool decode_response(const uint8_t *data, size_t size, Verb expected, Status *status, std::string *text) {
    uint16_t verb = 0;
    uint32_t length = 0;
    if (status == nullptr || text == nullptr || !decode_header(data, size, &verb, &length)) {
        return false;
    }
    if (length < 4 || verb != (static_cast<uint16_t>(expected) | response_flag) ||
        size - header_size != length) {
        return false;
    }
    const uint32_t code = read_u32(data + header_size);
    if (code > static_cast<uint32_t>(Status::failed)) {
        return false;
    }
    text->assign(data + header_size + 4, data + size);
    *status = static_cast<Status>(code);
    return true;
}

} // namespace host_service
