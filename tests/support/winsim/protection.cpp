// Data protection: a reversible scrambling by the machine and, without the machine's flag, the user; with a checksum, so
// that a changed blob and one of another machine or user are refused.
#include <algorithm>
#include <cstring>

#include "winsim/security_model.h"

namespace winsim {
namespace {

struct protection {
    uint64_t machine_secret = random_source()();
    std::function<void(const std::string &, const void *, size_t)> on_secret;
};

// A blob: its scope (1 is the machine's), 7 bytes of noise, 8 of checksum, the scrambled bytes.
constexpr size_t head_size = 16;

uint64_t mix(uint64_t hash, const void *bytes, size_t size) { // FNV-1a
    for (size_t i = 0; i < size; i++) {
        hash = (hash ^ static_cast<const BYTE *>(bytes)[i]) * 0x100000001b3;
    }
    return hash;
}

// Scrambles in place, and does the reverse.
void scramble(const BYTE *head, BYTE *bytes, size_t size) {
    const std::string user = head[0] == 1 ? "" : sid_text(acting().who->user);
    const uint64_t key = mix(part<protection>().machine_secret, user.data(), user.size());
    std::mt19937_64 stream(mix(key, head, 8));
    for (size_t i = 0; i < size; i++) {
        bytes[i] = static_cast<BYTE>(bytes[i] ^ stream());
    }
}

void pass(const char *call, const DATA_BLOB &secret) {
    if (part<protection>().on_secret) {
        part<protection>().on_secret(call, secret.pbData, secret.cbData);
    }
}

} // namespace

void machine::on_secret(std::function<void(const std::string &call, const void *bytes, size_t size)> hook) {
    part<protection>().on_secret = std::move(hook);
}

} // namespace winsim

using namespace winsim;

BOOL CryptProtectData(DATA_BLOB *plain, LPCWSTR description, DATA_BLOB *entropy, PVOID, void *prompt,
                      DWORD flags, DATA_BLOB *sealed) {
    pass(__func__, *plain);
    BEGIN_CALL(FALSE);
    if (entropy != nullptr || prompt != nullptr || (flags & CRYPTPROTECT_UI_FORBIDDEN) == 0 ||
        std::wstring(description) != L"TarnGlider") {
        return FALSE;
    }
    BYTE *blob = static_cast<BYTE *>(sim_local_alloc(head_size + plain->cbData));
    const uint64_t noise = random_source()();
    const uint64_t checksum = mix(noise >> 8, plain->pbData, plain->cbData);
    std::memcpy(blob, &noise, 8);
    blob[0] = (flags & CRYPTPROTECT_LOCAL_MACHINE) != 0 ? 1 : 0;
    std::memcpy(blob + 8, &checksum, 8);
    std::copy_n(plain->pbData, plain->cbData, blob + head_size);
    scramble(blob, blob + 8, 8 + plain->cbData);
    *sealed = {static_cast<DWORD>(head_size + plain->cbData), blob};
    return TRUE;
}

BOOL CryptUnprotectData(DATA_BLOB *sealed, LPWSTR *, DATA_BLOB *entropy, PVOID, void *prompt, DWORD flags,
                        DATA_BLOB *plain) {
    BEGIN_CALL(FALSE);
    if (entropy != nullptr || prompt != nullptr || flags != CRYPTPROTECT_UI_FORBIDDEN ||
        sealed->cbData < head_size) {
        return refuse(ERROR_INVALID_DATA);
    }
    std::vector<BYTE> opened(sealed->pbData, sealed->pbData + sealed->cbData);
    scramble(opened.data(), opened.data() + 8, opened.size() - 8);
    uint64_t noise = 0, checksum = 0;
    std::memcpy(&noise, opened.data(), 8);
    std::memcpy(&checksum, opened.data() + 8, 8);
    const size_t size = opened.size() - head_size;
    if (opened[0] > 1 || checksum != mix(noise >> 8, opened.data() + head_size, size)) {
        return refuse(ERROR_INVALID_DATA);
    }
    BYTE *out = static_cast<BYTE *>(sim_local_alloc(size));
    std::copy_n(opened.data() + head_size, size, out);
    *plain = {static_cast<DWORD>(size), out};
    pass(__func__, *plain);
    return TRUE;
}
