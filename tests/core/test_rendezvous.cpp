// The rendezvous messages against golden bytes, every truncation and every flipped bit, and the proof of a
// registration. The digests were computed by a script with another BLAKE2b and another X25519.
#include <gtest/gtest.h>

#include <monocypher.h>

#include <tarnglider/rendezvous.h>
#include <tarnglider/secure.h>

#include <algorithm>

#include "support/hex_bytes.h"
#include "support/records.h"

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

// A record with every field set, each to bytes of its own.
tarn_rv_msg full(uint8_t type) {
    tarn_rv_msg m = {};
    m.type = type, m.status = 0x21, m.side = 0x22, m.id_len = 16, m.interval = 0x090A;
    m.allocation = 0x05060708, m.tag = 0x01020304, m.count = 2;
    m.seen = {4, 0x0B0C, {192, 0, 2, 1}}, m.peer = {6, 0x0D0E, {}};
    m.endpoints[0] = {4, 0x1112, {10, 0, 0, 7}}, m.endpoints[1] = {6, 0x1314, {}};
    const auto put = [](uint8_t *to, const std::string &wire) {
        memcpy(to, unhex(wire).data(), wire.size() / 2);
    };
    put(m.key, key_w), put(m.token, token_w), put(m.proof, proof_w), put(m.punch_token, punch_w);
    put(m.lookup_id, id_w), put(m.peer.ip, peer_w.substr(6)), put(m.endpoints[1].ip, lan6_w.substr(6));
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

// A failure must leave the record all zero.
int decode(const bytes &p, const uint8_t *key = nullptr, tarn_rv_msg *out = nullptr) {
    tarn_rv_msg m = dirty<tarn_rv_msg>();
    const int result = tarn_rv_decode(p.data(), p.size(), key, &m);
    EXPECT_TRUE(result == 0 || all_zero(m)) << "a failed decode leaves nothing";
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
    tarn_rv_msg got;
    ASSERT_EQ(decode(packet(106, tag_w + status_w), nullptr, &got), 0);
    got.type = got.status = 0, got.tag = 0;
    EXPECT_TRUE(all_zero(got));
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

// Every value of each field that has limits, with a valid trailer and without.
TEST(Rendezvous, LimitsOfFields) {
    const auto expect = [](unsigned type, const std::string &body, bool good) {
        const bytes p = packet(static_cast<uint8_t>(type), body);
        EXPECT_EQ(decode(p), good ? 0 : -1) << type << " " << body;
        EXPECT_EQ(decode(sealed(p), net.k), good ? 0 : -1) << type << " " << body;
    };
    std::string list;
    for (unsigned v = 0; v < 256; v++, list += lan6_w) {
        const uint8_t byte = static_cast<uint8_t>(v);
        const std::string wire = hex(&byte, 1);
        expect(99, tag_w + wire + id_w + "00", v >= 5 && v <= 16);
        expect(99, tag_w + len_w + id_w + wire + list, v <= 4);
        expect(99, tag_w + len_w + id_w + wire, v == 0);
        expect(98, wire + seen_w.substr(2) + interval_w, v == 0 || v == 4 || v == 6);
        expect(v, tag_w + status_w, v == 106);
        tarn_rv_msg m = full(byte);
        m.count = 4;
        EXPECT_EQ(encode(m, net.k).empty(), v < 96 || v > 106) << "256 bytes hold every message";
        m.count = 5;
        EXPECT_TRUE(encode(m).empty()) << v;
    }
    const bytes golden = packet(106, tag_w + status_w);
    tarn_rv_msg m = full(106);
    uint8_t out[64];
    EXPECT_EQ(tarn_rv_decode(golden.data(), golden.size(), nullptr, nullptr), -1);
    EXPECT_EQ(tarn_rv_encode(nullptr, 64, nullptr, &m) + tarn_rv_encode(out, 64, nullptr, nullptr), 0u);
    EXPECT_EQ(tarn_rv_decode(nullptr, golden.size(), nullptr, &m), -1);
}

TEST(Rendezvous, EndpointsAreCleanedOnTheWay) {
    tarn_rv_msg m = full(98), got;
    memset(m.seen.ip + 4, 0xFF, 12);
    EXPECT_EQ(hex(encode(m)), hex(packet(98, seen_w + interval_w)))
        << "what stands behind an IPv4 address stays here";
    m.seen.family = 9;
    EXPECT_EQ(hex(encode(m)), hex(packet(98, std::string(38, '0') + interval_w)));
    for (const auto &[family, ip] :
         {std::pair{"04", "ffffffff000000000000000000000000"}, {"00", "ffffffffffffffffffffffffffffffff"}}) {
        ASSERT_EQ(decode(packet(98, family + ("0d0e" + std::string(32, 'f')) + interval_w), nullptr, &got),
                  0);
        EXPECT_EQ(hex(got.seen.ip, 16), ip);
        EXPECT_EQ(got.seen.port, 0x0E0D);
    }
}

TEST(Rendezvous, EqualEndpoints) {
    for (const int family : {4, 6, 0}) {
        const tarn_addr a = {static_cast<uint8_t>(family), 80, {10, 0, 0, 1}};
        for (size_t i = 0; i <= 16; i++) {
            tarn_addr b = a;
            EXPECT_EQ(tarn_rv_endpoint_equal(&a, &b), 1);
            (i < 16 ? b.ip[i] : b.family) ^= 1;
            EXPECT_EQ(tarn_rv_endpoint_equal(&a, &b), family == 4 && i >= 4 && i < 16)
                << family << ", byte " << i;
        }
        tarn_addr b = a;
        b.port = 81;
        for (const tarn_addr *other : {&b, static_cast<tarn_addr *>(nullptr)})
            EXPECT_EQ(tarn_rv_endpoint_equal(&a, other) + tarn_rv_endpoint_equal(other, &a), 0);
    }
}

TEST(Rendezvous, RegistrationProof) {
    const tarn_rv_msg m = full(96);
    const bytes secret = unhex("0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f20"),
                server = unhex("5714769d116bf76436ae74bc793d2c30ad1903c59ac5273805c7e2698b410c36"),
                host = unhex("07a37cbc142093c8b755dc1b10e86cb426374ad16aa853ed0bdfc0b2b86d1c7c"),
                low = unhex("01" + std::string(62, '0'));
    const std::string dh = "c9ea6a3f79a000b60b076d4afc990b272f3f0b5aaa3f0b8713c209273e363863",
                      proof_key = "3e356f3dee9e4ee276a229f583edd1f1321ad82e4464f6fcc236511252742863";
    tarn_addr list[7] = {m.endpoints[0], m.endpoints[1], m.seen, {}, m.seen, m.seen, m.seen};
    memset(list[0].ip + 4, 0xFF, 12); // doesn't count
    const char *proofs[] = {"87fa829f650f5eb11301344caaea8965", "c57a41ff7b7f2c0a951ed820592df836",
                            "61f82a726c410c29ad2c688c469ac9a1", "73afc07de804e25555dd542e33300ca7"};
    uint8_t proof[16];
    const auto make = [&](const bytes &to, const tarn_addr *endpoints, int count) {
        wiped.clear();
        return tarn_rv_register_proof(proof, secret.data(), to.data(), m.token, host.data(), endpoints,
                                      count);
    };
    const auto was_wiped = [](const std::string &s) {
        return std::find(wiped.begin(), wiped.end(), s) != wiped.end();
    };
    for (const auto &[count, which] : {std::pair{-1, 0}, {0, 0}, {1, 1}, {2, 2}, {4, 3}, {7, 3}}) {
        ASSERT_EQ(make(server, list, count), 0);
        EXPECT_EQ(hex(proof, 16), proofs[which]) << count;
        EXPECT_TRUE(was_wiped(dh) && was_wiped(proof_key)) << "left on the stack";
    }
    ASSERT_EQ(make(server, nullptr, 3), 0);
    EXPECT_EQ(hex(proof, 16), proofs[0]);

    // A server key of low order would make the proof key known to anybody.
    EXPECT_EQ(make(low, list, 1), TARN_ERR_DH);
    EXPECT_EQ(hex(proof, 16), std::string(32, '0'));
    EXPECT_TRUE(was_wiped(std::string(64, '0')));
}
