// CPace over X25519 with SHA-512: the generator of a secret, and the key of a run. Both are constant time in secret
// data, and every temporary is wiped.
#include "secure_internal.h"

#include <tarnglider/secure_pair.h>

#include <string.h>

// Bytes of a number's LEB128 form.
static size_t leb128_size(size_t value) {
    size_t size = 1;
    while (value >>= 7)
        size++;
    return size;
}

// r = a - b over 32 little-endian bytes; returns 1 if a was below b.
static unsigned subtract(uint8_t r[32], const uint8_t a[32], const uint8_t b[32]) {
    unsigned borrow = 0;
    for (int i = 0; i < 32; i++) {
        const unsigned difference = unsigned{a[i]} - b[i] - borrow;
        r[i] = static_cast<uint8_t>(difference);
        borrow = (difference >> 8) & 1;
    }
    return borrow;
}

// r = bit ? a : r, without a branch.
static void choose(uint8_t r[32], const uint8_t a[32], unsigned bit) {
    const uint8_t mask = static_cast<uint8_t>(0u - bit);
    for (int i = 0; i < 32; i++)
        r[i] = static_cast<uint8_t>(r[i] ^ (mask & (r[i] ^ a[i])));
}

// Brings a hash to the field element that the Elligator map of Monocypher takes: below 2^254. That map reads 254 bits
// alone and gives the same point for r and p - r, so the smaller of both stands for the whole element.
static void to_field_element(uint8_t r[32]) {
    static const uint8_t p[32] = {0xED, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                  0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                  0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F};
    wiped<uint8_t[32]> other;
    r[31] &= 0x7F;
    const unsigned below_p = subtract(other.v, r, p);
    choose(r, other.v, 1 - below_p);
    const unsigned bit_254 = (r[31] >> 6) & 1;
    subtract(other.v, p, r);
    choose(r, other.v, bit_254);
}

void tarn_cpace_generator(uint8_t point_out[32], const uint8_t *prs, size_t prs_size, const uint8_t *ci,
                          size_t ci_size, const uint8_t *sid, size_t sid_size) {
    static const char dsi[] = "CPace255";
    static const uint8_t zeros[128] = {};
    // Label, secret and padding, each with its length (9 bytes for the label, 1 for the padding's length), fill the
    // first block of the hash.
    const size_t used = 10 + leb128_size(prs_size) + prs_size;
    const size_t padding = used < sizeof zeros ? sizeof zeros - used : 0;
    wiped<crypto_sha512_ctx> ctx;
    wiped<uint8_t[64]> hash;
    crypto_sha512_init(&ctx.v);
    sha_lv(&ctx.v, dsi, sizeof dsi - 1);
    sha_lv(&ctx.v, prs, prs_size);
    sha_lv(&ctx.v, zeros, padding);
    sha_lv(&ctx.v, ci, ci_size);
    sha_lv(&ctx.v, sid, sid_size);
    crypto_sha512_final(&ctx.v, hash.v);
    to_field_element(hash.v);
    crypto_elligator_map(point_out, hash.v);
}

int tarn_cpace_isk(uint8_t isk_out[64], const uint8_t *sid, size_t sid_size, const uint8_t scalar[32],
                   const uint8_t peer_point[32], const uint8_t ya[32], const uint8_t *ada, size_t ada_size,
                   const uint8_t yb[32], const uint8_t *adb, size_t adb_size) {
    static const char dsi[] = "CPace255_ISK";
    static const uint8_t zero[32] = {};
    wiped<uint8_t[32]> k;
    crypto_x25519(k.v, scalar, peer_point);
    if (crypto_verify32(k.v, zero) == 0) return TARN_ERR_DH;
    wiped<crypto_sha512_ctx> ctx;
    crypto_sha512_init(&ctx.v);
    sha_lv(&ctx.v, dsi, sizeof dsi - 1);
    sha_lv(&ctx.v, sid, sid_size);
    sha_lv(&ctx.v, k.v, sizeof k.v);
    sha_lv(&ctx.v, ya, 32);
    sha_lv(&ctx.v, ada, ada_size);
    sha_lv(&ctx.v, yb, 32);
    sha_lv(&ctx.v, adb, adb_size);
    crypto_sha512_final(&ctx.v, isk_out);
    return TARN_OK;
}
