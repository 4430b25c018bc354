// Both sides of a clipboard transfer against any sequence of packets, sessions, offers and pauses, on the settable
// clock. Input: steps of an operation byte and what it needs; a packet is a clipboard packet's type, session and body.
#include <tarnglider/clipboard.h>
#include <tarnglider/protocol.h>

#include "clipboard_internal.h"
#include "engine_input.h"
#include "support/virtual_threads.h"

namespace {

void on_send(void *, const uint8_t *packet, size_t len) {
    must(len >= TARN_CLIPBOARD_ACK_SIZE && len <= clip_packet_max);
    tarn_clipboard_chunk chunk;
    tarn_clipboard_ack ack;
    must(tarn_decode_clipboard(packet, len, &chunk, nullptr, nullptr) == 0 ||
         tarn_decode_clipboard_ack(packet, len, &ack) == 0);
}

void on_deliver(void *, uint32_t, uint8_t kind, uint8_t *data, size_t size) {
    must(size >= 1 && size <= clip_kind_limit(kind));
    volatile uint8_t sum = 0;
    for (size_t i = 0; i < size; i++)
        sum = static_cast<uint8_t>(sum + data[i]);
    tarn_clip_free(data);
}

void on_log(void *, const char *text) { must(strncmp(text, "clipboard: ", 11) == 0 && strlen(text) < 255); }

// What holds between any two calls.
void check(const tarn_clip *clip) {
    must((clip->active != 0) == (clip->data != nullptr));
    must(clip->range_index <= clip->range_count && clip->range_count <= clip_ranges_max);
    must((clip->rx_active != 0) == (clip->rx_data != nullptr) &&
         (clip->rx_data != nullptr) == (clip->rx_bitmap != nullptr));
    if (!clip->rx_active) return;
    uint32_t marked = 0;
    for (uint32_t i = 0; i < (clip->rx_size + 7) / 8; i++)
        marked += static_cast<uint32_t>(__builtin_popcount(clip->rx_bitmap[i]));
    must(marked == clip->rx_have && marked < clip->rx_size);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const tarn_clip_config config = {on_send, on_deliver, on_log, nullptr, 0};
    virtual_clock::reset();
    tarn_clip *clip = tarn_clip_create(&config);
    must(clip != nullptr);
    tarn_clip_set_session(clip, 1, 100);
    engine_input in = {data, size};
    while (in.left > 0) {
        const uint8_t op = in.u8();
        if (op < 128) {
            bytes p = plain(op % 2 ? TARN_PKT_CLIPBOARD : TARN_PKT_CLIPBOARD_ACK);
            p[4] = op / 2 % 8 > 0; // mostly the session
            const bytes body = in.take(in.u8());
            p.insert(p.end(), body.begin(), body.end());
            const bytes exact(p);
            must(tarn_clip_receive(clip, exact.data(), exact.size()) == 1);
        } else if (op < 160) {
            const bytes p = in.take(in.u8());
            tarn_clip_receive(clip, p.data(), p.size());
        } else if (op < 192) {
            const bytes blob(1 + in.u8() * size_t{8}, op);
            must(tarn_clip_offer(clip, static_cast<uint8_t>(1 + op % 2), blob.data(), blob.size()) != 0 ||
                 clip->session == 0);
        } else if (op < 224) {
            virtual_threads::advance(int64_t{in.u8()} * 1000);
        } else {
            tarn_clip_set_session(clip, op < 252, in.u8());
        }
        virtual_threads::settle();
        check(clip);
    }
    tarn_clip_destroy(clip);
    must(virtual_threads::running() == 0);
    return 0;
}
