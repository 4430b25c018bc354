// Tokens: who a process is, what that allows, copies of it, and the privileges a call may need. A process's own token
// shares the process's facts, so what is adjusted there counts for its later calls.
#include <algorithm>
#include <cstring>

#include "winsim/security_model.h"

namespace winsim {
namespace {

constexpr const wchar_t *privileges[] = {SE_ASSIGNPRIMARYTOKEN_NAME, SE_INCREASE_QUOTA_NAME,
                                         SE_TCB_NAME}; // a LUID is a place here

BOOL duplicate(HANDLE handle, DWORD access, bool primary, HANDLE *out) {
    const auto found = find_as<token>(handle, TOKEN_DUPLICATE);
    if (!found) {
        return FALSE;
    }
    auto made = std::make_shared<token>();
    made->facts = std::make_shared<token_facts>(*found->facts);
    made->primary = primary;
    *out = make_handle(made, access);
    return TRUE;
}

} // namespace

bool may_open(const token_facts &who, const token_facts &whose) {
    return who.elevated || (sid_text(who.user) == sid_text(whose.user) && !whose.elevated);
}

bool enabled(const token_facts &who, const wchar_t *privilege) {
    const auto held = who.privileges.find(privilege);
    return held != who.privileges.end() && held->second;
}

token_facts system_token(DWORD session) {
    return {"SY",
            {"BA", "AU"},
            session,
            true,
            {{SE_TCB_NAME, false}, {SE_ASSIGNPRIMARYTOKEN_NAME, false}, {SE_INCREASE_QUOTA_NAME, false}}};
}

token_facts admin_token(DWORD session) {
    return {profiles[0].sid, {"BA", "BU", "AU", "IU"}, session, true, {{SE_INCREASE_QUOTA_NAME, false}}};
}

token_facts filtered_admin_token(DWORD session) {
    return {profiles[0].sid, {"BU", "AU", "IU"}, session, false, {}};
}

token_facts user_token(DWORD session) { return {profiles[1].sid, {"BU", "AU", "IU"}, session, false, {}}; }

DWORD map_generic(DWORD wanted) {
    const auto map = [&wanted](DWORD generic, DWORD specific) {
        wanted = (wanted & generic) != 0 ? (wanted & ~generic) | specific : wanted;
    };
    map(GENERIC_READ, FILE_GENERIC_READ);
    map(GENERIC_WRITE, FILE_GENERIC_WRITE);
    map(GENERIC_EXECUTE, FILE_GENERIC_EXECUTE);
    map(GENERIC_ALL, FILE_ALL_ACCESS);
    return wanted;
}

bool holds_sid(const token_facts &who, const std::string &sid) {
    auto same = [&](const std::string &name) { return sid_text(name) == sid; };
    return same(who.user) || same("WD") || std::any_of(who.groups.begin(), who.groups.end(), same);
}

bool access_allowed(const token_facts &who, const std::string &sddl, DWORD desired) {
    const descriptor_record descriptor = *parse_sddl(sddl);
    DWORD missing = map_generic(desired);
    if (!descriptor.dacl_present || descriptor.null_dacl) {
        return true;
    }
    if (holds_sid(who, descriptor.owner)) {
        missing &= ~(READ_CONTROL | WRITE_DAC);
    }
    for (const access_entry &entry : descriptor.entries) {
        if ((entry.flags & INHERIT_ONLY_ACE) != 0 || !holds_sid(who, entry.sid)) {
            continue;
        }
        if (entry.type == ACCESS_DENIED_ACE_TYPE && (missing & map_generic(entry.mask)) != 0) {
            return false;
        }
        if (entry.type == ACCESS_ALLOWED_ACE_TYPE) {
            missing &= ~map_generic(entry.mask);
        }
    }
    return missing == 0;
}

} // namespace winsim

using namespace winsim;

BOOL OpenProcessToken(HANDLE handle, DWORD access, HANDLE *out) {
    const auto of = asked<process>(__func__, handle, PROCESS_QUERY_LIMITED_INFORMATION);
    if (!of) {
        return FALSE;
    }
    if (of.get() != &acting() && !may_open(*acting().who, *of->who)) {
        return refuse(ERROR_ACCESS_DENIED);
    }
    auto made = std::make_shared<token>();
    made->facts = of->who;
    *out = make_handle(made, access);
    return TRUE;
}

