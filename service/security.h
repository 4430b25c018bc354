// What the service proves before it trusts a path or a process. Every predicate answers false on any doubt and on any
// failing system call; none logs, none keeps state, and any thread may call them.
//
// A path is looked at component by component, so only plain drive-letter paths can pass: one with a slash, with an
// empty part (a single trailing backslash apart), or with a part "." or ".." is refused outright, since what Windows
// opens for it could be reached through a component that was not looked at.
#ifndef HOST_SERVICE_SECURITY_H
#define HOST_SERVICE_SECURITY_H

#include <string>

#include <windows.h>

namespace host_service {

// How strict check_path is. "Trusted" are SYSTEM and Administrators, and but for private_only TrustedInstaller.
enum class PathKind {
    private_only =
        0, // the store and the log: list protected from inheritance, allow entries for the trusted alone
    read_only_for_users = 1, // programs and libraries: others may read and run
    ancestor = 2, // the folders above: others may add entries, but not remove, replace or take over
};

// No component of the path is a reparse point. The last one may be missing; a missing folder above it is a refusal.
bool no_reparse_components(const std::wstring &path);

// No reparse point, a trusted owner, and an access list as the kind demands. A null list is a refusal, and so is any
// entry that neither allows nor denies.
bool check_path(const std::wstring &path, PathKind kind);

// check_path with private_only if private_data is set, with read_only_for_users otherwise.
bool protected_path(const std::wstring &path, bool private_data);

// check_path with ancestor for the drive's root and each folder above the path, not for the path itself.
bool protected_ancestors(const std::wstring &path);

// Makes the directory for SYSTEM and Administrators alone if it is missing, then demands private_only of it. One that
// exists with a weaker list is refused, not repaired.
bool create_private_directory(const std::wstring &path);

// The process runs as LocalSystem. On success its session goes to *session, if that isn't null.
bool system_process(HANDLE process, DWORD *session = nullptr);

// The process's token is elevated and a member of Administrators.
bool elevated_admin_process(HANDLE process);

// Enables one privilege in the own process's token; false also if the token doesn't hold it.
bool enable_privilege(const wchar_t *name);

} // namespace host_service

#endif
