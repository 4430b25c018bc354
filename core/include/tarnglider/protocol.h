/* The packet codec: the 8-byte header of every datagram, the packet numbers, and the plain packets' encoders
 * and decoders. Pure functions over buffers of the caller: no state, no allocation, no lock; any thread.
 *
 * On the wire all integers are little-endian and packed; offsets below count from the start of the packet. A
 * record in memory has the fields of its packet in the same order, with natural alignment.
 *
 * Encoders: destination buffer, its capacity, a header of which `flags` and `session` are used (the type is
 * the encoder's own, but for tarn_encode_header and tarn_encode_u32_packet), then the fields. They return the
 * packet's length, or 0 on any failure: a null pointer, too small a buffer, a field out of range. After a 0
 * the buffer's bytes mean nothing.
 *
 * Decoders: packet, its length, output records. They return 0, or -1 for a null argument, a packet too short,
 * a wrong magic, version or type, or a field out of range; after a -1 the outputs mean nothing. A sealed
 * packet is opened first (tarn_open), since version 2 is refused here. Bytes behind the last field are
 * ignored, except in the chunk-bearing types, where everything behind the fixed part is the chunk. A chunk is
 * handed back as a pointer into the caller's packet, with its length; either of these two out-pointers may be
 * null. */
#ifndef TARNGLIDER_PROTOCOL_H
#define TARNGLIDER_PROTOCOL_H

#include <stddef.h>
#include <stdint.h>

#include <tarnglider/api.h>

TARN_BEGIN_DECLS

/* Common header: 0 u8 magic, 1 u8 version, 2 u8 type, 3 u8 flags, 4 u32 session. */
enum { TARN_MAGIC = 0x50, TARN_VERSION_PLAIN = 1, TARN_VERSION_SEALED = 2, TARN_HEADER_SIZE = 8 };

/* Packet types. 1 to 79 are session traffic, 80 to 95 the secure channel's control range, 96 to 111
 * rendezvous (TARN_RV_* in <tarnglider/rendezvous.h>). Numbers without a name are unassigned. */
enum {
    TARN_PKT_HELLO = 1,
    TARN_PKT_HELLO_ACK = 2,
    TARN_PKT_PING = 3,
    TARN_PKT_PONG = 4,
    TARN_PKT_CLIENT_STATS = 6,
    TARN_PKT_VALUE_A = 7,
    TARN_PKT_DISCOVER = 9,
    TARN_PKT_DISCOVER_REPLY = 10,
    TARN_PKT_AUDIO_CONTROL = 11,
    TARN_PKT_CLIPBOARD = 12,
    TARN_PKT_CLIPBOARD_ACK = 13,
    TARN_PKT_PAIR_BACK = 14,
    TARN_PKT_PAIR_BACK_ACK = 15,
    TARN_PKT_VIDEO_SHARD = 16,
    TARN_PKT_CURSOR_POS = 32,
    TARN_PKT_CURSOR_SHAPE = 33,
    TARN_PKT_VALUE_B = 34,
    TARN_PKT_INPUT = 48,
    TARN_PKT_MOUSE_ABS = 49,
    TARN_PKT_VALUE_C = 50,
    TARN_PKT_AUDIO = 64,
    /* The secure channel and the engines build these themselves. */
    TARN_PKT_PAIR_INIT = 80,
    TARN_PKT_PAIR_RESP = 81,
    TARN_PKT_PAIR_CONFIRM = 82,
    TARN_PKT_PAIR_DONE = 83,
    TARN_PKT_PAIR_FAIL = 84,
    TARN_PKT_HOST_QUERY = 85,
    TARN_PKT_HOST_INFO = 86,
    TARN_PKT_HS_INIT = 88,
    TARN_PKT_HS_RESP = 89,
    TARN_PKT_HS_REJECT = 90,
    TARN_PKT_PROBE = 91,
    TARN_PKT_PROBE_ACK = 92,
    TARN_PKT_REKEY = 93,
    TARN_PKT_REKEY_ACK = 94
};

