// Region arithmetic of the erasure code: the portable form, the SSSE3 form, and the one place that chooses.
// The wider forms are in fec_kernels_wide.cpp. Every vector form multiplies by two table look-ups of a half
// byte each, which the byte shuffle does for a whole register. All functions are pure; the chooser runs once,
// inside tarn_fec_init.
#include "fec_internal.h"

namespace fec {

void mul_scalar(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length) {
    const uint8_t *row = gf_mul_table[c];
    for (size_t i = 0; i < length; i++) {
        dst[i] = row[src[i]];
    }
}

void mul_add_scalar(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length) {
    const uint8_t *row = gf_mul_table[c];
    for (size_t i = 0; i < length; i++) {
        dst[i] ^= row[src[i]];
    }
}

void combine_scalar(const task &work, size_t begin, size_t end) {
    for (size_t r = 0; r < work.rows; r++) {
        mul_scalar(work.dst[r] + begin, work.src[0] + begin, work.coefficients[r], end - begin);
        for (size_t c = 1; c < work.columns; c++) {
            mul_add_scalar(work.dst[r] + begin, work.src[c] + begin, work.coefficients[c * work.rows + r],
                           end - begin);
        }
    }
}

static bool always() { return true; }
static constexpr kernel portable = {"scalar", mul_scalar, mul_add_scalar, combine_scalar, always};

} // namespace fec

#if defined(__x86_64__)

#include <cpuid.h>
#include <immintrin.h>

