// The engines' cost for each datagram: a data packet beside the bare tarn_open of the same packet, what is dropped
// beside one X25519, and a tick that has nothing to do. Ours and the peer take turns in short rounds of one run, so
// that both see the same machine; a row gives the medians and their ratio.
#include <benchmark/benchmark.h>
#include <monocypher.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "conn_client_internal.h"
#include "conn_host_internal.h"
#include "support/engine_rig.h"

namespace {

constexpr size_t ring = 64;         // packets a round
constexpr size_t media_size = 1376; // the largest plain packet of a LAN path
const tarn_addr client_at = ep("198.51.100.20:5000");

struct live_host : host_rig {
    hand_client client;
    live_host()
        : host_rig(1, [](tarn_host_config &c) {
              tarn_relay_config_add_link(&c.relays, "tarnglider-relay://203.0.113.99:9877#k");
          }) {
        client.shake(*this, client_at, 1);
        host_rig::receive(seal(client.keys, plain(TARN_PKT_PING)), client_at);
    }
};

double median(std::vector<double> &all) {
    std::nth_element(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2), all.end());
    return all[all.size() / 2];
}

template <class Work>
double seconds(Work work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void report(benchmark::State &state, std::vector<double> &ours, std::vector<double> &peer, double per_round) {
    state.counters["ours_ns"] = median(ours) / per_round * 1e9;
    state.counters["peer_ns"] = median(peer) / per_round * 1e9;
    state.counters["ratio"] = median(ours) / median(peer);
}

// Aim: a ratio of at most 1.1.
void data_packet(benchmark::State &state) {
    live_host host;
    tarn_session keys = host.h->slots[0].session; // the host's own keys, to open without the engine
    const bytes packet = plain(TARN_PKT_VIDEO_SHARD, bytes(media_size - TARN_HEADER_SIZE));
    bytes out(2000);
    std::vector<bytes> sealed(ring);
    std::vector<double> ours, peer;
    size_t len;
    tarn_recv_info info;
    for (auto _ : state) {
        for (bytes &p : sealed)
            p = seal(host.client.keys, packet);
        const auto engine = [&] {
            for (const bytes &p : sealed)
                tarn_host_receive(host.h, p.data(), p.size(), &client_at, out.data(), out.size(), &len,
                                  &info);
        };
        const auto bare = [&] {
            for (const bytes &p : sealed)
                tarn_open(&keys, p.data(), p.size(), out.data(), out.size(), &len);
        };
        // Who comes second finds the packets in the cache: they change places every round.
        if (ours.size() % 2 == 0) {
            ours.push_back(seconds(engine));
            peer.push_back(seconds(bare));
        } else {
            peer.push_back(seconds(bare));
            ours.push_back(seconds(engine));
        }
        if (len != media_size) state.SkipWithError("a packet did not open");
    }
    report(state, ours, peer, ring);
}

// Aim: a ratio below 1/50.
void dropped(benchmark::State &state, const bytes &packet, const char *from) {
    live_host host;
    const tarn_addr at = ep(from);
    bytes out(2000);
    uint8_t shared[32];
    std::vector<double> ours, peer;
    size_t len;
    for (auto _ : state) {
        peer.push_back(seconds([&] { crypto_x25519(shared, host.key.secret, host.client.key.public_key); }) *
                       ring);
        ours.push_back(seconds([&] {
            for (size_t i = 0; i < ring; i++) {
                benchmark::DoNotOptimize(tarn_host_receive(host.h, packet.data(), packet.size(), &at,
                                                           out.data(), out.size(), &len, nullptr));
            }
        }));
    }
    if (!host.sent.empty()) state.SkipWithError("the host answered");
    report(state, ours, peer, ring);
}

void unknown_session(benchmark::State &state) {
    bytes p = plain(TARN_PKT_VIDEO_SHARD, bytes(1392));
    p[1] = TARN_VERSION_SEALED;
    p[4] = 1;
    dropped(state, p, "198.51.100.20:5000");
}
void bad_magic(benchmark::State &state) {
    bytes p = plain(TARN_PKT_VIDEO_SHARD, bytes(1392));
    p[0] = 0x51;
    dropped(state, p, "198.51.100.20:5000");
}
void rendezvous_of_stranger(benchmark::State &state) {
    dropped(state, plain(TARN_RV_INTRODUCE, bytes(204)), "192.0.2.66:666");
}

void host_tick(benchmark::State &state) {
    live_host host;
    for (auto _ : state)
        benchmark::DoNotOptimize(tarn_host_tick(host.h));
    state.counters["bytes"] = sizeof(tarn_host);
}
void client_tick(benchmark::State &state) {
    client_rig rig;
    tarn_client_add_candidate(rig.c, &client_at, 0);
    tarn_client_connect(rig.c);
    tarn_client_tick(rig.c);
    tarn_session keys;
    rig.receive(hand_respond(rig.take().at(0).data, 7, &keys), client_at);
    tarn_client_tick(rig.c);
    rig.c->paths[0].next_probe_us =
        conn_now() + 3600 * conn_second_us; // nothing is due, nothing falls silent
    rig.c->silence_us = UINT64_MAX;
    for (auto _ : state)
        benchmark::DoNotOptimize(tarn_client_tick(rig.c));
    state.counters["bytes"] = sizeof(tarn_client);
}

BENCHMARK(data_packet);
BENCHMARK(unknown_session);
BENCHMARK(bad_magic);
BENCHMARK(rendezvous_of_stranger);
BENCHMARK(host_tick);
BENCHMARK(client_tick);

} // namespace

BENCHMARK_MAIN();
