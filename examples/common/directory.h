// The folder in which a program keeps its identity and its lists, one file each:
//   identity             64 hexadecimal digits of the secret key, made on first use, readable by its owner alone
//   authorized_clients   host: the clients that it trusts
//   hosts                client: the hosts that it has met
// A file is replaced whole: a crash or a full disk leaves the old one. All functions throw std::runtime_error with
// a sentence that names the file. One thread.
#pragma once

#include <filesystem>
#include <string>

#include <tarnglider/conn_lists.h>
#include <tarnglider/secure.h>

namespace app {

// Holds a key pair and wipes it.
struct identity {
    tarn_keypair keys{};
    identity() = default;
    identity(const identity &) = delete;
    identity &operator=(const identity &) = delete;
    ~identity() { tarn_secure_wipe(&keys, sizeof keys); }
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

private:
    // False if there is no such file.
    bool read(const char *name, std::string &out) const;
    void replace(const char *name, std::string_view content) const;

    std::filesystem::path path_;
};

} // namespace app
