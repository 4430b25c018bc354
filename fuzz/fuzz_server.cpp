// The rendezvous server under a script of requests with valid trailers: fields from the input, or from what the server
// sent before, so that registrations, introductions and bindings come about; raw datagrams and leaps in time between
// them. Nothing amplifies, no table outgrows its limit, no rendezvous message is forwarded, and when all is over nothing
// is left.
//   operation byte: bits 0-2 what to do, 3-4 which of four endpoints it comes from, 5-7 a variant
#include <monocypher.h>

#include <memory>

#include "engine_input.h"
#include "server/rendezvous_server.h"

namespace {

constexpr uint32_t hosts_max = 2, allocations_max = 4;
const uint8_t link_key[] = {'k'};

struct fuzz_run {
    std::unique_ptr<app::rendezvous_server> server;
    uint8_t net_key[32];
    tarn_keypair keys[3] = {test_key(1), test_key(2), test_key(3)};
    tarn_rv_msg challenge{}, told[2]{}; // told: introduction (0) and reply (1), by the side they are for
    uint64_t now_us = 1000000000;
    // Of the request at hand.
    tarn_addr from{};
    bytes request;
    bool lookup = false;
    int answers = 0;

    fuzz_run() {
        seeded_random::reset(1);
        app::server_config config;
        config.link_key.assign(link_key, link_key + sizeof link_key);
        config.identity = test_key(9);
        config.limits.hosts = hosts_max;
        config.limits.allocations = allocations_max;
        config.limits.allocations_per_host = 3;
        config.limits.allocations_per_host_and_client = 2;
        config.limits.allocations_per_end = 2;
        config.limits.source_meters = 16;
        tarn_rv_net_key(net_key, link_key, sizeof link_key);
        server = std::make_unique<app::rendezvous_server>(
            config, [this](const tarn_addr &to, const uint8_t *data, size_t len) { take(to, data, len); });
    }

    void take(const tarn_addr &to, const uint8_t *data, size_t len) {
        tarn_rv_msg m;
        must(to.family != 0 && to.port != 0);
        if (tarn_rv_decode(data, len, net_key, &m) != 0) { // forwarded: as it came, and not as a message
            must(bytes(data, data + len) == request && !tarn_rv_endpoint_equal(&to, &from));
            must(++answers == 1);
            return;
        }
        if (m.type == TARN_RV_INTRODUCE) {
            must(lookup);
            told[0] = m;
            return;
        }
        must(++answers == 1 && tarn_rv_endpoint_equal(&to, &from));
        must(lookup || len <= request.size() + 3);
        if (m.type == TARN_RV_CHALLENGE) challenge = m;
        if (m.type == TARN_RV_LOOKUP_REPLY) told[1] = m;
    }
    void give(const tarn_addr &source, const bytes &p) {
        from = source;
        request = p;
        lookup = p.size() > 2 && p[2] == TARN_RV_LOOKUP;
        answers = 0;
        server->receive(source, p.data(), p.size(), now_us);
        must(server->hosts() <= hosts_max && server->allocations() <= allocations_max);
    }
    void give(const tarn_addr &source, const tarn_rv_msg &m) {
        bytes p(TARN_RV_MAX_SIZE);
        p.resize(tarn_rv_encode(p.data(), p.size(), net_key, &m));
        give(source, p);
    }
    // Any bytes as a message: with the trailer that they lack.
    void give_signed(const tarn_addr &source, bytes p) {
        const size_t size = p.size();
        p.resize(size + TARN_RV_TRAILER_SIZE);
        crypto_blake2b_keyed(p.data() + size, TARN_RV_TRAILER_SIZE, net_key, 32, p.data(), size);
        give(source, p);
    }
};

void register_host(fuzz_run &run, engine_input &in, const tarn_addr &from, uint8_t op) {
    const tarn_keypair &key = run.keys[op % 3];
    tarn_rv_msg m{};
    m.type = TARN_RV_REGISTER;
    memcpy(m.key, key.public_key, 32);
    m.count = in.u8() % 5;
    for (int i = 0; i < m.count; i++)
        m.endpoints[i] = fuzz_endpoint(in.u8());
    if (op & 4) {
        memcpy(m.token, run.challenge.token, 16);
        tarn_rv_register_proof(m.proof, key.secret, run.challenge.key, m.token, m.key, m.endpoints, m.count);
    }
    run.give(from, m);
}

void look_up(fuzz_run &run, engine_input &in, const tarn_addr &from, uint8_t op) {
    tarn_rv_msg m{};
    m.type = TARN_RV_LOOKUP;
    m.tag = in.u8();
    m.id_len = op & 4 ? 16 : 5;
    tarn_key_id(m.lookup_id, run.keys[op % 3].public_key);
    run.give(from, m);
}

void bind(fuzz_run &run, engine_input &in, const tarn_addr &from, uint8_t op) {
    const tarn_rv_msg &told = run.told[op & 1];
    tarn_rv_msg m{};
    m.type = TARN_RV_BIND;
    m.allocation = told.allocation;
    memcpy(m.token, told.token, 16);
    m.side = op & 2 ? in.u8() : op & 1;
    run.give(from, m);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    engine_input in = {data, size};
    fuzz_run run;
    while (in.left > 0) {
        const uint8_t op = in.u8();
        const tarn_addr &from = fuzz_endpoint(op);
        const uint8_t variant = op >> 5;
        switch (op & 7) {
        case 0:
        case 1:
            register_host(run, in, from, variant);
            break;
        case 2:
            look_up(run, in, from, variant);
            break;
        case 3:
        case 4:
            bind(run, in, from, variant);
            break;
        case 5: { // traffic: a sealed packet of one of a few sessions, or a plain one
            bytes p = in.packet();
            if (variant & 1) {
                p[1] = 2;
                p[4] = in.u8() & 7;
                p.resize(std::max<size_t>(p.size(), 32));
            }
            run.give(from, p);
            break;
        }
        case 6:
            if (variant & 1) {
                run.give_signed(from, in.packet());
            } else {
                run.give(from, in.take(in.u8()));
            }
            break;
        case 7:
            run.now_us += uint64_t{in.u8()} << (variant * 3);
            if (variant & 1) run.server->tick(run.now_us);
            break;
        }
    }
    for (int i = 0; i < 3; i++)
        run.server->tick(run.now_us += 1000000000);
    must(run.server->hosts() == 0 && run.server->allocations() == 0);
    return 0;
}
