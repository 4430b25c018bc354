// The registry: values by key path and name. HKEY_CURRENT_USER is a tree of its own for each user; HKEY_LOCAL_MACHINE
// is written by elevated processes alone.
#include <algorithm>
#include <cstring>
#include <utility>

#include "winsim/security_model.h"

namespace winsim {
namespace {

struct registry_value {
    DWORD type;
    std::vector<BYTE> bytes;
};

struct registry {
    std::map<std::pair<std::wstring, std::wstring>, registry_value> values; // by key path and name, folded
};

struct open_key : own_closer {
    std::wstring path;
    std::string describe() const override { return "registry key " + narrow(path); }
};

auto &values() { return part<registry>().values; }

// "HKLM\..." and "HKCU\..." as keys of the table.
std::wstring table_key(const std::wstring &path) {
    const std::string user = sid_text(acting().who->user);
    const bool personal = path.starts_with(L"HKCU");
    return fold(personal ? std::wstring(user.begin(), user.end()) + path.substr(4) : path);
}

// A predefined key with a path below it.
std::wstring key_path(HKEY key, const wchar_t *subkey) {
    return (key == HKEY_LOCAL_MACHINE ? L"HKLM\\" : L"HKCU\\") + std::wstring(subkey);
}

void set(const std::wstring &key, const std::wstring &name, DWORD type, const void *bytes, size_t size) {
    const BYTE *from = static_cast<const BYTE *>(bytes);
    values()[{table_key(key), fold(name)}] = {type, {from, from + size}};
}

LSTATUS result(DWORD error) { return static_cast<LSTATUS>(error); }

} // namespace

void machine::set_registry(const std::wstring &key, const std::wstring &name, DWORD value) {
    set(key, name, REG_DWORD, &value, sizeof value);
}

void machine::set_registry(const std::wstring &key, const std::wstring &name, const std::wstring &text) {
    set(key, name, REG_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
}

std::wstring machine::registry_text(const std::wstring &key, const std::wstring &name) const {
    const auto found = values().find({table_key(key), fold(name)});
    const std::vector<BYTE> bytes = found == values().end() ? std::vector<BYTE>() : found->second.bytes;
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<BYTE *>(text.data()));
    return text;
}

} // namespace winsim

using namespace winsim;

LSTATUS RegGetValueW(HKEY key, LPCWSTR subkey, LPCWSTR name, DWORD flags, DWORD *, void *out, DWORD *size) {
    BEGIN_CALL(result(GetLastError()));
    const auto found = values().find({table_key(key_path(key, subkey)), fold(name)});
    if (found == values().end()) {
        return ERROR_FILE_NOT_FOUND;
    }
    const auto &[kind, bytes] = found->second;
    if ((flags & 1u << kind) == 0) {
        return ERROR_UNSUPPORTED_TYPE;
    }
    const DWORD given = std::exchange(*size, static_cast<DWORD>(bytes.size()));
    if (given < bytes.size()) {
        return ERROR_MORE_DATA;
    }
    std::memcpy(out, bytes.data(), bytes.size());
    return ERROR_SUCCESS;
}

LSTATUS RegCreateKeyExW(HKEY key, LPCWSTR subkey, DWORD, LPWSTR, DWORD, REGSAM access,
                        const SECURITY_ATTRIBUTES *, HKEY *out, DWORD *) {
    BEGIN_CALL(result(GetLastError()));
    auto made = std::make_shared<open_key>();
    made->path = key_path(key, subkey);
    if (made->path.starts_with(L"HKLM") && !acting().who->elevated) {
        return ERROR_ACCESS_DENIED;
    }
    *out = static_cast<HKEY>(make_handle(made, access));
    return ERROR_SUCCESS;
}

LSTATUS RegSetValueExW(HKEY key, LPCWSTR name, DWORD, DWORD type, const BYTE *bytes, DWORD size) {
    const auto found = asked<open_key>(__func__, key, KEY_SET_VALUE);
    if (!found) {
        return result(GetLastError());
    }
    set(found->path, name, type, bytes, size);
    return ERROR_SUCCESS;
}

LSTATUS RegDeleteValueW(HKEY key, LPCWSTR name) {
    const auto found = asked<open_key>(__func__, key, KEY_SET_VALUE);
    if (!found) {
        return result(GetLastError());
    }
    const bool gone = values().erase({table_key(found->path), fold(name)}) != 0;
    return gone ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
}

LSTATUS RegCloseKey(HKEY key) {
    return close_own<open_key>(__func__, key) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}
