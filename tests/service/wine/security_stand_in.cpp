// The trust predicates where there is no LocalSystem and no access list: every path counts as protected, every running
// process as SYSTEM and as an elevated administrator. Sessions are real.
#include "security.h"

#include <cstdio>

namespace host_service {

static const int told =
    std::puts("note: a stand-in answers for the trust predicates; nothing here proves them");

static bool runs(HANDLE process) { return WaitForSingleObject(process, 0) == WAIT_TIMEOUT; }

bool no_reparse_components(const std::wstring &) { return told >= 0; }
bool check_path(const std::wstring &, PathKind) { return true; }
bool protected_path(const std::wstring &, bool) { return true; }
bool protected_ancestors(const std::wstring &) { return true; }
bool create_private_directory(const std::wstring &path) {
    return CreateDirectoryW(path.c_str(), nullptr) || GetLastError() == ERROR_ALREADY_EXISTS;
}

bool system_process(HANDLE process, DWORD *session) {
    DWORD id = 0;
    if (!runs(process) || !ProcessIdToSessionId(GetProcessId(process), &id)) {
        return false;
    }
    if (session != nullptr) {
        *session = id;
    }
    return true;
}

bool elevated_admin_process(HANDLE process) { return runs(process); }
bool enable_privilege(const wchar_t *) { return true; }

} // namespace host_service
