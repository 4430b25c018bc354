// Finds what a person means in a list of clients or hosts.
#pragma once

#include <stdexcept>
#include <string>

#include "common/text.h"

namespace app {

// Index of the one entry with this key, key code or name; -1 for none. A name comes last: whoever is in the list chose it,
// and may have chosen another's key code. Throws std::runtime_error if several fit equally well.
template <class Entry>
int find_entry(const Entry *entries, int count, const std::string &which) {
    const auto by_key = [&](const Entry &e) { return key_text(e.key) == which; };
    const auto by_name = [&](const Entry &e) { return which == e.name; };
    const auto by_code = [&](const Entry &e) { return same_key_code(e.key, which); };
    const auto only = [&](const auto &fits) {
        int found = -1;
        for (int i = 0; i < count; i++) {
            if (!fits(entries[i])) continue;
            if (found >= 0)
                throw std::runtime_error("\"" + which + "\" fits several: " + key_code(entries[found].key) +
                                         " and " + key_code(entries[i].key) + "; give the key code");
            found = i;
        }
        return found;
    };
    if (const int found = only(by_key); found >= 0) return found;
    if (const int found = only(by_code); found >= 0) return found;
    return only(by_name);
}

} // namespace app
