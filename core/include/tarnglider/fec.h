/* Forward error correction: a systematic erasure code over GF(256). k data shards travel unchanged, p parity
 * shards beside them, and any k of the k + p rebuild the data. All shards of one call have the same length.
 *
 * The code is a Cauchy Reed-Solomon code. Field: polynomial x^8 + x^4 + x^3 + x^2 + 1 (0x11D), generator 2,
 * addition is XOR. Parity shard r (0 to p - 1) is the sum over the data shards c (0 to k - 1) of
 *
 *     data[c] * 1 / ((k + r) XOR c)
 *
 * a Cauchy matrix with rows k + r and columns c: k + r is above every c, so that no denominator is 0, and
 * every square part of such a matrix is invertible. The coefficients depend on k, hence both ends must use
 * the same k; they don't depend on p.
 *
 * Encode and decode allocate nothing, use some 20 kB of stack, are reentrant, and may run at once on
 * different shards. Shards need no alignment and must not overlap each other. */
#ifndef TARNGLIDER_FEC_H
#define TARNGLIDER_FEC_H

#include <stddef.h>
#include <stdint.h>
#include <tarnglider/api.h>

TARN_BEGIN_DECLS

enum {
    TARN_FEC_MAX_DATA = 64,   /* most data shards; bounds the decoder's matrix */
    TARN_FEC_MAX_SHARDS = 255 /* most data and parity shards together */
};

/* Builds the tables and chooses the fastest kernel that the processor offers. The work is done once per
 * process; any thread may call it at any time. Encode and decode call it themselves: an early call only moves
 * the cost of some hundred microseconds to a better moment. */
TARN_API void tarn_fec_init(void);

/* Computes the parity shards.
 *   k, p      number of data shards, 1 to 64, and of parity shards, at least 0; k + p at most 255
 *   length    bytes in each shard, above 0
 *   data      k pointers to the data shards, only read
 *   parity    p pointers to the caller's buffers of `length` bytes, overwritten; may be null if p is 0
 * Returns 0; -1 outside the limits, with a null `data`, or a null `parity` with p above 0, and then writes
 * nothing. */
TARN_API int tarn_fec_encode(int k, int p, size_t length, const uint8_t *const *data, uint8_t *const *parity);

/* Rebuilds the missing data shards.
 *   k, p      as for encoding
 *   length    bytes in each shard, above 0
 *   shards    k + p pointers, data shards first, then parity shards in the order of encoding. The buffer of a
 *             missing data shard is written. All else is only read, and a missing parity shard not even
 *             that, so that its pointer may be anything
 *   present   k + p flags in the same order, other than 0 for a shard that is there; not changed
 * With all data shards present it returns 0 at once and touches no shard. Of the parity shards it uses as
 * many as data shards are missing, the first ones present.
 * Returns 0; -1 outside the limits, with a null argument, or if fewer than k shards are present, and then
 * writes nothing. Damage can't be noticed: a shard that isn't what was sent makes the rebuilt ones wrong. */
TARN_API int tarn_fec_decode(int k, int p, size_t length, uint8_t *const *shards, const uint8_t *present);

TARN_END_DECLS

#endif
