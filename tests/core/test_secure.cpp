// Keys, codes, AEAD, keyed hashing and the Noise IK handshake: published figures, figures of other libraries
// (Python's hashlib and hmac, libsodium), and every damage of a packet. The program is linked with
// --wrap=crypto_wipe, so that the tests see what the library wipes.
#include "core/secure_support.h"

#include "secure_internal.h"

#include <numeric>

static std::vector<bytes> *wipe_log = nullptr;

extern "C" {
void __real_crypto_wipe(void *secret, size_t size);
void __wrap_crypto_wipe(void *secret, size_t size);
void __wrap_crypto_wipe(void *secret, size_t size) {
    if (wipe_log != nullptr) wipe_log->push_back(bytes(size)), memcpy(wipe_log->back().data(), secret, size);
    __real_crypto_wipe(secret, size);
}
}

namespace {

// Everything that the library wipes while this lives.
struct wipe_watch {
    std::vector<bytes> seen;
    wipe_watch() { wipe_log = &seen; }
    ~wipe_watch() { wipe_log = nullptr; }
    ptrdiff_t of(const bytes &secret) const { return std::count(seen.begin(), seen.end(), secret); }
    ptrdiff_t of_size(size_t size) const {
        return std::count_if(seen.begin(), seen.end(), [=](const bytes &one) { return one.size() == size; });
    }
};

bytes counting(size_t size, uint8_t from = 0) {
    bytes out(size);
    std::iota(out.begin(), out.end(), from);
    return out;
}

const uint8_t *octets(const char *text) { return reinterpret_cast<const uint8_t *>(text); }

TEST(Secure, KeyPairKeyIdAndKeyCode) {
    const bytes secret = unhex("5dab087e624a8a4b79e17f8b83800ee66f3bb1292618b6fd1c2f8b27ff88e0eb");
    tarn_keypair pair = {};
    seeded_random::reset(1);
    seeded_random::fail_at(1);
    EXPECT_EQ(tarn_keypair_generate(&pair), TARN_ERR_RANDOM);
    EXPECT_EQ(image(pair), bytes(64));
    seeded_random::push(secret.data(), secret.size());
    wipe_watch watch;
    EXPECT_EQ(tarn_keypair_generate(&pair), TARN_OK);
    EXPECT_EQ(watch.of(secret), 1);
    const char *of_rfc = "de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f"; // RFC 7748, 6.1
    EXPECT_EQ(hex(image(pair)), hex(secret) + of_rfc);

    uint8_t id[16];
    char code[10];
    tarn_key_id(id, counting(32).data());
    tarn_key_code(code, counting(32).data());
    EXPECT_EQ(hex(id, 16), "8503bfc08bfb8eab0d071dea9a044c66");
    EXPECT_STREQ(code, "GM1V-ZG4B");
}

TEST(Secure, CodesAndHexadecimalAsTyped) {
    const struct {
        const char *text, *bytes; // null: refused
    } codes[] = {{"0123-4567", "00443214c7"}, {"89ab-cDEF", "4254b635cf"}, {" r-sTV WX-Y z-", "c675be77df"},
                 {"GHJK-MNPQ", "84653a56d7"}, {"O1LI-o1li", "0042100421"}, {" - ", nullptr},
                 {"0123-456", nullptr},       {"0123-45678", nullptr},     {"0123-456U", nullptr},
                 {"0123-456\xC9", nullptr},   {"0123-4567\t", nullptr},    {"0123-456{", nullptr}};
    for (const auto &row : codes) {
        uint8_t parsed[5] = {7, 7, 7, 7, 7};
        EXPECT_EQ(tarn_key_code_parse(parsed, row.text), row.bytes ? 0 : -1) << row.text;
        EXPECT_EQ(hex(parsed, 5), row.bytes ? row.bytes : "0707070707") << row.text;
    }
    const struct {
        const char *text, *bytes; // all but the first two are refused
    } digits[] = {{"", ""},           {"09afAF", "09afaf"}, {"0", ""},    {"09afA", "09af00"},
                  {"09af", "09af00"}, {"00000", "0000"},    {"0g", "00"}, {"/0", "00"},
                  {"0:", "00"},       {"@0", "00"},         {"G0", "00"}, {"`0", "00"}};
    for (const auto &row : digits) {
        const std::vector<char> exact(row.text, row.text + strlen(row.text) + 1); // a read past it is seen
        bytes out(strlen(row.bytes) / 2);
        EXPECT_EQ(tarn_hex_decode(out.data(), out.size(), exact.data()), &row < digits + 2 ? 0 : -1);
        EXPECT_EQ(hex(out), row.bytes) << row.text;
    }
    char text[8] = "......."; // the eighth stays the test's own
    tarn_hex_encode(text, unhex("009af1").data(), 3);
    EXPECT_STREQ(text, "009af1");
}

TEST(Secure, AeadOfAPublishedMessageAndItsDamage) { // RFC 8439, A.5; its nonce is the counter below
    const bytes key = unhex("1c9240a5eb55d38af333888604f6b5f0473917c1402b80099dca5cbc207075c0");
    const bytes ad = unhex("f33388860000000000004e91");
    const std::string message =
        "Internet-Drafts are draft documents valid for a maximum of six months and may be updated, "
        "replaced, or obsoleted by other documents at any time. It is inappropriate to use Internet-Drafts "
        "as reference material or to cite them other than as /\u201cwork in progress./\u201d";
    const size_t size = message.size();
    uint64_t counter = 0x0807060504030201;
    bytes sealed(message.begin(), message.end()), plain(size + 1);
    sealed.resize(size + 16);
    ptrdiff_t calls = 1;
    wipe_watch watch;
    tarn_aead_encrypt(key.data(), counter, ad.data(), 12, sealed.data(), size, sealed.data(), &sealed[size]);
    EXPECT_EQ(hex(&sealed[size], 16), "eead9d67890cbb22392336fea1851f38");
    const auto open = [&](const bytes &in) -> int {
        if (in.size() < 16) return TARN_ERR_AUTH;
        const uint8_t *tag = in.data() + in.size() - 16;
        calls++;
        return tarn_aead_decrypt(key.data(), counter, ad.data(), 12, in.data(), in.size() - 16, tag,
                                 plain.data());
    };
    const auto refused = [](size_t) { return TARN_ERR_AUTH; };
    damage(sealed, refused, refused, open);
    counter ^= uint64_t{1} << 63;
    EXPECT_EQ(open(sealed), TARN_ERR_AUTH);
    EXPECT_EQ(plain, bytes(size + 1));
    counter ^= uint64_t{1} << 63;
    EXPECT_EQ(open(sealed), TARN_OK);
    EXPECT_EQ(std::string(plain.begin(), plain.end() - 1), message);
    EXPECT_EQ(watch.of_size(sizeof(crypto_aead_ctx)), calls);
}

TEST(Secure, LengthPrefix) {
    const std::pair<size_t, const char *> rows[] = {{0, "00"}, {127, "7f"}, {128, "8001"}, {16384, "808001"}};
    for (const auto &[size, prefixed] : rows) {
        bytes data = unhex(prefixed), expected(64), digest(64);
        data.resize(data.size() + size, 9);
        crypto_sha512(expected.data(), data.data(), data.size());
        crypto_sha512_ctx ctx;
        crypto_sha512_init(&ctx);
        sha_lv(&ctx, size ? &data[data.size() - size] : nullptr, size);
        crypto_sha512_final(&ctx, digest.data());
        EXPECT_EQ(digest, expected) << size;
    }
}

TEST(Secure, HmacAndHkdfMatchPythonAndWipeWhatTheyMade) {
    const bytes data = counting(50, 100);
    bytes key = counting(64), out2(64);
    hmac(out2.data(), key.data(), data.data(), data.size(), octets("\2"), 1);
    EXPECT_EQ(hex(out2.data(), 32), "d707653a82f9838ba163584ec5b66d329905c2f8a9ba3adcad281f563ddd0952");
    wipe_watch watch;
    hkdf2(key.data(), data.data(), data.size(), key.data(), out2.data()); // in place of the chaining key
    EXPECT_EQ(hex(key), "d40899c4f377ab93d493a2cfbdc415d3a94f352723920a042c547161d146260d"
                        "857badec52e861bc022bbe7cc4c9e1af3bfc4564389dcec6a9691497ea1ead3e");
    EXPECT_EQ(hex(out2.data(), 32), "dd5117a2aa641aa054a134526681f331e2ad39e4dddf52650fe7df7097f45882");
    EXPECT_EQ(watch.of_size(64), 5);  // two keys, and the inner digests of three HMACs
    EXPECT_EQ(watch.of_size(128), 6); // and their inner and outer blocks
}

TEST(Secure, KindsOfSecretAndPasswordKeys) {
    const std::pair<const char *, int> kinds[] = {{"000000", 1},  {"999999", 1}, {"12345", 2},
                                                  {"1234567", 2}, {"12345/", 2}, {"12345:", 2},
                                                  {"123456 ", 2}, {nullptr, 2}};
    for (const auto &[text, kind] : kinds) {
        EXPECT_EQ(tarn_secret_guess_kind(text), kind) << (text ? text : "null");
    }
    bytes key(32);
    const auto derive = [&](const char *password, uint32_t blocks, uint32_t passes) {
        return tarn_password_derive(key.data(), password, counting(16).data(), blocks, passes);
    };
    const uint32_t refused[][2] = {{7, 1}, {0x100001, 1}, {8, 0}, {8, 17}};
    for (const auto &[blocks, passes] : refused) {
        EXPECT_EQ(derive("pass", blocks, passes), -1) << blocks << " blocks, " << passes << " passes";
    }
    EXPECT_EQ(derive(nullptr, 8, 1), -1);
    EXPECT_EQ(key, bytes(32));
    EXPECT_EQ(derive("", 8, 1), 0);
    EXPECT_EQ(derive("correct horse", 8, 16), 0);
    EXPECT_EQ(hex(key), "2cf5172f5ba9e91526d718182a76f66ee0c2bf4616f34e7f581cf7ac3f73e509"); // libsodium's
}

// Forms that the wrappers above never take, so that the library built here is known whole.
TEST(Secure, PublishedArgon2idAndKeyedBlake2b) {
    const bytes pass(32, 1), salt(16, 2), secret(8, 3), ad(12, 4), key = counting(64); // RFC 9106, 5.3
    std::vector<uint64_t> work(4096);
    uint8_t out[64];
    crypto_argon2(out, 32, work.data(), {CRYPTO_ARGON2_ID, 32, 3, 4}, {pass.data(), salt.data(), 32, 16},
                  {secret.data(), ad.data(), 8, 12});
    EXPECT_EQ(hex(out, 32), "0d640df58d78766c08c037a34a8b53c9d01ef0452d75b65eb52520e96b01e659");
    crypto_blake2b_keyed(out, 64, key.data(), 64, octets("abc"), 3);
    EXPECT_EQ(hex(out, 32), "06bbc3dedf13a31139498655251b7588ccd3bb5aaa071b2d44d8e0a04095579e");
}

// With fixed ephemeral keys: github.com, haskell-cryptography/cacophony, vectors/cacophony.txt at
// 8ee9d41e34a1a596cfa3ab12aa4069ff87dc1247. A handshake message each, then a transport message.
const struct {
    const char *static_key, *ephemeral, *payload, *message, *text, *sealed;
} published[] = {{"e61ef9919cde45dd5f82166404bd08e38bceb5dfdfded0a34c8df7ed542214d1",
                  "893e28b9dc6ca8d611ab664754b8ceb7bac5117349a4439a6b0569da977c464a", "Ludwig von Mises",
                  "ca35def5ae56cec33dc2036731ab14896bc4c75dbb07a61f879f8e3afa4c7944ba83a447b38c83e327ad9369"
                  "29812f624884847b7831e95e197b2f797088efdd2f88f1db7e1fb0e99c64419097af91cee64e470f4b6fcd92"
                  "98ce0b56fe20f86e13bf70439c538e3602a7127af71a29cc",
                  "F. A. Hayek", "cd54383060e7a28434cca27fb1cc524cfbabeb18181589df219d07"},
                 {"4a3acbfdb163dec651dfa3194dece676d437029c62a408b4c5ea9114246e4893",
                  "bbdb4cdbd309f1a1f2e1456967fe288cadd6f712d65dc7b7793d5e63da6b375b", "Murray Rothbard",
                  "95ebc60d2b1fa672c1f46a8aa265ef51bfe38e7ccb39ec5be34069f1448088439f069b267a06b3de3ecb1043"
                  "bcb098e9af91d9c64748d998c7b47890871571",
                  "Carl Menger", "a856d3bf0246bfc476c655009cd1ed677b8dcc5b349ae8ef2a05f2"}};
const char published_hash[] = "1c8fa891cb414fedba6daa7c6f4ae0a6d98e5f9768cc9cecd27e805614943ee9"
                              "c8a1b27fbfb76dc197255c8aa69f6b4285c423840b8bedf45e652ca64f797d81";

TEST(Noise, PublishedHandshakeToTheTransportMessages) {
    tarn_keypair s[2];
    tarn_noise_ik side[2];
    for (int i = 1; i >= 0; i--) {
        tarn_keypair_from_secret(&s[i], unhex(published[i].static_key).data());
        tarn_noise_ik_init(&side[i], i == 0, octets("John Galt"), 9, &s[i], i ? nullptr : s[1].public_key);
    }
    for (int i = 0; i < 2; i++) {
        const auto write = i == 0 ? tarn_noise_ik_write1 : tarn_noise_ik_write2;
        const auto take = i == 0 ? tarn_noise_ik_read1 : tarn_noise_ik_read2;
        const size_t overhead = i == 0 ? 96 : 48, text = strlen(published[i].payload), size = text + overhead;
        tarn_noise_ik *from = &side[i], *to = &side[1 - i];
        const bytes fixed = unhex(published[i].ephemeral), from_before = image(*from), to_before = image(*to);
        const uint8_t *e = fixed.data(), *payload = octets(published[i].payload);
        bytes message(size), read(text);
        size_t got = 1;
        EXPECT_EQ(write(from, e, payload, text, message.data(), size - 1, &got), TARN_ERR_SPACE);
        EXPECT_EQ(write(from, e, payload, 0, message.data(), overhead - 1, &got), TARN_ERR_SPACE);
        EXPECT_EQ(got, 0u);
        EXPECT_EQ(image(*from), from_before);
        ASSERT_EQ(write(from, e, payload, text, message.data(), size, &got), TARN_OK);
        EXPECT_EQ(got, size);
        EXPECT_EQ(hex(message), published[i].message);
        EXPECT_EQ(take(to, message.data(), size, read.data(), text - 1, &got), TARN_ERR_SPACE);
        EXPECT_EQ(take(to, message.data(), overhead - 1, read.data(), text, &got), TARN_ERR_FORMAT);
        EXPECT_EQ(got, 0u);
        EXPECT_EQ(image(*to), to_before);
        ASSERT_EQ(take(to, message.data(), size, read.data(), text, &got), TARN_OK);
        EXPECT_EQ(got, text);
        EXPECT_EQ(std::string(read.begin(), read.end()), published[i].payload);
    }
    for (const tarn_noise_ik &state : side) { // both sides' keys must seal what the published ones sealed
        uint8_t key[2][32], tag[16];
        wipe_watch watch;
        ASSERT_EQ(tarn_noise_split(&state, key[0], key[1]), TARN_OK);
        EXPECT_EQ(watch.of_size(64), 7); // two outputs, and what an HKDF leaves
        EXPECT_EQ(hex(state.h, 64), published_hash);
        EXPECT_EQ(state.has_key, 1);
        EXPECT_EQ(state.nonce, 1u); // one use of the last key
        for (int i = 0; i < 2; i++) {
            bytes text(published[i].text, published[i].text + 11);
            tarn_aead_encrypt(key[i], 0, nullptr, 0, &text[0], 11, &text[0], tag);
            EXPECT_EQ(hex(text) + hex(tag, 16), published[i].sealed);
        }
    }
}

TEST(Noise, EveryCallButTheOneThatIsDueIsRefused) {
    const int due[5][2] = {{-1, -1}, {0, 1}, {3, 2}, {4, 4}, {-1, -1}}; // in each stage, for each role
    uint8_t in[100] = {}, out[200], key[32];
    size_t size;
    for (int at = 0; at < 10; at++) {
        tarn_noise_ik state[5] = {};
        for (tarn_noise_ik &one : state) {
            one.stage = static_cast<uint8_t>(at / 2);
            one.role = static_cast<uint8_t>(1 + at % 2);
        }
        const bytes before = image(state[4]);
        const int results[] = {tarn_noise_ik_write1(&state[0], nullptr, in, 4, out, 200, &size),
                               tarn_noise_ik_read1(&state[1], in, 100, out, 200, &size),
                               tarn_noise_ik_write2(&state[2], nullptr, in, 4, out, 200, &size),
                               tarn_noise_ik_read2(&state[3], in, 52, out, 200, &size),
                               tarn_noise_split(&state[4], key, key)};
        for (int i = 0; i < 5; i++) {
            const bool refused = i != due[at / 2][at % 2];
            EXPECT_EQ(results[i] == TARN_ERR_STATE, refused) << "call " << i << ", stage " << at / 2;
            EXPECT_TRUE(!refused || image(state[i]) == before);
        }
    }
}

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
        memset(&client_session, 0xEE,
               sizeof client_session); // to be zeroed, gaps too: they are compared as bytes
        memset(&host_session, 0xEE, sizeof host_session);
        ASSERT_EQ(tarn_keypair_generate(&client), TARN_OK);
        ASSERT_EQ(tarn_keypair_generate(&host), TARN_OK);
        ASSERT_EQ(start(), TARN_OK);
    }
    int start(size_t capacity = 112) {
        return tarn_hs_client_start(&at_client, &client, host.public_key, 0x1122334455667788, init.data(),
                                    capacity, &size);
    }
    int read(const bytes &in) {
        return tarn_hs_host_read(&at_host, &host, in.data(), in.size(), key, &timestamp);
    }
    int respond(uint32_t id, size_t capacity = 60) {
        return tarn_hs_host_respond(&at_host, id, resp.data(), capacity, &size, &host_session);
    }
    int finish(const bytes &in) {
        return tarn_hs_client_finish(&at_client, in.data(), in.size(), &client_session);
    }
    static int malformed(size_t) { return TARN_ERR_FORMAT; }
};

