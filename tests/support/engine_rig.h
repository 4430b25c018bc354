// One engine on the bench: what it sends, logs and reports is collected, and the other side is played by hand
// with the library's handshake and record layer. Buffers handed to an engine are exactly as large as they
// must be, so that the address sanitizer sees one byte too many.
#ifndef TEST_ENGINE_RIG_H
#define TEST_ENGINE_RIG_H

#include <string.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <tarnglider/conn_client.h>
#include <tarnglider/conn_host.h>
#include <tarnglider/protocol.h>

#include "support/seeded_random.h"

using bytes = std::vector<uint8_t>;
using texts = std::vector<std::string>;

inline tarn_addr ep(const char *text) {
    tarn_addr a;
    tarn_addr_parse(&a, text, 0);
    return a;
}
inline std::string text(const tarn_addr &a) {
    char buf[64];
    tarn_addr_format(buf, sizeof buf, &a);
    return buf;
}
inline std::string hex8(uint32_t value) {
    char buf[9];
    snprintf(buf, sizeof buf, "%08x", value);
    return buf;
}
inline std::string code_of(const uint8_t key[32]) {
    char buf[TARN_KEY_CODE_TEXT];
    tarn_key_code(buf, key);
    return buf;
}
inline tarn_keypair test_key(uint8_t number) {
    uint8_t secret[32];
    memset(secret, number, sizeof secret);
    tarn_keypair key;
    tarn_keypair_from_secret(&key, secret);
    return key;
}
// A plain packet: header and body.
inline bytes plain(uint8_t type, const bytes &body = {}, uint8_t flags = 0) {
    bytes p = {TARN_MAGIC, TARN_VERSION_PLAIN, type, flags, 0, 0, 0, 0};
    for (uint8_t byte : body)
        p.push_back(byte);
    return p;
}
inline bytes le32(uint32_t v) {
    return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 24)};
}
inline bytes seal(tarn_session &keys, const bytes &packet) {
    bytes out(packet.size() + TARN_SEAL_OVERHEAD);
    out.resize(tarn_seal(&keys, packet.data(), packet.size(), out.data(), out.size()));
    return out;
}
// Empty if the packet doesn't open.
inline bytes open(tarn_session &keys, const bytes &packet) {
    bytes out(packet.size());
    size_t size = 0;
    tarn_open(&keys, packet.data(), packet.size(), out.data(), out.size(), &size);
    out.resize(size);
    return out;
}

inline bool all_zero(const void *p, size_t n) {
    const bytes zero(n);
    return memcmp(p, zero.data(), n) == 0;
}

// An event as text: its kind, and each field that isn't as a fresh event has it. A key is shown by its code,
// "key=?" when key and key id don't belong together.
inline std::string show(const conn_event &e) {
    std::string out = std::to_string(e.kind);
    const auto add = [&](bool set, const char *name, const std::string &value) {
        if (set) out += std::string(" ") + name + "=" + value;
    };
    add(e.detail != 0, "detail", std::to_string(e.detail));
    add(e.method != 0, "method", std::to_string(e.method));
    add(e.path != 0, "path", std::to_string(e.path));
    add(e.server != -1, "server", std::to_string(e.server));
    add(e.session != 0, "session", hex8(e.session));
    add(e.rtt_us != 0, "rtt", std::to_string(e.rtt_us));
    add(e.addr.family != 0, "addr", text(e.addr));
    uint8_t id[TARN_KEY_ID_SIZE];
    tarn_key_id(id, e.key);
    const bool keyless = all_zero(e.key, 32) && all_zero(e.key_id, 16);
    add(!keyless, "key", memcmp(id, e.key_id, sizeof id) == 0 ? code_of(e.key) : "?");
    add(e.name[0] != '\0', "name", e.name);
    return out;
}

// A host's refusal of a handshake.
inline bytes reject_packet(uint8_t reason) { return {0x50, 1, 90, 0, 0, 0, 0, 0, reason}; }

struct received {
    int result;
    bytes data;
    tarn_recv_info info;
};

// The callbacks' side of an engine.
struct engine_rig {
    struct sent_packet {
        tarn_addr to;
        bytes data;
    };
    std::vector<sent_packet> sent;
    texts log;
    std::function<void(const tarn_addr &, const bytes &)> wire; // instead of `sent`, when set

    engine_rig() = default;
    engine_rig(const engine_rig &) = delete;
    engine_rig &operator=(const engine_rig &) = delete;
    virtual ~engine_rig() = default;
    virtual texts events() { return {}; }
    std::vector<sent_packet> take() { return std::exchange(sent, {}); }
    texts take_log() { return std::exchange(log, {}); }
    // What was logged, and then the events.
    texts told() {
        texts all = take_log();
        for (const std::string &event : events())
            all.push_back(event);
        return all;
    }
    // Nothing was sent, logged or reported.
    bool quiet() {
        const bool sent_none = take().empty();
        return told().empty() && sent_none;
    }

