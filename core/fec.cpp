// The erasure code itself: the field's tables, the Cauchy matrix, encoding and decoding. Both come down to
// one product of a small matrix with the shards, which the kernels of fec_kernels.cpp carry out. State is
// written once, under fec_once, and only read afterwards.
#include <string.h>
#include <tarnglider/fec.h>

#include "fec_internal.h"
#include "seams_internal.h"

namespace fec {
uint8_t gf_exp[512];
uint8_t gf_log[256];
uint8_t gf_mul_table[256][256];
uint8_t gf_nib_lo[256][16];
uint8_t gf_nib_hi[256][16];
uint8_t gf_inverse[256];
uint64_t gf_affine[256];
} // namespace fec

using namespace fec;

enum { MAX_DATA = TARN_FEC_MAX_DATA, MAX_SHARDS = TARN_FEC_MAX_SHARDS, FIELD_POLYNOMIAL = 0x11D };

// Bytes of every shard that are worked on before going on: 64 shards of them stay in a first-level cache of
// 48 kB, and mostly in one of 32 kB, while all the parity rows pass over them.
static constexpr size_t COLUMN_BLOCK = 512;

static conn_once_flag fec_once;

static void build_logarithms() {
    int power = 1;
    for (int i = 0; i < 255; i++) {
        gf_exp[i] = gf_exp[i + 255] = static_cast<uint8_t>(power);
        gf_log[power] = static_cast<uint8_t>(i);
        power <<= 1;
        if (power > 255) power ^= FIELD_POLYNOMIAL;
    }
    gf_log[0] = 0;
}

static void build_products() {
    for (int a = 1; a < 256; a++) {
        for (int b = 1; b < 256; b++) {
            gf_mul_table[a][b] = gf_exp[gf_log[a] + gf_log[b]];
        }
    }
    for (int a = 1; a < 256; a++) {
        gf_inverse[a] = gf_exp[255 - gf_log[a]];
    }
    for (int a = 0; a < 256; a++) {
        for (int i = 0; i < 16; i++) {
            gf_nib_lo[a][i] = gf_mul_table[a][i];
            gf_nib_hi[a][i] = gf_mul_table[a][i << 4];
        }
        for (int bit = 0; bit < 8; bit++) {
            for (int j = 0; j < 8; j++) {
                const uint64_t set = gf_mul_table[a][1 << j] >> bit & 1;
                gf_affine[a] |= set << (8 * (7 - bit) + j);
            }
        }
    }
}

static void fec_once_cb() {
    build_logarithms();
    build_products();
    choose_kernel();
}

void tarn_fec_init(void) { conn_once(&fec_once, fec_once_cb); }

static bool within_limits(int k, int p, size_t length) {
    return k >= 1 && k <= MAX_DATA && p >= 0 && p <= MAX_SHARDS - k && length > 0;
}

static void combine(const task &work, size_t length) {
    for (size_t at = 0; at < length;) {
        const size_t step = length - at < COLUMN_BLOCK ? length - at : COLUMN_BLOCK;
        active->combine(work, at, at + step);
        at += step;
    }
}

int tarn_fec_encode(int k, int p, size_t length, const uint8_t *const *data, uint8_t *const *parity) {
    if (!within_limits(k, p, length) || !data || (!parity && p > 0)) return -1;
    if (p == 0) return 0;
    tarn_fec_init();
    uint8_t coefficients[MAX_DATA * (MAX_SHARDS - MAX_DATA)]; // k x p is largest at k of 64
    uint8_t *next = coefficients;
    for (int c = 0; c < k; c++) {
        for (int r = 0; r < p; r++) {
            *next++ = gf_inverse[(k + r) ^ c];
        }
    }
    combine(task{parity, data, coefficients, static_cast<size_t>(p), static_cast<size_t>(k)}, length);
    return 0;
}

namespace {
// Which data shards are missing, and the parity shards that stand in for them, both ascending.
struct erasures {
    int count = 0;
    int missing[MAX_DATA];
    int parity_row[MAX_DATA];
};

// A matrix of at most 64 by 64 and another beside it: row i holds n bytes of the first, then n of the second.
struct matrix_pair {
    uint8_t row[MAX_DATA][2 * MAX_DATA];
};
} // namespace

