// The capacity of the rendezvous server without its socket: refreshes of 100,000 hosts beside the bare hashing that they
// can't do without, new registrations, lookups and forwarded traffic on one core, and the memory that a host takes.
#include <benchmark/benchmark.h>
#include <monocypher.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include <tarnglider/protocol.h>

#include "server/rendezvous_server.h"

// Bytes that are allocated right now, by their sizes as asked for and 16 bytes of the allocator's own.
static size_t allocated = 0;
[[gnu::noinline]] void *operator new(size_t size) {
    void *block = std::malloc(size + 16);
    if (block == nullptr) throw std::bad_alloc();
    std::memcpy(block, &size, sizeof size);
    allocated += size + 16;
    return static_cast<char *>(block) + 16;
}
[[gnu::noinline]] void operator delete(void *at) noexcept {
    if (at == nullptr) return;
    char *block = static_cast<char *>(at) - 16;
    size_t size;
    std::memcpy(&size, block, sizeof size);
    allocated -= size + 16;
    std::free(block);
}
[[gnu::noinline]] void operator delete(void *at, size_t) noexcept { operator delete(at); }

namespace {

using namespace app;

constexpr uint32_t host_count = 100000;
constexpr uint64_t second_us = 1000000;

tarn_addr address(uint8_t net, uint32_t number) {
    tarn_addr a{};
    a.family = 4;
    a.port = 9000;
    a.ip[0] = net;
    for (int i = 0; i < 3; i++)
        a.ip[3 - i] = static_cast<uint8_t>(number >> 8 * i);
    return a;
}

// A server with its hosts registered, and a refresh of each.
struct full_house {
    std::unique_ptr<rendezvous_server> server;
    uint8_t net_key[32];
    tarn_rv_msg last[16] = {}; // what was sent last of each message
    uint64_t now_us = 1000 * second_us;
    std::vector<std::vector<uint8_t>> refreshes;
    size_t bytes_of_server = 0;
    bool listening = true;

