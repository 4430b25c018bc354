// The file system inside the simulated machine: one map from folded path to node, so a directory's children are the
// keys that begin with its own. A junction is a directory with the reparse attribute whose children live below it; a
// link is a file that stands for another. A handle open on a file keeps its node, also when its name has gone.
#ifndef WINSIM_FILES_MODEL_H
#define WINSIM_FILES_MODEL_H

#include <memory>
#include <string>
#include <vector>

#include "winsim/sim.h"

namespace winsim {

// The people of the machine, by the SIDs of admin_token and user_token.
constexpr struct {
    const char *sid;
    const wchar_t *folder;
} profiles[] = {{"S-1-5-21-1-2-3-1001", L"C:\\Users\\person"}, {"S-1-5-21-1-2-3-1002", L"C:\\Users\\other"}};

struct open_file_object;

struct node {
    std::wstring path; // as it was written when it was made
    DWORD attributes = FILE_ATTRIBUTE_NORMAL;
    std::string sddl;
    std::string bytes = {};
    std::wstring target = {}; // of a link
    std::vector<std::weak_ptr<open_file_object>> opened = {};

    bool is_directory() const { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
};

// "C:\\a\\b" without a last backslash, with "." and ".." resolved; a relative path lies on the drive's root. Empty
// for one that is on no drive.
std::wstring full_path(std::wstring path);
std::wstring name_of(const std::wstring &full);

std::shared_ptr<node> at(const std::wstring &full);        // null if there is none
std::shared_ptr<node> parent_of(const std::wstring &full); // null if it is no directory
// The node, or null and the error that tells a missing name from a missing directory above it.
std::shared_ptr<node> look_up(const std::wstring &path);
// All below a directory, by path; only its own entries if deep is false.
std::vector<std::shared_ptr<node>> below(const std::wstring &full, bool deep);
bool may(const std::shared_ptr<node> &what, DWORD rights); // the acting process

} // namespace winsim

#endif
