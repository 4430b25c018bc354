// What the tests of netsock share.
#ifndef TEST_NETSOCK_TEST_H
#define TEST_NETSOCK_TEST_H

#include <gtest/gtest.h>
#include <string.h>
#include <tarnglider/conn_addr.h>

inline tarn_addr addr(const char *text, uint16_t port = 0) {
    tarn_addr a;
    EXPECT_EQ(tarn_addr_parse(&a, text, port), 0) << text;
    return a;
}
inline bool same(const tarn_addr &a, const tarn_addr &b) {
    return a.family == b.family && a.port == b.port && memcmp(a.ip, b.ip, sizeof a.ip) == 0;
}

#endif
