// Readers of a bare IP address and of a port over a counted span that needs no terminator; shared by
// endpoints and relay links.
#ifndef TARN_CONN_ADDR_INTERNAL_H
#define TARN_CONN_ADDR_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

// Dotted decimal, four fields of 1 to 3 digits; leading zeros are decimal. Returns 0, or -1 with `out`
// untouched.
int parse_v4(const char *s, size_t n, uint8_t out[4]);

// RFC 4291 text with "::" and an IPv4 tail, without zone or brackets. Returns 0, or -1 with `out` untouched.
int parse_v6(const char *s, size_t n, uint8_t out[16]);

// One or more decimal digits, value 1 to 65535, leading zeros allowed. Returns 0, or -1 with `port`
// untouched.
int parse_port(const char *s, size_t n, uint16_t *port);

#endif
