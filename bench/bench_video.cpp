// Throughput of packetizer and reassembler in Mbit/s of frame data, at frames of 20 kB and 400 kB with 20 %
// parity, without loss and with 10 % of the packets lost; and the allocations made for a frame once the first
// ones are through, which must be none. There is no peer to measure against.
#include <tarnglider/video_transport.h>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

// The linker hands us the library's calls of malloc and calloc (--wrap).
static long allocations = 0;
extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__wrap_malloc(size_t size) {
    allocations++;
    return __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size) {
    allocations++;
    return __real_calloc(count, size);
}
}

namespace {

constexpr size_t PACKET = 1376; // what a LAN path carries
constexpr int PARITY_PERCENT = 20;

std::vector<uint8_t> frame_of(size_t size) {
    std::mt19937 random(1);
    std::vector<uint8_t> frame(size);
    for (uint8_t &b : frame) {
        b = static_cast<uint8_t>(random());
    }
    return frame;
}

void report(benchmark::State &state, size_t size, long before) {
    state.counters["Mbit/s"] =
        benchmark::Counter(8e-6 * static_cast<double>(size), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["allocations"] = static_cast<double>(allocations - before);
    if (allocations != before) state.SkipWithError("allocates in the steady state");
}

void packetizer(benchmark::State &state) {
    const std::vector<uint8_t> frame = frame_of(static_cast<size_t>(state.range(0)));
    tarn_packetizer *p = tarn_packetizer_create(PACKET, PARITY_PERCENT, 0);
    tarn_frame_info info = {};
    const auto send = [](void *, const uint8_t *packet, size_t) { benchmark::DoNotOptimize(packet[0]); };
    const long before = allocations;
    for (auto _ : state) {
        info.frame_id++;
        tarn_packetizer_send_frame(p, 1, &info, frame.data(), frame.size(), send, nullptr);
    }
    report(state, frame.size(), before);
    tarn_packetizer_destroy(p);
}

// One frame's packets in a row of memory; a round only renews the frame id.
struct recorded {
    std::vector<std::vector<uint8_t>> packets;
    std::mt19937 random{7};
    unsigned lost_percent = 0;
};

void record(void *context, const uint8_t *packet, size_t len) {
    auto *to = static_cast<recorded *>(context);
    if (to->random() % 100 >= to->lost_percent) to->packets.emplace_back(packet, packet + len);
}

void reassembler(benchmark::State &state) {
    const std::vector<uint8_t> frame = frame_of(static_cast<size_t>(state.range(0)));
    recorded in;
    in.lost_percent = static_cast<unsigned>(state.range(1));
    tarn_packetizer *p = tarn_packetizer_create(PACKET, PARITY_PERCENT, 0);
    tarn_frame_info info = {};
    tarn_packetizer_send_frame(p, 1, &info, frame.data(), frame.size(), record, &in);
    tarn_packetizer_destroy(p);
    tarn_reassembler *r = tarn_reassembler_create(frame.size());
    uint32_t id = 0;
    const auto round = [&] {
        id++;
        for (std::vector<uint8_t> &packet : in.packets) {
            for (int i = 0; i < 4; i++) {
                packet[8 + static_cast<size_t>(i)] = static_cast<uint8_t>(id >> 8 * i);
            }
            tarn_reassembler_push(r, packet.data(), packet.size());
        }
        tarn_frame out;
        return tarn_reassembler_pop(r, &out, nullptr) == 1;
    };
    if (!round()) state.SkipWithError("the frame is lost");
    const long before = allocations;
    for (auto _ : state) {
        if (!round()) state.SkipWithError("the frame is lost");
    }
    report(state, frame.size(), before);
    tarn_reassembler_stats stats;
    tarn_reassembler_get_stats(r, &stats);
    state.counters["rebuilt/frame"] =
        static_cast<double>(stats.shards_recovered) / static_cast<double>(stats.frames_completed);
    tarn_reassembler_destroy(r);
}

BENCHMARK(packetizer)->ArgName("bytes")->Arg(20000)->Arg(400000);
BENCHMARK(reassembler)->ArgNames({"bytes", "loss"})->ArgsProduct({{20000, 400000}, {0, 10}});

} // namespace

BENCHMARK_MAIN();
