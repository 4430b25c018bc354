// The rendezvous messages against golden bytes, every truncation and every flipped bit, and the proof of a
// registration. The digests were computed by a script with another BLAKE2b and another X25519.
#include <gtest/gtest.h>

#include <monocypher.h>

#include <tarnglider/rendezvous.h>
#include <tarnglider/secure.h>

#include <string.h>

#include <algorithm>
#include <memory>

#include "support/hex_bytes.h"

// The test is linked with --wrap=crypto_wipe: what the library wipes passes here first.
static std::vector<std::string> wiped;
extern "C" void __real_crypto_wipe(void *secret, size_t size);
extern "C" void __wrap_crypto_wipe(void *secret, size_t size) {
    wiped.push_back(hex(static_cast<uint8_t *>(secret), size));
    __real_crypto_wipe(secret, size);
}

namespace {

// The fields of `full` on the wire.
const std::string key_w = "101112131415161718191a1b1c1d1e1f202122232425262728292a2b2c2d2e2f",
                  token_w = "303132333435363738393a3b3c3d3e3f", proof_w = "404142434445464748494a4b4c4d4e4f",
                  punch_w = "505152535455565758595a5b5c5d5e5f", id_w = "606162636465666768696a6b6c6d6e6f",
                  tag_w = "04030201", alloc_w = "08070605", interval_w = "0a09", status_w = "21",
                  side_w = "22", len_w = "10", seen_w = "040c0bc0000201000000000000000000000000",
                  peer_w = "060e0d707172737475767778797a7b7c7d7e7f",
                  lan4_w = "0412110a000007000000000000000000000000",
                  lan6_w = "061413808182838485868788898a8b8c8d8e8f", list_w = "02" + lan4_w + lan6_w;

const struct {
    uint8_t type;
    std::string body;
    const char *trailer;
} rows[] = {
    {96, key_w + token_w + proof_w + list_w, "f48084eaecef04d518779766caccf420"},
    {97, token_w + key_w + seen_w, "72cc5cd9d99418bbdddd3dd4f3c64276"},
    {98, seen_w + interval_w, "bd6695339012acf816c06e56d746dcb5"},
    {99, tag_w + len_w + id_w + list_w, "6436f5f5a336bdd0f4459a5bc3ce90fe"},
    {100, tag_w + status_w + key_w + peer_w + list_w + seen_w + punch_w + alloc_w + token_w,
     "5551252e3a612dbf1c08ab284135fdb0"},
    {101, tag_w + peer_w + list_w + punch_w + alloc_w + token_w, "1eecb26ee3454e4915fc138f9edbba2f"},
    {102, punch_w + tag_w + side_w, "d94321b0fedd541478eff95e362ca6d1"},
    {103, punch_w + tag_w + side_w, "7f865412e17ccb65d7585839d27add01"},
    {104, alloc_w + token_w + side_w, "2f746116d56c5400c42d34f7f0c54822"},
    {105, alloc_w + status_w + seen_w, "70fc459418cabb5b41c1fb599c0d4fa8"},
    {106, tag_w + status_w, "28b0574bc7e5d524f0d80cea7d609d04"},
};

bytes packet(uint8_t type, const std::string &body) {
    return unhex("5001" + hex(&type, 1) + "0000000000" + body);
}

bytes run(uint8_t first, size_t count) {
    bytes out;
    for (size_t i = 0; i < count; i++)
        out.push_back(static_cast<uint8_t>(first + i));
    return out;
}

// A record with every field set, each to bytes of its own.
tarn_rv_msg full(uint8_t type) {
    tarn_rv_msg m = {};
    m.type = type, m.status = 0x21, m.side = 0x22, m.id_len = 16, m.interval = 0x090A;
    m.allocation = 0x05060708, m.tag = 0x01020304, m.count = 2;
    memcpy(m.key, run(0x10, 32).data(), 32);
    memcpy(m.token, run(0x30, 16).data(), 16);
    memcpy(m.proof, run(0x40, 16).data(), 16);
    memcpy(m.punch_token, run(0x50, 16).data(), 16);
    memcpy(m.lookup_id, run(0x60, 16).data(), 16);
    m.seen = {4, 0x0B0C, {192, 0, 2, 1}};
    m.peer = {6, 0x0D0E, {}};
    memcpy(m.peer.ip, run(0x70, 16).data(), 16);
    m.endpoints[0] = {4, 0x1112, {10, 0, 0, 7}};
    m.endpoints[1] = {6, 0x1314, {}};
    memcpy(m.endpoints[1].ip, run(0x80, 16).data(), 16);
    return m;
}

struct net_key {
    uint8_t k[32];
    net_key() { tarn_rv_net_key(k, reinterpret_cast<const uint8_t *>("secret-relay"), 12); }
} const net;

bytes encode(const tarn_rv_msg &m, const uint8_t *key = nullptr) {
    uint8_t out[256];
    return bytes(out, out + tarn_rv_encode(out, sizeof out, key, &m));
}

// Decodes into a record full of rubbish; a failure must leave it all zero.
int decode(const bytes &p, const uint8_t *key = nullptr, tarn_rv_msg *out = nullptr) {
    static constexpr tarn_rv_msg zero = {};
    tarn_rv_msg m;
    memset(&m, 0xEE, sizeof m);
    const int result = tarn_rv_decode(p.data(), p.size(), key, &m);
    EXPECT_TRUE(result == 0 || memcmp(&m, &zero, sizeof m) == 0) << "a failed decode leaves nothing";
    if (out) *out = m;
    return result;
}

// The trailer that a peer with the key would put behind these bytes.
bytes sealed(bytes p) {
    uint8_t mac[16];
    crypto_blake2b_keyed(mac, 16, net.k, 32, p.data(), p.size());
    p.insert(p.end(), mac, mac + 16);
    return p;
}

} // namespace

