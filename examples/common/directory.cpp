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

// 32 entries of the longer list take at most 32 x 290 bytes.
using list_text = std::array<char, 16384>;

struct secret_text {
    std::string text;
    ~secret_text() { tarn_secure_wipe(text.data(), text.size()); }
};

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
    secret_text made{std::string(65, '\0')};
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

} // namespace app
