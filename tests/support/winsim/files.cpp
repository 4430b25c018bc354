// The file system: one map from folded path to node, so a directory's children are the keys that begin with its own. A
// junction is a directory with the reparse attribute whose children live below it; a link is a file that stands for
// another. A handle open on a file keeps its node, also when its name has gone. A directory search sees the entries
// that were there when it began.
#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "winsim/security_model.h"

namespace winsim {
namespace {

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

struct open_file_object : stream {
    std::shared_ptr<node> of;
    DWORD access = 0;
    DWORD share = 0;
    size_t position = 0;

    std::string describe() const override { return "file " + narrow(of->path); }
    BOOL read(void *bytes, DWORD size, DWORD *moved, OVERLAPPED *) override {
        if ((access & FILE_READ_DATA) == 0) {
            return refuse(ERROR_ACCESS_DENIED);
        }
        const size_t left = of->bytes.size() - std::min(position, of->bytes.size());
        const size_t count = std::min<size_t>(size, left);
        std::memcpy(bytes, of->bytes.data() + of->bytes.size() - left, count);
        position += count;
        *moved = static_cast<DWORD>(count);
        return TRUE;
    }
    BOOL write(const void *bytes, DWORD size, DWORD *moved, OVERLAPPED *) override {
        if ((access & (FILE_WRITE_DATA | FILE_APPEND_DATA)) == 0) {
            return refuse(ERROR_ACCESS_DENIED);
        }
        if ((access & FILE_WRITE_DATA) == 0) {
            position = of->bytes.size();
        }
        of->bytes.resize(std::max(of->bytes.size(), position + size));
        std::memcpy(of->bytes.data() + position, bytes, size);
        position += size;
        *moved = size;
        return TRUE;
    }
    BOOL size(LARGE_INTEGER *out) override {
        out->QuadPart = static_cast<LONGLONG>(of->bytes.size());
        return TRUE;
    }
};

constexpr char public_list[] = "O:SYG:SYD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";

// What a fresh Windows has of the directories that the calls name.
struct files {
    std::map<std::wstring, std::shared_ptr<node>> nodes;
    DWORD move_flags = 0; // MoveFileExW's last