namespace fec {

#define TARGET_SSSE3 __attribute__((target("ssse3")))

TARGET_SSSE3 static inline __m128i load16(const uint8_t *p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
}
TARGET_SSSE3 static inline void store16(uint8_t *p, __m128i v) {
    _mm_storeu_si128(reinterpret_cast<__m128i *>(p), v);
}

TARGET_SSSE3 static inline __m128i product16(__m128i v, __m128i table_lo, __m128i table_hi) {
    const __m128i mask = _mm_set1_epi8(15);
    const __m128i lo = _mm_shuffle_epi8(table_lo, _mm_and_si128(v, mask));
    const __m128i hi = _mm_shuffle_epi8(table_hi, _mm_and_si128(_mm_srli_epi64(v, 4), mask));
    return _mm_xor_si128(lo, hi);
}

TARGET_SSSE3 void mul_ssse3(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length) {
    const __m128i lo = load16(gf_nib_lo[c]), hi = load16(gf_nib_hi[c]);
    size_t i = 0;
    for (; length - i >= 16; i += 16) {
        store16(dst + i, product16(load16(src + i), lo, hi));
    }
    mul_scalar(dst + i, src + i, c, length - i);
}

TARGET_SSSE3 void mul_add_ssse3(uint8_t *dst, const uint8_t *src, uint8_t c, size_t length) {
    const __m128i lo = load16(gf_nib_lo[c]), hi = load16(gf_nib_hi[c]);
    size_t i = 0;
    for (; length - i >= 64; i += 64) {
        const __m128i v0 = product16(load16(src + i), lo, hi);
        const __m128i v1 = product16(load16(src + i + 16), lo, hi);
        const __m128i v2 = product16(load16(src + i + 32), lo, hi);
        const __m128i v3 = product16(load16(src + i + 48), lo, hi);
        store16(dst + i, _mm_xor_si128(load16(dst + i), v0));
        store16(dst + i + 16, _mm_xor_si128(load16(dst + i + 16), v1));
        store16(dst + i + 32, _mm_xor_si128(load16(dst + i + 32), v2));
        store16(dst + i + 48, _mm_xor_si128(load16(dst + i + 48), v3));
    }
    for (; length - i >= 16; i += 16) {
        store16(dst + i, _mm_xor_si128(load16(dst + i), product16(load16(src + i), lo, hi)));
    }
    mul_add_scalar(dst + i, src + i, c, length - i);
}

// R rows of 16 bytes at `at`: the sums stay in registers while all sources pass by, each split only once.
template <size_t R>
TARGET_SSSE3 static void step_ssse3(const task &work, size_t row, size_t at) {
    const __m128i mask = _mm_set1_epi8(15);
    const uint8_t *coefficients = work.coefficients + row;
    __m128i sum[R];
    for (size_t r = 0; r < R; r++) {
        sum[r] = _mm_setzero_si128();
    }
    for (size_t c = 0; c < work.columns; c++, coefficients += work.rows) {
        const __m128i v = load16(work.src[c] + at);
        const __m128i lo = _mm_and_si128(v, mask), hi = _mm_and_si128(_mm_srli_epi64(v, 4), mask);
        for (size_t r = 0; r < R; r++) {
            const uint8_t by = coefficients[r];
            sum[r] = _mm_xor_si128(sum[r], _mm_shuffle_epi8(load16(gf_nib_lo[by]), lo));
            sum[r] = _mm_xor_si128(sum[r], _mm_shuffle_epi8(load16(gf_nib_hi[by]), hi));
        }
    }
    for (size_t r = 0; r < R; r++) {
        store16(work.dst[row + r] + at, sum[r]);
    }
}

template <size_t R>
static void rows_ssse3(const task &work, size_t row, size_t begin, size_t end) {
    size_t i = begin;
    for (; end - i >= 16; i += 16) {
        step_ssse3<R>(work, row, i);
    }
    if (i < end) step_ssse3<R>(work, row, end - 16);
}

void combine_ssse3(const task &work, size_t begin, size_t end) {
    if (end < 16) return combine_scalar(work, begin, end);
    size_t row = 0;
    for (; work.rows - row >= 4; row += 4) {
        rows_ssse3<4>(work, row, begin, end);
    }
    switch (work.rows - row) {
    case 3:
        return rows_ssse3<3>(work, row, begin, end);
    case 2:
        return rows_ssse3<2>(work, row, begin, end);
    case 1:
        return rows_ssse3<1>(work, row, begin, end);
    }
}

namespace {
// What the processor offers, and which registers the system saves when it switches threads.
struct features {
    uint32_t leaf1_c = 0;
    uint32_t leaf7_b = 0;
    uint32_t leaf7_c = 0;
    uint32_t saved = 0; // XCR0
};
} // namespace

static features ask_processor() {
    features found;
    uint32_t a, b, c, d;
    const uint32_t max_leaf = static_cast<uint32_t>(__get_cpuid_max(0, nullptr));
    if (max_leaf == 0) return found;
    __cpuid(1, a, b, found.leaf1_c, d);
    if (found.leaf1_c & bit_OSXSAVE) __asm__("xgetbv" : "=a"(found.saved), "=d"(d) : "c"(0));
    if (max_leaf >= 7) {
        __cpuid_count(7, 0, a, b, c, d);
        found.leaf7_b = b;
        found.leaf7_c = c;
    }
    return found;
}

static bool has(uint32_t word, uint32_t bits) { return (word & bits) == bits; }

static bool offers_ssse3() { return has(ask_processor().leaf1_c, bit_SSSE3); }

static bool offers_avx2() {
    const features cpu = ask_processor();
    return has(cpu.leaf1_c, bit_SSSE3 | bit_AVX) && has(cpu.leaf7_b, bit_AVX2) &&
           has(cpu.saved, 0x06); // xmm, ymm
}

static bool offers_gfni() {
    const features cpu = ask_processor();
    return offers_avx2() && has(cpu.leaf7_b, bit_AVX512F | bit_AVX512BW) && has(cpu.leaf7_c, bit_GFNI) &&
           has(cpu.saved, 0xE6); // and the mask registers, the upper halves of zmm, and zmm16 to zmm31
}

static constexpr kernel all[] = {
    portable,
    {"ssse3", mul_ssse3, mul_add_ssse3, combine_ssse3, offers_ssse3},
    {"avx2", mul_avx2, mul_add_avx2, combine_avx2, offers_avx2},
    {"avx512-gfni", mul_gfni, mul_add_gfni, combine_gfni, offers_gfni},
};

} // namespace fec

#else

namespace fec {
static constexpr kernel all[] = {portable};
}

#endif

namespace fec {

const kernel *active = &portable;
region_fn mul_region = mul_scalar;
region_fn mul_add_region = mul_add_scalar;

const kernel *kernels(int *count) {
    *count = static_cast<int>(sizeof all / sizeof all[0]);
    return all;
}

void choose_kernel() {
    for (const kernel &candidate : all) {
        if (candidate.offered()) active = &candidate;
    }
    mul_region = active->mul;
    mul_add_region = active->mul_add;
}

} // namespace fec
