// The machine's protected store, as the host behind the worker sees it.
#include "worker/machine_store.h"

#include <keystore.h>
#include <stdexcept>
#include <string>

namespace app {
namespace {

constexpr wchar_t settings_name[] = L"settings";

[[noreturn]] void refuse(const char *what) {
    std::string reason;
    if (!keystore::hostStoreHealthy(&reason))
        throw std::runtime_error(std::string(what) + ": the store has failed: " + reason);
    throw std::runtime_error(what);
}

// Takes a secret that the store handed out, and wipes the store's copy.
void take_secret(std::string &from, std::string &to) {
    to.assign(from);
    tarn_secure_wipe(from.data(), from.size());
}

} // namespace

void machine_store::load_identity(identity &out) {
    tarn_keypair loaded = keystore::load_or_create_identity(nullptr);
    out.keys = loaded;
    tarn_secure_wipe(&loaded, sizeof loaded);
}

void machine_store::relays(relay_list &out) {
    tarn_relay_config loaded = keystore::load_relays();
    out.config = loaded;
    tarn_secure_wipe(&loaded, sizeof loaded);
}

void machine_store::password(secret_text &line) {
    std::string loaded = keystore::load_password_blob();
    take_secret(loaded, line.text);
}

tarn_client_list machine_store::clients() { return keystore::load_clients(); }

void machine_store::save(const tarn_client_list &list) {
    if (!keystore::save_clients(list)) refuse("the list of clients can't be saved");
}

void machine_store::save_relays(const relay_list &list) {
    if (!keystore::save_relays(list.config)) refuse("the relay servers can't be saved");
}

void machine_store::save_password(const secret_text &line) {
    if (!keystore::save_password_blob(line.text)) refuse("the password can't be saved");
}

void machine_store::clear_password() {
    keystore::delete_password_blob();
    if (!keystore::hostStoreHealthy()) refuse("the password can't be deleted");
}

host_service::Settings machine_store::settings() {
    host_service::Settings settings;
    std::string bytes;
    if (!keystore::readHostFile(settings_name, bytes)) return settings;
    const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
    if (!host_service::decode_settings({data, bytes.size()}, &settings))
        refuse("the stored settings are damaged");
    return settings;
}

// encode_settings runs the checks that the service's next start makes, so nothing gets in that would stop it there.
void machine_store::save(const host_service::Settings &settings) {
    const std::vector<uint8_t> bytes = host_service::encode_settings(settings);
    if (bytes.empty() || !keystore::writeHostFile(settings_name, bytes.data(), bytes.size()))
        refuse("the settings can't be saved");
}

} // namespace app
