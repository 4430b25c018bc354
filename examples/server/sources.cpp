// Where datagrams come from.
#include "server/sources.h"

#include <cstring>

#include <tarnglider/rendezvous.h>

namespace app {

// The finisher of SplitMix64: every bit of the input reaches every bit of the output.
uint64_t mix64(uint64_t value) {
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31);
}

static size_t address_bytes(const tarn_addr &addr) { return addr.family == 4 ? 4 : sizeof addr.ip; }

size_t addr_hash::operator()(const tarn_addr &addr) const noexcept {
    uint64_t words[2] = {};
    std::memcpy(words, addr.ip, address_bytes(addr));
    const uint64_t head = uint64_t{addr.family} << 16 | addr.port;
    return static_cast<size_t>(mix64(mix64(mix64(head ^ seed) ^ words[0]) ^ words[1]));
}

bool addr_equal::operator()(const tarn_addr &a, const tarn_addr &b) const noexcept {
    return tarn_rv_endpoint_equal(&a, &b) != 0;
}

bool same_ip(const tarn_addr &a, const tarn_addr &b) {
    return a.family == b.family && std::memcmp(a.ip, b.ip, address_bytes(a)) == 0;
}

uint32_t source_table::index(const tarn_addr &addr) const {
    constexpr size_t site_bytes = 7; // a /56 is what a provider gives one customer
    uint64_t word = 0;
    std::memcpy(&word, addr.ip, addr.family == 4 ? 4 : site_bytes);
    return static_cast<uint32_t>(mix64(mix64(addr.family ^ seed_) ^ word) % uses_.size());
}

} // namespace app
