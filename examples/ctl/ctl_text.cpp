// What tarnctl understands and what it says.
#include "ctl/ctl_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

#include "common/directory.h"

namespace app {
namespace {

using host_service::Settings;
using host_service::Status;
using host_service::Verb;

// One row for each setting, in the order of the record.
struct setting {
    const char *name;
    uint32_t least;
    uint32_t most;
    uint32_t usual;
    void (*set)(Settings &settings, uint32_t value);
};
template <class Field>
constexpr Field field(uint32_t value) {
    return static_cast<Field>(value);
}
constexpr std::array<setting, 8> settings_table = {{
    {"port", 1, 65535, 9876, [](Settings &s, uint32_t v) { s.port = field<uint16_t>(v); }},
    {"frame_rate", 1, 240, 60, [](Settings &s, uint32_t v) { s.frame_rate = field<uint16_t>(v); }},
    {"bitrate_kbps", 500, 500000, 20000, [](Settings &s, uint32_t v) { s.bitrate_kbps = v; }},
    {"mode", 1, 2, 1, [](Settings &s, uint32_t v) { s.mode = field<uint8_t>(v); }},
    {"flag_a", 0, 1, 1, [](Settings &s, uint32_t v) { s.flag_a = field<uint8_t>(v); }},
    {"level", 0, 2, 1, [](Settings &s, uint32_t v) { s.level = field<uint8_t>(v); }},
    {"flag_b", 0, 1, 1, [](Settings &s, uint32_t v) { s.flag_b = field<uint8_t>(v); }},
    {"packet_size", 512, 1400, 1400, [](Settings &s, uint32_t v) { s.packet_size = field<uint16_t>(v); }},
}};

// Plain decimal digits and nothing else, within the range.
std::optional<uint32_t> number(std::string_view text, uint32_t least, uint32_t most) {
    uint32_t value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < least || value > most) return std::nullopt;
    return value;
}

// A whole UTF-8 character at the front of the text: its length, 0 for none, and its code point.
size_t utf8_character(std::string_view text, uint32_t &point) {
    const auto byte = [&](size_t i) { return static_cast<uint32_t>(static_cast<unsigned char>(text[i])); };
    const uint32_t lead = byte(0);
    const size_t length = lead < 0x80   ? 1
                          : lead < 0xC2 ? 0
                          : lead < 0xE0 ? 2
                          : lead < 0xF0 ? 3
                          : lead < 0xF5 ? 4
                                        : 0;
    if (length == 0 || length > text.size()) return 0;
    point = length == 1 ? lead : lead & (0x7FU >> length);
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
        point = point << 6 | (byte(i) & 0x3F);
    }
    const uint32_t least = length == 3 ? 0x800 : length == 4 ? 0x10000 : 0;
    return point < least || point > 0x10FFFF || (point >= 0xD800 && point < 0xE000) ? 0 : length;
}

// Control characters, line and paragraph separators, and what changes the direction of the writing around it.
bool unsafe(uint32_t point) {
    return point < 0x20 || (point >= 0x7F && point < 0xA0) || point == 0x200E || point == 0x200F ||
           (point >= 0x2028 && point <= 0x202E) || (point >= 0x2066 && point <= 0x2069);
}

void escape(std::string &out, std::string_view bytes) {
    for (const char c : bytes) {
        const char *plain = c == '\n' ? "\\n" : c == '\r' ? "\\r" : c == '\t' ? "\\t" : nullptr;
        out += plain != nullptr ? plain : format("\\x%02x", unsigned{static_cast<unsigned char>(c)});
    }
}

// What an answer that isn't ok means beyond its text, by the text if that is the service's own.
struct advice {
    const char *text;
    const char *means;
};
constexpr advice advices[] = {
    {"service unavailable or access denied",
     "Is the service TarnGliderHost running, and is this an elevated console?"},
    {"untrusted service endpoint", "Another program serves the pipe of the service. Nothing was sent to it. "
                                   "Find out which, and restart the machine."},
    {"bounded IPC request failed", "No whole answer came in time. The request may have been carried out all "
                                   "the same: look at tarnctl status."},
    {"worker unavailable", "No Host worker runs now: nobody's session owns the console, it was stopped "
                           "(tarnctl restart starts one), or it "
                           "failed and is started again within 30 seconds."},
    {"worker communication failed", "The worker gave no answer in time. It may have carried the request out "
                                    "all the same: look at tarnctl status."},
    {"invalid worker reply", "The worker answered with what is no answer. It may have carried the request "
                             "out all the same: look at tarnctl "
                             "status."},
};

} // namespace

std::string printable(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        uint32_t point = 0;
        const size_t length = utf8_character(text, point);
        const std::string_view character = text.substr(0, std::max<size_t>(length, 1));
        if (length == 0 || unsafe(point)) {
            escape(out, character);
        } else {
            out += character;
        }
        text.remove_prefix(character.size());
    }
    return out;
}

