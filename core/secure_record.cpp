// The record layer: seals plain packets and opens sealed ones. Sealing changes nothing of a session but its counter,
// atomically, and so may run on many threads; opening moves the window and is serialised by the caller. No
// allocation, one AEAD pass for each packet.
//
// A sealed packet:
//    0      1  magic
//    1      1  version 2
//    2      1  type, from the plain packet
//    3      1  flags, from the plain packet
//    4      4  crypto session id
//    8      8  counter
//   16      n  the plain packet's bytes from offset 8, encrypted; the first 8 bytes are the associated data
//   16 + n 16  tag
#include "secure_internal.h"

#include "bytes_internal.h"

#include <tarnglider/protocol.h>

#include <atomic>
#include <string.h>

static constexpr size_t header_size = TARN_HEADER_SIZE;
static constexpr size_t tag_size = 16;
static constexpr size_t text_at = header_size + 8; // behind the counter
static_assert(TARN_SEAL_OVERHEAD == text_at + tag_size - header_size);
static_assert(TARN_SEALED_MIN == text_at + tag_size);

static constexpr uint64_t counter_end = uint64_t{1} << 60; // no counter from here on is ever used for sending
static constexpr uint64_t window = 2048;
static_assert(sizeof tarn_session{}.replay * 8 == window);

size_t tarn_seal(tarn_session *session, const uint8_t *plain, size_t plain_size, uint8_t *out,
                 size_t capacity) {
    if (plain_size < header_size || plain[0] != TARN_MAGIC || plain[1] != TARN_VERSION_PLAIN) return 0;
    if (capacity < TARN_SEAL_OVERHEAD || capacity - TARN_SEAL_OVERHEAD < plain_size) return 0;
    const uint64_t counter = std::atomic_ref<uint64_t>(session->send_counter).fetch_add(1);
    if (counter >= counter_end) return 0;

    uint8_t front[text_at] = {TARN_MAGIC, TARN_VERSION_SEALED, plain[2], plain[3]};
    put_u32(front + 4, session->id);
    put_u64(front + 8, counter);
    const size_t size = plain_size - header_size;
    uint8_t *text = out + text_at;
    memmove(text, plain + header_size, size); // before the header, which may overwrite the plain packet
    memcpy(out, front, sizeof front);
    tarn_aead_encrypt(session->send_key, counter, front, header_size, text, size, text, text + size);
    return plain_size + TARN_SEAL_OVERHEAD;
}

// ---- the window ----
// Bit c mod 2048 stands for counter c, for the 2048 counters below recv_next; the bits of counters from recv_next on
// mean nothing until the window moves over them.

static uint64_t *window_word(tarn_session *session, uint64_t counter) {
    return &session->replay[counter % window / 64];
}

static uint64_t window_bit(uint64_t counter) { return uint64_t{1} << counter % 64; }

static bool replayed(tarn_session *session, uint64_t counter) {
    if (counter >= session->recv_next) return false;
    if (session->recv_next - counter > window) return true;
    return (*window_word(session, counter) & window_bit(counter)) != 0;
}

// Moves the window so that `counter`, at or above recv_next, is its newest: every counter passed over becomes unseen.
static void advance(tarn_session *session, uint64_t counter) {
    uint64_t at = session->recv_next;
    uint64_t ahead = counter - at;
    session->recv_next = counter + 1;
    if (ahead >= window) {
        memset(session->replay, 0, sizeof session->replay);
        return;
    }
    for (ahead++; ahead > 0;) {
        const bool whole_word = at % 64 == 0 && ahead >= 64;
        const uint64_t step = whole_word ? 64 : 1;
        *window_word(session, at) &= whole_word ? 0 : ~window_bit(at);
        at += step;
        ahead -= step;
    }
}

int tarn_open(tarn_session *session, const uint8_t *packet, size_t size, uint8_t *out, size_t capacity,
              size_t *out_size) {
    *out_size = 0;
    if (size < TARN_SEALED_MIN || packet[0] != TARN_MAGIC || packet[1] != TARN_VERSION_SEALED) {
        return TARN_ERR_FORMAT;
    }
    if (capacity < size - TARN_SEAL_OVERHEAD) return TARN_ERR_SPACE;
    if (get_u32(packet + 4) != session->id) return TARN_ERR_SESSION;
    const uint64_t counter = get_u64(packet + header_size);
    if (replayed(session, counter)) return TARN_ERR_REPLAY;

    const size_t text_size = size - TARN_SEALED_MIN;
    uint8_t header[header_size], tag[tag_size];
    memcpy(header, packet, sizeof header);
    memcpy(tag, packet + text_at + text_size, sizeof tag);
    uint8_t *text = out + header_size;
    memmove(text, packet + text_at, text_size);
    if (tarn_aead_decrypt(session->recv_key, counter, header, sizeof header, text, text_size, tag, text)) {
        return TARN_ERR_AUTH; // the window hasn't moved: a forged counter can't close it
    }

    if (counter >= session->recv_next) advance(session, counter);
    *window_word(session, counter) |= window_bit(counter);
    header[1] = TARN_VERSION_PLAIN;
    memcpy(out, header, sizeof header);
    *out_size = size - TARN_SEAL_OVERHEAD;
    return TARN_OK;
}

void tarn_session_wipe(tarn_session *session) { crypto_wipe(session, sizeof *session); }
