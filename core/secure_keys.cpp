// Key utilities, the AEAD wrapper, and the framing of the keyed hashes. Everything is reentrant: one-shot contexts on
// the caller's stack, no static state. Monocypher's hash contexts wipe themselves when they finish; what remains
// here is wiped by its owner.
#include "secure_internal.h"

#include "bytes_internal.h"

#include <stdlib.h>
#include <string.h>

// 32 symbols without I, L, O and U, so that no symbol is read or heard as another.
static const char crockford[] = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";

static constexpr int code_symbols = 8; // of 5 bits each: 40 bits

void tarn_secure_wipe(void *buffer, size_t size) { crypto_wipe(buffer, size); }

// ---- keys ----

void tarn_keypair_from_secret(tarn_keypair *keypair, const uint8_t secret[32]) {
    memmove(keypair->secret, secret, 32);
    crypto_x25519_public_key(keypair->public_key, keypair->secret);
}

int tarn_keypair_generate(tarn_keypair *keypair) {
    wiped<uint8_t[32]> secret;
    if (tarn_random_bytes(secret.v, sizeof secret.v) != TARN_OK) return TARN_ERR_RANDOM;
    tarn_keypair_from_secret(keypair, secret.v);
    return TARN_OK;
}

void tarn_key_id(uint8_t id[16], const uint8_t public_key[32]) {
    static const char label[] = "tarnglider-key-id-v1";
    uint8_t input[sizeof label - 1 + 32];
    memcpy(input, label, sizeof label - 1);
    memcpy(input + sizeof label - 1, public_key, 32);
    crypto_blake2b(id, TARN_KEY_ID_SIZE, input, sizeof input);
}

void tarn_key_code(char text[10], const uint8_t public_key[32]) {
    uint8_t id[TARN_KEY_ID_SIZE];
    tarn_key_id(id, public_key);
    uint64_t bits = 0;
    for (int i = 0; i < TARN_KEY_CODE_BYTES; i++) {
        bits = bits << 8 | id[i];
    }
    char *to = text;
    for (int i = 0; i < code_symbols; i++) {
        if (i == code_symbols / 2) *to++ = '-';
        *to++ = crockford[bits >> (35 - 5 * i) & 31];
    }
    *to = '\0';
}

int tarn_key_code_parse(uint8_t bytes[5], const char *text) {
    uint64_t bits = 0;
    int symbols = 0;
    for (const char *at = text; *at != '\0'; at++) {
        char c = *at;
        if (c == '-' || c == ' ') continue;
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        if (c == 'L' || c == 'I') c = '1';
        if (c == 'O') c = '0';
        const char *symbol = strchr(crockford, c);
        if (symbol == nullptr || symbols == code_symbols) return TARN_ERR_FORMAT;
        bits = bits << 5 | static_cast<uint64_t>(symbol - crockford);
        symbols++;
    }
    if (symbols < code_symbols) return TARN_ERR_FORMAT;
    for (int i = 0; i < TARN_KEY_CODE_BYTES; i++) {
        bytes[i] = static_cast<uint8_t>(bits >> (32 - 8 * i));
    }
    return TARN_OK;
}

// ---- hexadecimal ----

void tarn_hex_encode(char *text, const uint8_t *bytes, size_t size) {
    static const char digits[] = "0123456789abcdef";
    for (size_t i = 0; i < size; i++) {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 15];
    }
    text[2 * size] = '\0';
}

// The value of a digit, -1 for any other character, the terminator included.
static int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

