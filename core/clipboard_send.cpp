// Clipboard transfer, sending side. All state is under the send lock; packets go out with it released.
//
//   state    holds                            left by
//   idle     active 0                         an offer
//   sending  active 1, waiting 0, ranges      the last range done: waiting
//   waiting  active 1, waiting 1, next_poll   an answer that lists gaps: sending, one pass more
//
// From sending and waiting: delivered, rejected, superseded, session changed, 2 minutes over; from waiting also
// 5 seconds without an answer. All lead to idle with a line of the log.
#include <string.h>

#include "clipboard_internal.h"

static constexpr uint64_t transfer_limit_us = 120 * 1000000; // whatever the progress
static constexpr uint32_t answer_limit_s = 5;
static constexpr uint64_t poll_us = 100 * 1000; // beyond the round trip of most paths

static uint32_t packet_size(const tarn_clip *clip) {
    if (clip->max_packet < clip_packet_min) return clip_packet_min;
    return clip->max_packet > clip_packet_max ? clip_packet_max : static_cast<uint32_t>(clip->max_packet);
}
static uint32_t chunk_size(const tarn_clip *clip) { return packet_size(clip) - TARN_CLIPBOARD_HEADER; }

// The last chunk on the blob's grid. Since it ends where the blob ends, it asks for an answer.
static clip_range tail_chunk(const tarn_clip *clip) {
    const uint32_t chunk = chunk_size(clip);
    const uint32_t offset = (clip->size - 1) / chunk * chunk;
    return {offset, clip->size - offset};
}

static void drop(tarn_clip *clip, clip_garbage *garbage) {
    clip->active = 0;
    garbage->take(clip->data);
}

uint32_t tarn_clip_offer(tarn_clip *clip, uint8_t kind, const uint8_t *data, size_t size) {
    if (!clip || !data || size == 0) return 0;
    const uint32_t limit = clip_kind_limit(kind);
    if (size > limit) {
        clip_log(clip, "clipboard: not sending %s of %zu B (limit %u B)", clip_kind_name(kind), size, limit);
        return 0;
    }
    auto *copy = static_cast<uint8_t *>(malloc(size));
    if (!copy) return 0;
    memcpy(copy, data, size);

    clip_garbage garbage;
    const conn_guard held(&clip->send_lock);
    if (clip->session == 0) {
        garbage.take(copy);
        return 0;
    }
    if (clip->active) {
        clip_log(clip, "clipboard: #%u superseded before it was acknowledged", clip->id);
        drop(clip, &garbage);
    }
    if (++clip->last_id == 0) clip->last_id = 1;
    clip->active = 1;
    clip->id = clip->last_id;
    clip->kind = kind;
    clip->data = copy;
    clip->size = static_cast<uint32_t>(size);
    clip->waiting = 0;
    clip->ranges[0] = {0, clip->size};
    clip->range_count = 1;
    clip->range_index = 0;
    clip->range_pos = 0;
    clip->passes = 1;
    clip->started_us = clip->wait_since_us = clip->last_offer_us = clip_now();
    clip_log(clip, "clipboard: sending #%u %s, %zu B", clip->id, clip_kind_name(kind), size);
    conn_cond_wake(&clip->wake);
    return clip->id;
}

void clip_send_session(tarn_clip *clip, uint32_t session, uint64_t max_packet) {
    clip_garbage garbage;
    const conn_guard held(&clip->send_lock);
    if (clip->session == session && clip->max_packet == max_packet) return;
    if (clip->active) {
        clip_log(clip, "clipboard: #%u dropped (session %s)", clip->id, session != 0 ? "changed" : "ended");
        drop(clip, &garbage);
    }
    clip->session = session;
    clip->max_packet = max_packet;
    conn_cond_wake(&clip->wake);
}

// The ranges of an answer become those of the next pass. They are the peer's word: each is cut to the blob. The pass
// has to end with a question, so it gets the tail unless it ends there anyway.
static void take_ranges(tarn_clip *clip, const tarn_clipboard_ack *ack) {
    uint32_t end = 0;
    int count = 0;
    for (int i = 0; i < ack->count; i++) {
        const uint32_t start = ack->ranges[i].start;
        if (start >= clip->size || ack->ranges[i].length == 0) continue;
        const uint32_t rest = clip->size - start;
        const uint32_t length = ack->ranges[i].length < rest ? ack->ranges[i].length : rest;
        clip->ranges[count++] = {start, length};
        end = start + length;
    }
    if (end != clip->size) clip->ranges[count++] = tail_chunk(clip);
    clip->range_count = count;
    clip->range_index = 0;
    clip->range_pos = 0;
}

