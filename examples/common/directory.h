// The folder in which a program keeps its identity and its lists, one file each:
//   identity             64 hexadecimal digits of the secret key, made on first use, readable by its owner alone
//   authorized_clients   host: the clients that it trusts
//   hosts                client: the hosts that it has met
//   relays               the rendezvous servers, a line "tarnglider-relays-v1" and a link a line; for its owner alone
//   password             host: what a pairing password is checked against; for its owner alone
//   window_closed        host: guessers closed the pairing window, and only a person opens it again
// A file is replaced whole: a crash or a full disk leaves the old one. All functions throw std::runtime_error with
// a sentence that names the file. One thread.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <tarnglider/conn_lists.h>
#include <tarnglider/conn_relay.h>
#include <tarnglider/secure.h>

#include "common/secret.h"

namespace app {

// Holds a key pair and wipes it.
struct identity {
    tarn_keypair keys{};
    identity() = default;
    identity(const identity &) = delete;
    identity &operator=(const identity &) = delete;
    ~identity() { tarn_secure_wipe(&keys, sizeof keys); }
};

// Holds relay servers, whose keys are secret, and wipes them.
struct relay_list {
    tarn_relay_config config{};
    relay_list() = default;
    relay_list(const relay_list &) = delete;
    relay_list &operator=(const relay_list &) = delete;
    ~relay_list() { tarn_secure_wipe(&config, sizeof config); }

    // Adds LINK, or the links of @FILE, one a line. Throws usage_error, which doesn't show the link.
    void add(const std::string &link);
};

class directory {
public:
    // Makes the folder if there is none.
    explicit directory(std::filesystem::path path);

    // Reads the identity, or makes one where there is none.
    void load_identity(identity &out) const;

    // A missing file is an empty list; a damaged one is an error, since saving would lose what it holds.
    tarn_client_list clients() const;
    void save(const tarn_client_list &list) const;
    tarn_host_list hosts() const;
    void save(const tarn_host_list &list) const;
    void relays(relay_list &out) const;
    void save(const relay_list &list) const;

    // When the list of clients was last written, to notice what another program did; nothing if there is none.
    std::optional<std::filesystem::file_time_type> clients_time() const;

    // The stored form of the password, empty if there is none.
    void password(secret_text &out) const;
    void save_password(const secret_text &line) const;
    bool clear_password() const; // false if there was none

    bool window_closed() const;
    void set_window_closed(bool closed) const;

private:
    // False if there is no such file.
    bool read(const char *name, std::string &out) const;
    bool remove(const char *name) const;
    void replace(const char *name, std::string_view content) const;

    std::filesystem::path path_;
};

} // namespace app
