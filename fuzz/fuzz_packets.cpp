// Every plain decoder on the same input, through the rows of the codec's tests: what a decoder takes must
// encode to the same bytes again, and a chunk must lie in the packet to its end. The two handshake readers
// that meet strangers' bytes run too, with a fixed key.
#include <stdlib.h>

#include <tarnglider/secure.h>

#include "support/packet_rows.h"

static void check(bool holds) {
    if (!holds) abort();
}

static void handshake(const bytes &p) {
    uint8_t reason, client[32], again[9];
    uint64_t timestamp;
    if (tarn_hs_decode_reject(p.data(), p.size(), &reason) == 0) {
        check(p.size() == 9 && tarn_hs_encode_reject(again, sizeof again, reason) == 9);
        check(memcmp(again, p.data(), 9) == 0);
    }
    static tarn_keypair host;
    if (host.public_key[0] == 0) tarn_keypair_from_secret(&host, bytes(32, 1).data());
    tarn_noise_ik state;
    if (tarn_hs_host_read(&state, &host, p.data(), p.size(), client, &timestamp) == TARN_OK) {
        check(p.size() == 112);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::vector<packet_row> rows = packet_rows();
    const bytes p(data, data + size);
    handshake(p);
    tarn_header header;
    if (tarn_decode_header(data, size, &header) != 0) return 0;
    bytes head(8);
    check(tarn_encode_header(head.data(), 8, &header) == 8 && head == prefix(p, 8));
    for (const packet_row &r : rows) {
        const bytes back = r.echo(p);
        if (r.type != header.type || back.empty()) continue;
        // The tail that older hellos lack reads as 0.
        check(back.size() >= 8 && (back.size() <= size || header.type == TARN_PKT_HELLO));
        for (size_t i = 0; i < back.size(); i++)
            check(back[i] == (i < size ? p[i] : 0));
    }
    return 0;
}
