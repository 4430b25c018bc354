// The hosts that a client knows.
#include "client/host_book.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include <tarnglider/netsock.h>

#include "common/find_entry.h"
#include "common/program.h"
#include "common/stream_protocol.h"

namespace app {
namespace {

uint64_t wall_seconds() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

bool is_key(const std::string &text) {
    public_key key{};
    return tarn_hex_decode(key.data(), key.size(), text.c_str()) == 0;
}

} // namespace

tarn_addr resolve_host(const std::string &text) {
    tarn_addr addr{};
    if (tarn_net_resolve(text.c_str(), default_port, &addr) != 0)
        throw std::runtime_error(
            "can't find the host \"" + text +
            "\": give ADDRESS, ADDRESS:PORT, NAME or NAME:PORT, an IPv6 address as [ADDRESS]:PORT");
    return addr;
}

host_target find_host(const tarn_host_list &list, const std::string &which, const std::string &key) {
    host_target target;
    target.label = which;
    if (!key.empty()) {
        target.key = parse_key(key, "KEY");
        target.candidates.push_back(resolve_host(which));
        return target;
    }
    const int index = find_entry(list.entries, list.count, which);
    if (index < 0 && !is_key(which))
        throw std::runtime_error(
            "no host \"" + which +
            "\" is known; tarn-client hosts lists them, tarn-client pair adds one, and an "
            "address needs the host's key behind it");
    if (index < 0) {
        target.key = parse_key(which, "KEY");
    } else {
        const tarn_host_entry &host = list.entries[index];
        target.label = host.name[0] != '\0' ? host.name : key_code(host.key);
        std::copy(std::begin(host.key), std::end(host.key), target.key.emplace().begin());
        for (const tarn_addr &addr : {host.lan_addr, host.direct_addr}) {
            if (addr.family != 0) target.candidates.push_back(addr);
        }
    }
    target.lan_id = lan_id_of(target.key->data());
    return target;
}

void remember_host(const directory &store, const public_key &key, const std::string &name, int path,
                   const tarn_addr &addr) {
    tarn_host_list list = store.hosts();
    const int index = tarn_host_list_find(&list, key.data());
    tarn_host_entry host{};
    if (index >= 0) host = list.entries[index];
    std::copy(key.begin(), key.end(), host.key);
    if (!name.empty()) {
        host.name[name.copy(host.name, sizeof host.name - 1)] = '\0';
    }
    host.lan_id = lan_id_of(key.data());
    if (path == TARN_PATH_LAN) host.lan_addr = addr;
    if (path == TARN_PATH_DIRECT || path == TARN_PATH_P2P) host.direct_addr = addr;
    host.last_seen = wall_seconds();
    if (tarn_host_list_put(&list, &host) < 0)
        throw std::runtime_error("the list of hosts is full; tarn-client forget makes room");
    store.save(list);
}

void list_hosts(const directory &store, bool json) {
    const tarn_host_list list = store.hosts();
    for (int i = 0; i < list.count; i++) {
        const tarn_host_entry &host = list.entries[i];
        const std::string seen = time_text(host.last_seen);
        const std::string lan = addr_text(host.lan_addr);
        const std::string direct = addr_text(host.direct_addr);
        if (json) {
            print_json({{"name", host.name},
                        {"key_code", key_code(host.key)},
                        {"key", key_text(host.key)},
                        {"lan", lan},
                        {"direct", direct},
                        {"last_seen", seen}});
        } else {
            std::printf("%s  %s  LAN %s  direct %s  %s\n", key_code(host.key).c_str(), seen.c_str(),
                        lan.c_str(), direct.c_str(), host.name);
        }
    }
    if (list.count == 0) say("tarn-client: no host is known; tarn-client pair adds one");
}

void forget_host(const directory &store, const std::string &which) {
    tarn_host_list list = store.hosts();
    const int index = find_entry(list.entries, list.count, which);
    if (index < 0)
        throw std::runtime_error("no host \"" + which + "\" is known; tarn-client hosts lists them");
    const tarn_host_entry host = list.entries[index];
    tarn_host_list_remove(&list, host.key);
    store.save(list);
    say(format("tarn-client: forgot \"%s\" (%s)", host.name, key_code(host.key).c_str()));
}

} // namespace app
