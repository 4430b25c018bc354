// The erasure code against ISA-L's ec_encode_data over the same field, in one process: encoding, and
// rebuilding of p erased data shards. Both sides take turns in short rounds; a row prints the medians'
// throughput in data bytes and the ratio. ISA-L's tables are made outside the timed part, ours inside, as a
// caller meets them.
#include <fec_internal.h>
#include <tarnglider/fec.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <random>
#include <vector>

#ifdef TARN_HAVE_ISAL
#include <isa-l.h>
#endif

namespace {

struct shape {
    int k, p;
    size_t length;
};
constexpr shape shapes[] = {{10, 2, 1200}, {43, 9, 1163}, {64, 13, 1334}, {64, 32, 1334}};

struct shards {
    explicit shards(const shape &s) : bytes(static_cast<size_t>(s.k + s.p) * s.length) {
        std::mt19937 random(1);
        for (uint8_t &b : bytes) {
            b = static_cast<uint8_t>(random());
        }
        for (int i = 0; i < s.k + s.p; i++) {
            at.push_back(bytes.data() + static_cast<size_t>(i) * s.length);
        }
    }
    std::vector<uint8_t> bytes;
    std::vector<uint8_t *> at;
};

// Processor time, so that other programs' work doesn't count.
double seconds_of(const std::function<void()> &work, int repeats) {
    const std::clock_t start = std::clock();
    for (int i = 0; i < repeats; i++) {
        work();
    }
    return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC / repeats;
}

// Medians of both sides over rounds in turn, so that a change of the clock rate meets both.
void compare(const char *what, const shape &s, const std::function<void()> &ours,
             const std::function<void()> &peer) {
    const int repeats = std::max(1, static_cast<int>(2e-3 / std::max(1e-7, seconds_of(ours, 200))));
    std::vector<double> us, them;
    for (int round = 0; round < 25; round++) {
        us.push_back(seconds_of(ours, repeats));
        if (peer) them.push_back(seconds_of(peer, repeats));
    }
    std::sort(us.begin(), us.end());
    std::sort(them.begin(), them.end());
    const double bytes = static_cast<double>(s.k) * static_cast<double>(s.length);
    std::printf("%-12s %-7s %2d + %2d x %4zu  %8.0f MB/s", fec::active->name, what, s.k, s.p, s.length,
                bytes / us[us.size() / 2] / 1e6);
    if (peer) {
        const double theirs = them[them.size() / 2];
        std::printf("   ISA-L %8.0f MB/s   ratio %.2f", bytes / theirs / 1e6, theirs / us[us.size() / 2]);
    }
    std::printf("\n");
}

void run(const shape &s) {
    shards own(s), other(s);
    std::vector<uint8_t> present(static_cast<size_t>(s.k + s.p), 1);
    std::fill_n(present.begin(), s.p, uint8_t{0});
    const auto encode = [&] { tarn_fec_encode(s.k, s.p, s.length, own.at.data(), own.at.data() + s.k); };
    const auto decode = [&] { tarn_fec_decode(s.k, s.p, s.length, own.at.data(), present.data()); };
    std::function<void()> peer;
#ifdef TARN_HAVE_ISAL
    std::vector<uint8_t> matrix(static_cast<size_t>((s.k + s.p) * s.k));
    std::vector<uint8_t> tables(static_cast<size_t>(32 * s.k * s.p));
    gf_gen_cauchy1_matrix(matrix.data(), s.k + s.p, s.k);
    ec_init_tables(s.k, s.p, matrix.data() + s.k * s.k, tables.data());
    peer = [&] {
        ec_encode_data(static_cast<int>(s.length), s.k, s.p, tables.data(), other.at.data(),
                       other.at.data() + s.k);
    };
#endif
    compare("encode", s, encode, peer);
#ifdef TARN_HAVE_ISAL
    if (own.bytes != other.bytes) std::printf("THE PARITY DIFFERS\n");
#endif
    compare("decode", s, decode, peer); // the peer's product has the same size in both directions
}

} // namespace

int main() {
    tarn_fec_init();
#if defined(__x86_64__)
    std::printf("processor: SSSE3 %d, AVX2 %d, AVX-512BW %d, GFNI %d\n", !!__builtin_cpu_supports("ssse3"),
                !!__builtin_cpu_supports("avx2"), !!__builtin_cpu_supports("avx512bw"),
                !!__builtin_cpu_supports("gfni"));
#endif
#ifndef TARN_HAVE_ISAL
    std::printf("ISA-L is not installed: no peer\n");
#endif
    const fec::kernel *const chosen = fec::active;
    std::printf("chosen kernel: %s\n", chosen->name);
    int count;
    const fec::kernel *all = fec::kernels(&count);
    for (int i = count - 1; i >= 0; i--) {
        if (!all[i].offered()) continue;
        fec::active = &all[i];
        for (const shape &s : shapes) {
            run(s);
        }
    }
    return 0;
}