    files() {
        add(L"C:", "O:TIG:TID:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)(A;;0x4;;;AU)");
        for (const wchar_t *path :
             {L"C:\\Windows", L"C:\\Windows\\System32", L"C:\\ProgramData", L"C:\\Users"}) {
            add(path, public_list);
        }
        for (const auto &one : profiles) {
            const std::string owner = one.sid;
            const std::string list =
                "O:" + owner + "D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FA;;;" + owner + ")";
            for (const wchar_t *path : {L"", L"\\AppData", L"\\AppData\\Roaming", L"\\AppData\\Local"}) {
                add(one.folder + std::wstring(path), list);
            }
        }
    }
    void add(const std::wstring &path, const std::string &sddl) {
        nodes[fold(path)] = std::make_shared<node>(node{path, FILE_ATTRIBUTE_DIRECTORY, sddl});
    }
};

std::map<std::wstring, std::shared_ptr<node>> &nodes() { return part<files>().nodes; }

// "C:\\a\\b" without a last backslash; a relative path lies on the drive's root.
std::wstring full_path(const std::wstring &path) {
    std::wistringstream parts(path);
    std::wstring full = path.substr(1, 1) == L":" ? L"" : L"C:";
    for (std::wstring one; std::getline(parts, one, L'\\');) {
        full += one.empty() || one == L"." ? L"" : (full.empty() ? L"" : L"\\") + one;
    }
    return full;
}

std::shared_ptr<node> at(const std::wstring &full) {
    auto found = nodes().find(fold(full));
    return found == nodes().end() ? nullptr : found->second;
}

std::wstring name_of(const std::wstring &full) { return full.substr(full.rfind(L'\\') + 1); }

std::shared_ptr<node> parent_of(const std::wstring &full) {
    const size_t end = full.rfind(L'\\');
    std::shared_ptr<node> parent = end == std::wstring::npos ? nullptr : at(full.substr(0, end));
    return parent && parent->is_directory() ? parent : nullptr;
}

// The node, or null and the error that tells a missing name from a missing directory above it.
std::shared_ptr<node> look_up(const std::wstring &path) {
    const std::wstring full = full_path(path);
    std::shared_ptr<node> found = at(full);
    if (!found) {
        SetLastError(parent_of(full) ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND);
    }
    return found;
}

bool may(const std::shared_ptr<node> &what, DWORD rights) {
    return access_allowed(*acting().who, what->sddl, rights);
}

// All below a directory, by path; only its own entries if deep is false.
std::vector<std::shared_ptr<node>> below(const std::wstring &full, bool deep) {
    std::vector<std::shared_ptr<node>> found;
    const std::wstring start = fold(full) + L"\\";
    for (auto it = nodes().lower_bound(start); it != nodes().end() && it->first.starts_with(start); ++it) {
        if (deep || it->first.find(L'\\', start.size()) == std::wstring::npos) {
            found.push_back(it->second);
        }
    }
    return found;
}

bool may_delete(const std::shared_ptr<node> &what) {
    std::shared_ptr<node> parent = parent_of(what->path);
    return parent && (may(what, DELETE) || may(parent, FILE_DELETE_CHILD));
}

// Whether somebody has it open in a way that doesn't let it be opened for access too, with share for the others.
bool in_the_way(const std::shared_ptr<node> &what, DWORD access, DWORD share) {
    const auto needs = [](DWORD rights) {
        return ((rights & (FILE_READ_DATA | FILE_EXECUTE)) != 0 ? FILE_SHARE_READ : 0) |
               ((rights & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0 ? FILE_SHARE_WRITE : 0) |
               ((rights & DELETE) != 0 ? FILE_SHARE_DELETE : 0);
    };
    std::erase_if(what->opened, [](const auto &other) { return other.expired(); });
    return std::any_of(what->opened.begin(), what->opened.end(), [&](const auto &weak) {
        std::shared_ptr<open_file_object> other = weak.lock();
        return (needs(access) & ~other->share) != 0 || (needs(other->access) & ~share) != 0;
    });
}

constexpr DWORD share_all = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Makes a file or a directory for the acting process; the path's parent exists. Null with the error set.
std::shared_ptr<node> create(const std::wstring &full, DWORD attributes,
                             const SECURITY_ATTRIBUTES *security) {
    const token_facts &who = *acting().who;
    const bool directory = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    std::shared_ptr<node> parent = parent_of(full);
    if (!may(parent, directory ? FILE_ADD_SUBDIRECTORY : FILE_ADD_FILE)) {
        return refuse(ERROR_ACCESS_DENIED), nullptr;
    }
    std::string sddl = inherited_descriptor(parent->sddl, who, directory);
    if (security != nullptr && security->lpSecurityDescriptor != nullptr) {
        const std::string inherited_owner = sddl.substr(0, sddl.find("D:"));
        sddl = sddl_of(security->lpSecurityDescriptor);
        const std::string owner = parse_sddl(sddl)->owner;
        sddl = owner.empty() ? inherited_owner + sddl : sddl;
        if (!owner.empty() && !holds_sid(who, owner)) {
            return refuse(ERROR_INVALID_OWNER), nullptr;
        }
    }
    return nodes()[fold(full)] = std::make_shared<node>(node{full, attributes, sddl});
}

BOOL delete_node(const std::shared_ptr<node> &what) {
    if (!may_delete(what) || in_the_way(what, DELETE, share_all)) {
        return refuse(may_delete(what) ? ERROR_SHARING_VIOLATION : ERROR_ACCESS_DENIED);
    }
    nodes().erase(fold(what->path));
    return TRUE;
}

// A node that a test asks for.
std::shared_ptr<node> need(const std::wstring &path) {
    std::shared_ptr<node> found = at(full_path(path));
    return found ? found : throw std::logic_error("no such path: " + narrow(path));
}

void plant(const std::wstring &path, DWORD attributes, const std::string &sddl, const std::string &bytes = "",
           const std::wstring &target = L"") {
    const std::wstring full = full_path(path);
    if (!parent_of(full) && at(full) == nullptr) {
        throw std::logic_error("no directory for " + narrow(path));
    }
    nodes()[fold(full)] = std::make_shared<node>(node{full, attributes, sddl, bytes, target});
}

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

BOOL next_entry(search &of, WIN32_FIND_DATAW *out) {
    if (of.left.empty()) {
        return refuse(ERROR_NO_MORE_FILES);
    }
    *out = of.left.back();
    of.left.pop_back();
    return TRUE;
}

} // namespace

HANDLE open_file(const std::wstring &path, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security,
                 DWORD disposition, DWORD flags) {
    std::shared_ptr<node> found = look_up(path);
    if (found && !found->target.empty() && (flags & FILE_FLAG_OPEN_REPARSE_POINT) == 0) {
        return open_file(found->target, access, share, security, disposition, flags);
    }
    if (!found) {
        if (disposition == OPEN_EXISTING || GetLastError() != ERROR_FILE_NOT_FOUND ||
            !(found = create(full_path(path), FILE_ATTRIBUTE_NORMAL, security))) {
            return INVALID_HANDLE_VALUE;
        }
    } else if (disposition == CREATE_NEW) {
        return refuse(ERROR_FILE_EXISTS), INVALID_HANDLE_VALUE;
    } else if (found->is_directory() || !may(found, access)) {
        return refuse(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
    } else if (in_the_way(found, map_generic(access), share)) {
        return refuse(ERROR_SHARING_VIOLATION), INVALID_HANDLE_VALUE;
    }
    if (disposition == CREATE_ALWAYS) {
        found->bytes.clear();
    }
    auto made = std::make_shared<open_file_object>();
    made->of = found;
    made->access = map_generic(access);
    made->share = share;
    found->opened.push_back(made);
    return make_handle(made, made->access);
}

bool file_exists(const std::wstring &path) {
    std::shared_ptr<node> found = at(full_path(path));
    return found && !found->is_directory();
}

DWORD file_descriptor(const std::wstring &path, std::string &sddl) {
    std::shared_ptr<node> found = look_up(path);
    if (!found || !may(found, READ_CONTROL)) {
        return found ? ERROR_ACCESS_DENIED : GetLastError();
    }
    sddl = found->sddl;
    return ERROR_SUCCESS;
}

void machine::make_directory(const std::wstring &path, const std::string &sddl) {
    plant(path, FILE_ATTRIBUTE_DIRECTORY, sddl);
}
void machine::make_file(const std::wstring &path, const std::string &sddl, const std::string &bytes) {
    plant(path, FILE_ATTRIBUTE_NORMAL, sddl, bytes);
}
void machine::make_junction(const std::wstring &path, const std::string &sddl) {
    plant(path, FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT, sddl);
}
void machine::make_link(const std::wstring &path, const std::string &sddl, const std::wstring &target) {
    plant(path, FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_REPARSE_POINT, sddl, "", target);
}
void machine::set_descriptor(const std::wstring &path, const std::string &sddl) { need(path)->sddl = sddl; }
std::string machine::descriptor(const std::wstring &path) const { return need(path)->sddl; }
bool machine::exists(const std::wstring &path) const { return at(full_path(path)) != nullptr; }
std::string machine::read(const std::wstring &path) const { return need(path)->bytes; }

DWORD machine::last_move_flags() const { return part<files>().move_flags; }

void machine::remove(const std::wstring &path) {
    for (const std::shared_ptr<node> &gone : below(full_path(path), true)) {
        nodes().erase(fold(gone->path));
    }
    nodes().erase(fold(full_path(path)));
}

std::vector<std::wstring> machine::tree(const std::wstring &path) const {
    std::vector<std::wstring> paths;
    for (const std::shared_ptr<node> &found : below(full_path(path), true)) {
        paths.push_back(found->path);
    }
    return paths;
}

} // namespace winsim

using namespace winsim;

DWORD GetFileAttributesW(const wchar_t *path) {
    std::shared_ptr<node> found = failing(__func__) ? nullptr : look_up(path);
    return found ? found->attributes : INVALID_FILE_ATTRIBUTES;
}

BOOL CreateDirectoryW(const wchar_t *path, SECURITY_ATTRIBUTES *security) {
    BEGIN_CALL(FALSE);
    if (look_up(path) || GetLastError() != ERROR_FILE_NOT_FOUND) {
        return look_up(path) ? refuse(ERROR_ALREADY_EXISTS) : FALSE;
    }
    return create(full_path(path), FILE_ATTRIBUTE_DIRECTORY, security) != nullptr;
}

BOOL MoveFileExW(const wchar_t *from, const wchar_t *to, DWORD flags) {
    std::shared_ptr<node> moved = failing(__func__) ? nullptr : look_up(from);
    if (!moved) {
        return FALSE;
    }
    const std::wstring full = full_path(to);
    std::shared_ptr<node> replaced = at(full);
    std::shared_ptr<node> parent = parent_of(full);
    if (!parent) {
        return refuse(ERROR_PATH_NOT_FOUND);
    }
    if (replaced && (flags & MOVEFILE_REPLACE_EXISTING) == 0) {
        return refuse(ERROR_ALREADY_EXISTS);
    }
    if (moved->is_directory() || !may_delete(moved) || !may(parent, FILE_ADD_FILE) ||
        (replaced && (replaced->is_directory() || !may_delete(replaced)))) {
        return refuse(ERROR_ACCESS_DENIED);
    }
    if (in_the_way(moved, DELETE, share_all) || (replaced && in_the_way(replaced, DELETE, share_all))) {
        return refuse(ERROR_SHARING_VIOLATION);
    }
    part<files>().move_flags = flags;
    nodes().erase(fold(moved->path));
    moved->path = full;
    nodes()[fold(full)] = moved;
    return TRUE;
}

BOOL DeleteFileW(const wchar_t *path) {
    std::shared_ptr<node> found = failing(__func__) ? nullptr : look_up(path);
    return !found ? FALSE : found->is_directory() ? refuse(ERROR_ACCESS_DENIED) : delete_node(found);
}

BOOL RemoveDirectoryW(const wchar_t *path) {
    std::shared_ptr<node> found = failing(__func__) ? nullptr : look_up(path);
    if (!found) {
        return FALSE;
    }
    if (!found->is_directory() || !below(found->path, false).empty()) {
        return refuse(found->is_directory() ? ERROR_DIR_NOT_EMPTY : ERROR_DIRECTORY);
    }
    return delete_node(found);
}

HANDLE FindFirstFileW(const wchar_t *pattern, WIN32_FIND_DATAW *out) {
    BEGIN_CALL(INVALID_HANDLE_VALUE);
    const std::wstring full = full_path(pattern);
    std::shared_ptr<node> directory = parent_of(full);
    if (!directory || !may(directory, FILE_LIST_DIRECTORY)) {
        return refuse(directory ? ERROR_ACCESS_DENIED : ERROR_PATH_NOT_FOUND), INVALID_HANDLE_VALUE;
    }
    auto found = std::make_shared<search>();
    found->directory = directory->path;
    if (name_of(full) == L"*" && parent_of(directory->path)) {
        add_entry(*found, L".", *directory);
        add_entry(*found, L"..", *directory);
    }
    for (const std::shared_ptr<node> &child : below(directory->path, false)) {
        if (fold(child->path)
                .ends_with(fold(name_of(full).substr(1)))) { // what follows the pattern's asterisk
            add_entry(*found, name_of(child->path), *child);
        }
    }
    if (found->left.empty()) {
        return refuse(ERROR_FILE_NOT_FOUND), INVALID_HANDLE_VALUE;
    }
    std::reverse(found->left.begin(), found->left.end());
    next_entry(*found, out);
    return make_handle(found);
}

BOOL FindNextFileW(HANDLE handle, WIN32_FIND_DATAW *out) {
    const auto found = asked<search>(__func__, handle);
    return found && next_entry(*found, out);
}

BOOL FindClose(HANDLE handle) { return close_own<search>(__func__, handle); }
