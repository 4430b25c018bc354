// "tarnctl store check".
#include "ctl/store_check.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include <windows.h>

#include <keystore_text.h>
#include <security.h>
#include <sysinfo.h>
#include <worker_process.h>

#include "common/directory.h"
#include "common/program.h"
#include "common/text.h"
#include "ctl/ctl_text.h"
#include "ctl/explain.h"
#include "ctl/machine_files.h"

namespace app {
namespace {

using host_service::PathKind;

// What every launch of a worker looks at by name, beside all libraries that are there.
constexpr const wchar_t *programs[] = {L"TarnGliderHostService.exe",
                                       L"TarnGliderHostWorker.exe",
                                       L"avcodec-62.dll",
                                       L"avutil-60.dll",
                                       L"swscale-9.dll",
                                       L"swresample-6.dll"};

// What a stored item holds is checked as far as the service does at its start; the name of the check for a person.
struct item {
    const wchar_t *name;
    bool sealed;
    bool (*good)(const std::string &text);
    const char *is; // what it has to be
};

bool good_settings(const std::string &text) {
    host_service::Settings settings;
    return host_service::decode_settings({reinterpret_cast<const uint8_t *>(text.data()), text.size()},
                                         &settings);
}

bool good_clients(const std::string &text) {
    tarn_client_list list{};
    return tarn_client_list_load(&list, text.data(), text.size()) == 0;
}

bool good_identity(const std::string &text) {
    identity self;
    return text.size() == 64 && tarn_identity_load(&self.keys, text.c_str()) == 0;
}

bool good_relays(const std::string &text) {
    relay_list list;
    return tarn_relay_config_load(&list.config, reinterpret_cast<const uint8_t *>(text.data()),
                                  text.size()) == 0;
}

bool good_password(const std::string &text) { return keystore::valid_password_line(text); }

constexpr item items[] = {
    {L"settings", false, good_settings, "a settings record of 16 bytes, each field in its range"},
    {L"identity", true, good_identity, "the host's secret key"},
    {L"authorized_clients", false, good_clients, "a list of clients, tarnglider-clients-v1"},
    {L"pairing_password", true, good_password, "a password's stored form, tarnglider-pw1"},
    {L"relays", true, good_relays, "a list of relay servers, tarnglider-relays-v1"},
};

// False also for what can't be looked at.
bool has_attribute(const std::wstring &path, DWORD any_of) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & any_of) != 0;
}

class checker {
public:
    explicit checker(bool json) : json_(json) {}

    void programs_of(const std::wstring &folder);
    void store();
    int finish() const;

private:
    void tell(bool refused, const std::wstring &path, const std::string &text);
    bool check(const std::wstring &path, PathKind kind);
    void ancestors(const std::wstring &path);
    void items_of(const std::wstring &folder);
    void log_of(const std::wstring &folder);
    void worker_of(const std::wstring &folder);

    bool json_;
    int refusals_ = 0;
};

void checker::tell(bool refused, const std::wstring &path, const std::string &text) {
    refusals_ += refused ? 1 : 0;
    const std::string where = printable(to_utf8(path));
    if (json_) return print_json({{"refused", refused}, {"path", where}, {"reason", printable(text)}});
    std::printf("%s  %s: %s\n", refused ? "refused" : "note   ", where.c_str(), printable(text).c_str());
}

bool checker::check(const std::wstring &path, PathKind kind) {
    if (is_missing(path)) return tell(true, path, "is missing"), false;
    if (host_service::check_path(path, kind)) return true;
    for (const std::string &reason : explain_refusal(path, kind))
        tell(true, path, reason);
    return false;
}

void checker::ancestors(const std::wstring &path) {
    if (host_service::protected_ancestors(path)) return;
    const int before = refusals_;
    for (size_t end = 3; end != std::wstring::npos; end = path.find(L'\\', end + 1))
        check(path.substr(0, std::max<size_t>(end, 3)), PathKind::ancestor);
    if (refusals_ > before) return;
    for (const std::string &reason : explain_refusal(path, PathKind::ancestor))
        tell(true, path, reason);
}