TEST_F(Handshake, GivesBothSidesOneSession) {
    wipe_watch watch;
    ASSERT_EQ(start(), TARN_OK);
    EXPECT_EQ(size, 112u);
    EXPECT_EQ(hex(prefix(init, 40)), "5001580000000000" + hex(at_client.e.public_key, 32));
    EXPECT_EQ(watch.of_size(64), 12); // two DHs: each what its HKDF leaves, and the key that came of it
    for (const uint8_t *secret : {at_client.e.secret, client.secret}) {
        bytes dh(32);
        crypto_x25519(dh.data(), secret, host.public_key);
        EXPECT_EQ(watch.of(dh), 1);
    }
    tarn_noise_ik twin;
    uint8_t payload[8];
    tarn_noise_ik_init(&twin, 0, octets("tarnglider-ik-v1"), 16, &host, nullptr);
    EXPECT_EQ(tarn_noise_ik_read1(&twin, init.data() + 8, 104, payload, 8, &size), TARN_OK);
    EXPECT_EQ(hex(payload, 8), "8877665544332211");

    ASSERT_EQ(read(init), TARN_OK);
    EXPECT_EQ(timestamp, 0x1122334455667788u);
    EXPECT_EQ(hex(key, 32), hex(client.public_key, 32));
    ASSERT_EQ(respond(0xA1B2C3D4), TARN_OK);
    EXPECT_EQ(size, 60u);
    EXPECT_EQ(hex(resp.data(), 8), "50015900d4c3b2a1");
    EXPECT_EQ(image(at_host), bytes(sizeof at_host));
    twin = at_client;
    ASSERT_EQ(tarn_noise_ik_read2(&twin, resp.data() + 8, 52, payload, 4, &size), TARN_OK);
    watch.seen.clear();
    ASSERT_EQ(finish(resp), TARN_OK);
    EXPECT_EQ(image(at_client), bytes(sizeof at_client));
    EXPECT_EQ(watch.of_size(sizeof(tarn_noise_ik)), 3); // the state, and its two copies

    tarn_session expected;
    memset(&expected, 0, sizeof expected);
    expected.id = 0xA1B2C3D4;
    memcpy(expected.handshake_hash, twin.h, 64);
    for (const uint8_t initiator : {uint8_t{0}, uint8_t{1}}) {
        uint8_t *keys[] = {expected.recv_key, expected.send_key};
        tarn_noise_split(&twin, keys[initiator], keys[1 - initiator]);
        expected.initiator = initiator;
        memcpy(expected.peer_key, (initiator ? host : client).public_key, 32);
        EXPECT_EQ(image(initiator ? client_session : host_session), image(expected));
    }
    for (const uint8_t *secret : {expected.send_key, expected.recv_key}) {
        EXPECT_EQ(watch.of(bytes(secret, secret + 32)), 1);
    }
}

