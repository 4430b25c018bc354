// One clipboard transfer object: a sending side and a receiving side, each with a lock and fields of its own. The
// receive lock comes before the send lock, and only for a look at last_offer_us. Blobs are freed outside both.
#ifndef TARN_CLIPBOARD_INTERNAL_H
#define TARN_CLIPBOARD_INTERNAL_H

#include <stdlib.h>

#include <tarnglider/clipboard.h>
#include <tarnglider/clock.h>
#include <tarnglider/protocol.h>

#include "threads_internal.h"

// printf-like, in the dialect of the C library that is linked.
#if defined(__MINGW32__)
#define CLIP_PRINTF(at, first) __attribute__((format(gnu_printf, at, first)))
#else
#define CLIP_PRINTF(at, first) __attribute__((format(printf, at, first)))
#endif

constexpr uint32_t clip_packet_min = 37;   // 16 bytes of a blob
constexpr uint32_t clip_packet_max = 1472; // UDP payload of a 1500-byte IPv4 datagram
constexpr uint32_t clip_burst = 16384;     // bytes that may go out at once, behind them a packet
constexpr int clip_ranges_max = TARN_CLIPBOARD_RANGES_MAX + 1; // what an answer lists, and the tail

struct clip_range {
    uint32_t offset;
    uint32_t length;
};

struct tarn_clip {
    tarn_clip_config config; // not changed after create
    conn_thread thread;

    conn_lock send_lock; // guards all up to tokens_us
    conn_cond wake;      // the thread: an offer, an answer, a change of session, the end
    uint32_t stop;
    uint32_t session; // 0 for none
    uint64_t max_packet;
    uint32_t last_id;
    uint32_t active; // a blob is being sent, and the fields up to next_poll_us are its own
    uint32_t id;
    uint8_t kind;
    uint8_t *data;
    uint32_t size;
    uint32_t waiting;                   // 0: sending the ranges of a pass; 1: waiting for its answer
    clip_range ranges[clip_ranges_max]; // of this pass, none of them empty
    int32_t range_count;
    int32_t range_index;
    uint32_t range_pos;     // bytes done in the current range
    int32_t passes;         // counts from 1
    uint64_t started_us;    // the offer
    uint64_t wait_since_us; // start of the wait
    uint64_t next_poll_us;  // when the tail is sent again
    uint64_t last_offer_us; // the newest offer made here, done or not
    double tokens;          // rate bucket, in bytes
    uint64_t tokens_us;

    conn_lock receive_lock; // guards the rest
    uint32_t rx_session;
    uint64_t rx_max_packet;
    uint32_t rx_active; // a blob is coming in, and the fields up to rx_started_us are its own
    uint32_t rx_id;
    uint8_t rx_kind;
    uint32_t rx_size;
    uint32_t rx_have;   // bytes received so far, each counted once
    uint8_t *rx_data;   // rx_size bytes
    uint8_t *rx_bitmap; // a bit for each byte of the blob; those behind its end stay 0
    uint64_t rx_started_us;
    uint32_t done_valid; // the last transfer that came to an end is remembered
    uint32_t done_id;
    uint32_t done_status;
};

inline uint64_t clip_now() { return static_cast<uint64_t>(tarn_now_us()); }

// Numbers of transfers wrap: negative if `a` is older than `b`.
inline int32_t clip_order(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b); }

inline double clip_ms(uint64_t from_us, uint64_t to_us) {
    return static_cast<double>(to_us - from_us) / 1000.0;
}

// Takes blobs out of a record under its lock and frees them at its own end; stands before the guard of the lock.
class clip_garbage {
public:
    clip_garbage() = default;
    ~clip_garbage() { free_now(); }
    clip_garbage(const clip_garbage &) = delete;
    clip_garbage &operator=(const clip_garbage &) = delete;

    void take(uint8_t *&blob) {
        if (blob) blobs_[count_++] = blob;
        blob = nullptr;
    }
    void free_now() {
        while (count_ > 0)
            free(blobs_[--count_]);
    }

private:
    uint8_t *blobs_[4]; // a chunk may replace one blob with its bitmap and complete another
    int count_ = 0;
};

void clip_log(const tarn_clip *clip, const char *format, ...) CLIP_PRINTF(2, 3);
const char *clip_kind_name(uint8_t kind);
uint32_t clip_kind_limit(uint8_t kind); // 0 for an unknown kind

// Sending side (clipboard_send.cpp). The first is the body of the thread.
void clip_worker(void *clip);
void clip_receive_ack(tarn_clip *clip, uint32_t session, const uint8_t *packet, size_t length);
void clip_send_session(tarn_clip *clip, uint32_t session, uint64_t max_packet);

// Receiving side (clipboard_receive.cpp).
void clip_receive_chunk(tarn_clip *clip, uint32_t session, const uint8_t *packet, size_t length);
void clip_receive_session(tarn_clip *clip, uint32_t session, uint64_t max_packet);

#endif