void clip_receive_ack(tarn_clip *clip, uint32_t session, const uint8_t *packet, size_t length) {
    tarn_clipboard_ack ack;
    if (tarn_decode_clipboard_ack(packet, length, &ack) != 0) return;
    clip_garbage garbage;
    const conn_guard held(&clip->send_lock);
    if (clip->session == 0 || session != clip->session || !clip->active || ack.id != clip->id) return;
    const uint64_t now = clip_now();
    if (ack.status == TARN_CLIP_COMPLETE) {
        clip_log(clip, "clipboard: #%u %s, %u B delivered in %.0f ms (%d pass%s)", clip->id,
                 clip_kind_name(clip->kind), clip->size, clip_ms(clip->started_us, now), clip->passes,
                 clip->passes == 1 ? "" : "es");
        drop(clip, &garbage);
    } else if (ack.status == TARN_CLIP_MISSING) {
        if (!clip->waiting) return; // what it lists may be on its way
        take_ranges(clip, &ack);
        clip->wait_since_us = now;
        clip->passes++;
        clip->waiting = 0;
    } else {
        clip_log(clip, "clipboard: #%u %s, %u B rejected by the peer", clip->id, clip_kind_name(clip->kind),
                 clip->size);
        drop(clip, &garbage);
    }
    conn_cond_wake(&clip->wake);
}

namespace {
// What the thread does next with the lock released: wait, or send a packet and free a blob, of which either may be
// missing.
struct step {
    uint32_t wait_ms = 0;
    size_t packet_len = 0;
    clip_garbage garbage;
    uint8_t packet[clip_packet_max];
};
} // namespace

static void encode(const tarn_clip *clip, clip_range range, step *next) {
    const tarn_header header = {TARN_PKT_CLIPBOARD, 0, clip->session};
    const tarn_clipboard_chunk info = {clip->id, clip->kind, clip->size, range.offset};
    next->packet_len = tarn_encode_clipboard(next->packet, sizeof next->packet, &header, &info,
                                             clip->data + range.offset, range.length);
}

static void wait_for_answer(tarn_clip *clip, uint64_t now, step *next) {
    if (now - clip->wait_since_us >= answer_limit_s * uint64_t{1000000}) {
        clip_log(clip, "clipboard: #%u %s, %u B: no answer for %u s, gave up", clip->id,
                 clip_kind_name(clip->kind), clip->size, answer_limit_s);
        drop(clip, &next->garbage);
        return;
    }
    if (now < clip->next_poll_us) {
        next->wait_ms = static_cast<uint32_t>((clip->next_poll_us - now + 999) / 1000);
        return;
    }
    encode(clip, tail_chunk(clip), next); // the last one was lost, or its answer
    clip->next_poll_us = now + poll_us;
}

// Milliseconds, rounded up and at least one, until the bucket holds a packet; 0 if it does.
static uint32_t refill(tarn_clip *clip, uint64_t now) {
    const uint32_t packet = packet_size(clip);
    const double rate = clip->config.rate;
    const double most = clip_burst + packet;
    clip->tokens += static_cast<double>(now - clip->tokens_us) * rate / 1e6;
    clip->tokens_us = now;
    if (clip->tokens > most) clip->tokens = most;
    if (clip->tokens >= packet) return 0;
    const double exact = (packet - clip->tokens) * 1e3 / rate; // above 0, below 1.5 million even at 1 B/s
    const auto whole = static_cast<uint32_t>(exact);
    return whole < exact ? whole + 1 : whole;
}

static void skip_finished(tarn_clip *clip) {
    while (clip->range_index < clip->range_count &&
           clip->range_pos == clip->ranges[clip->range_index].length) {
        clip->range_index++;
        clip->range_pos = 0;
    }
}

static void send_ranges(tarn_clip *clip, uint64_t now, step *next) {
    next->wait_ms = refill(clip, now);
    if (next->wait_ms > 0) return;
    skip_finished(clip);
    if (clip->range_index < clip->range_count) {
        const clip_range range = clip->ranges[clip->range_index];
        const uint32_t rest = range.length - clip->range_pos;
        const uint32_t take = rest < chunk_size(clip) ? rest : chunk_size(clip);
        encode(clip, {range.offset + clip->range_pos, take}, next);
        clip->tokens -= static_cast<double>(next->packet_len);
        clip->range_pos += take;
        skip_finished(clip);
    }
    if (clip->range_index < clip->range_count) return;
    clip->waiting = 1;
    clip->wait_since_us = now;
    clip->next_poll_us = now + poll_us;
}

static void decide(tarn_clip *clip, step *next) {
    const uint64_t now = clip_now();
    if (!clip->active || clip->session == 0) {
        next->wait_ms = conn_wait_forever;
    } else if (now - clip->started_us > transfer_limit_us) {
        clip_log(clip, "clipboard: #%u %s, %u B: gave up after %d passes in 2 min", clip->id,
                 clip_kind_name(clip->kind), clip->size, clip->passes);
        drop(clip, &next->garbage);
    } else if (clip->waiting) {
        wait_for_answer(clip, now, next);
    } else {
        send_ranges(clip, now, next);
    }
}

void clip_worker(void *arg) {
    auto *clip = static_cast<tarn_clip *>(arg);
    conn_lock_acquire(&clip->send_lock);
    while (!clip->stop) {
        step next;
        decide(clip, &next);
        if (next.wait_ms > 0) {
            conn_cond_wait(&clip->wake, &clip->send_lock, next.wait_ms);
            continue;
        }
        conn_lock_release(&clip->send_lock);
        if (next.packet_len > 0) clip->config.send(clip->config.context, next.packet, next.packet_len);
        next.garbage.free_now();
        conn_lock_acquire(&clip->send_lock);
    }
    conn_lock_release(&clip->send_lock);
}