TEST(Rendezvous, GoldenBytesBothWays) {
    EXPECT_EQ(hex(net.k, 32), "55afafb719db6815ac2a79733f76701525214f705c4e7712df1871e103921a8a");
    uint8_t empty[32];
    tarn_rv_net_key(empty, nullptr, 0);
    EXPECT_EQ(hex(empty, 32), "ee44d58f39f712d2b44a95f1500a69e09d021cc89edf667626d9181b01939b5a");
    for (const auto &r : rows) {
        SCOPED_TRACE(int{r.type});
        const bytes bare = packet(r.type, r.body), kept = unhex(hex(bare) + r.trailer);
        for (const uint8_t *key : std::initializer_list<const uint8_t *>{nullptr, net.k}) {
            const bytes &golden = key ? kept : bare;
            const tarn_rv_msg sent = full(r.type);
            tarn_rv_msg got;
            EXPECT_EQ(hex(encode(sent, key)), hex(golden));
            ASSERT_EQ(decode(golden, key, &got), 0);
            EXPECT_EQ(hex(encode(got, key)), hex(golden));
            for (size_t cap = 0; cap < golden.size(); cap++) {
                bytes small(cap);
                EXPECT_EQ(tarn_rv_encode(small.data(), cap, key, &sent), 0u) << cap;
            }
        }
    }
    // Fields that the type doesn't carry are 0.
    tarn_rv_msg got, only;
    memset(&only, 0, sizeof only);
    only.type = 106, only.tag = 0x01020304, only.status = 0x21;
    ASSERT_EQ(decode(packet(106, tag_w + status_w), nullptr, &got), 0);
    EXPECT_EQ(memcmp(&got, &only, sizeof got), 0);
}

TEST(Rendezvous, RefusesWhatIsCutLongerOrFlipped) {
    for (const auto &r : rows) {
        SCOPED_TRACE(int{r.type});
        const bytes bare = packet(r.type, r.body), kept = sealed(bare);
        for (size_t n = 0; n < bare.size(); n++)
            EXPECT_EQ(decode(prefix(bare, n)), -1) << n;
        for (size_t n = 0; n < kept.size(); n++)
            EXPECT_EQ(decode(prefix(kept, n), net.k), n < 24 ? -1 : -2) << n;
        bytes longer = bare;
        longer.push_back(0);
        EXPECT_EQ(decode(longer), -1);
        EXPECT_EQ(decode(sealed(longer), net.k), -1) << "authentic, and still one byte too long";
        EXPECT_EQ(decode(sealed(prefix(bare, bare.size() - 1)), net.k), -1);
        EXPECT_EQ(decode(bare, net.k), bare.size() < 24 ? -1 : -2) << "without a trailer where one is due";
        for (size_t bit = 0; bit < 8 * kept.size(); bit++) {
            bytes p = kept;
            p[bit / 8] ^= static_cast<uint8_t>(1u << bit % 8);
            const bool header = bit < 32 && (bit / 8 != 2 || p[2] < 96 || p[2] > 106);
            EXPECT_EQ(decode(p, net.k), header ? -1 : -2) << bit;
            if (bit >= 8 * bare.size()) continue;
            const int result = decode(prefix(p, bare.size()));
            // Of the header the session word alone is free; the type and the fields have tests of their own.
            EXPECT_TRUE(bit >= 64 || bit / 8 == 2 || result == (bit < 32 ? -1 : 0)) << bit;
        }
    }
}

