// The trust predicates: flat lists of guard clauses, the strict one first. The kinds of path are rows of one table.
// Whatever the system hands out is in an owner, so that every refusal leaves nothing behind. No state, no threads.
#include "security.h"

#include <algorithm>
#include <string_view>

#include <aclapi.h>
#include <sddl.h>

#include "handles.h"

namespace host_service {
namespace {

using unique_sid = owned<local_memory<PSID>>;

// The account that owns what the system's own installer has put down, the root of a drive among it.
constexpr wchar_t installer_sid[] = L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

// SYSTEM and Administrators may do everything, below it too; nobody else anything; nothing is inherited from above.
constexpr wchar_t private_descriptor[] = L"O:BAG:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

// What lets others remove or replace what lies in a folder, or take the folder over.
constexpr DWORD takeover_rights =
    GENERIC_WRITE | GENERIC_ALL | WRITE_OWNER | WRITE_DAC | DELETE | FILE_DELETE_CHILD;
static_assert(takeover_rights == 0x500D0040);

// And what lets them change a file, or plant one in a folder that code is loaded from.
constexpr DWORD change_rights =
    takeover_rights | FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES;
static_assert(change_rights == 0x500D0156);

struct kind_rules {
    bool installer_trusted;
    bool others_allowed; // their entries are weighed; if not, none may exist and none may be inherited
    DWORD refused;       // rights that an entry for others must not hold
};

// One row per PathKind, by its value.
constexpr kind_rules rules_of_kind[] = {
    {false, false, 0},             // private_only
    {true, true, change_rights},   // read_only_for_users
    {true, true, takeover_rights}, // ancestor
};

bool plain_path(const std::wstring &path) {
    if (path.size() < 3 || path[1] != L':' || path[2] != L'\\' || path.find(L'/') != path.npos) {
        return false;
    }
    for (size_t begin = 3; begin < path.size();) {
        size_t end = std::min(path.find(L'\\', begin), path.size());
        std::wstring_view part = std::wstring_view(path).substr(begin, end - begin);
        if (part.empty() || part == L"." || part == L"..") {
            return false;
        }
        begin = end + 1;
    }
    return true;
}

// Where the prefix behind the one that ends at end does: before a backslash below the root, or at the path's own end.
size_t next_end(const std::wstring &path, size_t end) {
    return std::min(path.find(L'\\', end + 1), path.size());
}

// SYSTEM, Administrators and, where installer isn't null, TrustedInstaller.
bool trusted(PSID sid, PSID installer) {
    return IsWellKnownSid(sid, WinLocalSystemSid) || IsWellKnownSid(sid, WinBuiltinAdministratorsSid) ||
           (installer && EqualSid(sid, installer));
}

bool protected_from_inheritance(PSECURITY_DESCRIPTOR descriptor) {
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    return GetSecurityDescriptorControl(descriptor, &control, &revision) && (control & SE_DACL_PROTECTED);
}

bool entry_fine(ACL *list, DWORD index, const kind_rules &rules, PSID installer) {
    void *entry = nullptr;
    if (!GetAce(list, index, &entry)) {
        return false;
    }
    const ACE_HEADER *header = static_cast<const ACE_HEADER *>(entry);
    if (header->AceType == ACCESS_DENIED_ACE_TYPE) {
        return true;
    }
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE) {
        return false;
    }
    ACCESS_ALLOWED_ACE *allowed = static_cast<ACCESS_ALLOWED_ACE *>(entry);
    if (trusted(&allowed->SidStart, installer)) {
        return true;
    }
    if (!rules.others_allowed) {
        return false;
    }
    // An inherit-only entry says nothing about the object itself.
    return (header->AceFlags & INHERIT_ONLY_ACE) || !(allowed->Mask & rules.refused);
}

unique_handle open_token(HANDLE process, DWORD access) {
    HANDLE token = nullptr;
    return unique_handle(OpenProcessToken(process, access, &token) ? token : nullptr);
}

// Token information of fixed size; false unless the token answers exactly so much.
template <class T>
bool read_token(HANDLE token, TOKEN_INFORMATION_CLASS what, T *value) {
    DWORD size = 0;
    return GetTokenInformation(token, what, value, sizeof *value, &size) && size == sizeof *value;
}

bool system_token(HANDLE token) {
    alignas(TOKEN_USER) BYTE bytes[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    if (!GetTokenInformation(token, TokenUser, bytes, sizeof bytes, &size) || size < sizeof(TOKEN_USER)) {
        return false;
    }
    return IsWellKnownSid(reinterpret_cast<const TOKEN_USER *>(bytes)->User.Sid, WinLocalSystemSid);
}

} // namespace

bool no_reparse_components(const std::wstring &path) {
    if (!plain_path(path)) {
        return false;
    }
    for (size_t end = 2; end < path.size();) {
        end = next_end(path, end);
        DWORD attributes = GetFileAttributesW(path.substr(0, end).c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            DWORD error = GetLastError();
            return (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) && end == path.size();
        }
        if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
            return false;
        }
    }
    return true;
}