int tarn_hex_decode(uint8_t *bytes, size_t size, const char *text) {
    for (size_t i = 0; i < size; i++) {
        const int high = hex_digit(text[2 * i]);
        if (high < 0) return TARN_ERR_FORMAT; // the next character may lie beyond the terminator
        const int low = hex_digit(text[2 * i + 1]);
        if (low < 0) return TARN_ERR_FORMAT;
        bytes[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return text[2 * size] == '\0' ? TARN_OK : TARN_ERR_FORMAT;
}

// ---- AEAD ----

static void aead_init(crypto_aead_ctx *ctx, const uint8_t key[32], uint64_t counter) {
    uint8_t nonce[12] = {};
    put_u64(nonce + 4, counter);
    crypto_aead_init_ietf(ctx, key, nonce);
}

void tarn_aead_encrypt(const uint8_t key[32], uint64_t counter, const uint8_t *ad, size_t ad_size,
                       const uint8_t *plain, size_t size, uint8_t *cipher, uint8_t mac[16]) {
    wiped<crypto_aead_ctx> ctx;
    aead_init(&ctx.v, key, counter);
    crypto_aead_write(&ctx.v, cipher, mac, ad, ad_size, plain, size);
}

int tarn_aead_decrypt(const uint8_t key[32], uint64_t counter, const uint8_t *ad, size_t ad_size,
                      const uint8_t *cipher, size_t size, const uint8_t mac[16], uint8_t *plain) {
    wiped<crypto_aead_ctx> ctx;
    aead_init(&ctx.v, key, counter);
    return crypto_aead_read(&ctx.v, plain, mac, ad, ad_size, cipher, size) == 0 ? TARN_OK : TARN_ERR_AUTH;
}

// ---- keyed hashing ----

void sha_lv(crypto_sha512_ctx *ctx, const void *data, size_t size) {
    size_t left = size;
    do {
        const uint8_t more = left > 0x7F ? 0x80 : 0;
        const uint8_t byte = static_cast<uint8_t>((left & 0x7F) | more);
        crypto_sha512_update(ctx, &byte, 1);
        left >>= 7;
    } while (left > 0);
    if (size > 0) crypto_sha512_update(ctx, static_cast<const uint8_t *>(data), size);
}

// Begins a pass: the hash of the key, zeros up to the hash's block of 128 bytes, all XORed with the pad.
static void hmac_pass(crypto_blake2b_ctx *ctx, const uint8_t key[64], uint8_t pad) {
    wiped<uint8_t[128]> block;
    memset(block.v, pad, sizeof block.v);
    for (int i = 0; i < 64; i++) {
        block.v[i] ^= key[i];
    }
    crypto_blake2b_init(ctx, 64);
    crypto_blake2b_update(ctx, block.v, sizeof block.v);
}

void hmac(uint8_t out[64], const uint8_t key[64], const uint8_t *data1, size_t size1, const uint8_t *data2,
          size_t size2) {
    crypto_blake2b_ctx ctx;
    wiped<uint8_t[64]> inner;
    hmac_pass(&ctx, key, 0x36);
    if (size1 > 0) crypto_blake2b_update(&ctx, data1, size1);
    if (size2 > 0) crypto_blake2b_update(&ctx, data2, size2);
    crypto_blake2b_final(&ctx, inner.v);
    hmac_pass(&ctx, key, 0x5C);
    crypto_blake2b_update(&ctx, inner.v, sizeof inner.v);
    crypto_blake2b_final(&ctx, out);
}

void hkdf2(const uint8_t chaining_key[64], const uint8_t *input, size_t input_size, uint8_t out1[64],
           uint8_t out2[64]) {
    static const uint8_t one = 1, two = 2;
    wiped<uint8_t[64]> temp, first;
    hmac(temp.v, chaining_key, input, input_size, nullptr, 0);
    hmac(first.v, temp.v, &one, 1, nullptr, 0);
    hmac(out2, temp.v, first.v, sizeof first.v, &two, 1);
    memcpy(out1, first.v, sizeof first.v);
}

// ---- pairing secrets ----

int tarn_secret_guess_kind(const char *text) {
    if (text == nullptr) return TARN_SECRET_PASSWORD;
    size_t digits = 0;
    while (text[digits] >= '0' && text[digits] <= '9') {
        digits++;
    }
    return digits == 6 && text[digits] == '\0' ? TARN_SECRET_PIN : TARN_SECRET_PASSWORD;
}

int tarn_password_derive(uint8_t key[32], const char *password, const uint8_t salt[16], uint32_t blocks,
                         uint32_t passes) {
    if (password == nullptr || blocks < 8 || blocks > 0x100000 || passes < 1 || passes > 16) {
        return TARN_ERR_FORMAT;
    }
    const size_t length = strlen(password);
    if (length > UINT32_MAX) return TARN_ERR_FORMAT;
    void *work = malloc(static_cast<size_t>(blocks) * 1024);
    if (work == nullptr) return TARN_ERR_FORMAT;
    const crypto_argon2_config config = {CRYPTO_ARGON2_ID, blocks, passes, 1};
    const crypto_argon2_inputs inputs = {reinterpret_cast<const uint8_t *>(password), salt,
                                         static_cast<uint32_t>(length), 16};
    crypto_argon2(key, 32, work, config, inputs, crypto_argon2_no_extras); // wipes its work area
    free(work);
    return TARN_OK;
}