    explicit full_house(uint32_t hosts) {
        server_config config;
        config.link_key = {'k'};
        tarn_keypair_generate(&config.identity);
        for (budget &b : config.limits.budgets)
            b = {};
        config.limits.introductions = {};
        config.limits.allocations = 1U << 20;
        tarn_rv_net_key(net_key, config.link_key.data(), config.link_key.size());
        refreshes.resize(hosts);
        for (auto &packet : refreshes)
            packet.reserve(TARN_RV_MAX_SIZE);
        const size_t before = allocated;
        server = std::make_unique<rendezvous_server>(
            config, [this](const tarn_addr &, const uint8_t *data, size_t len) {
                benchmark::DoNotOptimize(data);
                if (!listening || data[1] != TARN_VERSION_PLAIN) return;
                tarn_rv_decode(data, len, net_key, &last[data[2] - TARN_RV_REGISTER]);
            });
        for (uint32_t i = 0; i < hosts; i++)
            enrol(i);
        bytes_of_server = allocated - before;
    }
    void give(const tarn_addr &from, const tarn_rv_msg &m) {
        uint8_t packet[TARN_RV_MAX_SIZE];
        server->receive(from, packet, tarn_rv_encode(packet, sizeof packet, net_key, &m), now_us);
    }
    void enrol(uint32_t number) {
        tarn_keypair key;
        uint8_t secret[32] = {};
        const uint64_t word = uint64_t{number} << 3;
        std::memcpy(secret, &word, sizeof word);
        tarn_keypair_from_secret(&key, secret);
        tarn_rv_msg m{};
        m.type = TARN_RV_REGISTER;
        std::memcpy(m.key, key.public_key, sizeof m.key);
        m.count = 2;
        m.endpoints[0] = m.endpoints[1] = address(192, number);
        const tarn_addr from = address(10, number);
        give(from, m);
        const tarn_rv_msg &challenge = last[TARN_RV_CHALLENGE - TARN_RV_REGISTER];
        std::memcpy(m.token, challenge.token, sizeof m.token);
        tarn_rv_register_proof(m.proof, key.secret, challenge.key, m.token, m.key, m.endpoints, m.count);
        give(from, m);
        std::vector<uint8_t> &packet = refreshes[number];
        packet.resize(TARN_RV_MAX_SIZE);
        packet.resize(tarn_rv_encode(packet.data(), packet.size(), net_key, &m));
    }
};

full_house &house() {
    static full_house all(host_count);
    return all;
}

// Aim: 5,000 a second, which is 100,000 hosts at 20 seconds, on a small part of a core.
void refresh(benchmark::State &state) {
    full_house &h = house();
    h.listening = false;
    uint32_t at = 0;
    for (auto _ : state) {
        h.server->receive(address(10, at), h.refreshes[at].data(), h.refreshes[at].size(), h.now_us);
        if (++at < host_count) continue;
        at = 0;
        h.now_us += 20 * second_us;
        h.server->tick(h.now_us);
    }
    if (h.server->hosts() != host_count) state.SkipWithError("hosts were lost");
    state.counters["per_second"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["bytes_per_host"] = static_cast<double>(h.bytes_of_server) / host_count;
}

// The four hashes that a refresh consists of: both trailers, the key id, the proof.
void refresh_peer(benchmark::State &state) {
    full_house &h = house();
    const std::vector<uint8_t> &packet = h.refreshes[0];
    uint8_t out[16];
    for (auto _ : state) {
        crypto_blake2b_keyed(out, sizeof out, h.net_key, 32, packet.data(), packet.size() - 16);
        crypto_blake2b(out, sizeof out, packet.data(), 52);
        crypto_blake2b_keyed(out, sizeof out, h.net_key, 32, packet.data(), 87);
        crypto_blake2b_keyed(out, sizeof out, h.net_key, 32, packet.data(), 29);
        benchmark::DoNotOptimize(out);
    }
    state.counters["per_second"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// A host that was not known: challenge, proof and the X25519 of it, and as many on the host's side.
void enrol(benchmark::State &state) {
    auto fresh = std::make_unique<full_house>(0);
    fresh->refreshes.resize(host_count);
    uint32_t number = 0;
    for (auto _ : state)
        fresh->enrol(number++ % host_count);
    state.counters["per_second"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// Each from another client, so that each makes an allocation.
void lookup(benchmark::State &state) {
    full_house &h = house();
    h.listening = false;
    tarn_rv_msg m{};
    m.type = TARN_RV_LOOKUP;
    m.id_len = 16;
    for (auto _ : state) {
        const uint32_t at = m.tag * 997 % host_count;
        tarn_key_id(m.lookup_id, h.refreshes[at].data() + TARN_HEADER_SIZE);
        h.give(address(11, m.tag++), m);
    }
    if (h.server->counters().lookups != static_cast<uint64_t>(state.iterations()))
        state.SkipWithError("a lookup failed");
    state.counters["per_second"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void bind_both(full_house &h, uint32_t number) {
    tarn_rv_msg m{};
    m.type = TARN_RV_LOOKUP;
    m.id_len = 16;
    tarn_key_id(m.lookup_id, h.refreshes[number].data() + TARN_HEADER_SIZE);
    h.give(address(11, number), m);
    const struct {
        uint8_t side, told_by, net;
    } sides[] = {{TARN_RV_SIDE_CLIENT, TARN_RV_LOOKUP_REPLY, 11}, {TARN_RV_SIDE_HOST, TARN_RV_INTRODUCE, 10}};
    for (const auto &side : sides) {
        const tarn_rv_msg &told = h.last[side.told_by - TARN_RV_REGISTER];
        m = {};
        m.type = TARN_RV_BIND;
        m.allocation = told.allocation;
        m.side = side.side;
        std::memcpy(m.token, told.token, sizeof m.token);
        h.give(address(side.net, number), m);
    }
}

// Sealed packets of the size of a relayed path, from the hosts of 1, 100 or 10,000 running sessions in turn. The socket
// calls that a program adds cost more than this.
void forward(benchmark::State &state) {
    const auto pairs = static_cast<uint32_t>(state.range(0));
    full_house h(pairs);
    uint8_t packet[1200] = {TARN_MAGIC, 2, 16, 0, 1};
    for (uint32_t i = 0; i < pairs; i++) {
        bind_both(h, i);
        h.server->receive(address(11, i), packet, sizeof packet, h.now_us); // its session is learned
    }
    h.listening = false;
    uint32_t at = 0;
    for (auto _ : state) {
        h.server->receive(address(10, at), packet, sizeof packet, h.now_us);
        if (++at == pairs) at = 0;
    }
    if (h.server->counters().unroutable != 0) state.SkipWithError("a packet found no way");
    const double bits = 8.0 * sizeof packet * static_cast<double>(state.iterations());
    state.counters["Gbit_per_second"] = benchmark::Counter(bits / 1e9, benchmark::Counter::kIsRate);
}

} // namespace

BENCHMARK(refresh);
BENCHMARK(refresh_peer);
BENCHMARK(enrol);
BENCHMARK(lookup)->Iterations(200000);
BENCHMARK(forward)->Arg(1)->Arg(100)->Arg(10000);

BENCHMARK_MAIN();