bool assign_settings(Settings &settings, const std::vector<std::string> &assignments) {
    Settings changed = settings;
    std::array<bool, settings_table.size()> named{};
    for (const std::string &assignment : assignments) {
        const size_t equals = assignment.find('=');
        const std::string name = assignment.substr(0, equals);
        const auto *row = std::find_if(settings_table.begin(), settings_table.end(),
                                       [&](const setting &s) { return name == s.name; });
        if (equals == std::string::npos || row == settings_table.end())
            throw usage_error("\"" + printable(assignment) +
                              "\" is no setting: NAME=VALUE, with a name of the list");
        const std::optional<uint32_t> value =
            number(std::string_view(assignment).substr(equals + 1), row->least, row->most);
        if (!value)
            throw usage_error(format("%s takes a number from %u to %u", row->name, row->least, row->most));
        bool &twice = named.at(static_cast<size_t>(row - settings_table.begin()));
        if (twice) throw usage_error(name + " is given twice");
        twice = true;
        row->set(changed, *value);
    }
    settings = changed;
    return std::all_of(named.begin(), named.end(), [](bool is) { return is; });
}

std::string settings_help() {
    std::string text;
    for (const setting &row : settings_table)
        text += format("  %-13s %u to %u, usually %u\n", row.name, row.least, row.most, row.usual);
    return text;
}

public_key find_client(const std::string &which, const tarn_client_list *clients) {
    public_key key{};
    uint8_t code[TARN_KEY_CODE_BYTES];
    if (tarn_hex_decode(key.data(), key.size(), which.c_str()) == 0) return key;
    if (tarn_key_code_parse(code, which.c_str()) != 0)
        throw usage_error("\"" + printable(which) +
                          "\" is neither a key, 64 hexadecimal digits, nor a key code, "
                          "XXXX-XXXX");
    if (clients == nullptr)
        throw std::runtime_error(
            "the store's list of clients can't be read here, so a key code says nothing; give the "
            "key (tarn-client key prints it), and see tarnctl store check");
    int found = 0;
    for (int i = 0; i < clients->count; i++) {
        if (!same_key_code(clients->entries[i].key, which)) continue;
        std::copy_n(clients->entries[i].key, key.size(), key.begin());
        found++;
    }
    if (found == 0)
        throw std::runtime_error("no client with the key code " + which +
                                 " is known; tarnctl status lists them");
    if (found > 1) throw std::runtime_error("several clients have the key code " + which + "; give the key");
    return key;
}

std::string relays_fault(std::string_view text) {
    if (text.empty() || text.size() > host_service::max_payload)
        return "a list of relay servers has 1 to 16384 bytes";
    const auto *data = reinterpret_cast<const uint8_t *>(text.data());
    relay_list list;
    if (tarn_relay_config_load(&list.config, data, text.size()) == 0) return "";
    bool header = true;
    for (int number = 1; !text.empty(); number++) {
        const size_t end = std::min(text.find('\n'), text.size());
        secret_text line;
        line.text.assign(text.substr(0, std::min<size_t>(end, 1000))); // the longest link has 671
        text.remove_prefix(std::min(end + 1, text.size()));
        if (!line.text.empty() && line.text.back() == '\r') line.text.pop_back();
        if (line.text.empty()) continue;
        if (header && line.text != "tarnglider-relays-v1")
            return "the first line of a list of relay servers has to be tarnglider-relays-v1";
        tarn_relay_server server{};
        const bool good = header || tarn_relay_link_parse(&server, line.text.c_str()) == 0;
        tarn_secure_wipe(&server, sizeof server);
        if (!good) return format("line %d is no relay link: tarnglider-relay://HOST:PORT#KEY", number);
        header = false;
    }
    return "there can be no more than 8 relay servers";
}

std::string answer_text(Verb verb, const host_service::Response &response) {
    std::string text = printable(response.text);
    if (verb == Verb::status && response.status == Status::ok) {
        // The service and its worker put a semicolon between the parts.
        for (size_t at = text.find("; "); at != std::string::npos; at = text.find("; ", at))
            text.replace(at, 2, "\n");
    }
    if (response.status == Status::ok) return text;
    text = format("%s: %s", status_name(response.status), text.c_str());
    for (const advice &row : advices) {
        if (response.text.ends_with(row.text)) text += std::string("\n") + row.means;
    }
    return text;
}

const char *status_name(Status status) {
    switch (status) {
    case Status::ok:
        return "ok";
    case Status::status_code_1:
        return "refused by the worker (1)";
    case Status::denied:
        return "denied";
    case Status::unavailable:
        return "unavailable";
    case Status::status_code_4:
        return "refused by the worker (4)";
    case Status::failed:
        return "failed";
    }
    return "unknown";
}

} // namespace app
