// How every plain packet begins: a writer behind its header, or a reader behind a checked one. Both refuse by
// handing out a failed one, so that an encoder or decoder states its fields once, in wire order.
#ifndef TARN_PROTOCOL_INTERNAL_H
#define TARN_PROTOCOL_INTERNAL_H

#include <tarnglider/protocol.h>

#include "bytes_internal.h"

// A writer behind the header of a packet of `size` bytes. A null argument or too small a buffer gives a
// writer without room: the header itself doesn't fit, and so size() stays 0 whatever is written.
inline byte_writer packet_start(uint8_t *buffer, size_t capacity, const tarn_header *header, uint8_t type,
                                size_t size) {
    static constexpr tarn_header none{};
    if (!buffer || !header || capacity < size) {
        capacity = 0;
        header = &none;
    }
    byte_writer w(buffer, capacity);
    w.u8(TARN_MAGIC);
    w.u8(TARN_VERSION_PLAIN);
    w.u8(type);
    w.u8(header->flags);
    w.u32(header->session);
    return w;
}

// A reader behind the header of a packet of this type and of `size` bytes or more; a failed reader for any
// other.
inline byte_reader packet_open(const uint8_t *packet, size_t length, uint8_t type, size_t size) {
    const bool good = tarn_decode_header(packet, length, nullptr) == 0 && packet[2] == type && length >= size;
    byte_reader r(good ? packet + TARN_HEADER_SIZE : nullptr, good ? length - TARN_HEADER_SIZE : 0);
    if (!good) r.fail();
    return r;
}

#endif
