// One engine on the bench: what it sends, logs and reports is collected, and the other side is played by hand with the
// library's handshake and record layer. Buffers handed to an engine are exactly as large as they must be, so that the
// address sanitizer sees one byte too many.
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
    p.insert(p.end(), body.begin(), body.end());
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

// An event as text: its kind, and each field that isn't as a fresh event has it. A key is shown by its code, "key=?" when
// key and key id don't belong together.
inline std::string show(const conn_event &e) {
    std::string out = std::to_string(e.kind);
    const auto add = [&](const char *name, const std::string &value) {
        out += std::string(" ") + name + "=" + value;
    };
    if (e.detail != 0) add("detail", std::to_string(e.detail));
    if (e.method != 0) add("method", std::to_string(e.method));
    if (e.path != 0) add("path", std::to_string(e.path));
    if (e.server != -1) add("server", std::to_string(e.server));
    if (e.session != 0) add("session", hex8(e.session));
    if (e.rtt_us != 0) add("rtt", std::to_string(e.rtt_us));
    if (e.addr.family != 0) add("addr", text(e.addr));
    static const uint8_t zero[32] = {};
    uint8_t id[TARN_KEY_ID_SIZE];
    tarn_key_id(id, e.key);
    if (memcmp(e.key, zero, 32) != 0)
        add("key", memcmp(id, e.key_id, sizeof id) == 0 ? code_of(e.key) : "?");
    else if (memcmp(e.key_id, zero, 16) != 0)
        add("key", "?");
    if (e.name[0] != '\0') add("name", e.name);
    return out;
}

// A host's refusal of a handshake.
inline bytes reject_packet(uint8_t reason) { return {0x50, 1, 90, 0, 0, 0, 0, 0, reason}; }

inline bool all_zero(const void *p, size_t n) {
    const bytes zero(n);
    return memcmp(p, zero.data(), n) == 0;
}

// A hostile datagram: a replay, one of `unseen` damaged or cut, or any bytes behind a fair beginning.
inline bytes hostile(test_random &random, const std::vector<bytes> &replays,
                     const std::vector<bytes> &unseen) {
    const uint64_t kind = random.below(4);
    if (kind == 0) return replays[random.below(replays.size())];
    bytes p = unseen[random.below(unseen.size())];
    if (kind == 1) p[random.below(p.size())] ^= static_cast<uint8_t>(1u << random.below(8));
    if (kind == 2) p.resize(random.below(2) ? random.below(p.size()) : p.size() + 1 + random.below(9));
    if (kind < 3) return p;
    p.resize(8 + random.below(150));
    random.fill(p.data(), p.size());
    p[0] = TARN_MAGIC;
    p[1] = static_cast<uint8_t>(1 + random.below(2));
    if (p[2] <= TARN_PKT_DISCOVER_REPLY) p[2] = TARN_PKT_HS_RESP; // what a caller would get to see
    return p;
}

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
    std::vector<sent_packet> take() { return std::exchange(sent, {}); }
    texts take_log() { return std::exchange(log, {}); }

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
        config.identity = key;
        config.send = on_send;
        config.log = on_log;
        config.user = static_cast<engine_rig *>(this);
        if (tweak) tweak(config);
        tarn_client_list list = {};
        for (int i = 1; i <= trusted; i++) {
            const tarn_keypair client = test_key(static_cast<uint8_t>(i));
            tarn_client_list_add(&list, client.public_key, ("client " + std::to_string(i)).c_str());
        }
        h = tarn_host_create(&config, &list, nullptr);
    }
    ~host_rig() { tarn_host_destroy(h); }
    received receive(const bytes &pkt, const tarn_addr &from) {
        return give(h, tarn_host_receive, pkt, from);
    }
    texts events() { return drain(h, tarn_host_poll_event); }
};

struct client_rig : engine_rig {
    tarn_keypair key = test_key(1);
    tarn_client *c = nullptr;

    explicit client_rig(const std::function<void(tarn_client_config &)> &tweak = nullptr) {
        tarn_client_config config = {};
        config.identity = key;
        config.send = on_send;
        config.log = on_log;
        config.user = static_cast<engine_rig *>(this);
        config.host_key_known = 1;
        memcpy(config.host_key, test_key(200).public_key, 32);
        if (tweak) tweak(config);
        c = tarn_client_create(&config);
    }
    ~client_rig() { tarn_client_destroy(c); }
    received receive(const bytes &pkt, const tarn_addr &from) {
        return give(c, tarn_client_receive, pkt, from);
    }
    texts events() { return drain(c, tarn_client_poll_event); }
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
