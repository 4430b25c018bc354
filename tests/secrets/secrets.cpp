// Does anything branch or index on secret data? Run under memcheck, which is told that the secrets are undefined: it
// then reports every jump and address that hangs on them. What leaves as public (points, cipher text, the outcome of a
// comparison) is declared defined again where it leaves. "leaky" runs a control that must be reported.
#include <stdio.h>
#include <string.h>

#include <tarnglider/secure.h>
#include <tarnglider/secure_pair.h>

#include <monocypher.h>
#include <valgrind/memcheck.h>

namespace {

template <class T>
void hide(T &secret) {
    VALGRIND_MAKE_MEM_UNDEFINED(&secret, sizeof secret);
}
template <class T>
void show(T &public_value) {
    VALGRIND_MAKE_MEM_DEFINED(&public_value, sizeof public_value);
}

const uint8_t sid[16] = {1, 2, 3};
const uint8_t channel[4] = {'t', 'e', 's', 't'};

// The generator of a PIN, of both shapes of the field element, and the key of a run.
void cpace() {
    for (uint8_t i = 0; i < 16; i++) {
        uint8_t pin[6] = {'1', '2', '3', '4', '5', static_cast<uint8_t>('0' + i)};
        uint8_t scalar[32] = {9, i}, generator[32], ya[32], isk[64];
        hide(pin);
        tarn_cpace_generator(generator, pin, sizeof pin, channel, sizeof channel, sid, sizeof sid);
        show(generator);
        hide(scalar);
        uint8_t yb[32] = {9};
        memcpy(ya, generator, sizeof ya);
        if (tarn_cpace_isk(isk, sid, sizeof sid, scalar, yb, ya, nullptr, 0, yb, nullptr, 0) != TARN_OK)
            puts("dh");
    }
}

// Sealing with a secret key and secret text; opening what came, good and forged.
void record_layer() {
    tarn_session from = {}, to = {};
    from.id = to.id = 7;
    uint8_t plain[64] = {0x50, 1, 64}, sealed[96], opened[96];
    size_t size = 0;
    hide(from.send_key);
    hide(to.recv_key);
    VALGRIND_MAKE_MEM_UNDEFINED(plain + 8, sizeof plain - 8);
    const size_t len = tarn_seal(&from, plain, sizeof plain, sealed, sizeof sealed);
    show(sealed);
    if (tarn_open(&to, sealed, len, opened, sizeof opened, &size) != TARN_OK) puts("open");
    sealed[len - 1] ^= 1;
    sealed[8] ^= 1; // another counter: the window alone doesn't refuse it
    if (tarn_open(&to, sealed, len, opened, sizeof opened, &size) != TARN_ERR_AUTH) puts("forged");
}

void leaky() {
    uint8_t secret[32] = {1};
    hide(secret);
    if (secret[5] == 3) puts("control");
}

} // namespace

// Whether a point is of low order, and whether a tag holds, is public.
extern "C" {
int __real_crypto_verify32(const uint8_t a[32], const uint8_t b[32]);
int __wrap_crypto_verify32(const uint8_t a[32], const uint8_t b[32]) {
    int result = __real_crypto_verify32(a, b);
    show(result);
    return result;
}
int __real_crypto_aead_read(crypto_aead_ctx *ctx, uint8_t *plain, const uint8_t mac[16], const uint8_t *ad,
                            size_t ad_size, const uint8_t *cipher, size_t size);
int __wrap_crypto_aead_read(crypto_aead_ctx *ctx, uint8_t *plain, const uint8_t mac[16], const uint8_t *ad,
                            size_t ad_size, const uint8_t *cipher, size_t size) {
    int result = __real_crypto_aead_read(ctx, plain, mac, ad, ad_size, cipher, size);
    show(result);
    return result;
}
}

int main(int argc, char **) {
    if (!RUNNING_ON_VALGRIND) {
        fputs("secrets: says nothing unless it runs under valgrind\n", stderr);
        return 2;
    }
    if (argc > 1) {
        leaky();
        return 0;
    }
    cpace();
    record_layer();
    return 0;
}
