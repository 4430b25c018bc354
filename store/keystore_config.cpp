// The start of the store: fixes the scope and, for the machine, proves everything that is stored before anybody uses
// it, so that damage stops a program at its start and not in the middle of its work. Runs before other threads exist.
#include "keystore_internal.h"

#include <cwchar>
#include <exception>
#include <span>

#include <windows.h>

#include <knownfolders.h>

#include "handles.h"
#include "ipc_protocol.h"
#include "security.h"

namespace keystore {

namespace {

void make_directories() {
    std::wstring base;
    if (!known_folder(FOLDERID_ProgramData, base)) {
        fatal("ProgramData unavailable");
    }
    base += L"\\TarnGlider";
    state().machine_dir = base + L"\\Host";
    if (!host_service::create_private_directory(base) ||
        !host_service::create_private_directory(state().machine_dir)) {
        fatal("machine directory protection invalid");
    }
}

bool is_entry(const wchar_t *name) { return std::wcscmp(name, L".") != 0 && std::wcscmp(name, L"..") != 0; }

// Every entry, ours or not: a stray file that others may write to says that they once could put it here.
void check_entries() {
    const std::wstring below = state().machine_dir + L"\\";
    WIN32_FIND_DATAW entry;
    host_service::unique_find search(FindFirstFileW((below + L"*").c_str(), &entry));
    if (!search) {
        if (GetLastError() == ERROR_FILE_NOT_FOUND) {
            return;
        }
        fatal("machine directory enumeration failed");
    }
    bool all_protected = true;
    do {
        if (is_entry(entry.cFileName)) {
            all_protected = host_service::protected_path(below + entry.cFileName, true) && all_protected;
        }
    } while (FindNextFileW(search.get(), &entry));
    const bool complete = GetLastError() == ERROR_NO_MORE_FILES;
    search.reset();
    if (!complete || !all_protected) {
        fatal("machine file protection invalid");
    }
}

void check_settings() {
    std::string text;
    if (!readHostFile(L"settings", text)) {
        return;
    }
    host_service::Settings scratch;
    if (!host_service::decode_settings({reinterpret_cast<const uint8_t *>(text.data()), text.size()},
                                       &scratch)) {
        fatal("machine settings malformed");
    }
}

// Loads each item for its checks alone. The first start of all makes the identity here.
void try_items() {
    { const wiped<tarn_keypair> identity{load_or_create_identity(nullptr)}; }
    load_clients();
    { const wiped_text password{load_password_blob()}; }
    { const wiped<tarn_relay_config> relays{load_relays()}; }
}

// Whatever broke the configuration off, the store isn't usable from here on, and a second call has to know it.
bool give_up(const char *why, std::string *error) {
    try {
        failHostStore(why);
        if (error) {
            *error = why;
        }
    } catch (...) { // no lock, or no memory for the words
        state().healthy = !machine_scope();
    }
    return false;
}

} // namespace

bool configureHostStore(HostStoreScope scope, std::string *error) {
    try {
        if (state().configured) {
            if (scope == state().scope) {
                return hostStoreHealthy(error);
            }
            if (error) {
                *error = "Host store scope already configured";
            }
            return false;
        }
        state().configured = true; // first, so that no failure leaves room for another scope
        state().scope = scope;
        if (scope == HostStoreScope::User) {
            return true;
        }
        if (!hostStoreHealthy(error)) {
            return false;
        }
        make_directories();
        check_entries();
        check_settings();
        try_items();
        return hostStoreHealthy(error);
    } catch (const std::exception &failure) {
        return give_up(failure.what(), error);
    } catch (...) {
        return give_up("machine store configuration failed", error);
    }
}

bool verifyHostProtection() {
    const std::vector<uint8_t> pattern = {'T', 'G', 'D', 'P', 'A', 'P', 'I'};
    std::vector<uint8_t> sealed;
    std::vector<uint8_t> plain;
    return dpapi(true, pattern, sealed) && dpapi(false, sealed, plain) && plain == pattern;
}

} // namespace keystore
