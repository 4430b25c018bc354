// Why the service's trust checks refuse a path.
#include "ctl/explain.h"

#include <cstdint>

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <handles.h>
#include <sysinfo.h>

#include "common/text.h"

namespace app {
namespace {

using host_service::PathKind;

constexpr wchar_t system_sid[] = L"S-1-5-18";
constexpr wchar_t administrators_sid[] = L"S-1-5-32-544";
constexpr wchar_t installer_sid[] = L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

// What nobody but the trusted may hold, with the words of the system's own dialogs; the second group does no harm on a
// folder above.
struct right {
    DWORD mask;
    const char *name;
    bool on_ancestors;
};
constexpr right rights[] = {
    {GENERIC_ALL, "full control", true},
    {GENERIC_WRITE, "write", true},
    {WRITE_OWNER, "take ownership", true},
    {WRITE_DAC, "change permissions", true},
    {DELETE, "delete", true},
    {FILE_DELETE_CHILD, "delete subfolders and files", true},
    {FILE_WRITE_DATA, "create files / write data", false},
    {FILE_APPEND_DATA, "create folders / append data", false},
    {FILE_WRITE_EA, "write extended attributes", false},
    {FILE_WRITE_ATTRIBUTES, "write attributes", false},
};

std::wstring sid_text(PSID sid) {
    host_service::owned<host_service::local_memory<LPWSTR>> text;
    return ConvertSidToStringSidW(sid, text.put()) ? text.get() : L"";
}

// "DOMAIN\name", or the identifier of an account that is gone or of another machine.
std::string account(PSID sid) {
    wchar_t name[256];
    wchar_t domain[256];
    DWORD name_size = 256;
    DWORD domain_size = 256;
    SID_NAME_USE use{};
    if (!LookupAccountSidW(nullptr, sid, name, &name_size, domain, &domain_size, &use))
        return to_utf8(sid_text(sid));
    return to_utf8(domain_size > 0 ? std::wstring(domain) + L"\\" + name : name);
}

bool trusted(PSID sid, PathKind kind) {
    const std::wstring text = sid_text(sid);
    return text == system_sid || text == administrators_sid ||
           (kind != PathKind::private_only && text == installer_sid);
}

const char *trusted_names(PathKind kind) {
    return kind == PathKind::private_only ? "SYSTEM and Administrators"
                                          : "SYSTEM, Administrators and TrustedInstaller";
}

// The first component that is a link, or is missing above the end.
std::string component_fault(const std::wstring &path) {
    if (path.size() < 3 || path[1] != L':' || path[2] != L'\\')
        return "it is no path on a drive of this machine";
    for (size_t end = path.find(L'\\', 3);; end = path.find(L'\\', end + 1)) {
        const std::wstring prefix = path.substr(0, end);
        const DWORD attributes = GetFileAttributesW(prefix.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES)
            return format("%s: can't be looked at (error %lu)", to_utf8(prefix).c_str(),
                          static_cast<unsigned long>(GetLastError()));
        if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
            return to_utf8(prefix) + " is a link (a junction, a symbolic link or the like)";
        if (end == std::wstring::npos) return "";
    }
}

// What is wrong with one entry of the list; empty for nothing.
std::string entry_fault(ACE_HEADER *entry, PathKind kind) {
    if (entry->AceType == ACCESS_DENIED_ACE_TYPE) return "";
    if (entry->AceType != ACCESS_ALLOWED_ACE_TYPE)
        return format("has an entry of an unusual type (%u)", unsigned{entry->AceType});
    auto *allowed = reinterpret_cast<ACCESS_ALLOWED_ACE *>(entry);
    PSID sid = &allowed->SidStart;
    if (trusted(sid, kind)) return "";
    if (kind == PathKind::private_only)
        return "has an entry for \"" + account(sid) + "\"; none but SYSTEM and Administrators may have one";
    if ((entry->AceFlags & INHERIT_ONLY_ACE) != 0) return "";
    std::string names;
    for (const right &r : rights) {
        if ((allowed->Mask & r.mask) == 0 || (kind == PathKind::ancestor && !r.on_ancestors)) continue;
        names += (names.empty() ? "" : ", ") + std::string(r.name);
    }
    return names.empty() ? "" : "lets \"" + account(sid) + "\" do this: " + names;
}

} // namespace

std::vector<std::string> explain_refusal(const std::wstring &path, PathKind kind) {
    const std::string component = component_fault(path);
    if (!component.empty()) return {component};
    std::vector<std::string> reasons;
    PSID owner = nullptr;
    PACL list = nullptr;
    host_service::unique_descriptor descriptor;
    const DWORD error = GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT,
                                              OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner,
                                              nullptr, &list, nullptr, descriptor.put());
    if (error != ERROR_SUCCESS)
        return {
            format("its owner and permissions can't be read (error %lu)", static_cast<unsigned long>(error))};
    if (owner == nullptr) {
        reasons.emplace_back("has no owner");
    } else if (!trusted(owner, kind)) {
        reasons.push_back("belongs to \"" + account(owner) + "\"; its owner may be one of " +
                          trusted_names(kind));
    }
    if (list == nullptr)
        return reasons.emplace_back("has no access list, so everybody may do everything"), reasons;
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    if (kind == PathKind::private_only &&
        GetSecurityDescriptorControl(descriptor.get(), &control, &revision) &&
        (control & SE_DACL_PROTECTED) == 0)
        reasons.emplace_back("inherits permissions from the folder above");
    for (DWORD i = 0; i < list->AceCount; i++) {
        void *entry = nullptr;
        const std::string fault = GetAce(list, i, &entry)
                                      ? entry_fault(static_cast<ACE_HEADER *>(entry), kind)
                                      : "has an entry that can't be read";
        if (!fault.empty()) reasons.push_back(fault);
    }
    if (reasons.empty()) reasons.emplace_back("was refused, though nothing is to be seen of it now");
    return reasons;
}

} // namespace app