void checker::programs_of(const std::wstring &folder) {
    ancestors(folder);
    if (!check(folder, PathKind::read_only_for_users)) return;
    for (const wchar_t *name : programs)
        check(folder + L"\\" + name, PathKind::read_only_for_users);
    const auto libraries = list_folder(folder, L"*.dll");
    if (!libraries) return tell(true, folder, "can't be listed");
    for (const std::wstring &name : *libraries) {
        const std::wstring path = folder + L"\\" + name;
        const bool named = std::any_of(std::begin(programs), std::end(programs), [&](const wchar_t *known) {
            return _wcsicmp(known, name.c_str()) == 0;
        });
        if (has_attribute(path, FILE_ATTRIBUTE_DIRECTORY)) {
            tell(true, path, "is a folder with the name of a library");
        } else if (!named) {
            check(path, PathKind::read_only_for_users);
        }
    }
}

void checker::store() {
    const std::wstring folder = store_directory();
    if (is_missing(store_base()) || is_missing(folder))
        return tell(false, folder, "isn't there yet; the service makes it at its first start");
    check(store_base(), PathKind::private_only);
    if (!check(folder, PathKind::private_only)) return;
    const auto entries = list_folder(folder, L"*");
    if (!entries) return tell(true, folder, "can't be listed");
    for (const std::wstring &name : *entries) {
        const std::wstring path = folder + L"\\" + name;
        if (!is_missing(path)) check(path, PathKind::private_only); // a save or a rotation may be under way
    }
    items_of(folder);
    log_of(folder);
    if (!is_missing(folder + L"\\worker")) worker_of(folder + L"\\worker");
}

// The worker's own folder, of which the service looks at nothing but the folder itself.
void checker::worker_of(const std::wstring &folder) {
    const std::wstring log = folder + L"\\host.log";
    if (is_missing(log)) return;
    check(log, PathKind::private_only);
    log_of(folder);
}

void checker::items_of(const std::wstring &folder) {
    for (const item &i : items) {
        const std::wstring path = folder + L"\\" + i.name;
        if (is_missing(path)) continue;
        secret_text bytes;
        bytes.text.reserve(65536);
        secret_text text;
        if (!read_file(path, bytes.text)) {
            tell(true, path, "can't be read, or has 1 MiB or more");
        } else if (i.sealed && !unseal(bytes.text, text)) {
            tell(true, path,
                 "can't be unsealed: it is damaged, or was sealed on another machine or before this one was "
                 "prepared anew");
        } else if (!i.good(i.sealed ? text.text : bytes.text)) {
            tell(true, path, std::string("is damaged: it is not ") + i.is);
        }
    }
    if (is_missing(folder + L"\\identity") && !is_missing(folder + L"\\authorized_clients"))
        tell(false, folder + L"\\identity",
             "is missing: the service makes a new one at its next start, and every client has to pair again");
}

// A log that can't be kept leaves the service running, so nobody else says it.
void checker::log_of(const std::wstring &folder) {
    constexpr DWORD unwritable = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY;
    const std::wstring path = folder + L"\\host.log";
    if (is_missing(path)) {
        tell(false, path, "is missing: it couldn't be made, or nothing has run yet");
    } else if (has_attribute(path, unwritable)) {
        tell(false, path, "is a folder or read-only: there is no log");
    }
    if (has_attribute(path + L".1", unwritable))
        tell(false, path + L".1", "is a folder or read-only: the log can't be rotated and ends at 10 MiB");
}

int checker::finish() const {
    std::fflush(stdout);
    say(refusals_ == 0 ? std::string("tarnctl: the service would refuse nothing of this")
                       : format("tarnctl: the service refuses this (%d reasons); docs/operations.md tells "
                                "how each is mended",
                                refusals_));
    return refusals_ == 0 ? 0 : 1;
}

} // namespace

int check_store(bool json) {
    if (!host_service::elevated_admin_process(GetCurrentProcess()))
        say("tarnctl: this console isn't elevated, so much of the store can't be looked at");
    checker check(json);
    const std::optional<std::wstring> folder = service_directory();
    if (!folder)
        say("tarnctl: no service TarnGliderHost is registered; looking at the folder of this program");
    check.programs_of(folder ? *folder : host_service::executable_directory());
    check.store();
    return check.finish();
}

} // namespace app
