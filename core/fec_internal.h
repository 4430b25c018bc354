// Inside of the erasure code: the field's tables and the kernels, for the library's own sources, tests and
// benchmarks. Everything here is written once, by tarn_fec_init, and only read afterwards.
#ifndef TARN_FEC_INTERNAL_H
#define TARN_FEC_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

namespace fec {

// The field. gf_exp holds the cycle of 255 powers of 2 twice, so that gf_exp[gf_log[a] + gf_log[b]] needs no
// reduction. gf_log[0] is 0 and must not be used as a value.
extern uint8_t gf_exp[512];
extern uint8_t gf_log[256];
extern uint8_t gf_mul_table[256][256]; // [a][b] = a times b
extern uint8_t gf_nib_lo[256][16];     // [a][i] = a times i
extern uint8_t gf_nib_hi[256][16];     // [a][i] = a times (i << 4)
extern uint8_t gf_inverse[256];        // [a] = 1 / a; [0] is 0 and must not be used as a value

// Multiplication by a as an 8 by 8 bit matrix, in the order that the GFNI affine instruction reads: byte 7 -
// i gives bit i of the product, its bit j is bit i of a times 2^j.
extern uint64_t gf_affine[256];

// dst = c x src, or dst ^= c x src, over `length` bytes of any alignment. dst may be src itself.
using region_fn = void (*)(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length);
extern region_fn mul_region;
extern region_fn mul_add_region;

// Several such sums at once: dst[r] = sum over c of coefficients[r * columns + c] x src[c]. No dst is one of
// the src.
struct task {
    uint8_t *const *dst;
    const uint8_t *const *src;
    const uint8_t *coefficients;
    size_t rows;
    size_t columns;
};

// Carries a task out for the bytes from `begin` to `end` of each shard. It may write bytes before `begin`
// again, with the same values, so that a short rest is done as one full vector.
using combine_fn = void (*)(const task &work, size_t begin, size_t end);

// One set of kernels. All sets give identical bytes.
struct kernel {
    const char *name; // the instruction set that it needs
    region_fn mul;
    region_fn mul_add;
    combine_fn combine;
    bool (*offered)(); // whether processor and system offer that instruction set
};

// All sets of this build, slowest first; the first is portable. Sets *count.
const kernel *kernels(int *count);

// The set in use. Before choose_kernel it is the portable one.
extern const kernel *active;

// Sets `active`, mul_region and mul_add_region to the last set that is offered.
void choose_kernel();

// Portable and SSSE3 forms.
void mul_scalar(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length);
void mul_add_scalar(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length);
void combine_scalar(const task &work, size_t begin, size_t end);
void mul_ssse3(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length);
void mul_add_ssse3(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length);
void combine_ssse3(const task &work, size_t begin, size_t end);

// Wider forms.
void mul_avx2(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length);
void mul_add_avx2(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length);
void combine_avx2(const task &work, size_t begin, size_t end);
void mul_gfni(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length);
void mul_add_gfni(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length);
void combine_gfni(const task &work, size_t begin, size_t end);

} // namespace fec

#endif
