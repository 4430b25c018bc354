// Keys, codes, AEAD, keyed hashing and the Noise IK handshake: published figures, figures computed with other
// libraries (Python's hashlib and hmac, libsodium), and every way in which a handshake packet can be damaged.
// The program is linked with --wrap=crypto_wipe, so that the tests see what the library wipes.
#include "core/noise_vector.h"
#include "support/hex_bytes.h"
#include "support/seeded_random.h"

#include "secure_internal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string.h>

static std::vector<bytes> *wipe_log = nullptr;

extern "C" void __real_crypto_wipe(void *secret, size_t size);
extern "C" void __wrap_crypto_wipe(void *secret, size_t size);
extern "C" void __wrap_crypto_wipe(void *secret, size_t size) {
    const uint8_t *at = static_cast<const uint8_t *>(secret);
    if (wipe_log != nullptr) wipe_log->push_back(bytes(at, at + size));
    __real_crypto_wipe(secret, size);
}

namespace {

// Everything that the library wipes while this lives.
struct wipe_watch {
    std::vector<bytes> seen;
    wipe_watch() { wipe_log = &seen; }
    ~wipe_watch() { wipe_log = nullptr; }
    // Wipes of `size` bytes, and of those the ones that began with `start`.
    ptrdiff_t of(size_t size, const bytes &start = {}) const {
        return std::count_if(seen.begin(), seen.end(), [&](const bytes &one) {
            return one.size() == size && prefix(one, start.size()) == start;
        });
    }
};

template <class T>
bytes image(const T &record) {
    const uint8_t *at = reinterpret_cast<const uint8_t *>(&record);
    return bytes(at, at + sizeof record);
}

bytes counting(size_t size, size_t step = 1, size_t from = 0) {
    bytes out(size);
    for (uint8_t &b : out) {
        b = static_cast<uint8_t>(from), from += step;
    }
    return out;
}

bytes flipped(bytes from, size_t bit) {
    from[bit / 8] = static_cast<uint8_t>(from[bit / 8] ^ 1 << bit % 8);
    return from;
}

bytes resized(bytes from, size_t size) {
    from.resize(size);
    return from;
}

// ---- keys and texts ----

TEST(SecureKeys, KeyPairKeyIdAndKeyCode) {
    const bytes secret = unhex("5dab087e624a8a4b79e17f8b83800ee66f3bb1292618b6fd1c2f8b27ff88e0eb");
    tarn_keypair pair = {};
    seeded_random::reset(1);
    seeded_random::fail_at(1);
    EXPECT_EQ(tarn_keypair_generate(&pair), TARN_ERR_RANDOM);
    EXPECT_EQ(image(pair), bytes(64));
    seeded_random::push(secret.data(), secret.size());
    wipe_watch watch;
    EXPECT_EQ(tarn_keypair_generate(&pair), TARN_OK);
    EXPECT_EQ(watch.of(32, secret), 1);
    const char *of_rfc = "de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f"; // RFC 7748, 6.1
    EXPECT_EQ(hex(image(pair)), hex(secret) + of_rfc);

    const struct {
        bytes key;
        const char *id, *code;
    } rows[] = {{bytes(32), "49e8e2813e1e1d92125b03e72e3c3a63", "97ME-509Y"},
                {counting(32), "8503bfc08bfb8eab0d071dea9a044c66", "GM1V-ZG4B"}};
    for (const auto &row : rows) {
        uint8_t id[16];
        char code[10];
        tarn_key_id(id, row.key.data());
        tarn_key_code(code, row.key.data());
        EXPECT_EQ(hex(id, 16), row.id);
        EXPECT_STREQ(code, row.code);
    }
}

TEST(SecureKeys, KeyCodeAsTyped) {
    const struct {
        const char *text, *bytes; // null: refused
    } rows[] = {
        {"0123-4567", "00443214c7"}, {"89AB-CDEF", "4254b635cf"}, {"GHJK-MNPQ", "84653a56d7"},
        {"RSTV-WXYZ", "c675be77df"}, {"rstvwxyz", "c675be77df"},  {" R-STV WX-Y Z-", "c675be77df"},
        {"O1LI-o1li", "0042100421"}, {"0111-0111", "0042100421"}, {"", nullptr},
        {"0123-456", nullptr},       {"0123-45678", nullptr},     {"0123-456U", nullptr},
        {"0123-456u", nullptr},      {"0123-456!", nullptr},      {"0123_4567", nullptr},
        {"0123-456\xC9", nullptr},   {"0123-4567\t", nullptr},    {" - ", nullptr},
        {"0123-456@", nullptr},      {"0123-456{", nullptr},      {"97ME-509Y", "49e8e2813e"},
    };
    for (const auto &row : rows) {
        uint8_t parsed[5] = {7, 7, 7, 7, 7};
        EXPECT_EQ(tarn_key_code_parse(parsed, row.text), row.bytes ? 0 : -1) << row.text;
        EXPECT_EQ(hex(parsed, 5), row.bytes ? row.bytes : "0707070707") << row.text;
    }
}

TEST(SecureKeys, Hexadecimal) {
    const struct {
        const char *text, *bytes;
        int result;
    } rows[] = {
        {"", "", 0},
        {"0", "", -1},
        {"09afAF", "09afaf", 0},
        {"09afA", "09af00", -1},
        {"09af", "09af00", -1},
        {"09afAF1", "09afaf", -1},
        {"0g", "00", -1},
        {"/0", "00", -1},
        {"0:", "00", -1},
        {"@0", "00", -1},
        {"G0", "00", -1},
        {"`0", "00", -1},
    };
    for (const auto &row : rows) {
        const bytes exact(row.text, row.text + strlen(row.text) + 1); // a read past the terminator is seen
        bytes out(strlen(row.bytes) / 2);
        const char *text = reinterpret_cast<const char *>(exact.data());
        EXPECT_EQ(tarn_hex_decode(out.data(), out.size(), text), row.result) << row.text;
        EXPECT_EQ(hex(out), row.bytes) << row.text;
    }
    char text[8] = "......."; // the eighth stays the test's own
    tarn_hex_encode(text, unhex("009af1").data(), 3);
    EXPECT_STREQ(text, "009af1");
}

// ---- AEAD and keyed hashing ----

TEST(SecureAead, PublishedMessageAndEveryFlippedBit) { // RFC 8439, A.5; its nonce is the counter below
    const bytes key = unhex("1c9240a5eb55d38af333888604f6b5f0473917c1402b80099dca5cbc207075c0");
    const bytes ad = unhex("f33388860000000000004e91");
    const std::string message =
        "Internet-Drafts are draft documents valid for a maximum of six months and may be updated, "
        "replaced, or obsoleted by other documents at any time. It is inappropriate to use Internet-Drafts "
        "as reference material or to cite them other than as /\u201cwork in progress./\u201d";
    const size_t size = message.size();
    const uint64_t counter = 0x0807060504030201;
    bytes sealed(message.begin(), message.end()), plain(size);
    sealed.resize(size + 16);
    wipe_watch watch;
    tarn_aead_encrypt(key.data(), counter, ad.data(), 12, sealed.data(), size, sealed.data(), &sealed[size]);
    EXPECT_EQ(hex(&sealed[0], 16), "64a0861575861af460f062c79be643bd");
    EXPECT_EQ(hex(&sealed[size], 16), "eead9d67890cbb22392336fea1851f38");
    EXPECT_EQ(watch.of(sizeof(crypto_aead_ctx)), 1);

    const auto open = [&](const bytes &in, uint64_t with) {
        return tarn_aead_decrypt(key.data(), with, ad.data(), 12, in.data(), size, &in[size], plain.data());
    };
    for (size_t bit = 0; bit < 8 * sealed.size(); bit++) {
        ASSERT_EQ(open(flipped(sealed, bit), counter), TARN_ERR_AUTH) << bit;
    }
    EXPECT_EQ(open(sealed, counter ^ uint64_t{1} << 63), TARN_ERR_AUTH);
    EXPECT_EQ(plain, bytes(size));
    watch.seen.clear();
    EXPECT_EQ(open(sealed, counter), TARN_OK);
    EXPECT_EQ(std::string(plain.begin(), plain.end()), message);
    EXPECT_EQ(watch.of(sizeof(crypto_aead_ctx)), 1);
}

TEST(SecureHash, LengthPrefix) {
    const struct {
        size_t size;
        const char *digest; // SHA-512 of "x", prefix and data: first half
    } rows[] = {{0, "7f744de69b6396e62cdd3b4198fe8886ae6846e297ae407b87cb46f1d4b08fe2"},
                {127, "27209d85ab502ce4ad14eeaf2d9735d0bf60a6253774ff41636409b5013c8e44"},
                {128, "781d0bfaa65fd544c5342a298018f67fe9c4ec635eb55fd89fadf3660008da11"},
                {16384, "7b04f48e43266244b844a649d90f61b1c204998a206820cc3a186225e256a592"}};
    for (const auto &row : rows) {
        const bytes data = counting(row.size, 7, 1);
        uint8_t digest[64];
        crypto_sha512_ctx ctx;
        crypto_sha512_init(&ctx);
        crypto_sha512_update(&ctx, reinterpret_cast<const uint8_t *>("x"), 1);
        sha_lv(&ctx, row.size ? data.data() : nullptr, row.size);
        crypto_sha512_final(&ctx, digest);
        EXPECT_EQ(hex(digest, 32), row.digest) << row.size;
    }
}

TEST(SecureHash, HmacAndHkdfMatchPythonAndWipeWhatTheyMade) {
    const bytes data = counting(50, 1, 100);
    bytes key = counting(64), block(128, 0x36), temp(64), out2(64);
    for (size_t i = 0; i < 64; i++) {
        block[i] = static_cast<uint8_t>(block[i] ^ key[i]);
    }
    hmac(out2.data(), key.data(), data.data(), data.size(), reinterpret_cast<const uint8_t *>("\2"), 1);
    EXPECT_EQ(hex(out2), "d707653a82f9838ba163584ec5b66d329905c2f8a9ba3adcad281f563ddd0952"
                         "c11e989095004b66aad814a723215d9f7c75bd1e6a15ea6d43f2b78ba1ed59b0");
    hmac(temp.data(), key.data(), data.data(), data.size(), nullptr, 0);
    wipe_watch watch;
    hkdf2(key.data(), data.data(), data.size(), key.data(), out2.data()); // in place of the chaining key
    EXPECT_EQ(hex(key), "d40899c4f377ab93d493a2cfbdc415d3a94f352723920a042c547161d146260d"
                        "857badec52e861bc022bbe7cc4c9e1af3bfc4564389dcec6a9691497ea1ead3e");
    EXPECT_EQ(hex(out2), "dd5117a2aa641aa054a134526681f331e2ad39e4dddf52650fe7df7097f45882"
                         "26418ef4799fc66c3709025376e6ae14fecb8072b60691a430a251218a957624");
    EXPECT_EQ(watch.of(64, temp), 1);
    EXPECT_EQ(watch.of(64, key), 1);
    EXPECT_EQ(watch.of(64), 5); // with the inner digests of three HMACs
    EXPECT_EQ(watch.of(128, block), 1);
    EXPECT_EQ(watch.of(128), 6); // and their inner and outer blocks
}

// ---- pairing secrets ----

TEST(SecureSecret, GuessesTheKind) {
    const struct {
        const char *text;
        int kind;
    } rows[] = {{"000000", 1}, {"999999", 1}, {"12345", 2}, {"1234567", 2}, {"12345a", 2}, {"12345/", 2},
                {"12345:", 2}, {"a12345", 2}, {"", 2},      {nullptr, 2},   {" 12345", 2}, {"123456 ", 2}};
    for (const auto &row : rows) {
        EXPECT_EQ(tarn_secret_guess_kind(row.text), row.kind) << (row.text ? row.text : "null");
    }
}

TEST(SecureSecret, PasswordKeysMatchLibsodiumWithinTheRanges) {
    const struct {
        const char *password;
        uint32_t blocks, passes;
        const char *key; // null: refused
    } rows[] = {
        {"", 8, 1, "31ed41e2d73f27fdfe4eb4bec651341e58ba43477051c6fe4adad735d82ee08a"},
        {"correct horse", 8, 16, "2cf5172f5ba9e91526d718182a76f66ee0c2bf4616f34e7f581cf7ac3f73e509"},
        {"pass", 67, 2, "028c34b6031e721045470589eeebad7d57a0ae169e3a34987c9b6890c230b3b1"},
        {"pass", 7, 1, nullptr},
        {"pass", 0x100001, 1, nullptr},
        {"pass", 8, 0, nullptr},
        {"pass", 8, 17, nullptr},
        {nullptr, 8, 1, nullptr},
    };
    const bytes salt = counting(16);
    for (const auto &row : rows) {
        bytes key(32);
        EXPECT_EQ(tarn_password_derive(key.data(), row.password, salt.data(), row.blocks, row.passes),
                  row.key ? 0 : -1);
        EXPECT_EQ(hex(key), row.key ? row.key : std::string(64, '0'));
    }
}

// Forms that the wrappers above never take, so that the library built here is known whole.
TEST(SecurePrimitives, PublishedArgon2idAndKeyedBlake2b) {
    const bytes pass(32, 1), salt(16, 2), secret(8, 3), ad(12, 4), key = counting(64); // RFC 9106, 5.3
    std::vector<uint64_t> work(4096);
    uint8_t tag[32], digest[64];
    crypto_argon2(tag, 32, work.data(), {CRYPTO_ARGON2_ID, 32, 3, 4}, {pass.data(), salt.data(), 32, 16},
                  {secret.data(), ad.data(), 8, 12});
    EXPECT_EQ(hex(tag, 32), "0d640df58d78766c08c037a34a8b53c9d01ef0452d75b65eb52520e96b01e659");
    crypto_blake2b_keyed(digest, 64, key.data(), 64, reinterpret_cast<const uint8_t *>("abc"), 3);
    EXPECT_EQ(hex(digest, 64), "06bbc3dedf13a31139498655251b7588ccd3bb5aaa071b2d44d8e0a04095579e"
                               "d590fbfdcf941f4370ce5ce623624e7a76d33e7a8109dcda9b57d72f8f8efa51");
}

// ---- Noise IK ----

TEST(Noise, PublishedHandshakeToTheLastTransportMessage) {
    const bytes prologue = unhex(noise_vector::prologue), remote = unhex(noise_vector::init_remote_static);
    const bytes e[] = {unhex(noise_vector::init_ephemeral), unhex(noise_vector::resp_ephemeral)};
    tarn_keypair s[2];
    tarn_keypair_from_secret(&s[0], unhex(noise_vector::init_static).data());
    tarn_keypair_from_secret(&s[1], unhex(noise_vector::resp_static).data());
    tarn_noise_ik side[2];
    tarn_noise_ik_init(&side[0], 1, prologue.data(), prologue.size(), &s[0], remote.data());
    tarn_noise_ik_init(&side[1], 0, prologue.data(), prologue.size(), &s[1], nullptr);

    for (int i = 0; i < 2; i++) {
        const bytes payload = unhex(noise_vector::messages[i].payload);
        const size_t overhead = i == 0 ? 96 : 48, size = payload.size() + overhead;
        const bytes before = image(side[i]), reader_before = image(side[1 - i]);
        bytes message(size), read(payload.size());
        size_t got = 1;
        const auto write = [&](size_t payload_size, size_t capacity) {
            const auto call = i == 0 ? tarn_noise_ik_write1 : tarn_noise_ik_write2;
            return call(&side[i], e[i].data(), payload.data(), payload_size, message.data(), capacity, &got);
        };
        const auto take = [&](size_t message_size, size_t capacity) {
            const auto call = i == 0 ? tarn_noise_ik_read1 : tarn_noise_ik_read2;
            return call(&side[1 - i], message.data(), message_size, read.data(), capacity, &got);
        };
        EXPECT_EQ(write(payload.size(), size - 1), TARN_ERR_SPACE);
        EXPECT_EQ(write(0, overhead - 1), TARN_ERR_SPACE);
        EXPECT_EQ(got, 0u);
        EXPECT_EQ(image(side[i]), before);
        ASSERT_EQ(write(payload.size(), size), TARN_OK);
        EXPECT_EQ(got, size);
        EXPECT_EQ(hex(message), noise_vector::messages[i].ciphertext);
        EXPECT_EQ(take(size, payload.size() - 1), TARN_ERR_SPACE);
        EXPECT_EQ(take(overhead - 1, payload.size()), TARN_ERR_FORMAT);
        EXPECT_EQ(got, 0u);
        EXPECT_EQ(image(side[1 - i]), reader_before);
        ASSERT_EQ(take(size, payload.size()), TARN_OK);
        EXPECT_EQ(got, payload.size());
        EXPECT_EQ(hex(read), hex(payload));
    }

    bytes key[2] = {bytes(32), bytes(32)};
    for (const tarn_noise_ik &state : side) { // the second one's keys must open what the vector sealed
        wipe_watch watch;
        ASSERT_EQ(tarn_noise_split(&state, key[0].data(), key[1].data()), TARN_OK);
        EXPECT_EQ(watch.of(64, key[0]), 2); // the output, and the copy that made the second
        EXPECT_EQ(watch.of(64, key[1]), 1);
        EXPECT_EQ(hex(state.h, 64), noise_vector::handshake_hash);
        EXPECT_EQ(state.has_key, 1);
        EXPECT_EQ(state.nonce, 1u); // one use of the last key
        for (size_t i = 2; i < std::size(noise_vector::messages); i++) {
            bytes text = unhex(noise_vector::messages[i].payload);
            const size_t size = text.size();
            text.resize(size + 16);
            tarn_aead_encrypt(key[i % 2].data(), i / 2 - 1, nullptr, 0, &text[0], size, &text[0],
                              &text[size]);
            EXPECT_EQ(hex(text), noise_vector::messages[i].ciphertext);
        }
    }
}

TEST(Noise, EveryCallButTheOneThatIsDueIsRefused) {
    uint8_t in[100] = {}, out[200], key[32];
    size_t size;
    for (int role = 1; role <= 2; role++) {
        for (int stage = 0; stage <= 4; stage++) {
            tarn_noise_ik state = {};
            state.role = static_cast<uint8_t>(role);
            state.stage = static_cast<uint8_t>(stage);
            const bytes before = image(state);
            const auto refused = [&](int result) {
                EXPECT_EQ(result, TARN_ERR_STATE) << "role " << role << " in stage " << stage;
            };
            const bool first = stage == 1, second = stage == 2, client = role == 1;
            if (!(client && first)) refused(tarn_noise_ik_write1(&state, nullptr, in, 4, out, 200, &size));
            if (!(!client && first)) refused(tarn_noise_ik_read1(&state, in, 100, out, 200, &size));
            if (!(!client && second)) refused(tarn_noise_ik_write2(&state, nullptr, in, 4, out, 200, &size));
            if (!(client && second)) refused(tarn_noise_ik_read2(&state, in, 52, out, 200, &size));
            if (stage != 3) refused(tarn_noise_split(&state, key, key));
            EXPECT_EQ(image(state), before);
        }
    }
}

// ---- the handshake's packets ----

struct Handshake : testing::Test {
    tarn_keypair client, host;
    tarn_noise_ik at_client, at_host;
    tarn_session client_session, host_session;
    bytes init = bytes(112), resp = bytes(60);
    uint8_t key[32] = {};
    uint64_t timestamp = 0;
    size_t size = 0;

