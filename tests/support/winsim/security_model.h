// Security inside the simulated machine: SIDs as text, and descriptors, which are kept as SDDL text: "" for none.
// Their memory form, which the calls hand out and take, carries its text along.
#ifndef WINSIM_SECURITY_MODEL_H
#define WINSIM_SECURITY_MODEL_H

#include <optional>
#include <string>
#include <vector>

#include "winsim/sim.h"

namespace winsim {

struct access_entry {
    BYTE type = ACCESS_ALLOWED_ACE_TYPE;
    BYTE flags = 0;
    DWORD mask = 0;
    std::string sid; // "S-1-..."
};

struct descriptor_record {
    std::string owner; // "S-1-..."; empty for none. A group is read, and forgotten
    bool dacl_present = false;
    bool null_dacl = false; // present, and allows everything
    WORD control = 0;
    std::vector<access_entry> entries;
};

std::string sid_text(const std::string &name); // "SY" or "S-1-..." to "S-1-...", empty for neither
std::optional<std::vector<BYTE>> sid_bytes(const std::string &text); // of "S-1-..."
std::string sid_from_memory(const void *sid);                        // "S-1-..."

std::optional<descriptor_record> parse_sddl(const std::string &text);
PSECURITY_DESCRIPTOR to_memory(const std::string &sddl); // for LocalFree

// A new file's or directory's descriptor: the parent's inheritable entries, and the creator as owner.
std::string inherited_descriptor(const std::string &parent, const token_facts &creator, bool directory);

DWORD map_generic(DWORD rights); // generic rights to those of files and pipes
bool holds_sid(const token_facts &who, const std::string &sid);
DWORD file_descriptor(const std::wstring &path,
                      std::string &sddl); // of files.cpp: an error, or 0 and the text

} // namespace winsim

#endif