    static void on_send(void *user, const tarn_addr *to, const uint8_t *data, size_t len) {
        engine_rig *rig = static_cast<engine_rig *>(user);
        const bytes copy(data, data + len);
        if (rig->wire)
            rig->wire(*to, copy);
        else
            rig->sent.push_back({*to, copy});
    }
    static void on_log(void *user, const char *line) { static_cast<engine_rig *>(user)->log.push_back(line); }

protected:
    template <class Config>
    void fill(Config &config, const tarn_keypair &key) {
        config.identity = key;
        config.send = on_send;
        config.log = on_log;
        config.user = this;
    }
    template <class Engine, class Call>
    static received give(Engine *engine, Call call, const bytes &pkt, const tarn_addr &from) {
        const bytes copy(pkt);
        bytes out(pkt.size() < 24 ? 0 : pkt.size() - 24);
        size_t len = 12345;
        received r = {0, {}, {9, 9, 9}};
        r.result = call(engine, copy.data(), copy.size(), &from, out.data(), out.size(), &len, &r.info);
        if (len <= out.size())
            r.data.assign(out.data(), out.data() + len);
        else
            r.result = -1; // more than there is room for, or not set at all
        return r;
    }
    template <class Engine, class Poll>
    static texts drain(Engine *engine, Poll poll) {
        texts all;
        for (conn_event e; poll(engine, &e);)
            all.push_back(show(e));
        return all;
    }
};

struct host_rig : engine_rig {
    tarn_keypair key = test_key(200);
    tarn_host *h = nullptr;

    // Trusts the keys test_key(1) to test_key(trusted), named "client 1" and so on.
    explicit host_rig(int trusted = 1, const std::function<void(tarn_host_config &)> &tweak = nullptr) {
        tarn_host_config config = {};
        fill(config, key);
        if (tweak) tweak(config);
        tarn_client_list list = {};
        for (int i = 1; i <= trusted; i++) {
            const tarn_keypair client = test_key(static_cast<uint8_t>(i));
            tarn_client_list_add(&list, client.public_key, ("client " + std::to_string(i)).c_str());
        }
        h = tarn_host_create(&config, &list, nullptr);
    }
    ~host_rig() override { tarn_host_destroy(h); }
    received receive(const bytes &pkt, const tarn_addr &from) {
        return give(h, tarn_host_receive, pkt, from);
    }
    texts events() override { return drain(h, tarn_host_poll_event); }
    int tick() { return tarn_host_tick(h); }
    size_t seal_for(uint32_t session, const bytes &p, bytes &out, tarn_addr *to = nullptr) {
        return tarn_host_seal(h, session, p.data(), p.size(), out.data(), out.size(), to);
    }
};

struct client_rig : engine_rig {
    tarn_keypair key = test_key(1);
    tarn_client *c = nullptr;

    explicit client_rig(const std::function<void(tarn_client_config &)> &tweak = nullptr) {
        tarn_client_config config = {};
        fill(config, key);
        config.host_key_known = 1;
        memcpy(config.host_key, test_key(200).public_key, 32);
        if (tweak) tweak(config);
        c = tarn_client_create(&config);
    }
    ~client_rig() override { tarn_client_destroy(c); }
    received receive(const bytes &pkt, const tarn_addr &from) {
        return give(c, tarn_client_receive, pkt, from);
    }
    texts events() override { return drain(c, tarn_client_poll_event); }
    int tick() { return tarn_client_tick(c); }
    size_t seal_for(uint32_t session, const bytes &p, bytes &out, tarn_addr *to = nullptr) {
        return tarn_client_seal(c, session, p.data(), p.size(), out.data(), out.size(), to);
    }
    tarn_client_status status() {
        tarn_client_status s;
        tarn_client_status_get(c, &s);
        return s;
    }
};

// A client played by hand: one handshake and its keys.
struct hand_client {
    tarn_keypair key;
    tarn_noise_ik noise = {};
    tarn_session keys = {};

    explicit hand_client(uint8_t number = 1) : key(test_key(number)) {}
    bytes start(const host_rig &host, uint64_t timestamp) {
        bytes init(TARN_HS_INIT_SIZE);
        size_t size = 0;
        tarn_hs_client_start(&noise, &key, host.key.public_key, timestamp, init.data(), init.size(), &size);
        return init;
    }
    bool finish(const bytes &response) {
        return tarn_hs_client_finish(&noise, response.data(), response.size(), &keys) == TARN_OK;
    }
    // The whole handshake; false if the host sends anything but one fitting response.
    bool shake(host_rig &host, const tarn_addr &from, uint64_t timestamp) {
        host.receive(start(host, timestamp), from);
        const auto sent = host.take();
        return sent.size() == 1 && text(sent[0].to) == text(from) && finish(sent[0].data);
    }
};

// A host played by hand: the answer to an init, and the keys that it leads to.
inline bytes hand_respond(const bytes &init, uint32_t id, tarn_session *keys, uint8_t host_number = 200) {
    const tarn_keypair key = test_key(host_number);
    tarn_noise_ik noise = {};
    uint8_t client[32];
    uint64_t timestamp;
    bytes response(TARN_HS_RESP_SIZE);
    size_t size = 0;
    if (tarn_hs_host_read(&noise, &key, init.data(), init.size(), client, &timestamp) != TARN_OK) return {};
    tarn_hs_host_respond(&noise, id, response.data(), response.size(), &size, keys);
    response.resize(size);
    return response;
}

#endif
