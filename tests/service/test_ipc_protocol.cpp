// The local channels' messages: what is a request, a reply, a settings record, byte for byte, and that a refusal
// leaves the outputs alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>

#include "ipc_protocol.h"

using namespace host_service;

namespace {

using bytes = std::vector<uint8_t>;

bytes of(const std::string &text) { return bytes(text.begin(), text.end()); }

// A frame of any verb and length, right or wrong, built without the code under test.
bytes raw(unsigned verb, const bytes &payload, size_t length) {
    bytes out = {'T', 'G', 'I', 'P', 1, 0};
    for (size_t v : {size_t{verb}, size_t{verb} >> 8, length, length >> 8, length >> 16, length >> 24})
        out.push_back(static_cast<uint8_t>(v));
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}
bytes raw(unsigned verb, const bytes &payload) { return raw(verb, payload, payload.size()); }

// Decodes a copy of exactly that size, for the address sanitizer; a refusal must not touch the output.
bool decodes(const bytes &frame, Request *out = nullptr) {
    Request sentinel = {Verb::remove_client, {7}};
    Request &into = out ? *out : sentinel;
    const bool taken = decode_request(bytes(frame).data(), frame.size(), &into);
    EXPECT_TRUE(taken || out || (sentinel.verb == Verb::remove_client && sentinel.payload == bytes{7}));
    return taken;
}

const bytes settings_wire = {0x94, 0x26, 60, 0, 0x20, 0x4E, 0, 0,
                             1,    1,    1,  1, 0x78, 0x05, 0, 0}; // the defaults

// A valid request goes both ways and is refused with any byte of its header wrong, or cut, or followed by one more.
void expect_valid(unsigned verb, const bytes &payload) {
    bytes frame = raw(verb, payload);
    Request back;
    const bytes made = encode_request({static_cast<Verb>(verb), payload});
    EXPECT_TRUE(valid_request({static_cast<Verb>(verb), payload}) && made == frame);
    EXPECT_EQ(made.capacity(), frame.size()) << "memory that grew would leave a copy of a secret behind";
    EXPECT_TRUE(decodes(frame, &back) && back.verb == static_cast<Verb>(verb) && back.payload == payload);
    for (size_t at = 0; at < 6; at++) { // magic and version
        bytes wrong = frame;
        wrong[at] ^= 1;
        EXPECT_FALSE(decodes(wrong)) << at;
    }
    EXPECT_FALSE(decodes(raw(verb, payload, payload.size() + 0x10000)));
    for (size_t size = 0; size < std::min<size_t>(frame.size(), 40); size++)
        EXPECT_FALSE(decodes(bytes(frame.begin(), frame.begin() + static_cast<ptrdiff_t>(size)))) << size;
    EXPECT_FALSE(decode_request(frame.data(), frame.size(), nullptr) || decode_request(nullptr, 12, &back));
    frame.push_back('x');
    EXPECT_FALSE(decodes(frame));
}

void expect_invalid(unsigned verb, const bytes &payload) {
    EXPECT_FALSE(valid_request({static_cast<Verb>(verb), payload}));
    EXPECT_TRUE(encode_request({static_cast<Verb>(verb), payload}).empty());
    EXPECT_FALSE(decodes(raw(verb, payload)));
}

TEST(IpcProtocol, RequestsByVerb) {
    const bytes none, short_settings(settings_wire.begin(), settings_wire.end() - 1);
    const struct {
        std::vector<unsigned> verbs;
        std::vector<bytes> valid, invalid;
    } rows[] = {
        {{1, 3, 5, 9, 10, 32, 33}, {none}, {{0}}},
        {{0, 11, 31, 34, 0x8001}, {}, {none}},
        {{2}, {{30, 0, 0, 0}, {44, 1, 0, 0}}, {{29, 0, 0, 0}, {45, 1, 0, 0}, {30, 0, 1, 0}, {30, 0, 0, 1}}},
        {{2}, {}, {none, {30, 0, 0}, {30, 0, 0, 0, 0}}},
        {{4}, {bytes(1, 'x'), bytes(256, 'x')}, {none, bytes(257, 'x'), {'a', 0, 'b'}, {'a', 0}, {0xFF}}},
        {{6}, {bytes(32)}, {none, bytes(31), bytes(33)}},
        {{7}, {bytes(1, 'x'), bytes(16384, 'x')}, {none, bytes(16385, 'x'), {0}, {0xC0, 0x80}}},
        {{8}, {settings_wire}, {none, short_settings, bytes(16)}}};
    for (const auto &row : rows) {
        for (const unsigned verb : row.verbs) {
            SCOPED_TRACE(verb);
            std::for_each(row.valid.begin(), row.valid.end(), std::bind_front(expect_valid, verb));
            std::for_each(row.invalid.begin(), row.invalid.end(), std::bind_front(expect_invalid, verb));
        }
    }
    EXPECT_EQ(Request().verb, Verb::status);
}

TEST(IpcProtocol, Utf8) {
    const struct {
        bool valid;
        std::string texts; // by spaces
    } rows[] = {{true, "\x01\x7F \xC2\x80\xDF\xBF \xE0\xA0\x80\xED\x9F\xBF \xEE\x80\x80\xEF\xBF\xBF "
                       "\xF0\x90\x80\x80\xF4\x8F\xBF\xBFz"},
                {false, "\x80 \xC1\xBF \xC2 \xC2\x7F \xC2\xC0 \xE0\x9F\xBF \xE1\x80 \xE1\x80z \xED\xA0\x80 "
                        "\xED\xBF\xBF \xF0\x8F\xBF\xBF \xF1\x80\x80 \xF1\x80\x80z \xF4\x90\x80\x80 "
                        "\xF5\x80\x80\x80 \xFF ok\xBF"}};
    for (const auto &row : rows) {
        std::istringstream in(row.texts);
        for (std::string text; in >> text;) {
            Request request = {Verb::set_password, of(text + "\x80")};
            request.payload.pop_back(); // what lies behind the end doesn't count
            EXPECT_EQ(valid_request(request), row.valid) << testing::PrintToString(of(text));
        }
    }
}

TEST(IpcProtocol, Settings) {
    EXPECT_EQ(encode_settings(Settings()), settings_wire);
    const struct {
        size_t at, size;
        uint32_t least, most;
    } fields[] = {{0, 2, 1, 65535}, {2, 2, 1, 240}, {4, 4, 500, 500000}, {8, 1, 1, 2}, {9, 1, 0, 1},
                  {10, 1, 0, 2},    {11, 1, 0, 1},  {12, 2, 512, 1400},  {14, 2, 0, 0}};
    for (const auto &field : fields) {
        for (const uint32_t value : {field.least - 1, field.least, field.most, field.most + 1}) {
            if (field.size < 4 && value >> 8 * field.size) continue; // the field can't hold it
            bytes wire = settings_wire;
            for (size_t i = 0; i < field.size; i++)
                wire[field.at + i] = static_cast<uint8_t>(value >> 8 * i);
            const bool valid = value >= field.least && value <= field.most;
            Settings read = {1};
            EXPECT_EQ(decode_settings(wire, &read), valid) << field.at << ": " << value;
            EXPECT_EQ(valid ? encode_settings(read) : bytes{1}, valid ? wire : bytes{1});
            EXPECT_TRUE(valid || read.port == 1);
        }
    }
    const Settings bad[] = {{0}, {1, 241}, {1, 60, 499}, {1, 60, 500, 3}};
    for (const Settings &settings : bad)
        EXPECT_TRUE(encode_settings(settings).empty());
    Settings any;
    bytes longer = settings_wire;
    longer.push_back(0);
    EXPECT_FALSE(decode_settings(settings_wire, nullptr) || decode_settings(longer, &any));
}

TEST(IpcProtocol, Replies) {
    const std::string text("no\0\xFF", 4); // any bytes
    const bytes denied = {2, 0, 0, 0, 'n', 'o', 0, 0xFF}, zeros(4);
    bytes longest(16384, 'x');
    std::copy_n(bytes{5, 0, 0, 0}.begin(), 4, longest.begin());
    EXPECT_EQ(encode_response(Verb::secure_attention, Status::denied, text), raw(0x8021, denied));
    EXPECT_EQ(encode_response(Verb::status, Status::failed, std::string(16380, 'x')), raw(0x8001, longest));
    EXPECT_TRUE(encode_response(Verb::status, Status::ok, std::string(16381, 'x')).empty());

    Status status = Status::ok;
    std::string out;
    const auto decode = [&](const bytes &frame) {
        return decode_response(frame.data(), frame.size(), Verb::pairing_open, &status, &out);
    };
    const bytes good = raw(0x8002, denied);
    EXPECT_TRUE(decode(good) && status == Status::denied && out == text);
    EXPECT_TRUE(decode(raw(0x8002, {4, 0, 0, 0})) && status == Status::status_code_4 && out.empty());
    EXPECT_TRUE(decode(raw(0x8002, longest)) && status == Status::failed && out.size() == 16380);
    bytes more = good, less = good, other = good, old = good;
    more.push_back(0), less.pop_back(), other[0] = 't', old[4] = 2;
    const std::vector<bytes> refused = {more, less, other, old, raw(2, denied), raw(0x8001, denied), bytes()};
    EXPECT_TRUE(std::none_of(refused.begin(), refused.end(), decode));
    EXPECT_FALSE(decode(raw(0x8002, bytes(16385))) || decode(raw(0x8002, {6, 0, 0, 0})));
    EXPECT_FALSE(decode(raw(0x8002, {0, 0, 0, 1})));
    EXPECT_FALSE(decode_response(raw(0x8002, zeros, 3).data(), 15, Verb::pairing_open, &status, &out));
    EXPECT_FALSE(decode_response(nullptr, 12, Verb::pairing_open, &status, &out));
    EXPECT_FALSE(decode_response(good.data(), good.size(), Verb::pairing_open, nullptr, &out) ||
                 decode_response(good.data(), good.size(), Verb::pairing_open, &status, nullptr));
    EXPECT_TRUE(status == Status::failed && out.size() == 16380) << "as the last good one left them";
}

TEST(IpcProtocol, HeaderAlone) {
    uint16_t verb = 0;
    uint32_t length = 0;
    const bytes over = raw(0xABCD, {}, 16385), fits = raw(7, {}, 16384);
    const uint8_t *data = over.data();
    EXPECT_FALSE(decode_header(data, 11, &verb, &length) || decode_header(nullptr, 12, &verb, &length));
    EXPECT_FALSE(decode_header(data, 12, nullptr, &length) || decode_header(data, 12, &verb, nullptr));
    EXPECT_TRUE(verb == 0 && length == 0);
    EXPECT_FALSE(decode_header(data, 12, &verb, &length));
    EXPECT_TRUE(verb == 0xABCD && length == 16385) << "too long, but told";
    EXPECT_TRUE(decode_header(fits.data(), 12, &verb, &length) && verb == 7 && length == 16384);
}

} // namespace
