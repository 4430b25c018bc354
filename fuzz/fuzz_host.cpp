// tarn_host_receive: an engine with one listed client and a live session, whose keys the fuzzer knows, so that what is
// inside sealed packets is reached, too.
#include "conn_host_internal.h"
#include "engine_input.h"

namespace {

struct live_host {
    host_rig host;
    hand_client client;
    tarn_session keys;
    known_state<host_rig, tarn_host> state;
    live_host()
        : host(1,
               [](tarn_host_config &c) {
                   c.allow_plain = 1;
                   tarn_relay_config_add_link(&c.relays, "tarnglider-relay://203.0.113.99:9877#k");
               }),
          state((connect(), host), host.h) {}

private:
    void connect() {
        must(client.shake(host, fuzz_endpoint(0), 1));
        must(host.receive(seal(client.keys, plain(TARN_PKT_PING)), fuzz_endpoint(0)).result ==
             TARN_RECV_DATA);
        keys = client.keys;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static live_host known;
    known.state.restore();
    host_rig &host = known.host;
    hand_client &client = known.client;
    tarn_session live = client.keys = known.keys;
    const uint32_t session = live.id;
    uint64_t stamp = 1;

    engine_input in = {data, size};
    bytes last;
    for (int steps = 0; in.left > 0 && steps < 64; steps++) {
        const uint8_t op = in.u8();
        bytes p;
        switch (op & 7) {
        case 0: // any bytes
            p = in.take(in.u8());
            break;
        case 1: // a plain packet
            p = in.packet();
            break;
        case 2: // a sealed packet of the live session
            p = seal(live, in.packet());
            break;
        case 3: // a handshake, whose keys become those of later packets
            p = client.start(host, ++stamp);
            break;
        case 4: // a rekey request under them
            p = seal(client.keys, plain(TARN_PKT_REKEY, le32(in.u8() & 1 ? session : in.u8())));
            if (op & 0x80) live = client.keys;
            break;
        case 5: // damage
            p = in.damaged(last);
            break;
        case 6: // a repeat
            p = last;
            break;
        default: { // time passes
            virtual_clock::advance(int64_t{in.u8()} * in.u8() * 1000);
            const int wait = tarn_host_tick(host.h);
            must(wait >= 1000 && wait <= 250000);
            host.take(); // registrations answer nobody
            continue;
        }
        }
        last = p;
        const received r = host.receive(p, fuzz_endpoint(op));
        must(r.result >= TARN_RECV_NONE && r.result <= TARN_RECV_PLAIN);
        must(r.result == TARN_RECV_DATA ? r.data.size() + TARN_SEAL_OVERHEAD == p.size() : r.data.empty());
        // The host amplifies nothing, but for what it says of its pairing to whoever asks in 64 bytes.
        constexpr size_t info_most = 70 + 63;
        const bool asked = p.size() == 64 && p[1] == 1 && p[2] == TARN_PKT_HOST_QUERY;
        for (const auto &reply : host.take()) {
            must(reply.data.size() <= (asked ? info_most : p.size()));
            if (p.size() == TARN_HS_INIT_SIZE) client.finish(reply.data);
        }
    }
    return 0;
}
