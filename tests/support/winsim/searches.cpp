// Directory searches. One sees the entries that were there when it began.
#include <algorithm>

#include "winsim/files.h"
#include "winsim/own_closer.h"

namespace winsim {
namespace {

struct search : own_closer {
    std::wstring directory;
    std::vector<WIN32_FIND_DATAW> left; // the next one is the last

    std::string describe() const override { return "search of " + narrow(directory); }
};

void add_entry(search &into, const std::wstring &name, const node &of) {
    WIN32_FIND_DATAW entry{of.attributes, 0, static_cast<DWORD>(of.bytes.size()), {}};
    name.copy(entry.cFileName, MAX_PATH - 1);
    into.left.push_back(entry);
}

bool matches(const std::wstring &name, const std::wstring &pattern) {
    return pattern.starts_with(L"*") ? fold(name).ends_with(fold(pattern.substr(1)))
                                     : fold(name) == fold(pattern);
}

} // namespace
} // namespace winsim

using namespace winsim;

HANDLE FindFirstFileW(const wchar_t *pattern, WIN32_FIND_DATAW *out) {
    if (failing("FindFirstFileW")) {
        return INVALID_HANDLE_VALUE;
    }
    const std::wstring full = full_path(pattern);
    std::shared_ptr<node> directory = parent_of(full);
    if (!directory || !may(directory, FILE_LIST_DIRECTORY)) {
        refuse(directory ? ERROR_ACCESS_DENIED : ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    auto found = std::make_shared<search>();
    found->directory = directory->path;
    if (name_of(full) == L"*" && parent_of(directory->path)) {
        add_entry(*found, L".", *directory);
        add_entry(*found, L"..", *directory);
    }
    for (const std::shared_ptr<node> &child : below(directory->path, false)) {
        if (matches(name_of(child->path), name_of(full))) {
            add_entry(*found, name_of(child->path), *child);
        }
    }
    if (found->left.empty()) {
        refuse(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    std::reverse(found->left.begin(), found->left.end());
    *out = found->left.back();
    found->left.pop_back();
    return make_handle(found);
}

BOOL FindNextFileW(HANDLE handle, WIN32_FIND_DATAW *out) {
    std::shared_ptr<search> found = failing("FindNextFileW") ? nullptr : find_as<search>(handle);
    if (!found) {
        return FALSE;
    }
    if (found->left.empty()) {
        return refuse(ERROR_NO_MORE_FILES);
    }
    *out = found->left.back();
    found->left.pop_back();
    return TRUE;
}

BOOL FindClose(HANDLE handle) {
    enter("FindClose");
    return close_own<search>(handle);
}
