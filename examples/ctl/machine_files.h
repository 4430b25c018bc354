// The machine's store and program files as tarnctl looks at them: by path, read-only, without the store's own functions,
// which would make what is missing. Nothing is taken from a file that an ordinary user could have written.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <ipc_protocol.h>
#include <tarnglider/conn_lists.h>

#include "common/secret.h"

namespace app {

// Of FOLDERID_ProgramData: "\TarnGlider", and "\Host" in it. Throws if the system doesn't tell.
std::wstring store_base();
std::wstring store_directory();

// The folder of the registered service's program; nothing if no such service is registered or it can't be asked.
std::optional<std::wstring> service_directory();

bool is_missing(const std::wstring &path);

// The names in a folder but "." and "..", sorted; nothing if it can't be listed. pattern: "*", "*.dll".
std::optional<std::vector<std::wstring>> list_folder(const std::wstring &folder, const wchar_t *pattern);

// Reads a file of less than 1 MiB, whatever its protection.
bool read_file(const std::wstring &path, std::string &out);

// Opens what the machine's data protection sealed.
bool unseal(const std::string &sealed, secret_text &out);

enum class stored { read, missing, unreadable };

// Items of the store, each only if it is protected and well formed.
stored read_settings(host_service::Settings &settings);
stored read_clients(tarn_client_list &clients);

} // namespace app