/* Sizes of whole packets, or of their fixed part where a name, list or chunk follows. */
enum {
    TARN_HELLO_SIZE = 41,     /* as encoded */
    TARN_HELLO_MIN_SIZE = 39, /* as accepted: older senders lack the last two fields */
    TARN_HELLO_ACK_SIZE = 22,
    TARN_PING_SIZE = 20,
    TARN_PONG_SIZE = 28,
    TARN_CLIENT_STATS_SIZE = 32,
    TARN_U32_PACKET_SIZE = 12,
    TARN_DISCOVER_SIZE = 12,
    TARN_DISCOVER_REPLY_SIZE = 24,
    TARN_AUDIO_CONTROL_SIZE = 9,
    TARN_CLIPBOARD_HEADER = 21,
    TARN_CLIPBOARD_ACK_SIZE = 14,
    TARN_PAIR_BACK_SIZE = 12,
    TARN_PAIR_BACK_ACK_SIZE = 9,
    TARN_VIDEO_SHARD_HEADER = 42,
    TARN_CURSOR_POS_SIZE = 16,
    TARN_CURSOR_SHAPE_HEADER = 28,
    TARN_INPUT_SIZE = 13,
    TARN_INPUT_EVENT_SIZE = 12,
    TARN_MOUSE_ABS_SIZE = 16,
    TARN_AUDIO_HEADER = 20,
    TARN_HOST_QUERY_SIZE = 64,
    TARN_HOST_INFO_SIZE = 70,
    TARN_PROBE_SIZE = 20,
    TARN_REKEY_SIZE = 12
};

/* Limits of the variable parts. */
enum {
    TARN_PKT_NAME_MAX = 63, /* bytes of a name; in memory a NUL follows */
    TARN_INPUT_MAX = 64,
    TARN_CLIPBOARD_RANGES_MAX = 64,
    TARN_PAIR_BACK_WORDS_MAX = 4,
    TARN_CLIENT_STATS_WORDS = 6,
    TARN_CLIPBOARD_TOTAL_MAX = 0x1000000 /* 16 MiB, the largest blob */
};

/* Host query, 64 bytes exactly: 8 u32 nonce, the rest 0, padded so that an answer is hardly longer than the
 * question. Host info: 8 u32 nonce, 12 u8 flags (below), 13 u32 argon2_blocks, 17 u32 argon2_passes, 21
 * salt[16], 37 host public key[32], 69 u8 name_len (at most 63), 70 name; nothing may follow. */
enum {
    TARN_HOST_INFO_PIN_OPEN = 1,       /* PIN pairing is open */
    TARN_HOST_INFO_PASSWORD = 2,       /* a password is set */
    TARN_HOST_INFO_PASSWORD_LOCKED = 4 /* password pairing is locked now */
};

/* Flag of TARN_PKT_PROBE: sent on the path now in use. Probe: 8 u32 seq, 12 u64 time; its ack is the same 20
 * bytes with the type replaced and flags 0. Rekey and its ack: 8 u32 logical session id. */
enum { TARN_PROBE_CURRENT = 1 };

typedef struct tarn_header {
    uint8_t type;
    uint8_t flags;
    uint32_t session; /* 0 where no session applies */
} tarn_header;

/* Writes the 8 bytes, version 1, with the header's own type. Returns 8, or 0. */
TARN_API size_t tarn_encode_header(uint8_t *buffer, size_t capacity, const tarn_header *header);
/* Checks length, magic and version 1, whatever the type. `header` may be null: then it only validates. */
TARN_API int tarn_decode_header(const uint8_t *packet, size_t length, tarn_header *header);

/* TARN_PKT_HELLO. The letters mean what the worker and client programs make of them, here and below. */
typedef struct tarn_hello {
    uint8_t hello_id[16];
    uint16_t hello_a;
    uint16_t hello_b;
    uint16_t hello_c;
    uint32_t hello_d;
    uint16_t hello_e;
    uint8_t hello_f;
    uint8_t hello_g;
    uint8_t hello_h;
    uint8_t hello_i; /* 0 when the packet has under 40 bytes */
    uint8_t hello_j; /* 0 when the packet has under 41 bytes */
} tarn_hello;

/* Always writes 41 bytes, while the decoder takes 39 or more. */
TARN_API size_t tarn_encode_hello(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                  const tarn_hello *hello);
TARN_API int tarn_decode_hello(const uint8_t *packet, size_t length, tarn_hello *hello);

/* TARN_PKT_HELLO_ACK, 22 bytes. */
typedef struct tarn_hello_ack {
    uint8_t status; /* 3: this host requires the secure handshake */
    uint8_t ack_a;
    uint16_t ack_b;
    uint16_t ack_c;
    uint16_t ack_d;
    uint16_t ack_e;
    uint32_t ack_f;
} tarn_hello_ack;

TARN_API size_t tarn_encode_hello_ack(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                      const tarn_hello_ack *ack);
TARN_API int tarn_decode_hello_ack(const uint8_t *packet, size_t length, tarn_hello_ack *ack);

