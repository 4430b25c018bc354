/* Clipboard transfer: carries blobs whole over sealed datagrams that may be lost, one at a time in each
 * direction. One object stands at each end of a session; either end may offer.
 *
 * The sender cuts a blob into TARN_PKT_CLIPBOARD chunks and sends them at a limited rate on a thread of the
 * object's own. A chunk that ends at the end of the blob asks for an answer, a TARN_PKT_CLIPBOARD_ACK, which
 * lists what is missing; the next pass sends that and asks again. The question is repeated every 100 ms. A
 * transfer is given up 5 s after the last answer, or 2 minutes after it began. The newest offer always wins:
 * nothing is queued.
 *
 * The object knows neither the system's clipboard nor sealing: it emits and takes plain packets, which the
 * caller seals and opens. Failures end in a line of the log and nothing more.
 *
 * Threads: every function but create and destroy may be called from any thread at any time. No callback may
 * call back into the same object, except `deliver`. */
#ifndef TARNGLIDER_CLIPBOARD_H
#define TARNGLIDER_CLIPBOARD_H

#include <stddef.h>
#include <stdint.h>

#include <tarnglider/api.h>

TARN_BEGIN_DECLS

/* Kinds of blobs. */
enum {
    TARN_CLIP_TEXT = 1, /* UTF-8 by convention of the two programs; not looked at here */
    TARN_CLIP_PNG = 2
};

/* Largest blob of each kind, in bytes. */
enum { TARN_CLIP_TEXT_MAX = 0x100000, TARN_CLIP_PNG_MAX = 0x1000000 };

/* Status of an acknowledgement. */
enum {
    TARN_CLIP_COMPLETE = 0, /* the blob is whole */
    TARN_CLIP_MISSING = 1,  /* the listed ranges haven't arrived */
    TARN_CLIP_REJECTED = 2  /* too large, of an unknown kind, or there is no memory for it */
};

typedef struct tarn_clip_config {
    /* Required. Takes one plain packet of at most 1472 bytes, valid only during the call; a failure to send it
     * needs no word, it is repaired like a loss. May be called from two threads at once: the object's own and
     * the one in tarn_clip_receive. */
    void (*send)(void *context, const uint8_t *packet, size_t len);
    /* Optional. Takes a whole blob, on the thread in tarn_clip_receive, with no lock held; `data` becomes the
     * receiver's, who returns it with tarn_clip_free. `id` is the peer's number of the transfer. */
    void (*deliver)(void *context, uint32_t id, uint8_t kind, uint8_t *data, size_t size);
    /* Optional. Takes one finished sentence, cut to 255 bytes; from any thread that is in the object. */
    void (*log)(void *context, const char *text);
    void *context; /* first argument of all three */
    uint32_t rate; /* bytes of packets a second, behind a burst of some 16 KiB; 0 means 5000000 */
} tarn_clip_config;

typedef struct tarn_clip tarn_clip;

/* Makes an object without a session and starts its thread; the configuration is copied.
 * Returns null if `config` or its `send` is null, or if memory or the thread fails. */
TARN_API tarn_clip *tarn_clip_create(const tarn_clip_config *config);

/* Ends the thread, waits for it, and frees everything, blobs under way included. No other call may be running;
 * not from a callback. Accepts null. */
TARN_API void tarn_clip_destroy(tarn_clip *clip);

/* Tells of the session and of the largest plain packet on its path; call it at each change of either.
 *   session     the word of the packet headers; 0 for none, which stops everything
 *   max_packet  bytes, see tarn_path_payload; what is sent stays between 37 and 1472 bytes
 * A change of either drops what is under way in both directions and forgets the peer's last number. */
TARN_API void tarn_clip_set_session(tarn_clip *clip, uint32_t session, size_t max_packet);

/* Sends a blob to the peer, in place of one that is still on its way.
 *   kind  TARN_CLIP_TEXT or TARN_CLIP_PNG
 *   data  `size` bytes, 1 to the limit of the kind; copied before the function returns
 * Returns the number of the transfer, which counts from 1 and passes over 0 when it wraps; 0 if nothing will be
 * sent (no session, a bad argument, no memory). */
TARN_API uint32_t tarn_clip_offer(tarn_clip *clip, uint8_t kind, const uint8_t *data, size_t size);

/* Takes one opened packet of any type and content; may call `send`, `deliver` and `log` before it returns. A
 * blob that was under way when something was offered here is acknowledged but not delivered: the user's newer
 * copy stands.
 * Returns 1 if it is a clipboard packet, whatever became of it; 0 for any other, which the caller goes on
 * with. */
TARN_API int tarn_clip_receive(tarn_clip *clip, const uint8_t *packet, size_t length);

/* Frees a blob that `deliver` was given. Accepts null. */
TARN_API void tarn_clip_free(uint8_t *data);

TARN_END_DECLS

#endif
