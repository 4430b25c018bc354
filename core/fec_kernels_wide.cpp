// Region arithmetic of the erasure code in wider registers: AVX2 with the same half-byte tables as SSSE3, and
// AVX-512 with GFNI, which multiplies by a constant as one 8 by 8 bit matrix. Empty on other processors than
// x86-64. Pure functions; fec_kernels.cpp calls them only where the processor offers the instructions.
#include "fec_internal.h"

#if defined(__x86_64__)

#include <immintrin.h>

namespace fec {

// Splits the rows of a task into passes of nearly equal height, so that no pass is left with a single row.
static size_t pass_height(size_t left, size_t most) {
    const size_t passes = (left + most - 1) / most;
    return (left + passes - 1) / passes;
}

#define TARGET_AVX2 __attribute__((target("avx2")))

TARGET_AVX2 static inline __m256i load32(const uint8_t *p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
}
TARGET_AVX2 static inline void store32(uint8_t *p, __m256i v) {
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(p), v);
}
TARGET_AVX2 static inline __m256i table32(const uint8_t *p) {
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)));
}

TARGET_AVX2 static inline __m256i product32(__m256i v, __m256i table_lo, __m256i table_hi) {
    const __m256i mask = _mm256_set1_epi8(15);
    const __m256i lo = _mm256_shuffle_epi8(table_lo, _mm256_and_si256(v, mask));
    const __m256i hi = _mm256_shuffle_epi8(table_hi, _mm256_and_si256(_mm256_srli_epi64(v, 4), mask));
    return _mm256_xor_si256(lo, hi);
}

TARGET_AVX2 void mul_avx2(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length) {
    const __m256i lo = table32(gf_nib_lo[c]), hi = table32(gf_nib_hi[c]);
    size_t i = 0;
    for (; length - i >= 32; i += 32) {
        store32(dst + i, product32(load32(src + i), lo, hi));
    }
    mul_ssse3(dst + i, src + i, c, length - i);
}

TARGET_AVX2 void mul_add_avx2(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length) {
    const __m256i lo = table32(gf_nib_lo[c]), hi = table32(gf_nib_hi[c]);
    size_t i = 0;
    for (; length - i >= 32; i += 32) {
        store32(dst + i, _mm256_xor_si256(load32(dst + i), product32(load32(src + i), lo, hi)));
    }
    mul_add_ssse3(dst + i, src + i, c, length - i);
}

// R rows of V registers at `at`: the sums stay in registers while all sources pass by.
template <size_t R, size_t V>
TARGET_AVX2 static void step_avx2(const task &work, size_t row, size_t at) {
    const __m256i mask = _mm256_set1_epi8(15);
    const uint8_t *coefficients = work.coefficients + row;
    __m256i sum[R][V];
    for (size_t r = 0; r < R; r++) {
        for (size_t v = 0; v < V; v++) {
            sum[r][v] = _mm256_setzero_si256();
        }
    }
    for (size_t c = 0; c < work.columns; c++, coefficients += work.rows) {
        __m256i lo[V], hi[V];
        for (size_t v = 0; v < V; v++) {
            const __m256i bytes = load32(work.src[c] + at + 32 * v);
            lo[v] = _mm256_and_si256(bytes, mask);
            hi[v] = _mm256_and_si256(_mm256_srli_epi64(bytes, 4), mask);
        }
        for (size_t r = 0; r < R; r++) {
            const uint8_t by = coefficients[r];
            const __m256i table_lo = table32(gf_nib_lo[by]), table_hi = table32(gf_nib_hi[by]);
            for (size_t v = 0; v < V; v++) {
                sum[r][v] = _mm256_xor_si256(sum[r][v], _mm256_shuffle_epi8(table_lo, lo[v]));
                sum[r][v] = _mm256_xor_si256(sum[r][v], _mm256_shuffle_epi8(table_hi, hi[v]));
            }
        }
    }
    for (size_t r = 0; r < R; r++) {
        for (size_t v = 0; v < V; v++) {
            store32(work.dst[row + r] + at + 32 * v, sum[r][v]);
        }
    }
}

template <size_t R>
static void rows_avx2(const task &work, size_t row, size_t begin, size_t end) {
    size_t i = begin;
    for (; end - i >= 64; i += 64) {
        step_avx2<R, 2>(work, row, i);
    }
    if (end - i >= 32) {
        step_avx2<R, 1>(work, row, i);
        i += 32;
    }
    if (i < end) step_avx2<R, 1>(work, row, end - 32);
}