TEST_F(Handshake, EveryDamagedPacketIsRefusedAndTheGenuineOneStillCompletes) {
    const auto of_bit = [](size_t bit) { return bit < 64 ? TARN_ERR_FORMAT : TARN_ERR_AUTH; };
    damage(init, malformed, of_bit, [&](const bytes &packet) {
        memset(&at_host, 0, sizeof at_host);
        const int result = read(packet);
        EXPECT_EQ(at_host.stage, result == TARN_ERR_AUTH ? TARN_NOISE_FAILED : 0);
        EXPECT_EQ(image(at_host) == bytes(sizeof at_host), result == TARN_ERR_FORMAT);
        return result;
    });
    EXPECT_EQ(bytes(key, key + 32), bytes(32));
    EXPECT_EQ(timestamp, 0u);
    EXPECT_EQ(respond(1, 0), TARN_ERR_STATE);
    ASSERT_EQ(read(init), TARN_OK);
    ASSERT_EQ(respond(7), TARN_OK);
    const bytes before = image(at_client);
    const auto of_resp_bit = [](size_t bit) { return bit < 32 ? TARN_ERR_FORMAT : TARN_ERR_AUTH; };
    damage(resp, malformed, of_resp_bit, [&](const bytes &packet) {
        wipe_watch watch;
        const int result = finish(packet);
        EXPECT_EQ(watch.of_size(sizeof(tarn_noise_ik)), result == TARN_ERR_AUTH ? 2 : 0);
        return result;
    });
    bytes low_order = resp;
    memset(&low_order[8], 0, 32);
    EXPECT_EQ(finish(low_order), TARN_ERR_DH);
    EXPECT_EQ(image(at_client), before);
    EXPECT_EQ(image(client_session), bytes(sizeof client_session, 0xEE));
    EXPECT_EQ(finish(resp), TARN_OK);
    EXPECT_EQ(finish(resp), TARN_ERR_STATE);
}

