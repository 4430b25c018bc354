// Writes the fuzzers' seeds: valid input of every kind, so that a fuzzer starts behind the first checks.
// Usage: make_corpus DIR; the seeds of a fuzzer lie in DIR/NAME. Keys and nonces are fixed where a fuzzer
// must know them and don't matter elsewhere; the random source is the seeded one of the tests.
#include <tarnglider/tarnglider.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "ipc_protocol.h"
#include "support/packet_rows.h"

namespace {

std::filesystem::path root;
int written = 0;

[[noreturn]] void give_up(const std::string &why) {
    std::fprintf(stderr, "make_corpus: %s\n", why.c_str());
    std::exit(1);
}

template <class Content>
void seed(const char *fuzzer, const std::string &name, const Content &content) {
    if (content.empty()) give_up(std::string(fuzzer) + "/" + name + " could not be built");
    std::filesystem::create_directories(root / fuzzer);
    std::ofstream file(root / fuzzer / name, std::ios::binary);
    for (const auto c : content)
        file.put(static_cast<char>(c));
    if (!file.flush()) give_up("can't write below " + root.string());
    written++;
}

tarn_addr endpoint(const char *text) {
    tarn_addr addr;
    if (tarn_addr_parse(&addr, text, 0) != 0) give_up(text);
    return addr;
}

// One handshake, both ways round, and a sealed packet of its session.
void handshake(const char *to) {
    tarn_keypair host, client;
    tarn_keypair_from_secret(&host, bytes(32, 1).data());
    tarn_keypair_from_secret(&client, bytes(32, 2).data());
    tarn_noise_ik at_client, at_host;
    tarn_session session;
    bytes init(TARN_HS_INIT_SIZE), resp(TARN_HS_RESP_SIZE), reject(TARN_HS_REJECT_SIZE), sealed(64);
    uint8_t key[32];
    uint64_t timestamp = 0;
    size_t size = 0;
    if (tarn_hs_client_start(&at_client, &client, host.public_key, 1000, init.data(), init.size(), &size) !=
            TARN_OK ||
        tarn_hs_host_read(&at_host, &host, init.data(), init.size(), key, &timestamp) != TARN_OK ||
        tarn_hs_host_respond(&at_host, 7, resp.data(), resp.size(), &size, &session) != TARN_OK) {
        give_up("no handshake");
    }
    reject.resize(tarn_hs_encode_reject(reject.data(), reject.size(), TARN_HS_REJECT_BUSY));
    const bytes plain = packet(TARN_PKT_PING, std::string(24, '1'));
    sealed.resize(tarn_seal(&session, plain.data(), plain.size(), sealed.data(), sealed.size()));
    seed(to, "hs_init", init);
    seed(to, "hs_resp", resp);
    seed(to, "hs_reject", reject);
    seed(to, "sealed", sealed);
}

void rendezvous_messages() {
    const uint8_t net_key[32] = {};
    for (int type = TARN_RV_REGISTER; type <= TARN_RV_ERROR; type++) {
        tarn_rv_msg m;
        memset(&m, 0x11, sizeof m);
        m.type = static_cast<uint8_t>(type);
        m.id_len = TARN_RV_ID_MAX;
        m.count = 2;
        m.seen = m.endpoints[0] = endpoint("198.51.100.7:40000");
        m.peer = m.endpoints[1] = endpoint("[2001:db8::7]:40001");
        bytes out(256);
        out.resize(tarn_rv_encode(out.data(), out.size(), net_key, &m));
        seed("fuzz_rendezvous", "message_" + std::to_string(type), out);
    }
}

void relays() {
    const std::string links[] = {"tarnglider-relay://relay.example#secret",
                                 "TarnGlider-Relay://192.0.2.1:1/#%00%ff%23",
                                 "tarnglider-relay://[2001:db8::1]:65535#k"};
    std::string file = "tarnglider-relays-v1\n";
    seed("fuzz_relay", "file_empty", file);
    for (const std::string &link : links) {
        seed("fuzz_relay", "link_" + std::to_string(link.size()), link);
        file += link + "\n";
    }
    seed("fuzz_relay", "file", file);
}

void lists() {
    tarn_client_list clients = {};
    tarn_host_list hosts = {};
    for (uint8_t i = 1; i <= 3; i++) {
        tarn_host_entry host = {{i}, "A host with spaces", 0x01020304u * i, endpoint("192.168.1.20:9876"),
                                {},  1700000000,           1700000000};
        if (i == 2) host.direct_addr = endpoint("[2001:db8::7]:40001");
        if (tarn_client_list_add(&clients, host.key, "Client") < 0 || tarn_host_list_put(&hosts, &host) < 0) {
            give_up("a list is full");
        }
    }
    const char *to = "fuzz_lists";
    for (const std::string text :
         {"192.0.2.1", "192.0.2.1:80", "[2001:db8::1]:65535", "::ffff:192.0.2.1", "fe80::1"})
        seed(to, "endpoint_" + std::to_string(text.size()), text);
    std::string text(16384, '\0');
    seed(to, "clients", text.substr(0, tarn_client_list_save(&clients, text.data(), text.size())));
    seed(to, "hosts", text.substr(0, tarn_host_list_save(&hosts, text.data(), text.size())));
}

void stored_texts() {
    const std::string hex(64, '7');
    seed("fuzz_stored_texts", "password", "tarnglider-pw1 " + hex.substr(32) + " 65536 3 " + hex);
    seed("fuzz_stored_texts", "host_id", std::string("4294967295 \r\n"));
}

// A frame of each verb and of its reply, and a settings record.
void ipc_frames() {
    using namespace host_service;
    const char *to = "fuzz_ipc_frames";
    for (uint16_t number = 1; number <= 33; number++) {
        const Verb verb{number};
        for (const bytes &payload :
             {bytes(), bytes{30, 0, 0, 0}, bytes(32, 'k'), encode_settings(Settings())}) {
            const bytes frame = encode_request({verb, payload});
            if (frame.empty()) continue;
            const std::string name = std::to_string(number) + "_" + std::to_string(payload.size());
            seed(to, "request_" + name, frame);
            seed(to, "reply_" + name, encode_response(verb, Status::denied, "text"));
        }
    }
    seed(to, "settings", encode_settings(Settings()));
}

// What the reassembler's fuzzer reads: packets behind their lengths, and 0xFFFF where it pops.
struct stream {
    bytes out;
    unsigned lose; // every n-th packet stays away, so that parity has work
    unsigned count;

