// Rendezvous messages: one table says which fields each message holds; one encoder and one decoder walk it.
// The trailer is checked before a byte is parsed, and whatever fails to parse leaves an all-zero record. Pure
// functions over constant tables; any thread.
#include <tarnglider/rendezvous.h>

#include <monocypher.h>

#include <tarnglider/protocol.h>
#include <tarnglider/secure.h>

#include "bytes_internal.h"

namespace {

// Fields that a message may hold, with their bytes on the wire.
enum field : uint8_t {
    f_end,
    f_key,         // 32
    f_token,       // 16
    f_proof,       // 16
    f_punch_token, // 16
    f_lookup_id,   // 16
    f_tag,         // 4
    f_status,      // 1
    f_side,        // 1
    f_id_len,      // 1
    f_interval,    // 2
    f_allocation,  // 4
    f_seen,        // 19
    f_peer,        // 19
    f_endpoints,   // 1 for the count, 19 for each
};

constexpr field reg[] = {f_key, f_token, f_proof, f_endpoints, f_end};
constexpr field chal[] = {f_token, f_key, f_seen, f_end};
constexpr field regd[] = {f_seen, f_interval, f_end};
constexpr field look[] = {f_tag, f_id_len, f_lookup_id, f_endpoints, f_end};
constexpr field reply[] = {f_tag,  f_status,      f_key,        f_peer,  f_endpoints,
                           f_seen, f_punch_token, f_allocation, f_token, f_end};
constexpr field peer[] = {f_tag, f_peer, f_endpoints, f_punch_token, f_allocation, f_token, f_end};
constexpr field punch[] = {f_punch_token, f_tag, f_side, f_end};
constexpr field bind[] = {f_allocation, f_token, f_side, f_end};
constexpr field bound[] = {f_allocation, f_status, f_seen, f_end};
constexpr field err[] = {f_tag, f_status, f_end};

// The field list of a message, or null for an unknown number.
const field *layout(uint8_t type) {
    static constexpr const field *lists[] = {reg,   chal,  regd, look,  reply, peer,
                                             punch, punch, bind, bound, err};
    if (type < TARN_RV_REGISTER || type > TARN_RV_ERROR) return nullptr;
    return lists[type - TARN_RV_REGISTER];
}

// Key material of one computation, gone when it ends, however it ends.
struct wiped_key {
    uint8_t bytes[32];
    ~wiped_key() { crypto_wipe(bytes, sizeof bytes); }
};

} // namespace

// Writes an endpoint. What stands behind an IPv4 address, or in a record of no known family, doesn't leave
// the machine.
static void wep(byte_writer &w, const tarn_addr &a) {
    static constexpr uint8_t zero[16] = {};
    const size_t used = a.family == 4 ? 4 : a.family == 6 ? 16 : 0;
    w.u8(used ? a.family : uint8_t{0});
    w.u16(used ? a.port : uint16_t{0});
    w.bytes(a.ip, used);
    w.bytes(zero, sizeof zero - used);
}

// Reads an endpoint; an unknown family fails the message. Without a family the bytes stay as they came.
static void rep(byte_reader &r, tarn_addr &a) {
    a.family = r.u8();
    a.port = r.u16();
    r.bytes(a.ip, sizeof a.ip);
    if (a.family == 4) {
        memset(a.ip + 4, 0, sizeof a.ip - 4);
    } else if (a.family != 0 && a.family != 6) {
        r.fail();
    }
}

static void write_field(byte_writer &w, field code, const tarn_rv_msg &m) {
    switch (code) {
    case f_end:
        break;
    case f_key:
        w.bytes(m.key, sizeof m.key);
        break;
    case f_token:
        w.bytes(m.token, sizeof m.token);
        break;
    case f_proof:
        w.bytes(m.proof, sizeof m.proof);
        break;
    case f_punch_token:
        w.bytes(m.punch_token, sizeof m.punch_token);
        break;
    case f_lookup_id:
        w.bytes(m.lookup_id, sizeof m.lookup_id);
        break;
    case f_tag:
        w.u32(m.tag);
        break;
    case f_status:
        w.u8(m.status);
        break;
    case f_side:
        w.u8(m.side);
        break;
    case f_id_len:
        w.u8(m.id_len);
        break;
    case f_interval:
        w.u16(m.interval);
        break;
    case f_allocation:
        w.u32(m.allocation);
        break;
    case f_seen:
        wep(w, m.seen);
        break;
    case f_peer:
        wep(w, m.peer);
        break;
    case f_endpoints:
        w.u8(m.count);
        for (int i = 0; i < m.count; i++)
            wep(w, m.endpoints[i]);
        break;
    }
}

static void read_field(byte_reader &r, field code, tarn_rv_msg &m) {
    switch (code) {
    case f_end:
        break;
    case f_key:
        r.bytes(m.key, sizeof m.key);
        break;
    case f_token:
        r.bytes(m.token, sizeof m.token);
        break;
    case f_proof:
        r.bytes(m.proof, sizeof m.proof);
        break;
    case f_punch_token:
        r.bytes(m.punch_token, sizeof m.punch_token);
        break;
    case f_lookup_id:
        r.bytes(m.lookup_id, sizeof m.lookup_id);
        break;
    case f_tag:
        m.tag = r.u32();
        break;
    case f_status:
        m.status = r.u8();
        break;
    case f_side:
        m.side = r.u8();
        break;
    case f_id_len:
        m.id_len = r.u8();
        if (m.id_len < TARN_RV_ID_MIN || m.id_len > TARN_RV_ID_MAX) r.fail();
        break;
    case f_interval:
        m.interval = r.u16();
        break;
    case f_allocation:
        m.allocation = r.u32();
        break;
    case f_seen:
        rep(r, m.seen);
        break;
    case f_peer:
        rep(r, m.peer);
        break;
    case f_endpoints:
        m.count = r.u8();
        if (m.count > TARN_RV_ENDPOINTS_MAX) {
            r.fail();
            break;
        }
        for (int i = 0; i < m.count; i++)
            rep(r, m.endpoints[i]);
        break;
    }
}

