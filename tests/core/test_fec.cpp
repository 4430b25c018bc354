// The erasure code: what a video viewer loses when it is wrong is a frame that looks whole and isn't. Parity
// is held against the definition and against ISA-L, decoding against every pattern of losses, kernels against
// the scalar form.
#include <fec_internal.h>
#include <gtest/gtest.h>
#include <support/seeded_random.h>
#include <tarnglider/fec.h>

#include <algorithm>
#include <cstring>
#include <vector>

#ifdef TARN_HAVE_ISAL
#include <isa-l.h>
#endif

namespace {

// Multiplication by shift and reduce, without any table.
uint8_t times(int a, int b) {
    int product = 0;
    for (; b; b >>= 1, a = a & 0x80 ? (a << 1) ^ 0x11D : a << 1) {
        if (b & 1) product ^= a;
    }
    return static_cast<uint8_t>(product);
}

uint8_t inverse(int a) {
    int b = 1;
    while (times(a, b) != 1) {
        b++;
    }
    return static_cast<uint8_t>(b);
}

// k + p shards side by side, one byte apart from any alignment, the data random, with guard bytes around
// each.
struct shard_set {
    static constexpr size_t guard = 7;
    shard_set(int k_, int p_, size_t length_, test_random &random) : k(k_), p(p_), length(length_) {
        const size_t stride = length + guard;
        bytes.assign(guard + static_cast<size_t>(k + p) * stride, 0xA5);
        for (int i = 0; i < k + p; i++) {
            at.push_back(bytes.data() + guard + static_cast<size_t>(i) * stride);
        }
        for (int i = 0; i < k; i++) {
            random.fill(at[static_cast<size_t>(i)], length);
        }
    }
    int encode() { return tarn_fec_encode(k, p, length, at.data(), at.data() + k); }

