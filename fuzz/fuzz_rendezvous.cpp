// The rendezvous decoder, bare and behind a trailer. The fuzzer computes a valid trailer itself, so that its input
// reaches the parser. What is taken must come out again, but for the session word and what endpoints lose on the way;
// what is refused must leave an all-zero record.
#include <tarnglider/protocol.h>
#include <tarnglider/rendezvous.h>

#include <monocypher.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

static const uint8_t net_key[32] = {};

static void check(bool holds) {
    if (!holds) abort();
}

// Encoding drops the port and the bytes of an endpoint without a family.
static void normalise(tarn_addr &a) {
    if (a.family == 0) memset(&a, 0, sizeof a);
}

static int decode(const uint8_t *packet, size_t size, const uint8_t *key, tarn_rv_msg *m) {
    static const tarn_rv_msg zero = {};
    memset(m, 0xA5, sizeof *m);
    const int result = tarn_rv_decode(packet, size, key, m);
    check(result == 0 || memcmp(m, &zero, sizeof *m) == 0);
    return result;
}

// Encodes what was read; the result has the same length and reads back as the same record.
static void round_trip(tarn_rv_msg m, const uint8_t *packet, size_t size, const uint8_t *key) {
    check(m.type == packet[2] && m.count <= TARN_RV_ENDPOINTS_MAX);
    normalise(m.seen);
    normalise(m.peer);
    for (tarn_addr &a : m.endpoints)
        normalise(a);
    uint8_t out[TARN_RV_MAX_SIZE];
    tarn_rv_msg again;
    check(tarn_rv_encode(out, sizeof out, key, &m) == size && tarn_rv_encode(out, size - 1, key, &m) == 0);
    check(tarn_rv_encode(out, size, key, &m) == size && decode(out, size, key, &again) == 0);
    check(memcmp(&m, &again, sizeof m) == 0);
    // Without endpoints the wire form is unique, the session word and the trailer over it apart.
    const size_t bare = key ? size - TARN_RV_TRAILER_SIZE : size;
    const bool unique = m.type == TARN_RV_PUNCH || m.type == TARN_RV_PUNCH_ACK || m.type == TARN_RV_BIND ||
                        m.type == TARN_RV_ERROR;
    check(!unique || memcmp(out + TARN_HEADER_SIZE, packet + TARN_HEADER_SIZE, bare - TARN_HEADER_SIZE) == 0);
}

static void both_ways(const uint8_t *packet, size_t size) {
    tarn_rv_msg bare, kept;
    const int result = decode(packet, size, nullptr, &bare);
    check(result == 0 || result == -1);
    if (result == 0) round_trip(bare, packet, size, nullptr);

    std::vector<uint8_t> with_trailer(packet, packet + size);
    with_trailer.resize(size + TARN_RV_TRAILER_SIZE);
    crypto_blake2b_keyed(with_trailer.data() + size, TARN_RV_TRAILER_SIZE, net_key, 32, packet, size);
    check(decode(with_trailer.data(), with_trailer.size(), net_key, &kept) == result);
    check(memcmp(&bare, &kept, sizeof bare) == 0);
    if (result == 0) round_trip(kept, with_trailer.data(), with_trailer.size(), net_key);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    tarn_rv_msg m;
    if (decode(data, size, net_key, &m) == 0) round_trip(m, data, size, net_key);
    both_ways(data, size);
    // Seeds carry a trailer of their own; without it their fields are what the parser sees.
    if (size > TARN_RV_TRAILER_SIZE) both_ways(data, size - TARN_RV_TRAILER_SIZE);
    return 0;
}