void combine_avx2(const task &work, size_t begin, size_t end) {
    if (end < 32) return combine_ssse3(work, begin, end);
    static constexpr void (*pass[])(const task &, size_t, size_t, size_t) = {rows_avx2<1>, rows_avx2<2>,
                                                                             rows_avx2<3>, rows_avx2<4>};
    for (size_t row = 0; row < work.rows;) {
        const size_t height = pass_height(work.rows - row, 4);
        pass[height - 1](work, row, begin, end);
        row += height;
    }
}

#define TARGET_GFNI __attribute__((target("gfni,avx512f,avx512bw")))

// The affine instruction multiplies the eight bytes of a 64-bit lane by that lane's matrix.
TARGET_GFNI static inline __m512i matrix64(uint8_t c) {
    return _mm512_set1_epi64(static_cast<long long>(gf_affine[c]));
}
// The bytes that `mask` names; the others are neither read nor written.
TARGET_GFNI static inline __m512i load64(__mmask64 mask, const uint8_t *p) {
    return _mm512_maskz_loadu_epi8(mask, p);
}
// The lowest `count` lanes, 1 to 64.
static inline __mmask64 lowest(size_t count) { return ~uint64_t{0} >> (64 - count); }
static inline size_t at_most_64(size_t size) { return size < 64 ? size : 64; }

TARGET_GFNI void mul_gfni(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length) {
    const __m512i by = matrix64(c);
    for (size_t i = 0; i < length; i += at_most_64(length - i)) {
        const __mmask64 mask = lowest(at_most_64(length - i));
        _mm512_mask_storeu_epi8(dst + i, mask, _mm512_gf2p8affine_epi64_epi8(load64(mask, src + i), by, 0));
    }
}

TARGET_GFNI void mul_add_gfni(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length) {
    const __m512i by = matrix64(c);
    for (size_t i = 0; i < length; i += at_most_64(length - i)) {
        const __mmask64 mask = lowest(at_most_64(length - i));
        const __m512i product = _mm512_gf2p8affine_epi64_epi8(load64(mask, src + i), by, 0);
        _mm512_mask_storeu_epi8(dst + i, mask, _mm512_xor_si512(load64(mask, dst + i), product));
    }
}

// R rows of V registers at `at`; of each register the bytes that `mask` names.
template <size_t R, size_t V>
TARGET_GFNI static void step_gfni(const task &work, size_t row, size_t at, __mmask64 mask) {
    const uint8_t *coefficients = work.coefficients + row;
    __m512i sum[R][V];
    for (size_t r = 0; r < R; r++) {
        for (size_t v = 0; v < V; v++) {
            sum[r][v] = _mm512_setzero_si512();
        }
    }
    for (size_t c = 0; c < work.columns; c++, coefficients += work.rows) {
        __m512i bytes[V];
        for (size_t v = 0; v < V; v++) {
            bytes[v] = load64(mask, work.src[c] + at + 64 * v);
        }
        for (size_t r = 0; r < R; r++) {
            const __m512i by = matrix64(coefficients[r]);
            for (size_t v = 0; v < V; v++) {
                sum[r][v] = _mm512_xor_si512(sum[r][v], _mm512_gf2p8affine_epi64_epi8(bytes[v], by, 0));
            }
        }
    }
    for (size_t r = 0; r < R; r++) {
        for (size_t v = 0; v < V; v++) {
            _mm512_mask_storeu_epi8(work.dst[row + r] + at + 64 * v, mask, sum[r][v]);
        }
    }
}

template <size_t R>
static void rows_gfni(const task &work, size_t row, size_t begin, size_t end) {
    size_t i = begin;
    for (; end - i >= 128; i += 128) {
        step_gfni<R, 2>(work, row, i, lowest(64));
    }
    for (; i < end; i += at_most_64(end - i)) {
        step_gfni<R, 1>(work, row, i, lowest(at_most_64(end - i)));
    }
}

void combine_gfni(const task &work, size_t begin, size_t end) {
    static constexpr void (*pass[])(const task &, size_t, size_t, size_t) = {
        rows_gfni<1>, rows_gfni<2>, rows_gfni<3>, rows_gfni<4>, rows_gfni<5>, rows_gfni<6>};
    for (size_t row = 0; row < work.rows;) {
        const size_t height = pass_height(work.rows - row, 6);
        pass[height - 1](work, row, begin, end);
        row += height;
    }
}

} // namespace fec

#endif