BOOL GetTokenInformation(HANDLE handle, TOKEN_INFORMATION_CLASS what, void *out, DWORD size, DWORD *needed) {
    const auto found = asked<token>(__func__, handle, TOKEN_QUERY);
    if (!found) {
        return FALSE;
    }
    const std::vector<BYTE> sid = *sid_bytes(sid_text(found->facts->user));
    const DWORD word = what == TokenSessionId ? found->facts->session : found->facts->elevated;
    *needed = static_cast<DWORD>(what == TokenUser ? sizeof(TOKEN_USER) + sid.size() : sizeof word);
    if (size < *needed) {
        return refuse(ERROR_INSUFFICIENT_BUFFER);
    }
    if (what != TokenUser) {
        std::memcpy(out, &word, sizeof word);
        return TRUE;
    }
    TOKEN_USER *user = static_cast<TOKEN_USER *>(out);
    user->User = {std::memcpy(user + 1, sid.data(), sid.size())};
    return TRUE;
}

BOOL SetTokenInformation(HANDLE handle, TOKEN_INFORMATION_CLASS what, void *value, DWORD size) {
    const auto found = asked<token>(__func__, handle, TOKEN_ADJUST_DEFAULT | TOKEN_ADJUST_SESSIONID);
    if (!found) {
        return FALSE;
    }
    if (what != TokenSessionId || size != sizeof(DWORD) || !enabled(*acting().who, SE_TCB_NAME)) {
        return refuse(ERROR_PRIVILEGE_NOT_HELD);
    }
    std::memcpy(&found->facts->session, value, size);
    return TRUE;
}

BOOL DuplicateTokenEx(HANDLE handle, DWORD access, SECURITY_ATTRIBUTES *, SECURITY_IMPERSONATION_LEVEL,
                      TOKEN_TYPE type, HANDLE *out) {
    return !failing("DuplicateTokenEx") && duplicate(handle, access, type == TokenPrimary, out);
}

BOOL DuplicateToken(HANDLE handle, SECURITY_IMPERSONATION_LEVEL, HANDLE *out) {
    return !failing("DuplicateToken") && duplicate(handle, TOKEN_QUERY | TOKEN_IMPERSONATE, false, out);
}

BOOL CheckTokenMembership(HANDLE handle, PSID sid, BOOL *member) {
    const auto found = asked<token>(__func__, handle, TOKEN_QUERY);
    if (!found || found->primary) {
        return found ? refuse(ERROR_NO_IMPERSONATION_TOKEN) : FALSE;
    }
    *member = holds_sid(*found->facts, sid_from_memory(sid));
    return TRUE;
}

BOOL LookupPrivilegeValueW(const wchar_t *, const wchar_t *name, LUID *out) {
    BEGIN_CALL(FALSE);
    const auto row = std::find(std::begin(privileges), std::end(privileges), std::wstring(name));
    *out = {static_cast<DWORD>(row - privileges)};
    return row != std::end(privileges);
}

// Success leaves the last error as it was, but for a privilege that isn't held: a caller that didn't clear it first
// can't tell the two apart.
BOOL AdjustTokenPrivileges(HANDLE handle, BOOL, TOKEN_PRIVILEGES *wanted, DWORD, TOKEN_PRIVILEGES *,
                           DWORD *) {
    const auto found = asked<token>(__func__, handle, TOKEN_ADJUST_PRIVILEGES);
    if (!found) {
        return FALSE;
    }
    const auto &[luid, attributes] = wanted->Privileges[0];
    const auto held = found->facts->privileges.find(privileges[luid.LowPart]);
    if (wanted->PrivilegeCount == 0 || held == found->facts->privileges.end()) {
        SetLastError(ERROR_NOT_ALL_ASSIGNED);
    } else {
        held->second = (attributes & SE_PRIVILEGE_ENABLED) != 0;
    }
    return TRUE;
}

BOOL RevertToSelf() { return !failing("RevertToSelf"); }
