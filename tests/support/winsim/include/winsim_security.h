// Security as <windows.h> declares it: SIDs, access lists and descriptors in their real layouts (one allocation holds
// a descriptor with all that it points to), tokens and privileges. Only what the sources call.
#ifndef WINSIM_SECURITY_H
#define WINSIM_SECURITY_H

#include <windows.h>

using SECURITY_DESCRIPTOR_CONTROL = WORD;
using SECURITY_INFORMATION = DWORD;

constexpr int ANYSIZE_ARRAY = 1;
constexpr BYTE SID_REVISION = 1;
constexpr DWORD SECURITY_MAX_SID_SIZE = 68;
struct SID_IDENTIFIER_AUTHORITY {
    BYTE Value[6]; // big-endian
};
struct SID {
    BYTE Revision;
    BYTE SubAuthorityCount;
    SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
    DWORD SubAuthority[ANYSIZE_ARRAY];
};
enum WELL_KNOWN_SID_TYPE {
    WinWorldSid = 1,
    WinInteractiveSid = 13,
    WinAuthenticatedUserSid = 17,
    WinLocalSystemSid = 22,
    WinBuiltinAdministratorsSid = 26,
    WinBuiltinUsersSid = 27,
};

constexpr BYTE ACCESS_ALLOWED_ACE_TYPE = 0x0;
constexpr BYTE ACCESS_DENIED_ACE_TYPE = 0x1;
constexpr BYTE SYSTEM_AUDIT_ACE_TYPE = 0x2;
constexpr BYTE ACCESS_ALLOWED_OBJECT_ACE_TYPE = 0x5;
constexpr BYTE OBJECT_INHERIT_ACE = 0x1;
constexpr BYTE CONTAINER_INHERIT_ACE = 0x2;
constexpr BYTE NO_PROPAGATE_INHERIT_ACE = 0x4;
constexpr BYTE INHERIT_ONLY_ACE = 0x8;
constexpr BYTE INHERITED_ACE = 0x10;
struct ACE_HEADER {
    BYTE AceType;
    BYTE AceFlags;
    WORD AceSize;
};
struct ACCESS_ALLOWED_ACE {
    ACE_HEADER Header;
    DWORD Mask;
    DWORD SidStart; // the first four bytes of the SID
};
struct ACL {
    BYTE AclRevision;
    BYTE Sbz1;
    WORD AclSize;
    WORD AceCount;
    WORD Sbz2;
};
using PACL = ACL *;

constexpr DWORD SDDL_REVISION_1 = 1;
constexpr WORD SE_DACL_PRESENT = 0x0004;
constexpr WORD SE_DACL_AUTO_INHERIT_REQ = 0x0100;
constexpr WORD SE_DACL_AUTO_INHERITED = 0x0400;
constexpr WORD SE_DACL_PROTECTED = 0x1000;
constexpr DWORD OWNER_SECURITY_INFORMATION = 0x1;
constexpr DWORD GROUP_SECURITY_INFORMATION = 0x2;
constexpr DWORD DACL_SECURITY_INFORMATION = 0x4;
constexpr DWORD ERROR_INVALID_OWNER = 1307;
constexpr DWORD ERROR_NO_IMPERSONATION_TOKEN = 1309;
enum SE_OBJECT_TYPE { SE_UNKNOWN_OBJECT_TYPE = 0, SE_FILE_OBJECT = 1 };

constexpr DWORD SE_PRIVILEGE_ENABLED = 0x2;
constexpr wchar_t SE_TCB_NAME[] = L"SeTcbPrivilege";
constexpr wchar_t SE_ASSIGNPRIMARYTOKEN_NAME[] = L"SeAssignPrimaryTokenPrivilege";
constexpr wchar_t SE_INCREASE_QUOTA_NAME[] = L"SeIncreaseQuotaPrivilege";
struct LUID {
    DWORD LowPart;
    LONG HighPart;
};
struct LUID_AND_ATTRIBUTES {
    LUID Luid;
    DWORD Attributes;
};
struct TOKEN_PRIVILEGES {
    DWORD PrivilegeCount;
    LUID_AND_ATTRIBUTES Privileges[ANYSIZE_ARRAY];
};

constexpr DWORD TOKEN_ASSIGN_PRIMARY = 0x0001;
constexpr DWORD TOKEN_DUPLICATE = 0x0002;
constexpr DWORD TOKEN_IMPERSONATE = 0x0004;
constexpr DWORD TOKEN_QUERY = 0x0008;
constexpr DWORD TOKEN_ADJUST_PRIVILEGES = 0x0020;
constexpr DWORD TOKEN_ADJUST_DEFAULT = 0x0080;
constexpr DWORD TOKEN_ADJUST_SESSIONID = 0x0100;
constexpr DWORD TOKEN_ALL_ACCESS = 0x000F01FF;
enum TOKEN_INFORMATION_CLASS { TokenUser = 1, TokenSessionId = 12, TokenElevation = 20 };
enum TOKEN_TYPE { TokenPrimary = 1, TokenImpersonation = 2 };
enum SECURITY_IMPERSONATION_LEVEL { SecurityIdentification = 1, SecurityImpersonation = 2 };
struct SID_AND_ATTRIBUTES {
    PSID Sid;
    DWORD Attributes;
};
struct TOKEN_USER {
    SID_AND_ATTRIBUTES User;
};
struct TOKEN_ELEVATION {
    DWORD TokenIsElevated;
};

extern "C" {
BOOL ConvertStringSecurityDescriptorToSecurityDescriptorW(const wchar_t *text, DWORD revision,
                                                          PSECURITY_DESCRIPTOR *out, DWORD *size);
BOOL ConvertStringSidToSidW(const wchar_t *text, PSID *out);
BOOL ConvertSidToStringSidW(PSID sid, wchar_t **out);
BOOL EqualSid(PSID left, PSID right);
BOOL IsWellKnownSid(PSID sid, WELL_KNOWN_SID_TYPE type);
BOOL CreateWellKnownSid(WELL_KNOWN_SID_TYPE type, PSID domain, PSID out, DWORD *size);
BOOL GetAce(PACL list, DWORD index, void **out);
BOOL GetSecurityDescriptorControl(PSECURITY_DESCRIPTOR descriptor, SECURITY_DESCRIPTOR_CONTROL *control,
                                  DWORD *revision);
DWORD GetNamedSecurityInfoW(const wchar_t *name, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID *owner,
                            PSID *group, PACL *dacl, PACL *sacl, PSECURITY_DESCRIPTOR *descriptor);

BOOL OpenProcessToken(HANDLE process, DWORD access, HANDLE *out);
BOOL GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS what, void *out, DWORD size, DWORD *needed);
BOOL SetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS what, void *value, DWORD size);
BOOL DuplicateToken(HANDLE token, SECURITY_IMPERSONATION_LEVEL level, HANDLE *out);
BOOL DuplicateTokenEx(HANDLE token, DWORD access, SECURITY_ATTRIBUTES *attributes,
                      SECURITY_IMPERSONATION_LEVEL level, TOKEN_TYPE type, HANDLE *out);
BOOL CheckTokenMembership(HANDLE token, PSID sid, BOOL *member);
BOOL LookupPrivilegeValueW(const wchar_t *system, const wchar_t *name, LUID *out);
BOOL AdjustTokenPrivileges(HANDLE token, BOOL disable_all, TOKEN_PRIVILEGES *wanted, DWORD size,
                           TOKEN_PRIVILEGES *before, DWORD *needed);
BOOL RevertToSelf();
}

#endif
