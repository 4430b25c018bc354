// Where datagrams come from: hashing of endpoints under a secret seed, and what each source has used up.
#pragma once

#include <cstdint>
#include <vector>

#include <tarnglider/conn_addr.h>

#include "server/server_config.h"

namespace app {

// Hashes and compares endpoints as keys of a table. Without the seed nobody can aim at one bucket.
struct addr_hash {
    uint64_t seed = 0;
    size_t operator()(const tarn_addr &addr) const noexcept;
};
struct addr_equal {
    bool operator()(const tarn_addr &a, const tarn_addr &b) const noexcept;
};
bool same_ip(const tarn_addr &a, const tarn_addr &b);
uint64_t mix64(uint64_t value);

// What one source has used up.
struct source_use {
    rate_meter meters[budget_kinds];
    uint32_t hosts = 0;
    uint32_t allocations = 0;
};

// A fixed table with no eviction: sources that hash alike share an entry, so that nobody gains by coming from many
// addresses, and nobody can push out what another has used up.
class source_table {
public:
    source_table(uint32_t entries, uint64_t seed) : uses_(entries), seed_(seed) {}
    uint32_t index(const tarn_addr &addr) const;
    source_use &operator[](uint32_t index) { return uses_[index]; }

private:
    std::vector<source_use> uses_;
    uint64_t seed_;
};

} // namespace app
