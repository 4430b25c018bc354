// The stored items: how each one is saved and loaded, and what its absence or damage means. The rule is one: damage is
// fatal in the Machine scope, and in the User scope a line in the log, then going on with less. No state; callers order
// the updates of one item.
#include "keystore_internal.h"

#include <utility>

#include <windows.h>

#include "keystore_text.h"
#include "log.h"
#include "security.h"
#include "sysinfo.h"

namespace keystore {

using host_service::hlog;

namespace {

constexpr wchar_t identity_name[] = L"identity";
constexpr wchar_t clients_name[] = L"authorized_clients";
constexpr wchar_t password_name[] = L"pairing_password";
constexpr wchar_t relays_name[] = L"relays";

constexpr size_t clients_text_cap = 65536; // far above 32 entries of 64 + 1 + 20 + 1 + 63 + 1 bytes
constexpr size_t relays_text_cap = 5400;   // the header and 8 links of 19 + 253 + 6 + 1 + 3 * 128 + 1 bytes

// A save that didn't work: the store's failure for the machine, a line in the log for everybody.
bool save_failed(const char *line) {
    failHostStore("machine persistence failed");
    hlog("%s", line);
    return false;
}

// Whether `hex` is a whole identity, which then lies in *pair.
bool read_identity(const std::string &hex, tarn_keypair *pair) {
    if (machine_scope() && hex.size() != 64) {
        return false;
    }
    return tarn_identity_load(pair, hex.c_str()) == 0;
}

// A user's damaged identity makes room for a new one.
void set_identity_aside(const std::wstring &path) {
    if (machine_scope()) {
        fatal("machine identity is unreadable or malformed");
    }
    patient_move(path, path + L".bad", MOVEFILE_REPLACE_EXISTING);
    hlog("identity: %s is unreadable (another user's or damaged; kept as identity.bad): NEW identity, "
         "paired devices must pair again",
         to_utf8(path).c_str());
}

void create_identity(const std::wstring &path, tarn_keypair *pair) {
    wiped<char[65]> hex;
    if (tarn_identity_generate(pair, hex.value) != 0) {
        if (machine_scope()) {
            fatal("machine identity generation failed");
        }
        // The user goes on all the same: with a pair of zeros and an empty file, which the next start replaces.
        hlog("identity: key generation failed");
    }
    const std::string shown = to_utf8(path);
    if (write_protected(path, hex.value)) {
        hlog("identity: created a new key for this PC (%s)", shown.c_str());
        return;
    }
    if (machine_scope()) {
        fatal("machine identity persistence failed");
    }
    hlog("identity: could not save %s; this identity lasts until quit", shown.c_str());
}

// Whether no password is stored any more.
bool remove_password() {
    if (machine_scope() && !state().healthy) {
        return false;
    }
    const std::wstring path = path_of(password_name);
    if (machine_scope() && look(path) != presence::absent && !host_service::protected_path(path, true)) {
        failHostStore("machine password ACL invalid");
        return false;
    }
    if (!patient_delete(path) && look(path) != presence::absent) {
        failHostStore("machine password deletion failed");
        return false;
    }
    return true;
}

} // namespace

// ---- Identity

tarn_keypair load_or_create_identity(bool *created) {
    if (machine_scope() && !state().healthy) {
        fatal("machine store already failed");
    }
    wiped<tarn_keypair> pair;
    if (created) {
        *created = false;
    }
    const std::wstring path = path_of(identity_name);
    {
        wiped_text hex;
        const int found = read_protected(path, hex.text);
        if (found == 1 && read_identity(hex.text, &pair.value)) {
            return pair.value;
        }
        if (found != 0) {
            set_identity_aside(path);
        }
    }
    if (created) {
        *created = true;
    }
    create_identity(path, &pair.value);
    return pair.value;
}

// ---- Paired clients: public keys only, so not sealed

tarn_client_list load_clients() {
    tarn_client_list clients{};
    const std::wstring path = path_of(clients_name);
    std::vector<uint8_t> text;
    if (!read_file(path, text)) {
        if (machine_scope() && look(path) != presence::absent) {
            fatal("machine authorized clients unreadable");
        }
        return clients;
    }
    if (tarn_client_list_load(&clients, reinterpret_cast<const char *>(text.data()), text.size()) != 0) {
        if (machine_scope()) {
            fatal("machine authorized clients malformed");
        }
        hlog("authorized_clients is malformed: no paired devices loaded");
        clients = {}; // and not those before the bad line
    }
    return clients;
}

bool save_clients(const tarn_client_list &clients) {
    std::vector<char> text(clients_text_cap);
    const size_t size = tarn_client_list_save(&clients, text.data(), text.size());
    if (size == 0 || !write_private(path_of(clients_name), text.data(), size)) {
        return save_failed("could not save the paired devices list");
    }
    return true;
}

// ---- Pairing password

std::string load_password_blob() {
    wiped_text line;
    const int found = read_protected(path_of(password_name), line.text);
    if (found < 0) {
        if (machine_scope()) {
            fatal("machine pairing password unreadable");
        }
        hlog("pairing_password is unreadable: password pairing is off");
    }
    if (found == 1 && machine_scope() && !valid_password_line(line.text)) {
        fatal("machine pairing password malformed");
    }
    return std::move(line.text);
}

bool save_password_blob(const std::string &line) {
    if (line.empty()) {
        return remove_password();
    }
    if (!write_protected(path_of(password_name), line)) {
        return save_failed("could not save the pairing password; it lasts until quit");
    }
    return true;
}

void delete_password_blob() { remove_password(); }

// ---- Relay servers

tarn_relay_config load_relays() {
    wiped<tarn_relay_config> relays;
    wiped_text text;
    const int found = read_protected(path_of(relays_name), text.text);
    if (found < 0) {
        if (machine_scope()) {
            fatal("machine relays unreadable");
        }
        hlog("relays is unreadable (another user's or damaged): no relay servers");
        return relays.value; // and not the built-in one, which its owner may have removed
    }
    if (tarn_relay_config_load_stored(&relays.value, reinterpret_cast<const uint8_t *>(text.text.data()),
                                      text.text.size(), found) != 0) {
        if (machine_scope()) {
            fatal("machine relays malformed");
        }
        hlog("relays is malformed: no relay servers");
    }
    return relays.value;
}

bool save_relays(const tarn_relay_config &relays) {
    wiped<char[relays_text_cap]> text;
    const size_t size = tarn_relay_config_save(&relays, text.value, sizeof text.value);
    if (size == 0 || !write_protected(path_of(relays_name), {text.value, size})) {
        return save_failed("could not save the relay server list");
    }
    return true;
}

} // namespace keystore
