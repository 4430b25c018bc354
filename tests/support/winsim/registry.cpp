// The registry: values by key path and name. HKEY_CURRENT_USER is a tree of its own for each user; HKEY_LOCAL_MACHINE
// is written by elevated processes alone.
#include <algorithm>
#include <cstring>
#include <tuple>

#include "winsim/own_closer.h"
#include "winsim/security_model.h"

namespace winsim {
namespace {

struct registry_value {
    DWORD type;
    std::vector<BYTE> bytes;
};

struct registry {
    std::map<std::pair<std::wstring, std::wstring>, registry_value>
        values; // by folded key path and folded name
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

// A predefined key or an open one with a path below it; empty if it is no key.
std::wstring key_path(HKEY key, const wchar_t *subkey) {
    std::wstring path;
    if (key == HKEY_LOCAL_MACHINE || key == HKEY_CURRENT_USER) {
        path = key == HKEY_LOCAL_MACHINE ? L"HKLM" : L"HKCU";
    } else if (std::shared_ptr<open_key> found = find_as<open_key>(key)) {
        path = found->path;
    }
    return path.empty() || subkey == nullptr ? path : path + L"\\" + subkey;
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

bool machine::in_registry(const std::wstring &key, const std::wstring &name) const {
    return values().count({table_key(key), fold(name)}) != 0;
}

std::wstring machine::registry_text(const std::wstring &key, const std::wstring &name) const {
    const registry_value &value = values().at({table_key(key), fold(name)});
    std::wstring text(value.bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), value.bytes.data(), text.size() * sizeof(wchar_t));
    return text;
}

} // namespace winsim

using namespace winsim;

LSTATUS RegGetValueW(HKEY key, LPCWSTR subkey, LPCWSTR name, DWORD flags, DWORD *type, void *out,
                     DWORD *size) {
    if (failing("RegGetValueW")) {
        return result(GetLastError());
    }
    const std::wstring path = key_path(key, subkey);
    auto found = values().find({table_key(path), fold(name)});
    if (path.empty() || found == values().end()) {
        return result(path.empty() ? ERROR_INVALID_HANDLE : ERROR_FILE_NOT_FOUND);
    }
    registry_value value = found->second;
    if ((flags & 1u << value.type) == 0) {
        return result(ERROR_UNSUPPORTED_TYPE);
    }
    // A text that was stored without its end gets one here.
    constexpr size_t unit = sizeof(wchar_t);
    if (value.type == REG_SZ &&
        (value.bytes.size() < unit ||
         std::any_of(value.bytes.end() - unit, value.bytes.end(), [](BYTE b) { return b != 0; }))) {
        value.bytes.resize(value.bytes.size() + unit);
    }
    if (type != nullptr) {
        *type = value.type;
    }
    const DWORD given = size != nullptr ? *size : 0;
    if (size != nullptr) {
        *size = static_cast<DWORD>(value.bytes.size());
    }
    if (out != nullptr && given < value.bytes.size()) {
        return result(ERROR_MORE_DATA);
    }
    if (out != nullptr) {
        std::memcpy(out, value.bytes.data(), value.bytes.size());
    }
    return result(ERROR_SUCCESS);
}

LSTATUS RegCreateKeyExW(HKEY key, LPCWSTR subkey, DWORD, LPWSTR, DWORD, REGSAM access,
                        const SECURITY_ATTRIBUTES *, HKEY *out, DWORD *) {
    if (failing("RegCreateKeyExW")) {
        return result(GetLastError());
    }
    auto made = std::make_shared<open_key>();
    made->path = key_path(key, subkey);
    if (made->path.empty() || (made->path.starts_with(L"HKLM") && !acting().who->elevated)) {
        return result(made->path.empty() ? ERROR_INVALID_HANDLE : ERROR_ACCESS_DENIED);
    }
    *out = static_cast<HKEY>(make_handle(made, access));
    return ERROR_SUCCESS;
}

LSTATUS RegSetValueExW(HKEY key, LPCWSTR name, DWORD, DWORD type, const BYTE *bytes, DWORD size) {
    std::shared_ptr<open_key> found =
        failing("RegSetValueExW") ? nullptr : find_as<open_key>(key, KEY_SET_VALUE);
    if (!found) {
        return result(GetLastError());
    }
    set(found->path, name, type, bytes, size);
    return ERROR_SUCCESS;
}

LSTATUS RegDeleteValueW(HKEY key, LPCWSTR name) {
    std::shared_ptr<open_key> found =
        failing("RegDeleteValueW") ? nullptr : find_as<open_key>(key, KEY_SET_VALUE);
    if (!found) {
        return result(GetLastError());
    }
    return result(values().erase({table_key(found->path), fold(name)}) != 0 ? ERROR_SUCCESS
                                                                            : ERROR_FILE_NOT_FOUND);
}

LSTATUS RegCloseKey(HKEY key) {
    enter("RegCloseKey");
    return result(close_own<open_key>(key) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE);
}
