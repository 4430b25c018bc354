// Inside the store: its state, the layer that all items share (sealing, atomic write, bounded read), and the small
// owners that wipe what they hold. For the store's own sources and its tests.
#ifndef KEYSTORE_INTERNAL_H
#define KEYSTORE_INTERNAL_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

#include <shlobj.h>

#include <tarnglider/secure.h>

#include "keystore.h"

namespace keystore {

// ---- Owners of secrets: whatever way a function ends, their content is wiped.

template <class Record>
struct wiped {
    Record value{};
    ~wiped() { tarn_secure_wipe(&value, sizeof value); }
};

struct wiped_bytes {
    std::vector<uint8_t> bytes;
    ~wiped_bytes() { tarn_secure_wipe(bytes.data(), bytes.size()); }
};

// A text that was moved away may have left a short content behind, so all of its room is wiped, not its length.
struct wiped_text {
    std::string text;
    ~wiped_text() {
        text.resize(text.capacity());
        tarn_secure_wipe(text.data(), text.size());
    }
};

// ---- State. scope, configured and machine_dir are written by configureHostStore before other threads exist. healthy
// goes from true to false once, under failure_lock, and is read without it; failure is only touched under it.

struct store_state {
    std::atomic<bool> healthy = true;
    std::mutex failure_lock;
    std::string failure; // what failed first
    HostStoreScope scope = HostStoreScope::User;
    bool configured = false;
    std::wstring machine_dir;
};
store_state &state();

inline bool machine_scope() { return state().scope == HostStoreScope::Machine; }

// Fails the store and throws std::runtime_error, both with the message. For the branches of the Machine scope.
[[noreturn]] void fatal(const char *message);

// ---- System calls that more than one source needs

enum class presence { present, absent, unknown }; // unknown: the system won't say
presence look(const std::wstring &path);

// A known folder's path; false if the system has none.
bool known_folder(const KNOWNFOLDERID &id, std::wstring &out);

// Bytes of the system's random source.
bool system_random(void *out, size_t size);

// MoveFileExW and DeleteFileW, but for a file that somebody holds for a moment, as a virus scanner does: a refusal that
// may be due to that (5 or 32) is tried again, 10 times 20 ms apart. The last error is the last call's.
bool patient_move(const std::wstring &from, const std::wstring &to, DWORD flags);
bool patient_delete(const std::wstring &path);

// ---- Files

constexpr uint64_t file_limit = 1048576; // bytes; a file of this size is refused, one byte less is read

// Seals bytes to the machine or the user, as the scope says, or unseals them. out is replaced on success and unchanged
// otherwise; what was sealed elsewhere fails.
bool dpapi(bool protect, const std::vector<uint8_t> &in, std::vector<uint8_t> &out);

std::wstring path_of(const wchar_t *name);

// Replaces a file atomically, for the store's owners alone: readers see the old file or the new one, whole.
bool write_private(const std::wstring &path, const void *data, size_t size);

// Seals the text, then write_private.
bool write_protected(const std::wstring &path, std::string_view plain);

// A whole file below file_limit; in the Machine scope a protected one. out is replaced on success only.
bool read_file(const std::wstring &path, std::vector<uint8_t> &out);

// 1 when read and unsealed, with out replaced; 0 for a file that doesn't exist; -1 for one that can't be read or
// unsealed, or isn't protected.
int read_protected(const std::wstring &path, std::string &out);

} // namespace keystore

#endif