TEST_F(Handshake, AnEncryptedIdOfZeroOrOtherThanTheHeadersIsRefused) {
    for (const char header_id : {'\0', '\5', '\6'}) { // the encrypted one: 0, 6, 6
        const uint8_t id[4] = {header_id ? uint8_t{6} : uint8_t{0}};
        const bytes before = image(at_client);
        ASSERT_EQ(read(init), TARN_OK);
        memcpy(resp.data(), "\x50\x01\x59\x00\x00\x00\x00\x00", 8);
        resp[4] = static_cast<uint8_t>(header_id);
        ASSERT_EQ(tarn_noise_ik_write2(&at_host, nullptr, id, 4, resp.data() + 8, 52, &size), TARN_OK);
        EXPECT_EQ(finish(resp), header_id == 6 ? TARN_OK : TARN_ERR_AUTH) << +header_id;
        EXPECT_EQ(header_id != 6, image(at_client) == before);
    }
}

TEST_F(Handshake, DrawsAnIdUntilItIsNotZeroAndSurvivesAFailedSource) {
    ASSERT_EQ(read(init), TARN_OK);
    const bytes before = image(at_host);
    EXPECT_EQ(respond(0, 7), TARN_ERR_SPACE);
    EXPECT_EQ(respond(0, 59), TARN_ERR_SPACE);
    for (int failing = 1; failing <= 4; failing++) { // two ids, then the ephemeral key; then none
        const bool fails = failing < 4;
        seeded_random::reset(1);
        seeded_random::push("\0\0\0\0\1\2\3\4", 8);
        seeded_random::fail_at(failing);
        EXPECT_EQ(respond(0), fails ? TARN_ERR_RANDOM : TARN_OK);
        EXPECT_EQ(size, fails ? 0u : 60u);
        EXPECT_EQ(image(at_host) == before, fails);
        EXPECT_EQ(host_session.id, fails ? 0xEEEEEEEE : 0x04030201);
    }
    EXPECT_EQ(finish(resp), TARN_OK);

    seeded_random::fail_at(1);
    EXPECT_EQ(start(7), TARN_ERR_SPACE);
    EXPECT_EQ(start(111), TARN_ERR_SPACE);
    EXPECT_EQ(start(), TARN_ERR_RANDOM);
    EXPECT_EQ(size, 0u);
}