// Returns false if there are fewer parity shards than missing data shards.
static bool find_erasures(int k, int p, const uint8_t *present, erasures &found) {
    for (int c = 0; c < k; c++) {
        if (!present[c]) found.missing[found.count++] = c;
    }
    int chosen = 0;
    for (int r = 0; r < p && chosen < found.count; r++) {
        if (present[k + r]) found.parity_row[chosen++] = r;
    }
    return chosen == found.count;
}

// Gauss-Jordan elimination of the left matrix, carried out on whole rows: the left one becomes the identity,
// the right one, the identity on entry, the inverse. Returns false for a column without pivot, which a square
// part of a Cauchy matrix doesn't have.
static bool invert(matrix_pair &m, int n) {
    const size_t width = 2 * static_cast<size_t>(n);
    for (int column = 0; column < n; column++) {
        int pivot = column;
        while (pivot < n && m.row[pivot][column] == 0) {
            pivot++;
        }
        if (pivot == n) return false;
        uint8_t *own = m.row[column];
        if (pivot != column) {
            uint8_t kept[2 * MAX_DATA];
            memcpy(kept, own, width);
            memcpy(own, m.row[pivot], width);
            memcpy(m.row[pivot], kept, width);
        }
        mul_region(own, own, gf_inverse[own[column]], width);
        for (int i = 0; i < n; i++) {
            if (i != column && m.row[i][column] != 0) mul_add_region(m.row[i], own, m.row[i][column], width);
        }
    }
    return true;
}

// The square matrix A, A[i][j] = 1 / ((k + parity row i) XOR missing j), says how the missing shards entered
// the chosen parity shards. Writes the inverse of A, columns as rows: out[j * n + i] is what parity shard j
// gives to missing shard i.
static bool invert_cauchy(int k, const erasures &lost, uint8_t *out) {
    matrix_pair m;
    const int n = lost.count;
    for (int i = 0; i < n; i++) {
        for (int j = 0; j < n; j++) {
            m.row[i][j] = gf_inverse[(k + lost.parity_row[j]) ^ lost.missing[i]]; // A transposed
            m.row[i][n + j] = i == j;
        }
    }
    if (!invert(m, n)) return false;
    for (int j = 0; j < n; j++) {
        memcpy(out + j * n, m.row[j] + n, static_cast<size_t>(n));
    }
    return true;
}

// Subtracting the known data from the parity shards first would need copies of them. Instead the coefficients
// of the known data are folded through the inverse: with B the inverse, the missing shard i is the sum of
// B[i][j] times the parity shard j and, for each known data shard c, of (sum over j of B[i][j] / ((k + row j)
// XOR c)) times it. Minus is plus in this field. The folding is itself a product of matrices, so the kernels
// do it too.
int tarn_fec_decode(int k, int p, size_t length, uint8_t *const *shards, const uint8_t *present) {
    if (!within_limits(k, p, length) || !shards || !present) return -1;
    erasures lost;
    if (!find_erasures(k, p, present, lost)) return -1;
    const int e = lost.count;
    if (e == 0) return 0;
    tarn_fec_init();

    // k columns of e coefficients: first those of the chosen parity shards, then those of the known data.
    uint8_t coefficients[MAX_DATA * MAX_DATA];
    if (!invert_cauchy(k, lost, coefficients)) return -1;
    const uint8_t *src[MAX_DATA];
    uint8_t *dst[MAX_DATA];
    const uint8_t *inverse[MAX_DATA];
    uint8_t *folded[MAX_DATA];
    uint8_t known[MAX_DATA * MAX_DATA]; // e columns: what the known data gave to each chosen parity shard
    for (int i = 0; i < e; i++) {
        src[i] = shards[k + lost.parity_row[i]];
        dst[i] = shards[lost.missing[i]];
        inverse[i] = coefficients + i * e;
    }
    int column = e;
    for (int c = 0; c < k; c++) {
        if (!present[c]) continue;
        const int at = column - e;
        for (int j = 0; j < e; j++) {
            known[j * (k - e) + at] = gf_inverse[(k + lost.parity_row[j]) ^ c];
        }
        folded[at] = coefficients + column * e;
        src[column++] = shards[c];
    }
    const size_t rows = static_cast<size_t>(e), columns = static_cast<size_t>(k);
    combine(task{folded, inverse, known, columns - rows, rows}, rows);
    combine(task{dst, src, coefficients, rows, columns}, length);
    return 0;
}