    // Loses the shards whose flag is 0: a data shard is overwritten, a parity shard has no memory at all.
    // Returns whether decoding restores the data and changes nothing else, neither a guard byte nor the
    // flags.
    ::testing::AssertionResult survives(const std::vector<uint8_t> &present) {
        const std::vector<uint8_t> whole = bytes, flags = present;
        std::vector<uint8_t *> given = at;
        for (size_t i = 0; i < at.size(); i++) {
            if (present[i]) continue;
            if (i < static_cast<size_t>(k)) {
                std::memset(at[i], 0xEE, length);
            } else {
                given[i] = nullptr;
            }
        }
        if (tarn_fec_decode(k, p, length, given.data(), present.data()) != 0) {
            return ::testing::AssertionFailure() << "refused";
        }
        if (bytes != whole) return ::testing::AssertionFailure() << "bytes differ";
        if (present != flags) return ::testing::AssertionFailure() << "flags changed";
        return ::testing::AssertionSuccess();
    }
    int k, p;
    size_t length;
    std::vector<uint8_t> bytes;
    std::vector<uint8_t *> at;
};

// Runs `body` with each set of kernels that this processor offers.
template <class Body>
void with_each_kernel(Body body) {
    tarn_fec_init();
    const fec::kernel *const chosen = fec::active;
    const fec::region_fn mul = fec::mul_region, mul_add = fec::mul_add_region;
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
    fec::active = chosen;
    fec::mul_region = mul;
    fec::mul_add_region = mul_add;
}

TEST(Fec, FieldIsTheOneOf0x11D) {
    tarn_fec_init();
    EXPECT_EQ(fec::gf_exp[0], 1);
    for (int a = 0; a < 256; a++) {
        if (a > 0) {
            ASSERT_EQ(fec::gf_exp[fec::gf_log[a]], a);
            ASSERT_EQ(fec::gf_exp[fec::gf_log[a] + 255], a);
            ASSERT_EQ(fec::gf_inverse[a], inverse(a));
        }
        for (int b = 0; b < 256; b++) {
            ASSERT_EQ(fec::gf_mul_table[a][b], times(a, b)) << a << " x " << b;
        }
    }
}

TEST(Fec, ChoosesTheLastKernelThatIsOffered) {
    tarn_fec_init();
    int count;
    const fec::kernel *all = fec::kernels(&count), *last = nullptr;
    for (int i = 0; i < count; i++) {
        if (all[i].offered()) last = &all[i];
    }
    EXPECT_EQ(fec::active, last);
    EXPECT_EQ(fec::mul_region, last->mul);
    EXPECT_EQ(fec::mul_add_region, last->mul_add);
#if defined(__x86_64__) && !defined(_WIN32)
    EXPECT_EQ(all[1].offered(), __builtin_cpu_supports("ssse3") != 0);
    EXPECT_EQ(all[2].offered(), __builtin_cpu_supports("avx2") != 0);
    EXPECT_EQ(all[3].offered(), __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("gfni"));
#endif
}

TEST(Fec, EveryKernelEqualsScalarAndTouchesNothingElse) {
    std::vector<size_t> lengths;
    for (size_t n = 0; n <= 200; n++) {
        lengths.push_back(n);
    }
    lengths.insert(lengths.end(), {1334, 1430, 4099});
    test_random random(71);
    std::vector<uint8_t> src(5000), before(5000), got, expected;
    random.fill(src.data(), src.size());
    random.fill(before.data(), before.size());
    with_each_kernel([&](const fec::kernel &kernel) {
        for (size_t n : lengths) {
            for (size_t shift = 0; shift < 4; shift++) {
                const auto c = static_cast<uint8_t>(n + shift < 2 ? n + shift : random.next());
                const uint8_t *from = src.data() + 3 * shift;
                const size_t to = 64 + 5 * shift;
                got = expected = before;
                kernel.mul(got.data() + to, from, c, n);
                for (size_t i = 0; i < n; i++) {
                    expected[to + i] = fec::gf_mul_table[c][from[i]];
                }
                ASSERT_EQ(got, expected) << "mul, length " << n << ", c " << int{c};
                got = expected = before;
                kernel.mul_add(got.data() + to, from, c, n);
                for (size_t i = 0; i < n; i++) {
                    expected[to + i] ^= fec::gf_mul_table[c][from[i]];
                }
                ASSERT_EQ(got, expected) << "mul_add, length " << n << ", c " << int{c};
                got = expected = before;
                kernel.mul(got.data() + to, got.data() + to, c, n); // in place
                fec::mul_scalar(expected.data() + to, expected.data() + to, c, n);
                ASSERT_EQ(got, expected) << "in place, length " << n;
            }
        }
        for (int c = 0; c < 256; c++) { // all products, in a vector and in its rest
            uint8_t all[256 + 17], product[256 + 17];
            for (size_t i = 0; i < sizeof all; i++) {
                all[i] = static_cast<uint8_t>(i);
            }
            kernel.mul(product, all, static_cast<uint8_t>(c), sizeof all);
            for (size_t i = 0; i < sizeof all; i++) {
                ASSERT_EQ(product[i], fec::gf_mul_table[c][all[i]]);
            }
        }
    });
}

// Every length and every number of rows, so that each height of a pass meets each rest of a vector and of a
// block.
TEST(Fec, ParityFollowsTheDefinitionWithEveryKernel) {
    test_random random(72);
    with_each_kernel([&](const fec::kernel &) {
        for (size_t length = 1; length <= 200; length++) {
            const size_t n =
                length > 190 ? 512 * (length - 190) + length - 195 : length; // around the blocks, too
            const int k = 1 + static_cast<int>(random.below(6)), p = 1 + static_cast<int>(length % 14);
            shard_set s(k, p, n, random);
            std::vector<uint8_t> expected = s.bytes;
            for (int r = 0; r < p; r++) {
                uint8_t *row = expected.data() + (s.at[static_cast<size_t>(k + r)] - s.bytes.data());
                std::memset(row, 0, n);
                for (int c = 0; c < k; c++) {
                    const uint8_t by = inverse((k + r) ^ c);
                    for (size_t i = 0; i < n; i++) {
                        row[i] ^= fec::gf_mul_table[by][s.at[static_cast<size_t>(c)][i]];
                    }
                }
            }
            ASSERT_EQ(s.encode(), 0);
            ASSERT_EQ(s.bytes, expected) << k << " + " << p << " x " << n;
        }
    });
}

TEST(Fec, ParityEqualsIsaL) {
#ifdef TARN_HAVE_ISAL
    test_random random(73);
    const struct {
        int k, p;
        size_t length;
    } rows[] = {{1, 1, 1},     {1, 254, 33},  {10, 2, 1200}, {43, 9, 1163}, {64, 13, 1334},
                {64, 32, 700}, {64, 191, 65}, {17, 5, 4096}, {2, 3, 100},   {63, 192, 31}};
    for (const auto &row : rows) {
        shard_set s(row.k, row.p, row.length, random);
        ASSERT_EQ(s.encode(), 0);
        std::vector<uint8_t> matrix(static_cast<size_t>((row.k + row.p) * row.k));
        std::vector<uint8_t> tables(static_cast<size_t>(32 * row.k * row.p));
        gf_gen_cauchy1_matrix(matrix.data(), row.k + row.p, row.k);
        ec_init_tables(row.k, row.p, matrix.data() + row.k * row.k, tables.data());
        std::vector<std::vector<uint8_t>> theirs(static_cast<size_t>(row.p),
                                                 std::vector<uint8_t>(row.length));
        std::vector<uint8_t *> out;
        for (auto &shard : theirs) {
            out.push_back(shard.data());
        }
        ec_encode_data(static_cast<int>(row.length), row.k, row.p, tables.data(), s.at.data(), out.data());
        for (size_t r = 0; r < theirs.size(); r++) {
            ASSERT_EQ(std::memcmp(theirs[r].data(), s.at[static_cast<size_t>(row.k) + r], row.length), 0)
                << row.k << " + " << row.p << ", parity " << r;
        }
    }
#else
    GTEST_SKIP() << "ISA-L is not installed";
#endif
}

// Every set of shards that may arrive, for all k and p up to 14 together: with k or more the data is
// restored, with fewer decoding refuses and writes nothing.
TEST(Fec, EveryPatternOfLossesUpTo14Shards) {
    test_random random(74);
    for (int n = 1; n <= 14; n++) {
        for (int k = 1; k <= n; k++) {
            shard_set s(k, n - k, 21, random);
            ASSERT_EQ(s.encode(), 0);
            std::vector<uint8_t> present(static_cast<size_t>(n));
            for (unsigned pattern = 0; pattern < 1u << n; pattern++) {
                int arrived = 0;
                for (int i = 0; i < n; i++) {
                    arrived += present[static_cast<size_t>(i)] = pattern >> i & 1;
                }
                if (arrived >= k) {
                    ASSERT_TRUE(s.survives(present)) << k << " of " << n << ", pattern " << pattern;
                } else {
                    const std::vector<uint8_t> before = s.bytes;
                    ASSERT_EQ(tarn_fec_decode(k, n - k, s.length, s.at.data(), present.data()), -1);
                    ASSERT_EQ(s.bytes, before);
                }
            }
        }
    }
}

TEST(Fec, RandomLossesUpToTheLimits) {
    with_each_kernel([&](const fec::kernel &) {
        for (uint64_t seed = 1; seed <= 60; seed++) {
            test_random random(seed);
            const int k = seed == 1 ? 64 : 1 + static_cast<int>(random.below(64));
            const int p =
                seed == 1 ? 191 : 1 + static_cast<int>(random.below(static_cast<uint64_t>(255 - k)));
            shard_set s(k, p, 1 + random.below(600), random);
            ASSERT_EQ(s.encode(), 0);
            std::vector<uint8_t> present(static_cast<size_t>(k + p), 0);
            std::fill_n(present.begin(), k, uint8_t{1}); // exactly k arrive, any k of them
            for (size_t i = present.size() - 1; i > 0; i--) {
                std::swap(present[i], present[random.below(i + 1)]);
            }
            ASSERT_TRUE(s.survives(present))
                << "seed " << seed << ": " << k << " + " << p << " x " << s.length;
            std::fill_n(present.begin(), k,
                        uint8_t{0}); // the worst: all data lost, only the last parity shards
            std::fill(present.begin() + k, present.end(), uint8_t{0});
            std::fill(present.end() - std::min(k, p), present.end(), uint8_t{1});
            std::fill_n(present.begin(), k - std::min(k, p), uint8_t{1});
            ASSERT_TRUE(s.survives(present)) << "seed " << seed << ", last parity shards only";
        }
    });
}

TEST(Fec, OneAndOneIsACopy) {
    test_random random(75);
    shard_set s(1, 1, 40, random);
    ASSERT_EQ(s.encode(), 0);
    EXPECT_EQ(std::memcmp(s.at[0], s.at[1], 40), 0);
}

TEST(Fec, Limits) {
    test_random random(76);
    shard_set s(64, 192, 8, random);
    uint8_t **data = s.at.data(), **parity = s.at.data() + 64;
    std::vector<uint8_t> present(256, 1);
    const std::vector<uint8_t> before = s.bytes;
    const struct {
        int k, p;
        size_t length;
        int result;
        const char *why;
    } rows[] = {
        {0, 1, 8, -1, "no data shard"},
        {-1, 1, 8, -1, "fewer than none"},
        {65, 1, 8, -1, "k of 65"},
        {64, 192, 8, -1, "256 shards"},
        {1, 255, 8, -1, "256 shards"},
        {1, -1, 8, -1, "p below 0"},
        {1, 2147483647, 8, -1, "sum may wrap"},
        {1, 1, 0, -1, "empty shards"},
        {64, 0, 8, 0, "no parity"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(tarn_fec_encode(row.k, row.p, row.length, data, parity), row.result) << row.why;
        EXPECT_EQ(tarn_fec_decode(row.k, row.p, row.length, data, present.data()), row.result) << row.why;
        EXPECT_EQ(s.bytes, before) << row.why;
    }
    EXPECT_EQ(tarn_fec_encode(1, 1, 8, nullptr, parity), -1);
    EXPECT_EQ(tarn_fec_encode(1, 1, 8, data, nullptr), -1);
    EXPECT_EQ(tarn_fec_encode(1, 0, 8, data, nullptr), 0);
    EXPECT_EQ(tarn_fec_encode(1, 0, 8, nullptr, nullptr), -1);
    EXPECT_EQ(tarn_fec_decode(1, 1, 8, nullptr, present.data()), -1);
    EXPECT_EQ(tarn_fec_decode(1, 1, 8, data, nullptr), -1);
    EXPECT_EQ(tarn_fec_encode(64, 191, 8, data, parity), 0);
    EXPECT_EQ(tarn_fec_encode(1, 254, 8, data, data + 1), 0);
    uint8_t *none[2] = {nullptr, nullptr}; // all data present: no shard is touched
    EXPECT_EQ(tarn_fec_decode(2, 0, 8, none, present.data()), 0);
    present[1] = 0;
    EXPECT_EQ(tarn_fec_decode(2, 0, 8, data, present.data()), -1);
}

} // namespace