// Values that a field may not have, and those beside them that it may; with a valid trailer and without.
TEST(Rendezvous, LimitsOfFields) {
    const auto endpoint = [](uint8_t family) { return hex(&family, 1) + "0102" + std::string(32, '0'); };
    const std::string four = "04" + lan4_w + lan6_w + lan4_w + lan6_w;
    const struct {
        uint8_t type;
        std::string body;
        int result;
        const char *why;
    } limits[] = {
        {99, tag_w + "04" + id_w + "00", -1, "an id of 4"},
        {99, tag_w + "05" + id_w + "00", 0, "a key code"},
        {99, tag_w + "10" + id_w + "00", 0, "a key id"},
        {99, tag_w + "11" + id_w + "00", -1, "an id of 17"},
        {99, tag_w + "10" + id_w + four, 0, "4 endpoints"},
        {99, tag_w + "10" + id_w + "05" + four.substr(2) + lan4_w, -1, "5 endpoints"},
        {99, tag_w + "10" + id_w + "05", -1, "5 endpoints announced"},
        {98, endpoint(0) + interval_w, 0, "no address"},
        {98, endpoint(3) + interval_w, -1, "family 3"},
        {98, endpoint(5) + interval_w, -1, "family 5"},
        {98, endpoint(7) + interval_w, -1, "family 7"},
        {95, tag_w + status_w, -1, "a number below"},
        {107, tag_w + status_w, -1, "a number above"},
    };
    for (const auto &l : limits) {
        EXPECT_EQ(decode(packet(l.type, l.body)), l.result) << l.why;
        EXPECT_EQ(decode(sealed(packet(l.type, l.body)), net.k), l.result) << l.why;
    }
    for (const auto &r : rows) {
        tarn_rv_msg m = full(r.type);
        m.count = 4;
        EXPECT_FALSE(encode(m, net.k).empty()) << "256 bytes hold every message";
        m.count = 5;
        EXPECT_TRUE(encode(m).empty()) << int{r.type};
    }
    for (const uint8_t type : {uint8_t{0}, uint8_t{95}, uint8_t{107}})
        EXPECT_TRUE(encode(full(type)).empty());
    const bytes golden = packet(106, tag_w + status_w);
    const tarn_rv_msg m = full(106);
    uint8_t out[64];
    EXPECT_EQ(tarn_rv_decode(golden.data(), golden.size(), nullptr, nullptr), -1);
    EXPECT_EQ(tarn_rv_decode(nullptr, golden.size(), nullptr, std::make_unique<tarn_rv_msg>().get()), -1);
    EXPECT_EQ(tarn_rv_encode(nullptr, 64, nullptr, &m), 0u);
    EXPECT_EQ(tarn_rv_encode(out, 64, nullptr, nullptr), 0u);
}

TEST(Rendezvous, EndpointsAreCleanedOnTheWay) {
    tarn_rv_msg m = full(98), got;
    memset(m.seen.ip + 4, 0xFF, 12);
    EXPECT_EQ(hex(encode(m)), hex(packet(98, seen_w + interval_w)))
        << "what stands behind an IPv4 address stays here";
    m.seen = full(98).peer;
    m.seen.family = 9;
    EXPECT_EQ(hex(encode(m)), hex(packet(98, std::string(38, '0') + interval_w)));

    const std::string dirty = "0d0e" + std::string(32, 'f');
    ASSERT_EQ(decode(packet(98, "04" + dirty + interval_w), nullptr, &got), 0);
    EXPECT_EQ(hex(got.seen.ip, 16), "ffffffff000000000000000000000000");
    ASSERT_EQ(decode(packet(98, "00" + dirty + interval_w), nullptr, &got), 0);
    EXPECT_EQ(hex(got.seen.ip, 16), std::string(32, 'f'));
    EXPECT_EQ(got.seen.port, 0x0E0D);
}

