// SIDs: their short names, their text and the memory that the calls hand out.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "winsim/security_model.h"

namespace winsim {
namespace {

const std::map<std::string, std::string> known_sids = {
    {"SY", "S-1-5-18"},
    {"BA", "S-1-5-32-544"},
    {"BU", "S-1-5-32-545"},
    {"AU", "S-1-5-11"},
    {"WD", "S-1-1-0"},
    {"IU", "S-1-5-4"},
    {"TI", "S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464"}};

std::string well_known(WELL_KNOWN_SID_TYPE type) {
    return known_sids.at(type == WinLocalSystemSid ? "SY" : "BA");
}

} // namespace

std::string sid_text(const std::string &name) {
    const auto row = known_sids.find(name);
    return row != known_sids.end() ? row->second : sid_bytes(name) ? name : "";
}

std::optional<std::vector<BYTE>> sid_bytes(const std::string &text) {
    unsigned long authority = 0;
    int used = 0;
    if (std::sscanf(text.c_str(), "S-1-%lu%n", &authority, &used) != 1 || authority > 0xFFFFFFFF) {
        return std::nullopt;
    }
    std::vector<BYTE> out = {SID_REVISION, 0, 0, 0};
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<BYTE>(authority >> shift));
    }
    for (const char *at = text.c_str() + used; *at != '\0'; at += used) {
        unsigned long part = 0;
        if (std::sscanf(at, "-%lu%n", &part, &used) != 1 || part > 0xFFFFFFFF || out[1] == 15) {
            return std::nullopt;
        }
        for (int shift = 0; shift < 32; shift += 8) {
            out.push_back(static_cast<BYTE>(part >> shift));
        }
        out[1]++;
    }
    return out;
}

std::string sid_from_memory(const void *memory) {
    const SID *sid = static_cast<const SID *>(memory);
    unsigned long authority = 0;
    for (BYTE byte : sid->IdentifierAuthority.Value) {
        authority = authority << 8 | byte;
    }
    std::string text = "S-" + std::to_string(sid->Revision) + "-" + std::to_string(authority);
    const BYTE *part = reinterpret_cast<const BYTE *>(sid->SubAuthority);
    for (int i = 0; i < sid->SubAuthorityCount; i++, part += sizeof(DWORD)) {
        DWORD value = 0;
        std::memcpy(&value, part, sizeof value);
        text += "-" + std::to_string(value);
    }
    return text;
}

} // namespace winsim

using namespace winsim;

BOOL ConvertStringSidToSidW(const wchar_t *text, PSID *out) {
    BEGIN_CALL(FALSE);
    const std::optional<std::vector<BYTE>> sid = sid_bytes(sid_text(narrow(text)));
    if (!sid) {
        return refuse(ERROR_INVALID_SID);
    }
    *out = std::memcpy(sim_local_alloc(sid->size()), sid->data(), sid->size());
    return TRUE;
}

BOOL ConvertSidToStringSidW(PSID sid, wchar_t **out) {
    BEGIN_CALL(FALSE);
    const std::string text = sid_from_memory(sid);
    *out = static_cast<wchar_t *>(sim_local_alloc((text.size() + 1) * sizeof(wchar_t)));
    std::copy_n(text.c_str(), text.size() + 1, *out);
    return TRUE;
}

BOOL EqualSid(PSID left, PSID right) {
    enter(__func__);
    return sid_from_memory(left) == sid_from_memory(right);
}

BOOL IsWellKnownSid(PSID sid, WELL_KNOWN_SID_TYPE type) {
    enter(__func__);
    return sid_from_memory(sid) == well_known(type);
}

BOOL CreateWellKnownSid(WELL_KNOWN_SID_TYPE type, PSID, PSID out, DWORD *size) {
    BEGIN_CALL(FALSE);
    const std::vector<BYTE> sid = *sid_bytes(well_known(type));
    const DWORD given = std::exchange(*size, static_cast<DWORD>(sid.size()));
    if (given < sid.size()) {
        return refuse(ERROR_INSUFFICIENT_BUFFER);
    }
    std::memcpy(out, sid.data(), sid.size());
    return TRUE;
}