static void trailer(uint8_t out[TARN_RV_TRAILER_SIZE], const uint8_t net_key[32], const uint8_t *message,
                    size_t size) {
    crypto_blake2b_keyed(out, TARN_RV_TRAILER_SIZE, net_key, 32, message, size);
}

void tarn_rv_net_key(uint8_t key[32], const uint8_t *link_key, size_t link_key_size) {
    static constexpr char label[] = "tarnglider-rv-v1";
    crypto_blake2b_ctx hash;
    crypto_blake2b_init(&hash, 32);
    crypto_blake2b_update(&hash, reinterpret_cast<const uint8_t *>(label), sizeof label - 1);
    crypto_blake2b_update(&hash, link_key, link_key_size);
    crypto_blake2b_final(&hash, key);
}

size_t tarn_rv_encode(uint8_t *out, size_t capacity, const uint8_t *net_key, const tarn_rv_msg *message) {
    if (!out || !message) return 0;
    const field *code = layout(message->type);
    if (!code || message->count > TARN_RV_ENDPOINTS_MAX) return 0;
    byte_writer w(out, capacity);
    w.u8(TARN_MAGIC);
    w.u8(TARN_VERSION_PLAIN);
    w.u8(message->type);
    w.u8(0);
    w.u32(0);
    for (; *code != f_end; code++)
        write_field(w, *code, *message);
    if (!net_key || !w.ok()) return w.size();
    uint8_t mac[TARN_RV_TRAILER_SIZE];
    trailer(mac, net_key, out, w.size());
    w.bytes(mac, sizeof mac);
    return w.size();
}

static int decode(const uint8_t *packet, size_t size, const uint8_t *net_key, tarn_rv_msg &m) {
    if (!packet || size < TARN_HEADER_SIZE) return -1;
    if (packet[0] != TARN_MAGIC || packet[1] != TARN_VERSION_PLAIN || packet[3] != 0) return -1;
    const field *code = layout(packet[2]);
    if (!code) return -1;
    if (net_key) {
        if (size - TARN_HEADER_SIZE < TARN_RV_TRAILER_SIZE) return -1;
        size -= TARN_RV_TRAILER_SIZE;
        uint8_t mac[TARN_RV_TRAILER_SIZE];
        trailer(mac, net_key, packet, size);
        if (crypto_verify16(mac, packet + size) != 0) return -2;
    }
    m.type = packet[2];
    byte_reader r(packet + TARN_HEADER_SIZE, size - TARN_HEADER_SIZE);
    for (; *code != f_end; code++)
        read_field(r, *code, m);
    return r.finished() ? 0 : -1;
}

int tarn_rv_decode(const uint8_t *packet, size_t size, const uint8_t *net_key, tarn_rv_msg *message) {
    if (!message) return -1;
    memset(message, 0, sizeof *message);
    const int result = decode(packet, size, net_key, *message);
    if (result != 0) memset(message, 0, sizeof *message);
    return result;
}

int tarn_rv_register_proof(uint8_t proof[16], const uint8_t host_secret[32], const uint8_t server_public[32],
                           const uint8_t cookie[16], const uint8_t host_public[32],
                           const tarn_addr *endpoints, int count) {
    static constexpr char label[] = "tarnglider-rv-proof-v1";
    static constexpr uint8_t zero[32] = {};
    memset(proof, 0, 16);

    wiped_key dh;
    crypto_x25519(dh.bytes, host_secret, server_public);
    if (crypto_verify32(dh.bytes, zero) == 0) return TARN_ERR_DH;

    wiped_key proof_key;
    crypto_blake2b_ctx hash; // Monocypher wipes it in the final step
    crypto_blake2b_init(&hash, 32);
    crypto_blake2b_update(&hash, reinterpret_cast<const uint8_t *>(label), sizeof label - 1);
    crypto_blake2b_update(&hash, dh.bytes, sizeof dh.bytes);
    crypto_blake2b_final(&hash, proof_key.bytes);

    if (!endpoints || count < 0) count = 0;
    if (count > TARN_RV_ENDPOINTS_MAX) count = TARN_RV_ENDPOINTS_MAX;
    uint8_t list[1 + TARN_RV_ENDPOINTS_MAX * TARN_RV_ENDPOINT_SIZE];
    byte_writer w(list, sizeof list);
    w.u8(static_cast<uint8_t>(count));
    for (int i = 0; i < count; i++)
        wep(w, endpoints[i]);

    crypto_blake2b_keyed_init(&hash, 16, proof_key.bytes, sizeof proof_key.bytes);
    crypto_blake2b_update(&hash, cookie, 16);
    crypto_blake2b_update(&hash, host_public, 32);
    crypto_blake2b_update(&hash, list, w.size());
    crypto_blake2b_final(&hash, proof);
    return TARN_OK;
}

int tarn_rv_endpoint_equal(const tarn_addr *a, const tarn_addr *b) {
    if (!a || !b || a->family != b->family || a->port != b->port) return 0;
    return memcmp(a->ip, b->ip, a->family == 4 ? 4 : sizeof a->ip) == 0;
}
