// Access lists and descriptors: their SDDL text and the memory layouts that the sources walk.
#include "winsim/security_model.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace winsim {
namespace {

struct named_value {
    const char *name;
    DWORD value;
};
constexpr named_value rights[] = {
    {"FA", FILE_ALL_ACCESS},      {"FR", FILE_GENERIC_READ}, {"FW", FILE_GENERIC_WRITE},
    {"FX", FILE_GENERIC_EXECUTE}, {"GA", GENERIC_ALL},       {"GR", GENERIC_READ},
    {"GW", GENERIC_WRITE},        {"GX", GENERIC_EXECUTE},   {"SD", DELETE},
    {"RC", READ_CONTROL},         {"WD", WRITE_DAC},         {"WO", WRITE_OWNER},
};
constexpr named_value entry_flags[] = {
    {"OI", OBJECT_INHERIT_ACE},
    {"CI", CONTAINER_INHERIT_ACE},
    {"IO", INHERIT_ONLY_ACE},
    {"ID", INHERITED_ACE},
};
constexpr named_value entry_types[] = {
    {"A", ACCESS_ALLOWED_ACE_TYPE},
    {"D", ACCESS_DENIED_ACE_TYPE},
    {"AU", SYSTEM_AUDIT_ACE_TYPE},
    {"OA", ACCESS_ALLOWED_OBJECT_ACE_TYPE},
};
constexpr named_value control_flags[] = {{"P", SE_DACL_PROTECTED}, {"AI", SE_DACL_AUTO_INHERITED}};

// A row of names without separators, such as "OICI".
template <size_t N>
std::optional<DWORD> parse_names(const named_value (&table)[N], std::string text) {
    DWORD value = 0;
    while (!text.empty()) {
        auto fits = [&](const named_value &row) { return text.starts_with(row.name); };
        const named_value *row = std::find_if(std::begin(table), std::end(table), fits);
        if (row == std::end(table)) {
            return std::nullopt;
        }
        value |= row->value;
        text.erase(0, std::strlen(row->name));
    }
    return value;
}

// "type;flags;rights;object;inherit object;account"
std::optional<access_entry> parse_entry(const std::string &text) {
    std::istringstream from(text);
    std::string type, flags, mask, object, inherited, account;
    for (std::string *field : {&type, &flags, &mask, &object, &inherited, &account}) {
        std::getline(from, *field, ';');
    }
    const auto row = std::ranges::find(entry_types, type, &named_value::name);
    const std::optional<DWORD> flag_bits = parse_names(entry_flags, flags);
    const std::optional<DWORD> mask_bits = mask.starts_with("0x")
                                               ? static_cast<DWORD>(std::stoul(mask, nullptr, 16))
                                               : parse_names(rights, mask);
    const std::string sid = sid_text(account);
    if (row == std::end(entry_types) || !flag_bits || !mask_bits || sid.empty()) {
        return std::nullopt;
    }
    return access_entry{static_cast<BYTE>(row->value), static_cast<BYTE>(*flag_bits), *mask_bits, sid};
}

bool parse_dacl(const std::string &text, descriptor_record &out) {
    out.dacl_present = true;
    out.null_dacl = text == "NO_ACCESS_CONTROL";
    if (out.null_dacl) {
        return true;
    }
    size_t at = std::min(text.find('('), text.size());
    const std::optional<DWORD> control = parse_names(control_flags, text.substr(0, at));
    out.control = static_cast<WORD>(control.value_or(0));
    for (size_t end = 0; at < text.size(); at = end + 1) {
        end = std::min(text.find(')', at), text.size());
        const auto entry = parse_entry(text.substr(at + 1, end - at - 1));
        if (text[at] != '(' || end == text.size() || !entry) {
            return false;
        }
        out.entries.push_back(*entry);
    }
    return control.has_value();
}

void append(std::vector<BYTE> &out, const void *bytes, size_t size) {
    const BYTE *from = static_cast<const BYTE *>(bytes);
    out.insert(out.end(), from, from + size);
}

void append_entry(std::vector<BYTE> &out, const access_entry &entry) {
    const std::vector<BYTE> sid = *sid_bytes(entry.sid);
    const DWORD words[] = {entry.mask, 0};
    // Behind an object entry's mask stands a word that says which object types follow: none.
    const size_t mask_size = entry.type == ACCESS_ALLOWED_OBJECT_ACE_TYPE ? 8 : 4;
    const ACE_HEADER header{entry.type, entry.flags,
                            static_cast<WORD>(sizeof(ACE_HEADER) + mask_size + sid.size())};
    append(out, &header, sizeof header);
    append(out, words, mask_size);
    append(out, sid.data(), sid.size());
}

// What a descriptor's memory begins with; the rest of the same allocation is what it points to.
struct descriptor_memory {
    WORD control;
    BYTE *owner;
    ACL *dacl;
    const char *sddl;
};

} // namespace

std::optional<descriptor_record> parse_sddl(const std::string &text) {
    descriptor_record out;
    for (size_t at = 0, end = 0; at < text.size(); at = end) {
        const char part = text[at];
        if (text[at + 1] != ':' || (part != 'O' && part != 'G' && part != 'D')) {
            return std::nullopt;
        }
        const size_t next = text.find(':', at + 2); // none stands inside a part
        end = next == std::string::npos ? text.size() : next - 1;
        const std::string body = text.substr(at + 2, end - at - 2);
        if (part == 'D' && !parse_dacl(body, out)) {
            return std::nullopt;
        }
        if (part != 'D' && sid_text(body).empty()) {
            return std::nullopt;
        }
        out.owner = part == 'O' ? sid_text(body) : out.owner;
    }
    return out;
}

