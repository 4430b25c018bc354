// The file system: names, and the files behind them.
#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "winsim/files.h"
#include "winsim/security_model.h"

namespace winsim {

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

namespace {

constexpr char public_list[] = "O:SYG:SYD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";

// What a fresh Windows has of the directories that the calls name.
struct files {
    std::map<std::wstring, std::shared_ptr<node>> nodes;

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

} // namespace

std::wstring full_path(std::wstring path) {
    std::replace(path.begin(), path.end(), L'/', L'\\');
    if (path.starts_with(L"\\\\")) {
        return {};
    }
    std::vector<std::wstring> parts(1);
    if (path.size() < 2 || path[1] != L':') {
        parts.insert(parts.begin(), L"C:");
    }
    for (wchar_t c : path + L"\\") {
        if (c != L'\\') {
            parts.back() += c;
        } else if (parts.back() == L"..") {
            parts.resize(std::max<size_t>(parts.size() - 2, 1));
            parts.emplace_back();
        } else if (parts.back() == L".") {
            parts.back().clear();
        } else if (!parts.back().empty()) {
            parts.emplace_back();
        }
    }
    std::wstring full = parts[0];
    for (size_t i = 1; i + 1 < parts.size(); i++) {
        full += L"\\" + parts[i];
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

std::shared_ptr<node> look_up(const std::wstring &path) {
    const std::wstring full = full_path(path);
    std::shared_ptr<node> found = at(full);
    if (!found) {
        SetLastError(full.empty()      ? ERROR_BAD_NETPATH
                     : parent_of(full) ? ERROR_FILE_NOT_FOUND
                                       : ERROR_PATH_NOT_FOUND);
    }
    return found;
}

bool may(const std::shared_ptr<node> &what, DWORD rights) {
    return access_allowed(*acting().who, what->sddl, rights);
}

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

namespace {

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
        refuse(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    std::string sddl = inherited_descriptor(parent->sddl, who, directory);
    if (security != nullptr && security->lpSecurityDescriptor != nullptr) {
        const std::string inherited_owner = sddl.substr(0, sddl.find("D:"));
        sddl = sddl_of(security->lpSecurityDescriptor);
        const std::string owner = parse_sddl(sddl)->owner;
        sddl = owner.empty() ? inherited_owner + sddl : sddl;
        if (!owner.empty() && !holds_sid(who, owner)) {
            refuse(ERROR_INVALID_OWNER);
            return nullptr;
        }
    }
    return nodes()[fold(full)] = std::make_shared<node>(node{full, attributes, sddl});
}

BOOL delete_node(const std::shared_ptr<node> &what) {
    if (!may_delete(what)) {
        return refuse(ERROR_ACCESS_DENIED);
    }
    if (in_the_way(what, DELETE, share_all)) {
        return refuse(ERROR_SHARING_VIOLATION);
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

} // namespace

HANDLE open_file(const std::wstring &path, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security,
                 DWORD disposition, DWORD flags) {
    std::shared_ptr<node> found = look_up(path);
    if (found && !found->target.empty() && (flags & FILE_FLAG_OPEN_REPARSE_POINT) == 0) {
        return open_file(found->target, access, share, security, disposition, flags);
    }
    const bool existed = found != nullptr;
    const bool makes = disposition != OPEN_EXISTING && disposition != TRUNCATE_EXISTING;
    if (!existed) {
        if (!makes || GetLastError() != ERROR_FILE_NOT_FOUND ||
            !(found = create(full_path(path), FILE_ATTRIBUTE_NORMAL, security))) {
            return INVALID_HANDLE_VALUE;
        }
    } else if (disposition == CREATE_NEW) {
        refuse(ERROR_FILE_EXISTS);
        return INVALID_HANDLE_VALUE;
    } else if (found->is_directory() || !may(found, access)) {
        refuse(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    } else if (in_the_way(found, map_generic(access), share)) {
        refuse(ERROR_SHARING_VIOLATION);
        return INVALID_HANDLE_VALUE;
    }
    if (disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING) {
        found->bytes.clear();
    }
    auto made = std::make_shared<open_file_object>();
    made->of = found;
    made->access = map_generic(access);
    made->share = share;
    found->opened.push_back(made);
    SetLastError(existed && makes ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
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
    std::shared_ptr<node> found = failing("GetFileAttributesW") ? nullptr : look_up(path);
    return found ? found->attributes : INVALID_FILE_ATTRIBUTES;
}

BOOL CreateDirectoryW(const wchar_t *path, SECURITY_ATTRIBUTES *security) {
    if (failing("CreateDirectoryW")) {
        return FALSE;
    }
    if (look_up(path)) {
        return refuse(ERROR_ALREADY_EXISTS);
    }
    if (GetLastError() != ERROR_FILE_NOT_FOUND) {
        return FALSE;
    }
    return create(full_path(path), FILE_ATTRIBUTE_DIRECTORY, security) != nullptr;
}

BOOL MoveFileExW(const wchar_t *from, const wchar_t *to, DWORD flags) {
    std::shared_ptr<node> moved = failing("MoveFileExW") ? nullptr : look_up(from);
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
    nodes().erase(fold(moved->path));
    moved->path = full;
    nodes()[fold(full)] = moved;
    return TRUE;
}

BOOL DeleteFileW(const wchar_t *path) {
    std::shared_ptr<node> found = failing("DeleteFileW") ? nullptr : look_up(path);
    if (!found) {
        return FALSE;
    }
    return found->is_directory() ? refuse(ERROR_ACCESS_DENIED) : delete_node(found);
}

BOOL RemoveDirectoryW(const wchar_t *path) {
    std::shared_ptr<node> found = failing("RemoveDirectoryW") ? nullptr : look_up(path);
    if (!found) {
        return FALSE;
    }
    if (!found->is_directory() || !below(found->path, false).empty()) {
        return refuse(found->is_directory() ? ERROR_DIR_NOT_EMPTY : ERROR_DIRECTORY);
    }
    return delete_node(found);
}
