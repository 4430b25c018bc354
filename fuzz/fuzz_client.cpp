// tarn_client_receive: an engine with a live session to a host whose keys the fuzzer knows, and with a second session
// whose handshake is under way.
#include "conn_client_internal.h"
#include "engine_input.h"

namespace {

struct live_client {
    client_rig rig;
    tarn_session keys = {};
    known_state<client_rig, tarn_client> state;
    live_client() : state((connect(), rig), rig.c) {}

private:
    void connect() {
        tarn_client_add_candidate(rig.c, &fuzz_endpoint(0), 0);
        tarn_client_add_candidate(rig.c, &fuzz_endpoint(8), 0);
        tarn_client_connect(rig.c);
        tarn_client_tick(rig.c);
        rig.receive(hand_respond(rig.take().at(0).data, 0x11223344, &keys), fuzz_endpoint(0));
        must(rig.events().size() == 1);
        tarn_client_open_session(rig.c);
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static live_client known;
    known.state.restore();
    client_rig &rig = known.rig;
    tarn_session live = known.keys, next = {};

    engine_input in = {data, size};
    bytes last, init;
    uint32_t id = 1;
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
        case 2: // a sealed packet of the live session, or of the newest keys
            p = seal(op & 0x80 ? next : live, in.packet());
            break;
        case 3: // the answer to the last handshake init seen
            p = init.empty() ? bytes{} : hand_respond(init, ++id, &next);
            break;
        case 4: // a rekey begins, and its acknowledgement
            tarn_client_rekey(rig.c);
            p = seal(next, plain(TARN_PKT_REKEY_ACK, le32(0x11223344)));
            break;
        case 5: // damage
            p = in.damaged(last);
            break;
        case 6: // a repeat
            p = last;
            break;
        default: // time passes
            virtual_clock::advance(int64_t{in.u8()} * in.u8() * 1000);
            const int wait = tarn_client_tick(rig.c);
            must(wait >= 1000 && wait <= 250000);
        }
        const received r = rig.receive(p, fuzz_endpoint(op));
        must(r.result >= TARN_RECV_NONE && r.result <= TARN_RECV_PLAIN);
        must(r.result == TARN_RECV_DATA ? r.data.size() + TARN_SEAL_OVERHEAD == p.size() : r.data.empty());
        last = p;
        for (const auto &sent : rig.take()) {
            if (sent.data.size() == TARN_HS_INIT_SIZE) init = sent.data;
        }
        tarn_client_status s;
        tarn_client_status_get(rig.c, &s);
        must(s.connected == 1 && s.path_count <= TARN_PATHS_MAX); // nobody ends a session from outside
    }
    return 0;
}
