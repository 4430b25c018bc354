// What the tests of the secure channel share: a record as bytes, and every damage that a packet can take.
#ifndef TEST_SECURE_SUPPORT_H
#define TEST_SECURE_SUPPORT_H

#include "support/hex_bytes.h"
#include "support/seeded_random.h"

#include <tarnglider/secure.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string.h>

template <class T>
bytes image(const T &record) {
    const uint8_t *at = reinterpret_cast<const uint8_t *>(&record);
    return bytes(at, at + sizeof record);
}

// Gives `read` the packet in every other length, up to one byte too long, and then with each bit turned;
// compares the results with what of_length and of_bit say.
template <class Length, class Bit, class Read>
void damage(const bytes &good, Length of_length, Bit of_bit, Read read) {
    for (size_t length = 0; length <= good.size() + 1; length++) {
        bytes other = good;
        other.resize(length);
        if (length == good.size()) continue;
        ASSERT_EQ(read(prefix(other, length)), of_length(length)) << "length " << length;
    }
    for (size_t bit = 0; bit < 8 * good.size(); bit++) {
        bytes other = good;
        other[bit / 8] = static_cast<uint8_t>(other[bit / 8] ^ 1 << bit % 8);
        ASSERT_EQ(read(other), of_bit(bit)) << "bit " << bit;
    }
}

#endif
