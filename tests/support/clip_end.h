// One end of a clipboard transfer: the object with callbacks that collect what comes out, and packets as
// text. What is fed lies in a block of exactly its size, so that the address sanitizer sees one byte too
// many.
#ifndef TEST_CLIP_END_H
#define TEST_CLIP_END_H

#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include <tarnglider/clipboard.h>
#include <tarnglider/protocol.h>

#include "support/hex_bytes.h"
#include "support/seeded_random.h"

using texts = std::vector<std::string>;
using ranges = std::vector<std::pair<uint32_t, uint32_t>>; // start, length

inline bytes pattern(size_t size, uint64_t seed = 1) {
    bytes b(size);
    test_random(seed).fill(b.data(), size);
    return b;
}
inline bytes clip_chunk(uint32_t id, uint8_t kind, uint32_t total, uint32_t offset, const bytes &data,
                        uint32_t session = 7) {
    const tarn_header header = {0, 0, session};
    const tarn_clipboard_chunk info = {id, kind, total, offset};
    bytes out(TARN_CLIPBOARD_HEADER + data.size());
    out.resize(tarn_encode_clipboard(out.data(), out.size(), &header, &info, data.data(), data.size()));
    return out;
}
inline bytes clip_ack(uint32_t id, uint8_t status, const ranges &list = {}, uint32_t session = 7) {
    const tarn_header header = {0, 0, session};
    tarn_clipboard_ack ack = {};
    ack.id = id;
    ack.status = status;
    for (const auto &r : list)
        ack.ranges[ack.count++] = {r.first, r.second};
    bytes out(526);
    out.resize(tarn_encode_clipboard_ack(out.data(), out.size(), &header, &ack));
    return out;
}

// "#1 0+16" for a chunk, "#1 status 1: 0+16 32+4" for an answer.
inline std::string clip_show(const bytes &p) {
    tarn_clipboard_chunk c;
    tarn_clipboard_ack a;
    size_t size;
    const auto number = [](uint32_t v) { return std::to_string(v); };
    if (tarn_decode_clipboard(p.data(), p.size(), &c, nullptr, &size) == 0)
        return "#" + number(c.id) + " " + number(c.offset) + "+" + std::to_string(size);
    if (tarn_decode_clipboard_ack(p.data(), p.size(), &a) != 0) return "?";
    std::string out = "#" + number(a.id) + " status " + number(a.status);
    for (int i = 0; i < a.count; i++)
        out += (i ? " " : ": ") + number(a.ranges[i].start) + "+" + number(a.ranges[i].length);
    return out;
}
inline texts clip_show(const std::vector<bytes> &packets) {
    texts out;
    for (const bytes &p : packets)
        out.push_back(clip_show(p));
    return out;
}

struct clip_end {
    struct blob {
        uint32_t id;
        uint8_t kind;
        bytes data;
    };
    tarn_clip_config config = {on_send, on_deliver, on_log, this, 0};
    tarn_clip *clip = nullptr;
    std::function<void(const bytes &)> sending;   // also called with each packet
    std::function<void(const blob &)> delivering; // and with each blob

    // No session if it is 0.
    explicit clip_end(uint32_t session = 7, size_t max_packet = 1176, uint32_t rate = 0) {
        config.rate = rate;
        clip = tarn_clip_create(&config);
        if (session != 0) tarn_clip_set_session(clip, session, max_packet);
    }
    ~clip_end() { tarn_clip_destroy(clip); }
    clip_end(const clip_end &) = delete;
    clip_end &operator=(const clip_end &) = delete;

    uint32_t offer(const bytes &data, uint8_t kind = TARN_CLIP_TEXT) {
        return tarn_clip_offer(clip, kind, data.data(), data.size());
    }
    int feed(const bytes &packet) {
        const bytes exact(packet);
        return tarn_clip_receive(clip, exact.data(), exact.size());
    }
    std::vector<bytes> packets() { return take(sent_); }
    texts shown() { return clip_show(packets()); }
    texts log() { return take(log_); }
    std::vector<blob> delivered() { return take(delivered_); }

private:
    template <class List>
    List take(List &list) {
        const std::lock_guard held(lock_);
        return std::exchange(list, {});
    }
    static clip_end *self(void *context) { return static_cast<clip_end *>(context); }
    static void on_send(void *context, const uint8_t *packet, size_t len) {
        const bytes copy(packet, packet + len);
        if (self(context)->sending) self(context)->sending(copy);
        const std::lock_guard held(self(context)->lock_);
        self(context)->sent_.push_back(copy);
    }
    static void on_deliver(void *context, uint32_t id, uint8_t kind, uint8_t *data, size_t size) {
        const blob got = {id, kind, bytes(data, data + size)};
        tarn_clip_free(data);
        if (self(context)->delivering) self(context)->delivering(got);
        const std::lock_guard held(self(context)->lock_);
        self(context)->delivered_.push_back(got);
    }
    static void on_log(void *context, const char *text) {
        const std::lock_guard held(self(context)->lock_);
        self(context)->log_.push_back(text);
    }

    std::mutex lock_;
    std::vector<bytes> sent_;
    texts log_;
    std::vector<blob> delivered_;
};

#endif