    void length(size_t len) {
        out.push_back(static_cast<uint8_t>(len));
        out.push_back(static_cast<uint8_t>(len >> 8));
    }
    static void append(void *context, const uint8_t *packet, size_t len) {
        stream *s = static_cast<stream *>(context);
        s->count++;
        if (s->lose != 0 && s->count % s->lose == 0) return;
        s->length(len);
        s->out.insert(s->out.end(), packet, packet + len);
    }
};

void video() {
    // name, packet size, parity in percent, frame size, which packet is lost
    using row = std::tuple<const char *, size_t, int, size_t, unsigned>;
    for (const auto &[name, packet_size, percent, frame_size, lose] :
         {row{"one_shard", 300, 0, 100, 0}, row{"parity", 60, 50, 200, 4},
          row{"too_much_lost", 60, 10, 200, 3}, row{"two_groups", 43, 20, 70, 8}}) {
        stream to = {{}, lose, 0};
        tarn_packetizer *packetizer = tarn_packetizer_create(packet_size, percent, 0);
        if (packetizer == nullptr) give_up("no packetizer");
        for (uint32_t id = 1; id <= 3; id++) {
            const tarn_frame_info info = {id, 1, id * 16667ull, 0};
            const bytes frame(frame_size, static_cast<uint8_t>(id));
            if (tarn_packetizer_send_frame(packetizer, 7, &info, frame.data(), frame.size(), stream::append,
                                           &to) < 0) {
                give_up("no packets");
            }
            if (id == 2) to.length(0xFFFF);
        }
        tarn_packetizer_destroy(packetizer);
        to.length(0xFFFF);
        seed("fuzz_reassembler", name, to.out);
        seed("fuzz_packets", std::string("video_") + name,
             bytes(to.out.begin() + 2, to.out.begin() + 2 + to.out[0] + 256 * to.out[1]));
    }
}

// Steps of the engines' fuzzers (engine_input.h): data, a flagged probe from elsewhere, a handshake and a rekey, time.
void engines() {
    const bytes probe = {2 | 8, TARN_PKT_PROBE, 1, 12, 1, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8};
    bytes session = {2, TARN_PKT_INPUT, 0, 3, 1, 2, 3, 6, 5, 20, 1, 1, TARN_PKT_DISCOVER, 0, 4, 1, 2, 3, 4};
    session.insert(session.end(), probe.begin(), probe.end());
    for (const char *fuzzer : {"fuzz_host", "fuzz_client"}) {
        seed(fuzzer, "session", session);
        seed(fuzzer, "reject", bytes{1 | 16, TARN_PKT_HS_REJECT, 0, 1, 2});
        seed(fuzzer, "silence", bytes{7, 250, 250, 2, TARN_PKT_INPUT, 0, 0, 7, 250, 250});
    }
    seed("fuzz_host", "rekey", bytes{3, 4 | 0x80, 1, 2, TARN_PKT_INPUT, 0, 0, 7, 21, 250, 3, 4 | 0x80, 1, 6});
    seed("fuzz_client", "rekey",
         bytes{4, 7, 1, 1, 3, 7, 1, 1, 4, 2 | 0x80, TARN_PKT_INPUT, 0, 0, 7, 21, 250});
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) give_up("usage: make_corpus DIR");
    root = argv[1];
    for (const packet_row &row : packet_rows())
        seed("fuzz_packets", "packet_" + std::to_string(row.type), row.golden);
    handshake("fuzz_packets");
    rendezvous_messages();
    relays();
    lists();
    stored_texts();
    ipc_frames();
    video();
    engines();
    std::printf("%d seeds\n", written);
    return 0;
}