/* TARN_PKT_PING (20 bytes), TARN_PKT_PONG (28 bytes) and, without time2, TARN_PKT_AUDIO. */
typedef struct tarn_ping {
    uint32_t seq;
    uint64_t time;  /* the sender's clock; a pong echoes it */
    uint64_t time2; /* the answerer's clock, in a pong only */
} tarn_ping;

TARN_API size_t tarn_encode_ping(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                 const tarn_ping *ping);
TARN_API size_t tarn_encode_pong(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                 const tarn_ping *ping);
/* Reads both types; `time2` is 0 after a ping. */
TARN_API int tarn_decode_ping(const uint8_t *packet, size_t length, tarn_ping *ping);

/* TARN_PKT_CLIENT_STATS, 32 bytes: six words in order. */
TARN_API size_t tarn_encode_client_stats(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                         const uint32_t words[6]);
TARN_API int tarn_decode_client_stats(const uint8_t *packet, size_t length, uint32_t words[6]);

/* TARN_PKT_VALUE_A, TARN_PKT_VALUE_B and TARN_PKT_VALUE_C, 12 bytes. The encoder takes the type from the
 * header and returns 0 for any other; the decoder takes all three, so the caller reads the type by
 * tarn_decode_header. */
TARN_API size_t tarn_encode_u32_packet(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                       uint32_t value);
TARN_API int tarn_decode_u32_packet(const uint8_t *packet, size_t length, uint32_t *value);

/* TARN_PKT_DISCOVER, 12 bytes. */
TARN_API size_t tarn_encode_discover(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                     uint32_t nonce);
TARN_API int tarn_decode_discover(const uint8_t *packet, size_t length, uint32_t *nonce);

/* TARN_PKT_DISCOVER_REPLY, 24 + name_len bytes. */
typedef struct tarn_discover_reply {
    uint32_t nonce;
    uint32_t reply_a;
    uint16_t reply_b;
    uint16_t reply_c;
    uint16_t reply_d;
    uint8_t reply_e;
    uint8_t name_len; /* at most 63; the encoder cuts a longer one */
    char name[64];    /* the decoder puts a NUL behind name_len bytes */
} tarn_discover_reply;

TARN_API size_t tarn_encode_discover_reply(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                           const tarn_discover_reply *reply);
TARN_API int tarn_decode_discover_reply(const uint8_t *packet, size_t length, tarn_discover_reply *reply);

/* TARN_PKT_AUDIO_CONTROL and TARN_PKT_PAIR_BACK_ACK, 9 bytes: one byte, written as 1 for any non-zero
 * argument, read as it stands. */
TARN_API size_t tarn_encode_audio_control(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                          int on);
TARN_API int tarn_decode_audio_control(const uint8_t *packet, size_t length, uint8_t *on);
TARN_API size_t tarn_encode_pair_back_ack(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                          int ok);
TARN_API int tarn_decode_pair_back_ack(const uint8_t *packet, size_t length, uint8_t *ok);

/* TARN_PKT_CLIPBOARD, 21 bytes and the chunk: one piece of a blob. */
typedef struct tarn_clipboard_chunk {
    uint32_t id; /* transfer number */
    uint8_t kind;
    uint32_t total;  /* bytes of the whole blob, 1 to 16 MiB */
    uint32_t offset; /* where this chunk belongs; the chunk ends at `total` or before */
} tarn_clipboard_chunk;

/* `data` is copied in; it may be null only with data_size 0. Encoder and decoder both refuse a total out of
 * range and a chunk that reaches beyond it. */
TARN_API size_t tarn_encode_clipboard(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                      const tarn_clipboard_chunk *info, const uint8_t *data,
                                      size_t data_size);
TARN_API int tarn_decode_clipboard(const uint8_t *packet, size_t length, tarn_clipboard_chunk *info,
                                   const uint8_t **data, size_t *data_size);

/* TARN_PKT_CLIPBOARD_ACK, 14 + 8 x count bytes: the state of a transfer and the byte ranges it speaks of. */
typedef struct tarn_clipboard_range {
    uint32_t start;
    uint32_t length;
} tarn_clipboard_range;

typedef struct tarn_clipboard_ack {
    uint32_t id;
    uint8_t status;
    uint8_t count; /* ranges that follow, at most 64; both directions refuse more */
    tarn_clipboard_range ranges[64];
} tarn_clipboard_ack;

TARN_API size_t tarn_encode_clipboard_ack(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                          const tarn_clipboard_ack *ack);
/* Ranges behind `count` are left as they were. */
TARN_API int tarn_decode_clipboard_ack(const uint8_t *packet, size_t length, tarn_clipboard_ack *ack);

