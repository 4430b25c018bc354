// Clipboard transfer: the object's life, and the way of a packet or a session to its two sides.
#include <stdarg.h>
#include <stdio.h>

#include "clipboard_internal.h"

static constexpr uint32_t default_rate = 5000000; // 40 Mbit/s: leaves room beside video on a good home line

void clip_log(const tarn_clip *clip, const char *format, ...) {
    if (!clip->config.log) return;
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    clip->config.log(clip->config.context, text);
}

const char *clip_kind_name(uint8_t kind) {
    return kind == TARN_CLIP_TEXT ? "text" : kind == TARN_CLIP_PNG ? "PNG" : "?";
}

uint32_t clip_kind_limit(uint8_t kind) {
    return kind == TARN_CLIP_TEXT ? TARN_CLIP_TEXT_MAX : kind == TARN_CLIP_PNG ? TARN_CLIP_PNG_MAX : 0;
}

tarn_clip *tarn_clip_create(const tarn_clip_config *config) {
    if (!config || !config->send) return nullptr;
    auto *clip = static_cast<tarn_clip *>(calloc(1, sizeof(tarn_clip)));
    if (!clip) return nullptr;
    clip->config = *config;
    if (clip->config.rate == 0) clip->config.rate = default_rate;
    clip->tokens = clip_burst + clip_packet_max; // full; the first refill cuts it to the path's packet
    clip->tokens_us = clip_now();
    conn_lock_init(&clip->send_lock);
    conn_lock_init(&clip->receive_lock);
    conn_cond_init(&clip->wake);
    if (!conn_thread_start(&clip->thread, clip_worker, clip)) {
        free(clip);
        return nullptr;
    }
    return clip;
}

void tarn_clip_destroy(tarn_clip *clip) {
    if (!clip) return;
    {
        const conn_guard held(&clip->send_lock);
        clip->stop = 1;
        conn_cond_wake(&clip->wake);
    }
    conn_thread_join(&clip->thread);
    free(clip->data);
    free(clip->rx_data);
    free(clip->rx_bitmap);
    free(clip);
}

void tarn_clip_set_session(tarn_clip *clip, uint32_t session, size_t max_packet) {
    if (!clip) return;
    clip_send_session(clip, session, max_packet);
    clip_receive_session(clip, session, max_packet);
}

int tarn_clip_receive(tarn_clip *clip, const uint8_t *packet, size_t length) {
    tarn_header header;
    if (!clip || tarn_decode_header(packet, length, &header) != 0) return 0;
    if (header.type == TARN_PKT_CLIPBOARD) {
        clip_receive_chunk(clip, header.session, packet, length);
    } else if (header.type == TARN_PKT_CLIPBOARD_ACK) {
        clip_receive_ack(clip, header.session, packet, length);
    } else {
        return 0;
    }
    return 1;
}

void tarn_clip_free(uint8_t *data) { free(data); }
