// The erasure code: what a video viewer loses when it is wrong is a frame that looks whole and isn't. Parity
// is held against the definition and ISA-L, decoding against every pattern of losses, kernels against tables.
#include <fec_internal.h>
#include <gtest/gtest.h>
#include <support/seeded_random.h>
#include <tarnglider/fec.h>

#include <algorithm>
#include <string.h>
#include <vector>

#ifdef TARN_HAVE_ISAL
#include <isa-l.h>
#endif

namespace {

using bytes = std::vector<uint8_t>;

// Multiplication by shift and reduce, without any table.
uint8_t times(int a, int b) {
    int product = 0;
    for (; b; b >>= 1, a = a & 0x80 ? (a << 1) ^ 0x11D : a << 1)
        if (b & 1) product ^= a;
    return static_cast<uint8_t>(product);
}

uint8_t inverse(int a) {
    int b = 1;
    while (times(a, b) != 1)
        b++;
    return static_cast<uint8_t>(b);
}

// k + p shards side by side, out of any alignment, the data random, with guard bytes around each.
struct shard_set {
    static constexpr size_t guard = 7;
    size_t k, p, length;
    bytes all;
    std::vector<uint8_t *> at;
    shard_set(size_t k_, size_t p_, size_t length_, test_random &random) : k(k_), p(p_), length(length_) {
        all.assign(guard + (k + p) * (length + guard), 0xA5);
        for (size_t i = 0; i < k + p; i++) {
            at.push_back(all.data() + guard + i * (length + guard));
            if (i < k) random.fill(at[i], length);
        }
        EXPECT_EQ(tarn_fec_encode(int(k), int(p), length, at.data(), at.data() + k), 0);
    }
    // Loses the shards whose flag is 0: a data shard is overwritten, a parity shard has no memory at all.
    // Whether decoding restores the data, or with less than k shards refuses, and changes nothing else.
    bool survives(const bytes &present) {
        const bytes whole = all;
        std::vector<uint8_t *> given = at;
        for (size_t i = 0; i < k + p; i++) {
            if (present[i]) continue;
            if (i < k) memset(at[i], 0xEE, length);
            given[i] = i < k ? at[i] : nullptr;
        }
        const bytes damaged = all;
        const bool enough = std::count(present.begin(), present.end(), 1) >= int(k);
        const int result = tarn_fec_decode(int(k), int(p), length, given.data(), present.data());
        const bool good = result == (enough ? 0 : -1) && all == (enough ? whole : damaged);
        std::copy(whole.begin(), whole.end(), all.begin());
        return good;
    }
};

// Runs `body` with each set of kernels that this processor offers.
template <class Body>
void with_each_kernel(Body body) {
    tarn_fec_init();
    int count;
    const fec::kernel *all = fec::kernels(&count);
    for (int i = 0; i < count; i++) {
        if (!all[i].offered()) continue;
        SCOPED_TRACE(all[i].name);
        fec::active = &all[i];
        fec::mul_region = all[i].mul;
        fec::mul_add_region = all[i].mul_add;
        body(all[i]);
    }
    fec::choose_kernel();
}

TEST(Fec, FieldIsTheOneOf0x11D) {
    tarn_fec_init();
    for (int a = 0; a < 256; a++) {
        ASSERT_EQ(fec::gf_inverse[a], a > 0 ? inverse(a) : 0);
        for (int b = 0; b < 256; b++)
            ASSERT_EQ(fec::gf_mul_table[a][b], times(a, b)) << a << " x " << b;
    }
}

TEST(Fec, ChoosesTheLastKernelThatIsOffered) {
    tarn_fec_init();
    int count;
    const fec::kernel *all = fec::kernels(&count), *last = all + count - 1;
    while (!last->offered())
        last--;
    EXPECT_EQ(fec::active, last);
    EXPECT_EQ(fec::mul_region, last->mul);
    EXPECT_EQ(fec::mul_add_region, last->mul_add);
#if defined(__x86_64__) && !defined(_WIN32)
    EXPECT_EQ(all[1].offered(), __builtin_cpu_supports("ssse3") != 0);
    EXPECT_EQ(all[2].offered(), __builtin_cpu_supports("avx2") != 0);
    EXPECT_EQ(all[3].offered(), __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("gfni"));
#endif
}

// All lengths of vectors and their rests, four alignments; every constant comes up at several lengths.
TEST(Fec, EveryKernelEqualsTheTablesAndTouchesNothingElse) {
    test_random random(71);
    bytes src(5000), before(5000);
    random.fill(src.data(), src.size());
    random.fill(before.data(), before.size());
    with_each_kernel([&](const fec::kernel &kernel) {
        for (size_t n = 0; n <= 203; n++) {
            const size_t length = n <= 200 ? n : n == 201 ? 1334 : n == 202 ? 1430 : 4099;
            for (size_t i = 0; i < 12; i++) {
                const size_t shift = i / 3, to = 64 + 5 * shift;
                const auto c = static_cast<uint8_t>(4 * n + shift);
                const bool adds = i % 3 == 1, in_place = i % 3 == 2;
                bytes got = before, expected = before;
                const uint8_t *from = in_place ? &before[to] : &src[3 * shift];
                for (size_t b = 0; b < length; b++)
                    expected[to + b] = fec::gf_mul_table[c][from[b]] ^ (adds ? before[to + b] : 0);
                (adds ? kernel.mul_add : kernel.mul)(&got[to], in_place ? &got[to] : from, c, length);
                ASSERT_EQ(got, expected) << length << " bytes by " << int{c} << ", way " << i % 3;
            }
        }
    });
}

// Every number of rows meets every length, and so each height of a pass each rest of a vector and of a block.
TEST(Fec, ParityFollowsTheDefinitionWithEveryKernel) {
    test_random random(72);
    with_each_kernel([&](const fec::kernel &) {
        for (size_t n = 1; n <= 200; n++) {
            const size_t length = n <= 190 ? n : 512 * (n - 190) + n - 195; // around the blocks, too
            const shard_set s(1 + random.below(6), 1 + n % 14, length, random);
            bytes expected(s.all.size(), 0xA5); // the guards
            for (size_t r = 0; r < s.k + s.p; r++) {
                uint8_t *row = expected.data() + (s.at[r] - s.all.data());
                std::copy_n(s.at[r], length, row);
                if (r >= s.k) memset(row, 0, length);
                for (size_t c = 0; c < s.k && r >= s.k; c++) {
                    const uint8_t *by = fec::gf_mul_table[inverse(int(r ^ c))];
                    for (size_t i = 0; i < length; i++)
                        row[i] ^= by[s.at[c][i]];
                }
            }
            ASSERT_EQ(s.all, expected) << s.k << " + " << s.p << " x " << length;
        }
    });
}

TEST(Fec, ParityEqualsIsaL) {
#ifdef TARN_HAVE_ISAL
    test_random random(73);
    const struct {
        int k, p, length;
    } rows[] = {{1, 1, 40}, {1, 254, 33}, {43, 9, 1163}, {64, 32, 700}, {64, 191, 65}, {17, 5, 4096}};
    for (const auto &row : rows) {
        const size_t k = size_t(row.k), p = size_t(row.p);
        shard_set s(k, p, size_t(row.length), random);
        bytes matrix((k + p) * k), tables(32 * k * p), theirs(p * s.length);
        std::vector<uint8_t *> out;
        for (size_t r = 0; r < p; r++)
            out.push_back(&theirs[r * s.length]);
        gf_gen_cauchy1_matrix(matrix.data(), row.k + row.p, row.k);
        ec_init_tables(row.k, row.p, &matrix[k * k], tables.data());
        ec_encode_data(row.length, row.k, row.p, tables.data(), s.at.data(), out.data());
        for (size_t r = 0; r < p; r++)
            ASSERT_EQ(memcmp(out[r], s.at[k + r], s.length), 0) << k << " + " << p << ", parity " << r;
    }
#else
    GTEST_SKIP() << "ISA-L is not installed";
#endif
}

TEST(Fec, EveryPatternOfLossesUpTo14Shards) {
    test_random random(74);
    for (size_t n = 1; n <= 14; n++) {
        for (size_t k = 1; k <= n; k++) {
            shard_set s(k, n - k, 21, random);
            bytes present(n);
            for (unsigned pattern = 0; pattern < 1u << n; pattern++) {
                for (size_t i = 0; i < n; i++)
                    present[i] = pattern >> i & 1;
                ASSERT_TRUE(s.survives(present)) << k << " of " << n << ", pattern " << pattern;
            }
        }
    }
}

TEST(Fec, RandomLossesUpToTheLimits) {
    with_each_kernel([&](const fec::kernel &) {
        for (uint64_t seed = 1; seed <= 60; seed++) {
            test_random random(seed);
            const size_t k = seed == 1 ? 64 : 1 + random.below(64);
            const size_t p = seed == 1 ? 191 : 1 + random.below(255 - k);
            shard_set s(k, p, 1 + random.below(600), random);
            bytes present(k + p, 0); // the worst: only the last shards arrive
            std::fill_n(present.rbegin(), k, uint8_t{1});
            ASSERT_TRUE(s.survives(present)) << "seed " << seed << ", the last shards";
            for (size_t i = present.size() - 1; i > 0; i--) // any k
                std::swap(present[i], present[random.below(i + 1)]);
            ASSERT_TRUE(s.survives(present)) << "seed " << seed << ": " << k << " + " << p;
        }
    });
}

TEST(Fec, Limits) {
    test_random random(76);
    shard_set s(64, 191, 8, random);
    uint8_t **data = s.at.data(), **parity = data + 64, *none[2] = {};
    const bytes before = s.all, present(256, 1);
    const struct {
        int k, p;
        size_t length;
        int result;
    } rows[] = {{0, 1, 8, -1},  {-1, 1, 8, -1}, {65, 1, 8, -1},         {64, 192, 8, -1}, {1, 255, 8, -1},
                {1, -1, 8, -1}, {1, 1, 0, -1},  {1, 2147483647, 8, -1}, {64, 0, 8, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.k);
        EXPECT_EQ(tarn_fec_encode(row.k, row.p, row.length, data, parity), row.result);
        EXPECT_EQ(tarn_fec_decode(row.k, row.p, row.length, data, present.data()), row.result);
        EXPECT_EQ(s.all, before);
    }
    for (int refused :
         {tarn_fec_encode(1, 1, 8, data, nullptr), tarn_fec_encode(1, 0, 8, nullptr, nullptr),
          tarn_fec_decode(1, 1, 8, data, nullptr), tarn_fec_decode(1, 1, 8, nullptr, &present[0])})
        EXPECT_EQ(refused, -1);
    EXPECT_EQ(tarn_fec_encode(1, 0, 8, data, nullptr), 0);
    EXPECT_EQ(tarn_fec_decode(2, 0, 8, none, present.data()), 0) << "all here: no shard is touched";
}

} // namespace