TEST_F(Handshake, LowOrderKeysFailIt) {
    for (uint8_t *key_of : {at_host.re, at_host.rs}) { // message two
        ASSERT_EQ(read(init), TARN_OK);
        memset(key_of, 0, 32);
        EXPECT_EQ(respond(1), TARN_ERR_DH);
        EXPECT_EQ(at_host.stage, TARN_NOISE_FAILED);
    }
    memset(client.public_key, 0, 32);
    ASSERT_EQ(start(), TARN_OK);
    for (const char *which : {"static key", "ephemeral key"}) { // message one
        EXPECT_EQ(read(init), TARN_ERR_DH) << which;
        EXPECT_EQ(at_host.stage, TARN_NOISE_FAILED);
        EXPECT_EQ(at_host.has_key, 1); // the keys were mixed all the same
        memset(&init[8], 0, 32);
    }
    memset(host.public_key, 0, 32);
    EXPECT_EQ(start(), TARN_ERR_DH);
    EXPECT_EQ(at_client.stage, TARN_NOISE_FAILED);
    EXPECT_EQ(size, 0u);
}

TEST_F(Handshake, RejectRoundTripAndDamage) {
    bytes packet(9);
    EXPECT_EQ(tarn_hs_encode_reject(packet.data(), 8, 2), 0u);
    ASSERT_EQ(tarn_hs_encode_reject(packet.data(), 9, 2), 9u);
    EXPECT_EQ(hex(packet), "50015a000000000002");
    const auto of_bit = [](size_t bit) { return bit < 64 ? TARN_ERR_FORMAT : TARN_OK; };
    damage(packet, malformed, of_bit, [](const bytes &other) {
        uint8_t reason = 99;
        const int result = tarn_hs_decode_reject(other.data(), other.size(), &reason);
        EXPECT_EQ(reason, result == TARN_OK ? other[8] : 99);
        return result;
    });
}

} // namespace
