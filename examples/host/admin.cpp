// The commands of tarn-host that look after its folder.
#include "host/admin.h"

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include <tarnglider/conn_host.h>

#include "common/find_entry.h"
#include "common/program.h"
#include "common/text.h"

namespace app {
namespace {

// Argon2id makes a guess dear for who has the file; over the network the host's lock bounds guesses in any case.
constexpr size_t password_advice = 10;

} // namespace

void allow_client(const directory &store, const std::string &key_argument, const std::string &name) {
    const public_key key = parse_key(key_argument, "KEY");
    tarn_client_list list = store.clients();
    const bool known = tarn_client_list_find(&list, key.data()) >= 0;
    const int index = tarn_client_list_add(&list, key.data(), name.c_str());
    if (index < 0)
        throw std::runtime_error(
            format("the list of clients is full (%d); remove one first", static_cast<int>(TARN_LIST_MAX)));
    store.save(list);
    say(format("tarn-host: %s \"%s\" (%s)", known ? "renamed" : "allowed", list.entries[index].name,
               key_code(key.data()).c_str()));
}

void list_clients(const directory &store, bool json) {
    const tarn_client_list list = store.clients();
    for (int i = 0; i < list.count; i++) {
        const tarn_client_entry &client = list.entries[i];
        const std::string added = time_text(client.added);
        if (json) {
            print_json({{"name", client.name},
                        {"key_code", key_code(client.key)},
                        {"key", key_text(client.key)},
                        {"added", added}});
        } else {
            std::printf("%s  %s  %s\n", key_code(client.key).c_str(), added.c_str(), client.name);
        }
    }
    if (list.count == 0) say("tarn-host: no client is known");
}

void remove_client(const directory &store, const std::string &which) {
    tarn_client_list list = store.clients();
    const int index = find_entry(list.entries, list.count, which);
    if (index < 0)
        throw std::runtime_error("no client \"" + which + "\" is known; tarn-host clients lists them");
    const tarn_client_entry client = list.entries[index];
    tarn_client_list_remove(&list, client.key);
    store.save(list);
    say(format("tarn-host: removed \"%s\" (%s); a running host ends its sessions within some seconds",
               client.name, key_code(client.key).c_str()));
}

void set_password(const directory &store, const std::optional<std::filesystem::path> &file) {
    secret_text password;
    read_secret({file, "TARN_PASSWORD", "new pairing password", true}, password);
    if (password.text.size() < password_advice)
        say("tarn-host: a short password; a guesser may try some ten in ten minutes for as long as it "
            "stands");
    tarn_host_config config{};
    config.send = [](void *, const tarn_addr *, const uint8_t *, size_t) {};
    const std::unique_ptr<tarn_host, void (*)(tarn_host *)> engine(
        tarn_host_create(&config, nullptr, nullptr), tarn_host_destroy);
    secret_text line;
    line.text.resize(TARN_PASSWORD_LINE_SIZE);
    if (!engine ||
        tarn_host_set_password(engine.get(), password.text.c_str(), line.text.data(), line.text.size()) != 0)
        throw std::runtime_error("the password can't be derived: 64 MiB of memory are needed for it");
    line.text.resize(line.text.find('\0'));
    store.save_password(line);
    say("tarn-host: the pairing password is set; a running host takes it at its next start");
}

void clear_password(const directory &store) {
    const bool removed = store.clear_password();
    say(removed ? "tarn-host: the pairing password is gone; a running host forgets it when it ends"
                : "tarn-host: there is no pairing password");
}

} // namespace app
