// The hosts that a client knows: how a person names them, and what is kept of where they were met.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <tarnglider/conn_addr.h>

#include "common/directory.h"
#include "common/text.h"

namespace app {

// A host, and where it may be.
struct host_target {
    std::string label; // for messages
    std::optional<public_key> key;
    std::string code;                  // its key code, while the key isn't known
    std::vector<tarn_addr> candidates; // endpoints to try
    uint32_t lan_id = 0;               // to search for on the LAN; 0: no search
};

// The host that is meant: with `key`, the text is an address; without, it is the key, key code or name of a host in the
// list, or a whole key, which servers may know. Blocks while a name is resolved. Throws.
host_target find_host(const tarn_host_list &list, const std::string &which, const std::string &key);

// An address or a name, with or without a port. Blocks while a name is resolved. Throws.
tarn_addr resolve_host(const std::string &text);

// Keeps a host that was just met. `path` is the class of the way to `addr`: an endpoint on the LAN and a direct one are
// kept; a server's, behind which the host was, is not. `name`: for a host that is new, or to rename it; else empty.
void remember_host(const directory &store, const public_key &key, const std::string &name, int path,
                   const tarn_addr &addr);

// The commands "hosts" and "forget".
void list_hosts(const directory &store, bool json);
void forget_host(const directory &store, const std::string &which);

} // namespace app