/* TARN_PKT_PAIR_BACK, 12 + 4 x count + name_len bytes. */
typedef struct tarn_pair_back {
    uint16_t back_value;
    uint8_t count; /* words, at most 4; both directions refuse more */
    uint32_t back_words[4];
    uint8_t name_len; /* at most 63; the encoder cuts a longer one */
    char name[64];    /* the decoder puts a NUL behind name_len bytes */
} tarn_pair_back;

TARN_API size_t tarn_encode_pair_back(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                      const tarn_pair_back *back);
/* Words behind `count` are left as they were. */
TARN_API int tarn_decode_pair_back(const uint8_t *packet, size_t length, tarn_pair_back *back);

/* TARN_PKT_VIDEO_SHARD, 42 bytes and the shard. The packetizer builds these packets. */
typedef struct tarn_video_shard {
    uint32_t frame_id;
    uint16_t group; /* index of the group in the frame */
    uint16_t group_count;
    uint8_t shard; /* index in the group, data shards first */
    uint8_t data_shards;
    uint8_t parity_shards;
    uint8_t frame_flags;
    uint16_t shard_size;
    uint32_t frame_size;
    uint32_t group_offset; /* byte offset in the frame of the group's first shard */
    uint64_t frame_time;
    uint32_t frame_aux;
} tarn_video_shard;

/* `data_size` becomes length - 42. No field is judged here, not even shard_size: the reassembler does that.
 */
TARN_API int tarn_decode_video_shard(const uint8_t *packet, size_t length, tarn_video_shard *info,
                                     const uint8_t **data, size_t *data_size);

/* TARN_PKT_CURSOR_POS, 16 bytes. */
TARN_API size_t tarn_encode_cursor_pos(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                       uint16_t x, uint16_t y, uint32_t shape_id);
TARN_API int tarn_decode_cursor_pos(const uint8_t *packet, size_t length, uint16_t *x, uint16_t *y,
                                    uint32_t *shape_id);

/* TARN_PKT_CURSOR_SHAPE, 28 bytes and a chunk of the image, 4 bytes a pixel. */
typedef struct tarn_cursor_shape {
    uint32_t shape_id;
    uint16_t width;
    uint16_t height;
    uint16_t hot_x;
    uint16_t hot_y;
    uint32_t total;  /* bytes of the whole image: width x height x 4 */
    uint32_t offset; /* where this chunk belongs; the chunk ends at `total` or before */
} tarn_cursor_shape;

/* The encoder trusts the fields; the decoder refuses a total that isn't width x height x 4 and a chunk that
 * reaches beyond it. `data` may be null only with data_size 0. */
TARN_API size_t tarn_encode_cursor_shape(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                         const tarn_cursor_shape *info, const uint8_t *data,
                                         size_t data_size);
TARN_API int tarn_decode_cursor_shape(const uint8_t *packet, size_t length, tarn_cursor_shape *info,
                                      const uint8_t **data, size_t *data_size);

/* One event of TARN_PKT_INPUT, 12 bytes on the wire and in memory. */
typedef struct tarn_input_event {
    uint8_t event_type;
    uint8_t event_flags;
    uint16_t event_code;
    uint32_t event_a;
    uint32_t event_b;
} tarn_input_event;

/* TARN_PKT_INPUT, 13 + 12 x count bytes; count is 0 to 64, and `events` may be null only with 0. */
TARN_API size_t tarn_encode_input(uint8_t *buffer, size_t capacity, const tarn_header *header, uint32_t seq,
                                  const tarn_input_event *events, int count);
/* `events` has room for 64; those behind `count` are left as they were. All outputs are required. */
TARN_API int tarn_decode_input(const uint8_t *packet, size_t length, uint32_t *seq,
                               tarn_input_event events[64], int *count);

/* TARN_PKT_MOUSE_ABS, 16 bytes. */
TARN_API size_t tarn_encode_mouse_abs(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                      uint32_t seq, uint16_t x, uint16_t y);
TARN_API int tarn_decode_mouse_abs(const uint8_t *packet, size_t length, uint32_t *seq, uint16_t *x,
                                   uint16_t *y);

/* TARN_PKT_AUDIO, 20 bytes and the audio. `time2` is not sent, and 0 when read. `data` may be null only with
 * data_size 0. */
TARN_API size_t tarn_encode_audio(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                  const tarn_ping *info, const uint8_t *data, size_t data_size);
TARN_API int tarn_decode_audio(const uint8_t *packet, size_t length, tarn_ping *info, const uint8_t **data,
                               size_t *data_size);

TARN_END_DECLS

#endif