    void SetUp() override {
        seeded_random::reset(42);
        memset(&client_session, 0, sizeof client_session); // the gaps too: records are compared as bytes
        memset(&host_session, 0, sizeof host_session);
        ASSERT_EQ(tarn_keypair_generate(&client), TARN_OK);
        ASSERT_EQ(tarn_keypair_generate(&host), TARN_OK);
        ASSERT_EQ(start(112), TARN_OK);
    }
    int start(size_t capacity) {
        return tarn_hs_client_start(&at_client, &client, host.public_key, 0x1122334455667788, init.data(),
                                    capacity, &size);
    }
    int read() { return tarn_hs_host_read(&at_host, &host, init.data(), init.size(), key, &timestamp); }
    int respond(uint32_t id, size_t capacity = 60) {
        return tarn_hs_host_respond(&at_host, id, resp.data(), capacity, &size, &host_session);
    }
    int finish() { return tarn_hs_client_finish(&at_client, resp.data(), resp.size(), &client_session); }
};

TEST_F(Handshake, GivesBothSidesOneSession) {
    EXPECT_EQ(size, 112u);
    EXPECT_EQ(hex(prefix(init, 40)), "5001580000000000" + hex(at_client.e.public_key, 32));
    ASSERT_EQ(read(), TARN_OK);
    EXPECT_EQ(timestamp, 0x1122334455667788u);
    EXPECT_EQ(hex(key, 32), hex(client.public_key, 32));
    ASSERT_EQ(respond(0xA1B2C3D4), TARN_OK);
    EXPECT_EQ(size, 60u);
    EXPECT_EQ(hex(resp.data(), 8), "50015900d4c3b2a1");
    EXPECT_EQ(image(at_host), bytes(sizeof at_host));
    tarn_noise_ik twin = at_client;
    uint8_t id[4];
    ASSERT_EQ(tarn_noise_ik_read2(&twin, resp.data() + 8, 52, id, 4, &size), TARN_OK);
    wipe_watch watch;
    ASSERT_EQ(finish(), TARN_OK);
    EXPECT_EQ(image(at_client), bytes(sizeof at_client));
    EXPECT_EQ(watch.of(sizeof(tarn_noise_ik)), 3); // the state, and its two copies
    EXPECT_EQ(watch.of(32, bytes(client_session.send_key, client_session.send_key + 32)), 1);
    EXPECT_EQ(watch.of(32, bytes(client_session.recv_key, client_session.recv_key + 32)), 1);

    tarn_session expected;
    memset(&expected, 0, sizeof expected);
    expected.id = 0xA1B2C3D4;
    tarn_noise_split(&twin, expected.recv_key, expected.send_key);
    memcpy(expected.peer_key, client.public_key, 32);
    memcpy(expected.handshake_hash, twin.h, 64);
    EXPECT_EQ(image(host_session), image(expected));
    expected.initiator = 1;
    tarn_noise_split(&twin, expected.send_key, expected.recv_key);
    memcpy(expected.peer_key, host.public_key, 32);
    EXPECT_EQ(image(client_session), image(expected));
}

TEST_F(Handshake, IsTheLabelledProtocolAndWipesItsSharedSecrets) {
    const uint8_t *label = reinterpret_cast<const uint8_t *>("tarnglider-ik-v1");
    uint8_t payload[8];
    bytes dh(32);
    tarn_noise_ik_init(&at_host, 0, label, 16, &host, nullptr);
    ASSERT_EQ(tarn_noise_ik_read1(&at_host, init.data() + 8, 104, payload, 8, &size), TARN_OK);
    EXPECT_EQ(hex(payload, 8), "8877665544332211");
    wipe_watch watch;
    ASSERT_EQ(start(112), TARN_OK);
    EXPECT_EQ(watch.of(64, bytes(at_client.k, at_client.k + 32)), 1); // what the last HKDF gave
    for (const uint8_t *secret : {at_client.e.secret, client.secret}) {
        crypto_x25519(dh.data(), secret, host.public_key);
        EXPECT_EQ(watch.of(32, dh), 1);
    }
}

TEST_F(Handshake, EveryDamagedInitIsRefused) {
    const bytes good = init, untouched(sizeof at_host);
    memset(&at_host, 0, sizeof at_host);
    for (size_t length = 0; length <= 113; length++) {
        init = resized(good, length == 112 ? 111 : length);
        ASSERT_EQ(read(), TARN_ERR_FORMAT) << length;
    }
    for (size_t bit = 0; bit < 896; bit++) {
        init = flipped(good, bit);
        ASSERT_EQ(read(), bit < 64 ? TARN_ERR_FORMAT : TARN_ERR_AUTH) << bit;
        ASSERT_EQ(at_host.stage, bit < 64 ? 0 : TARN_NOISE_FAILED) << bit;
        ASSERT_EQ(bit < 64, image(at_host) == untouched) << bit;
    }
    EXPECT_EQ(bytes(key, key + 32), bytes(32));
    EXPECT_EQ(timestamp, 0u);
    EXPECT_EQ(respond(1, 0), TARN_ERR_STATE);
    init = good;
    EXPECT_EQ(read(), TARN_OK);
}

TEST_F(Handshake, EveryDamagedRespIsRefusedAndTheGenuineOneStillCompletes) {
    ASSERT_EQ(read(), TARN_OK);
    ASSERT_EQ(respond(7), TARN_OK);
    const bytes good = resp, before = image(at_client);
    for (size_t length = 0; length <= 61; length++) {
        resp = resized(good, length == 60 ? 59 : length);
        ASSERT_EQ(finish(), TARN_ERR_FORMAT) << length;
    }
    for (size_t bit = 0; bit < 480; bit++) {
        resp = flipped(good, bit);
        wipe_watch watch;
        ASSERT_EQ(finish(), bit < 32 ? TARN_ERR_FORMAT : TARN_ERR_AUTH) << bit;
        ASSERT_EQ(watch.of(sizeof(tarn_noise_ik)), bit < 32 ? 0 : 2) << bit;
    }
    resp = good;
    memset(&resp[8], 0, 32);
    EXPECT_EQ(finish(), TARN_ERR_DH);
    EXPECT_EQ(image(at_client), before);
    EXPECT_EQ(image(client_session), bytes(sizeof client_session));
    resp = good;
    EXPECT_EQ(finish(), TARN_OK);
    EXPECT_EQ(finish(), TARN_ERR_STATE);
}

TEST_F(Handshake, AnEncryptedIdOfZeroOrOtherThanTheHeadersIsRefused) {
    for (const char header_id : {'\0', '\5', '\6'}) { // the encrypted one: 0, 6, 6
        const uint8_t id[4] = {static_cast<uint8_t>(header_id ? 6 : 0)};
        const bytes before = image(at_client);
        ASSERT_EQ(read(), TARN_OK);
        memcpy(resp.data(), "\x50\x01\x59\x00\x00\x00\x00\x00", 8);
        resp[4] = static_cast<uint8_t>(header_id);
        ASSERT_EQ(tarn_noise_ik_write2(&at_host, nullptr, id, 4, resp.data() + 8, 52, &size), TARN_OK);
        EXPECT_EQ(finish(), header_id == 6 ? TARN_OK : TARN_ERR_AUTH) << +header_id;
        EXPECT_EQ(header_id != 6, image(at_client) == before);
    }
}

TEST_F(Handshake, DrawsAnIdUntilItIsNotZeroAndSurvivesAFailedSource) {
    ASSERT_EQ(read(), TARN_OK);
    const bytes before = image(at_host);
    EXPECT_EQ(respond(0, 7), TARN_ERR_SPACE);
    EXPECT_EQ(respond(0, 59), TARN_ERR_SPACE);
    for (int failing = 1; failing <= 3; failing++) { // two ids, then the ephemeral key
        seeded_random::push("\0\0\0\0\1\2\3\4", 8);
        seeded_random::fail_at(failing);
        EXPECT_EQ(respond(0), TARN_ERR_RANDOM);
        EXPECT_EQ(size, 0u);
        EXPECT_EQ(image(at_host), before);
        EXPECT_EQ(host_session.id, 0u);
        seeded_random::reset(1);
    }
    seeded_random::push("\0\0\0\0\1\2\3\4", 8);
    EXPECT_EQ(respond(0), TARN_OK);
    EXPECT_EQ(host_session.id, 0x04030201u);
    EXPECT_EQ(finish(), TARN_OK);

    EXPECT_EQ(start(7), TARN_ERR_SPACE);
    EXPECT_EQ(start(111), TARN_ERR_SPACE);
    seeded_random::fail_at(1);
    EXPECT_EQ(start(112), TARN_ERR_RANDOM);
    EXPECT_EQ(size, 0u);
}

TEST_F(Handshake, LowOrderKeysFailIt) {
    tarn_keypair zero = client;
    memset(zero.public_key, 0, 32);
    ASSERT_EQ(tarn_hs_client_start(&at_client, &zero, host.public_key, 1, init.data(), 112, &size), TARN_OK);
    EXPECT_EQ(read(), TARN_ERR_DH) << "static key";
    EXPECT_EQ(at_host.stage, TARN_NOISE_FAILED);
    memset(&init[8], 0, 32);
    EXPECT_EQ(read(), TARN_ERR_DH) << "ephemeral key";
    EXPECT_EQ(at_host.stage, TARN_NOISE_FAILED);
    EXPECT_EQ(at_host.has_key, 1); // the keys were mixed all the same
    EXPECT_EQ(tarn_hs_client_start(&at_client, &client, zero.public_key, 1, init.data(), 112, &size),
              TARN_ERR_DH);
    EXPECT_EQ(at_client.stage, TARN_NOISE_FAILED);
    EXPECT_EQ(size, 0u);
    for (int which = 0; which < 2; which++) { // message two: towards the ephemeral key, then the static one
        ASSERT_EQ(start(112), TARN_OK);
        ASSERT_EQ(read(), TARN_OK);
        memset(which == 0 ? at_host.re : at_host.rs, 0, 32);
        EXPECT_EQ(respond(1), TARN_ERR_DH);
        EXPECT_EQ(at_host.stage, TARN_NOISE_FAILED);
    }
}

TEST(HandshakeReject, RoundTripTruncationsAndFlippedBits) {
    bytes packet(9);
    uint8_t reason = 0;
    EXPECT_EQ(tarn_hs_encode_reject(packet.data(), 8, 2), 0u);
    ASSERT_EQ(tarn_hs_encode_reject(packet.data(), 9, 2), 9u);
    EXPECT_EQ(hex(packet), "50015a000000000002");
    for (size_t length = 0; length <= 10; length++) {
        const bytes other = resized(packet, length);
        EXPECT_EQ(tarn_hs_decode_reject(other.data(), length, &reason), length == 9 ? 0 : -1) << length;
    }
    for (size_t bit = 0; bit < 72; bit++) {
        const bytes other = flipped(packet, bit);
        reason = 99;
        EXPECT_EQ(tarn_hs_decode_reject(other.data(), 9, &reason), bit < 64 ? -1 : 0) << bit;
        EXPECT_EQ(reason, bit < 64 ? 99 : other[8]);
    }
}

} // namespace