bool check_path(const std::wstring &path, PathKind kind) {
    const kind_rules &rules = rules_of_kind[static_cast<size_t>(kind)];
    if (!no_reparse_components(path)) {
        return false;
    }
    unique_descriptor descriptor;
    PSID owner = nullptr;
    ACL *list = nullptr;
    if (GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT,
                              OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner, nullptr, &list,
                              nullptr, descriptor.put()) != ERROR_SUCCESS) {
        return false;
    }
    unique_sid installer;
    if (rules.installer_trusted && !ConvertStringSidToSidW(installer_sid, installer.put())) {
        return false;
    }
    if (!owner || !trusted(owner, installer.get())) {
        return false;
    }
    // A null list allows everything to everyone.
    if (!list) {
        return false;
    }
    if (!rules.others_allowed && !protected_from_inheritance(descriptor.get())) {
        return false;
    }
    for (DWORD index = 0; index < list->AceCount; index++) {
        if (!entry_fine(list, index, rules, installer.get())) {
            return false;
        }
    }
    return true;
}

bool protected_path(const std::wstring &path, bool private_data) {
    return check_path(path, private_data ? PathKind::private_only : PathKind::read_only_for_users);
}

bool protected_ancestors(const std::wstring &path) {
    if (!no_reparse_components(path)) {
        return false;
    }
    if (path.size() < 4) {
        return true;
    }
    if (!check_path(path.substr(0, 3), PathKind::ancestor)) {
        return false;
    }
    for (size_t end = next_end(path, 2); end < path.size(); end = next_end(path, end)) {
        if (!check_path(path.substr(0, end), PathKind::ancestor)) {
            return false;
        }
    }
    return true;
}

bool create_private_directory(const std::wstring &path) {
    if (!no_reparse_components(path)) {
        return false;
    }
    unique_descriptor descriptor;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(private_descriptor, SDDL_REVISION_1,
                                                              descriptor.put(), nullptr)) {
        return false;
    }
    SECURITY_ATTRIBUTES attributes = {sizeof attributes, descriptor.get(), FALSE};
    if (!CreateDirectoryW(path.c_str(), &attributes) && GetLastError() != ERROR_ALREADY_EXISTS) {
        return false;
    }
    return check_path(path, PathKind::private_only);
}

bool system_process(HANDLE process, DWORD *session) {
    unique_handle token = open_token(process, TOKEN_QUERY);
    if (!token || !system_token(token.get())) {
        return false;
    }
    DWORD of_token = 0;
    if (!read_token(token.get(), TokenSessionId, &of_token)) {
        return false;
    }
    if (session) {
        *session = of_token;
    }
    return true;
}

bool elevated_admin_process(HANDLE process) {
    unique_handle token = open_token(process, TOKEN_QUERY | TOKEN_DUPLICATE);
    TOKEN_ELEVATION elevation = {};
    if (!token || !read_token(token.get(), TokenElevation, &elevation) || !elevation.TokenIsElevated) {
        return false;
    }
    BYTE administrators[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof administrators;
    if (!CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size)) {
        return false;
    }
    unique_handle copy;
    if (!DuplicateToken(token.get(), SecurityIdentification, copy.put())) {
        return false;
    }
    BOOL member = FALSE;
    return CheckTokenMembership(copy.get(), administrators, &member) && member;
}

bool enable_privilege(const wchar_t *name) {
    unique_handle token = open_token(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY);
    TOKEN_PRIVILEGES wanted = {1, {{{}, SE_PRIVILEGE_ENABLED}}};
    if (!token || !LookupPrivilegeValueW(nullptr, name, &wanted.Privileges[0].Luid)) {
        return false;
    }
    // The call also succeeds for a privilege that the token doesn't hold; the last error alone tells.
    SetLastError(ERROR_SUCCESS);
    return AdjustTokenPrivileges(token.get(), FALSE, &wanted, 0, nullptr, nullptr) &&
           GetLastError() == ERROR_SUCCESS;
}

} // namespace host_service
