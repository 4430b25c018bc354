// What the parts of the secure channel share inside the library: the owner that wipes, and the keyed hashing of the
// handshake and of pairing. Pure functions, no static state; outputs may not overlap inputs unless said otherwise.
#ifndef TARN_SECURE_INTERNAL_H
#define TARN_SECURE_INTERNAL_H

#include <tarnglider/secure.h>

#include <monocypher-ed25519.h>
#include <monocypher.h>

// A secret temporary: not initialised, wiped when its scope ends, whichever way that is left.
template <class T>
struct wiped {
    T v;
    wiped() {}
    explicit wiped(const T &from) : v(from) {}
    ~wiped() { crypto_wipe(&v, sizeof v); }
    wiped(const wiped &) = delete;
    wiped &operator=(const wiped &) = delete;
};

// Feeds a length-prefixed value to a running SHA-512: the size in LEB128 (7 bits a byte, low bits first, the top bit
// on all but the last byte), then the data.
void sha_lv(crypto_sha512_ctx *ctx, const void *data, size_t size);

// HMAC (RFC 2104) with BLAKE2b, 64 bytes of output, of two pieces of data one behind the other.
void hmac(uint8_t out[64], const uint8_t key[64], const uint8_t *data1, size_t size1, const uint8_t *data2,
          size_t size2);

// The two-output HKDF of the Noise protocol. `out1` may be the chaining key itself.
void hkdf2(const uint8_t chaining_key[64], const uint8_t *input, size_t input_size, uint8_t out1[64],
           uint8_t out2[64]);

#endif
