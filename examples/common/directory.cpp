// The folder of a program's identity and lists.
#include "common/directory.h"

#include <array>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "common/platform.h"
#include "common/text.h"

namespace app {
namespace {

constexpr const char *identity_name = "identity";
constexpr const char *clients_name = "authorized_clients";
constexpr const char *hosts_name = "hosts";
constexpr const char *relays_name = "relays";
constexpr const char *password_name = "password";
constexpr const char *window_closed_name = "window_closed";

// 32 entries of the longer list take at most 32 x 290 bytes.
using list_text = std::array<char, 16384>;

} // namespace

directory::directory(std::filesystem::path path) : path_(std::move(path)) { make_private_directory(path_); }

bool directory::read(const char *name, std::string &out) const {
    const std::filesystem::path file = path_ / name;
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(file, error);
    if (status.type() == std::filesystem::file_type::not_found) return false;
    std::ifstream in(file, std::ios::binary);
    if (error || !in || !std::filesystem::is_regular_file(status))
        throw std::runtime_error("can't read " + utf8(file) +
                                 ": check its permissions, or name another --dir");
    // One bounded read, so that no copy of a secret stays behind in a buffer that grew.
    out.resize(65536);
    in.read(out.data(), static_cast<std::streamsize>(out.size()));
    if (in.bad() || !in.eof()) throw std::runtime_error("can't read " + utf8(file) + ": it is too long");
    out.resize(static_cast<size_t>(in.gcount()));
    return true;
}

void directory::replace(const char *name, std::string_view content) const {
    std::array<uint8_t, 8> random{};
    if (tarn_random_bytes(random.data(), random.size()) != TARN_OK)
        throw std::runtime_error("the system gives no random numbers");
    char suffix[17];
    tarn_hex_encode(suffix, random.data(), random.size());
    const std::filesystem::path scratch = path_ / (std::string(name) + ".new-" + suffix);
    create_private_file(scratch, content);
    std::error_code error;
    std::filesystem::rename(scratch, path_ / name, error);
    if (!error) return;
    std::error_code ignored;
    std::filesystem::remove(scratch, ignored);
    throw std::runtime_error("can't replace " + utf8(path_ / name) + ": " + error.message());
}

void directory::load_identity(identity &out) const {
    secret_text file;
    if (read(identity_name, file.text)) {
        require_private_file(path_ / identity_name);
        if (tarn_identity_load(&out.keys, file.text.c_str()) != 0)
            throw std::runtime_error(
                utf8(path_ / identity_name) +
                " is damaged: not 64 hexadecimal digits; restore it, or remove it to get a "
                "new identity");
        return;
    }
    secret_text made;
    made.text.resize(65);
    if (tarn_identity_generate(&out.keys, made.text.data()) != 0)
        throw std::runtime_error("the system gives no random numbers");
    made.text.back() = '\n';
    replace(identity_name, made.text);
}

tarn_client_list directory::clients() const {
    tarn_client_list list{};
    std::string text;
    if (read(clients_name, text) && tarn_client_list_load(&list, text.data(), text.size()) != 0)
        throw std::runtime_error(utf8(path_ / clients_name) + " is damaged; mend or remove it");
    return list;
}

void directory::save(const tarn_client_list &list) const {
    list_text text;
    replace(clients_name, {text.data(), tarn_client_list_save(&list, text.data(), text.size())});
}

tarn_host_list directory::hosts() const {
    tarn_host_list list{};
    std::string text;
    if (read(hosts_name, text) && tarn_host_list_load(&list, text.data(), text.size()) != 0)
        throw std::runtime_error(utf8(path_ / hosts_name) + " is damaged; mend or remove it");
    return list;
}

void directory::save(const tarn_host_list &list) const {
    list_text text;
    replace(hosts_name, {text.data(), tarn_host_list_save(&list, text.data(), text.size())});
}

void directory::relays(relay_list &out) const {
    secret_text text;
    if (!read(relays_name, text.text)) return;
    require_private_file(path_ / relays_name);
    if (tarn_relay_config_load(&out.config, reinterpret_cast<const uint8_t *>(text.text.data()),
                               text.text.size()) != 0)
        throw std::runtime_error(utf8(path_ / relays_name) +
                                 " is damaged: a line \"tarnglider-relays-v1\", then a relay link a line");
}

void directory::save(const relay_list &list) const {
    secret_text text;
    text.text.resize(22 + 8 * 680);
    text.text.resize(tarn_relay_config_save(&list.config, text.text.data(), text.text.size()));
    replace(relays_name, text.text);
}

std::optional<std::filesystem::file_time_type> directory::clients_time() const {
    std::error_code error;
    const auto time = std::filesystem::last_write_time(path_ / clients_name, error);
    if (error) return std::nullopt;
    return time;
}

void directory::password(secret_text &out) const {
    out.text.clear();
    if (read(password_name, out.text)) require_private_file(path_ / password_name);
}

void directory::save_password(const secret_text &line) const { replace(password_name, line.text); }

bool directory::clear_password() const { return remove(password_name); }

bool directory::window_closed() const {
    std::error_code error;
    return std::filesystem::exists(path_ / window_closed_name, error) || error;
}

void directory::set_window_closed(bool closed) const {
    if (!closed) {
        remove(window_closed_name);
    } else if (!window_closed()) {
        replace(window_closed_name, "");
    }
}

bool directory::remove(const char *name) const {
    std::error_code error;
    const bool removed = std::filesystem::remove(path_ / name, error);
    if (error) throw std::runtime_error("can't remove " + utf8(path_ / name) + ": " + error.message());
    return removed;
}

void relay_list::add(const std::string &link) {
    const auto add_one = [this](const std::string &text) {
        if (tarn_relay_config_add_link(&config, text.c_str()) >= 0) return;
        throw usage_error(config.count == TARN_RELAY_MAX_SERVERS
                              ? "there can be no more than 8 relay servers"
                              : "that is no relay link: tarnglider-relay://HOST:PORT#KEY, as tarn-server "
                                "--link prints it");
    };
    if (link.empty() || link[0] != '@') return add_one(link);
    std::ifstream in(path_from_utf8(link.substr(1)), std::ios::binary);
    if (!in) throw std::runtime_error("can't read the relay links from " + link.substr(1));
    secret_text line;
    while (std::getline(in, line.text)) {
        while (!line.text.empty() && (line.text.back() == '\r' || line.text.back() == ' '))
            line.text.pop_back();
        if (!line.text.empty() && line.text != "tarnglider-relays-v1") add_one(line.text);
    }
}

} // namespace app
