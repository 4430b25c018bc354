// Sealing and opening beside the bare AEAD calls underneath, on the payload of the largest LAN packet: 1376 bytes plain,
// 1368 of them encrypted. Ours and the peer take turns in short rounds within one run, so that both see the same
// machine; a row gives the medians and their ratio. Every open is of a packet not seen before, sealed outside the
// timed part.
#include <tarnglider/secure.h>

#include <benchmark/benchmark.h>
#include <monocypher.h>

#include <algorithm>
#include <chrono>
#include <string.h>
#include <vector>

namespace {

constexpr size_t plain_size = 1376, sealed_size = plain_size + TARN_SEAL_OVERHEAD, text_size = plain_size - 8;
constexpr size_t ring = 64; // packets a round

struct packets {
    tarn_session session = {};
    std::vector<uint8_t> plain = std::vector<uint8_t>(ring * plain_size, 0xA5);
    std::vector<uint8_t> sealed = std::vector<uint8_t>(ring * sealed_size);
    uint64_t counter = 0; // the peer's own

    packets() {
        session.id = 1;
        memset(session.send_key, 7, 32);
        memset(session.recv_key, 7, 32);
        for (size_t i = 0; i < ring; i++) {
            memcpy(plain_at(i), "\x50\x01\x10\0\0\0\0", 8);
        }
    }
    uint8_t *plain_at(size_t i) { return &plain[i * plain_size]; }
    uint8_t *sealed_at(size_t i) { return &sealed[i * sealed_size]; }

    void seal() {
        for (size_t i = 0; i < ring; i++) {
            benchmark::DoNotOptimize(tarn_seal(&session, plain_at(i), plain_size, sealed_at(i), sealed_size));
        }
    }
    int open() {
        int failed = 0;
        size_t size = 0;
        for (size_t i = 0; i < ring; i++) {
            failed |= tarn_open(&session, sealed_at(i), sealed_size, plain_at(i), plain_size, &size);
        }
        return failed;
    }
    void start(crypto_aead_ctx *ctx, uint64_t with) {
        uint8_t nonce[12] = {};
        memcpy(nonce + 4, &with, 8);
        crypto_aead_init_ietf(ctx, session.send_key, nonce);
    }
    void write() {
        for (size_t i = 0; i < ring; i++) {
            crypto_aead_ctx ctx;
            start(&ctx, counter++);
            crypto_aead_write(&ctx, sealed_at(i) + 16, sealed_at(i) + 16 + text_size, sealed_at(i), 8,
                              plain_at(i) + 8, text_size);
        }
    }
    int read() {
        int failed = 0;
        for (size_t i = 0; i < ring; i++) {
            crypto_aead_ctx ctx;
            uint64_t with;
            memcpy(&with, sealed_at(i) + 8, 8);
            start(&ctx, with);
            failed |= crypto_aead_read(&ctx, plain_at(i) + 8, sealed_at(i) + 16 + text_size, sealed_at(i), 8,
                                       sealed_at(i) + 16, text_size);
        }
        return failed;
    }
};

template <class Work>
double seconds_of(Work work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> &values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

// The timed part is ours; the peer's time of the same rounds stands beside it.
void report(benchmark::State &state, std::vector<double> &ours, std::vector<double> &peer) {
    if (ours.empty()) return;
    const double our_ns = median(ours) / ring * 1e9, peer_ns = median(peer) / ring * 1e9;
    state.counters["ours_ns"] = our_ns;
    state.counters["bare_ns"] = peer_ns;
    state.counters["ours/bare"] = our_ns / peer_ns;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(ring * plain_size));
}

void seal_beside_aead_write(benchmark::State &state) {
    packets p;
    std::vector<double> ours, peer;
    for ([[maybe_unused]] auto _ : state) {
        peer.push_back(seconds_of([&] { p.write(); }));
        ours.push_back(seconds_of([&] { p.seal(); }));
        state.SetIterationTime(ours.back());
    }
    report(state, ours, peer);
}
BENCHMARK(seal_beside_aead_write)->UseManualTime()->MinTime(2);

void open_beside_aead_read(benchmark::State &state) {
    packets p;
    std::vector<double> ours, peer;
    int failed = 0;
    for ([[maybe_unused]] auto _ : state) {
        p.seal();
        peer.push_back(seconds_of([&] { failed |= p.read(); }));
        ours.push_back(seconds_of([&] { failed |= p.open(); }));
        state.SetIterationTime(ours.back());
    }
    if (failed) state.SkipWithError("a packet failed to open");
    report(state, ours, peer);
}
BENCHMARK(open_beside_aead_read)->UseManualTime()->MinTime(2);

} // namespace

BENCHMARK_MAIN();