TEST(Rendezvous, EqualEndpoints) {
    const tarn_addr v4 = {4, 80, {10, 0, 0, 1}}, v6 = {6, 80, {10, 0, 0, 1}}, none = {0, 80, {10, 0, 0, 1}};
    for (const tarn_addr &a : {v4, v6, none}) {
        const size_t used = a.family == 4 ? 4 : 16;
        for (size_t i = 0; i < 16; i++) {
            tarn_addr b = a;
            EXPECT_EQ(tarn_rv_endpoint_equal(&a, &b), 1);
            b.ip[i] ^= 1;
            EXPECT_EQ(tarn_rv_endpoint_equal(&a, &b), i < used ? 0 : 1) << int{a.family} << ", byte " << i;
        }
        tarn_addr b = a;
        b.port = 81;
        EXPECT_EQ(tarn_rv_endpoint_equal(&a, &b), 0);
        EXPECT_EQ(tarn_rv_endpoint_equal(&a, nullptr), 0);
        EXPECT_EQ(tarn_rv_endpoint_equal(nullptr, &a), 0);
    }
    EXPECT_EQ(tarn_rv_endpoint_equal(&v4, &v6), 0);
    EXPECT_EQ(tarn_rv_endpoint_equal(&v6, &none), 0);
}

TEST(Rendezvous, RegistrationProof) {
    const tarn_rv_msg m = full(96);
    const bytes secret = run(1, 32),
                server = unhex("5714769d116bf76436ae74bc793d2c30ad1903c59ac5273805c7e2698b410c36"),
                host = unhex("07a37cbc142093c8b755dc1b10e86cb426374ad16aa853ed0bdfc0b2b86d1c7c");
    const std::string dh = "c9ea6a3f79a000b60b076d4afc990b272f3f0b5aaa3f0b8713c209273e363863",
                      proof_key = "3e356f3dee9e4ee276a229f583edd1f1321ad82e4464f6fcc236511252742863";
    tarn_addr list[7] = {m.endpoints[0], m.endpoints[1], m.seen, {}, m.seen, m.seen, m.seen};
    memset(list[0].ip + 4, 0xFF, 12); // doesn't count
    const struct {
        int count;
        const char *proof;
    } proofs[] = {
        {-1, "87fa829f650f5eb11301344caaea8965"}, {0, "87fa829f650f5eb11301344caaea8965"},
        {1, "c57a41ff7b7f2c0a951ed820592df836"},  {2, "61f82a726c410c29ad2c688c469ac9a1"},
        {4, "73afc07de804e25555dd542e33300ca7"},  {7, "73afc07de804e25555dd542e33300ca7"},
    };
    uint8_t proof[16];
    for (const auto &p : proofs) {
        wiped.clear();
        ASSERT_EQ(
            tarn_rv_register_proof(proof, secret.data(), server.data(), m.token, host.data(), list, p.count),
            0);
        EXPECT_EQ(hex(proof, 16), p.proof) << p.count;
        for (const std::string &s : {dh, proof_key}) {
            EXPECT_NE(std::find(wiped.begin(), wiped.end(), s), wiped.end()) << "left on the stack: " << s;
        }
    }
    ASSERT_EQ(tarn_rv_register_proof(proof, secret.data(), server.data(), m.token, host.data(), nullptr, 3),
              0);
    EXPECT_EQ(hex(proof, 16), proofs[0].proof);

    // A server key of low order would make the proof key known to anybody.
    const uint8_t low[32] = {1};
    wiped.clear();
    EXPECT_EQ(tarn_rv_register_proof(proof, secret.data(), low, m.token, host.data(), list, 1), TARN_ERR_DH);
    EXPECT_EQ(hex(proof, 16), std::string(32, '0'));
    EXPECT_NE(std::find(wiped.begin(), wiped.end(), std::string(64, '0')), wiped.end());
}