PSECURITY_DESCRIPTOR to_memory(const std::string &sddl) {
    const descriptor_record record = *parse_sddl(sddl);
    std::vector<BYTE> owner = sid_bytes(record.owner).value_or(std::vector<BYTE>());
    std::vector<BYTE> list(sizeof(ACL));
    for (const access_entry &entry : record.entries) {
        append_entry(list, entry);
    }
    const ACL acl{2, 0, static_cast<WORD>(list.size()), static_cast<WORD>(record.entries.size()), 0};
    std::memcpy(list.data(), &acl, sizeof acl);

    const size_t size = sizeof(descriptor_memory) + list.size() + owner.size() + sddl.size() + 1;
    BYTE *memory = static_cast<BYTE *>(sim_local_alloc(size));
    BYTE *at = memory + sizeof(descriptor_memory);
    auto place = [&](const void *bytes, size_t count) {
        BYTE *start = at;
        std::memcpy(start, bytes, count);
        at += count;
        return start;
    };
    descriptor_memory head{};
    head.control = static_cast<WORD>(record.control | (record.dacl_present ? SE_DACL_PRESENT : 0));
    if (record.dacl_present && !record.null_dacl) {
        head.dacl = reinterpret_cast<ACL *>(place(list.data(), list.size()));
    }
    head.owner = owner.empty() ? nullptr : place(owner.data(), owner.size());
    head.sddl = reinterpret_cast<const char *>(place(sddl.c_str(), sddl.size() + 1));
    std::memcpy(memory, &head, sizeof head);
    return memory;
}

std::string sddl_of(PSECURITY_DESCRIPTOR memory) { return static_cast<descriptor_memory *>(memory)->sddl; }

std::string inherited_descriptor(const std::string &parent, const token_facts &creator, bool directory) {
    const std::string owner = creator.elevated ? "BA" : creator.user;
    const descriptor_record above = *parse_sddl(parent);
    std::string entries;
    for (const access_entry &entry : above.entries) {
        if ((entry.flags & (directory ? CONTAINER_INHERIT_ACE : OBJECT_INHERIT_ACE)) != 0) {
            std::string flags = directory && (entry.flags & OBJECT_INHERIT_ACE) != 0 ? "OI" : "";
            flags += directory ? "CIID" : "ID";
            char mask[16];
            std::snprintf(mask, sizeof mask, "0x%x", entry.mask);
            entries += (entry.type == ACCESS_DENIED_ACE_TYPE ? "(D;" : "(A;") + flags + ";" + mask + ";;;" +
                       entry.sid + ")";
        }
    }
    if (entries.empty()) {
        entries = "(A;;FA;;;" + owner + ")(A;;FA;;;SY)"; // the token's default list
    }
    return "O:" + owner + "G:" + owner + "D:AI" + entries;
}

} // namespace winsim

using namespace winsim;

BOOL ConvertStringSecurityDescriptorToSecurityDescriptorW(const wchar_t *text, DWORD revision,
                                                          PSECURITY_DESCRIPTOR *out, DWORD *size) {
    BEGIN_CALL(FALSE);
    const std::string sddl = narrow(text);
    if (revision != SDDL_REVISION_1 || size != nullptr || !parse_sddl(sddl)) {
        return refuse(ERROR_INVALID_PARAMETER);
    }
    *out = to_memory(sddl);
    return TRUE;
}

BOOL GetAce(PACL list, DWORD index, void **out) {
    BEGIN_CALL(FALSE);
    if (index >= list->AceCount) {
        return refuse(ERROR_INVALID_PARAMETER);
    }
    BYTE *entry = reinterpret_cast<BYTE *>(list + 1);
    for (DWORD i = 0; i < index; i++) {
        entry += reinterpret_cast<ACE_HEADER *>(entry)->AceSize;
    }
    *out = entry;
    return TRUE;
}

BOOL GetSecurityDescriptorControl(PSECURITY_DESCRIPTOR descriptor, SECURITY_DESCRIPTOR_CONTROL *control,
                                  DWORD *revision) {
    BEGIN_CALL(FALSE);
    *control = static_cast<descriptor_memory *>(descriptor)->control;
    *revision = SDDL_REVISION_1;
    return TRUE;
}

DWORD GetNamedSecurityInfoW(const wchar_t *name, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID *owner,
                            PSID *, PACL *dacl, PACL *, PSECURITY_DESCRIPTOR *descriptor) {
    BEGIN_CALL(GetLastError());
    std::string sddl;
    const DWORD error = type == SE_FILE_OBJECT ? file_descriptor(name, sddl) : ERROR_INVALID_PARAMETER;
    if (error != ERROR_SUCCESS) {
        return error;
    }
    descriptor_memory *memory = static_cast<descriptor_memory *>(*descriptor = to_memory(sddl));
    if ((what & OWNER_SECURITY_INFORMATION) != 0 && owner != nullptr) {
        *owner = memory->owner;
    }
    if ((what & DACL_SECURITY_INFORMATION) != 0 && dacl != nullptr) {
        *dacl = memory->dacl;
    }
    return ERROR_SUCCESS;
}
