// The plain packets of a session's set-up and upkeep: header, hello, pings, single values, discovery, pairing
// back. Pure functions; any thread.
#include <tarnglider/protocol.h>

#include "protocol_internal.h"

static uint8_t name_size(uint8_t name_len) {
    return name_len < TARN_PKT_NAME_MAX ? name_len : uint8_t{TARN_PKT_NAME_MAX};
}

static void read_name(byte_reader &r, uint8_t name_len, char name[64]) {
    if (name_len > TARN_PKT_NAME_MAX) {
        r.fail();
        return;
    }
    r.bytes(name, name_len);
    name[name_len] = 0;
}

static bool is_u32_type(uint8_t type) {
    return type == TARN_PKT_VALUE_A || type == TARN_PKT_VALUE_B || type == TARN_PKT_VALUE_C;
}

static size_t encode_u32(uint8_t *buffer, size_t capacity, const tarn_header *header, uint8_t type,
                         uint32_t value) {
    byte_writer w = packet_start(buffer, capacity, header, type, TARN_U32_PACKET_SIZE);
    w.u32(value);
    return w.size();
}

static int decode_u32(const uint8_t *packet, size_t length, uint8_t type, uint32_t *value) {
    byte_reader r = packet_open(packet, length, type, TARN_U32_PACKET_SIZE);
    if (!r.ok() || !value) return -1;
    *value = r.u32();
    return 0;
}

static size_t encode_bool(uint8_t *buffer, size_t capacity, const tarn_header *header, uint8_t type, int on) {
    byte_writer w = packet_start(buffer, capacity, header, type, TARN_AUDIO_CONTROL_SIZE);
    w.u8(on != 0 ? 1 : 0);
    return w.size();
}

static int decode_bool(const uint8_t *packet, size_t length, uint8_t type, uint8_t *on) {
    byte_reader r = packet_open(packet, length, type, TARN_AUDIO_CONTROL_SIZE);
    if (!r.ok() || !on) return -1;
    *on = r.u8();
    return 0;
}

size_t tarn_encode_header(uint8_t *buffer, size_t capacity, const tarn_header *header) {
    return packet_start(buffer, capacity, header, header ? header->type : uint8_t{0}, TARN_HEADER_SIZE)
        .size();
}

int tarn_decode_header(const uint8_t *packet, size_t length, tarn_header *header) {
    if (!packet || length < TARN_HEADER_SIZE) return -1;
    if (packet[0] != TARN_MAGIC || packet[1] != TARN_VERSION_PLAIN) return -1;
    if (header) *header = {packet[2], packet[3], get_u32(packet + 4)};
    return 0;
}

size_t tarn_encode_hello(uint8_t *buffer, size_t capacity, const tarn_header *header,
                         const tarn_hello *hello) {
    if (!hello) return 0;
    byte_writer w = packet_start(buffer, capacity, header, TARN_PKT_HELLO, TARN_HELLO_SIZE);
    w.bytes(hello->hello_id, sizeof hello->hello_id);
    w.u16(hello->hello_a);
    w.u16(hello->hello_b);
    w.u16(hello->hello_c);
    w.u32(hello->hello_d);
    w.u16(hello->hello_e);
    w.u8(hello->hello_f);
    w.u8(hello->hello_g);
    w.u8(hello->hello_h);
    w.u8(hello->hello_i);
    w.u8(hello->hello_j);
    return w.size();
}

int tarn_decode_hello(const uint8_t *packet, size_t length, tarn_hello *hello) {
    byte_reader r = packet_open(packet, length, TARN_PKT_HELLO, TARN_HELLO_MIN_SIZE);
    if (!r.ok() || !hello) return -1;
    r.bytes(hello->hello_id, sizeof hello->hello_id);
    hello->hello_a = r.u16();
    hello->hello_b = r.u16();
    hello->hello_c = r.u16();
    hello->hello_d = r.u32();
    hello->hello_e = r.u16();
    hello->hello_f = r.u8();
    hello->hello_g = r.u8();
    hello->hello_h = r.u8();
    // Older senders stop here or one byte on; a reader beyond its end gives 0, which is what the absence
    // means.
    hello->hello_i = r.u8();
    hello->hello_j = r.u8();
    return 0;
}

size_t tarn_encode_hello_ack(uint8_t *buffer, size_t capacity, const tarn_header *header,
                             const tarn_hello_ack *ack) {
    if (!ack) return 0;
    byte_writer w = packet_start(buffer, capacity, header, TARN_PKT_HELLO_ACK, TARN_HELLO_ACK_SIZE);
    w.u8(ack->status);
    w.u8(ack->ack_a);
    w.u16(ack->ack_b);
    w.u16(ack->ack_c);
    w.u16(ack->ack_d);
    w.u16(ack->ack_e);
    w.u32(ack->ack_f);
    return w.size();
}

int tarn_decode_hello_ack(const uint8_t *packet, size_t length, tarn_hello_ack *ack) {
    byte_reader r = packet_open(packet, length, TARN_PKT_HELLO_ACK, TARN_HELLO_ACK_SIZE);
    if (!r.ok() || !ack) return -1;
    ack->status = r.u8();
    ack->ack_a = r.u8();
    ack->ack_b = r.u16();
    ack->ack_c = r.u16();
    ack->ack_d = r.u16();
    ack->ack_e = r.u16();
    ack->ack_f = r.u32();
    return 0;
}

size_t tarn_encode_ping(uint8_t *buffer, size_t capacity, const tarn_header *header, const tarn_ping *ping) {
    if (!ping) return 0;
    byte_writer w = packet_start(buffer, capacity, header, TARN_PKT_PING, TARN_PING_SIZE);
    w.u32(ping->seq);
    w.u64(ping->time);
    return w.size();
}

size_t tarn_encode_pong(uint8_t *buffer, size_t capacity, const tarn_header *header, const tarn_ping *ping) {
    if (!ping) return 0;
    byte_writer w = packet_start(buffer, capacity, header, TARN_PKT_PONG, TARN_PONG_SIZE);
    w.u32(ping->seq);
    w.u64(ping->time);
    w.u64(ping->time2);
    return w.size();
}

int tarn_decode_ping(const uint8_t *packet, size_t length, tarn_ping *ping) {
    tarn_header header;
    if (tarn_decode_header(packet, length, &header) != 0) return -1;
    const bool pong = header.type == TARN_PKT_PONG;
    byte_reader r = pong ? packet_open(packet, length, TARN_PKT_PONG, TARN_PONG_SIZE)
                         : packet_open(packet, length, TARN_PKT_PING, TARN_PING_SIZE);
    if (!r.ok() || !ping) return -1;
    ping->seq = r.u32();
    ping->time = r.u64();
    ping->time2 = pong ? r.u64() : 0;
    return 0;
}

size_t tarn_encode_client_stats(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                const uint32_t words[6]) {
    if (!words) return 0;
    byte_writer w = packet_start(buffer, capacity, header, TARN_PKT_CLIENT_STATS, TARN_CLIENT_STATS_SIZE);
    for (int i = 0; i < TARN_CLIENT_STATS_WORDS; i++)
        w.u32(words[i]);
    return w.size();
}

int tarn_decode_client_stats(const uint8_t *packet, size_t length, uint32_t words[6]) {
    byte_reader r = packet_open(packet, length, TARN_PKT_CLIENT_STATS, TARN_CLIENT_STATS_SIZE);
    if (!r.ok() || !words) return -1;
    for (int i = 0; i < TARN_CLIENT_STATS_WORDS; i++)
        words[i] = r.u32();
    return 0;
}

size_t tarn_encode_u32_packet(uint8_t *buffer, size_t capacity, const tarn_header *header, uint32_t value) {
    if (!header || !is_u32_type(header->type)) return 0;
    return encode_u32(buffer, capacity, header, header->type, value);
}

int tarn_decode_u32_packet(const uint8_t *packet, size_t length, uint32_t *value) {
    tarn_header header;
    if (tarn_decode_header(packet, length, &header) != 0 || !is_u32_type(header.type)) return -1;
    return decode_u32(packet, length, header.type, value);
}

size_t tarn_encode_discover(uint8_t *buffer, size_t capacity, const tarn_header *header, uint32_t nonce) {
    return encode_u32(buffer, capacity, header, TARN_PKT_DISCOVER, nonce);
}

int tarn_decode_discover(const uint8_t *packet, size_t length, uint32_t *nonce) {
    return decode_u32(packet, length, TARN_PKT_DISCOVER, nonce);
}

size_t tarn_encode_discover_reply(uint8_t *buffer, size_t capacity, const tarn_header *header,
                                  const tarn_discover_reply *reply) {
    if (!reply) return 0;
    const uint8_t name_len = name_size(reply->name_len);
    byte_writer w = packet_start(buffer, capacity, header, TARN_PKT_DISCOVER_REPLY,
                                 size_t{TARN_DISCOVER_REPLY_SIZE} + name_len);
    w.u32(reply->nonce);
    w.u32(reply->reply_a);
    w.u16(reply->reply_b);
    w.u16(reply->reply_c);
    w.u16(reply->reply_d);
    w.u8(reply->reply_e);
    w.u8(name_len);
    w.bytes(reply->name, name_len);
    return w.size();
}

int tarn_decode_discover_reply(const uint8_t *packet, size_t length, tarn_discover_reply *reply) {
    byte_reader r = packet_open(packet, length, TARN_PKT_DISCOVER_REPLY, TARN_DISCOVER_REPLY_SIZE);
    if (!r.ok() || !reply) return -1;
    reply->nonce = r.u32();
    reply->reply_a = r.u32();
    reply->reply_b = r.u16();
    reply->reply_c = r.u16();
    reply->reply_d = r.u16();
    reply->reply_e = r.u8();
    reply->name_len = r.u8();
    read_name(r, reply->name_len, reply->name);
    return r.ok() ? 0 : -1;
}

size_t tarn_encode_audio_control(uint8_t *buffer, size_t capacity, const tarn_header *header, int on) {
    return encode_bool(buffer, capacity, header, TARN_PKT_AUDIO_CONTROL, on);
}

int tarn_decode_audio_control(const uint8_t *packet, size_t length, uint8_t *on) {
    return decode_bool(packet, length, TARN_PKT_AUDIO_CONTROL, on);
}

size_t tarn_encode_pair_back_ack(uint8_t *buffer, size_t capacity, const tarn_header *header, int ok) {
    return encode_bool(buffer, capacity, header, TARN_PKT_PAIR_BACK_ACK, ok);
}

int tarn_decode_pair_back_ack(const uint8_t *packet, size_t length, uint8_t *ok) {
    return decode_bool(packet, length, TARN_PKT_PAIR_BACK_ACK, ok);
}

size_t tarn_encode_pair_back(uint8_t *buffer, size_t capacity, const tarn_header *header,
                             const tarn_pair_back *back) {
    if (!back || back->count > TARN_PAIR_BACK_WORDS_MAX) return 0;
    const uint8_t name_len = name_size(back->name_len);
    byte_writer w = packet_start(buffer, capacity, header, TARN_PKT_PAIR_BACK,
                                 TARN_PAIR_BACK_SIZE + size_t{4} * back->count + name_len);
    w.u16(back->back_value);
    w.u8(back->count);
    for (int i = 0; i < back->count; i++)
        w.u32(back->back_words[i]);
    w.u8(name_len);
    w.bytes(back->name, name_len);
    return w.size();
}

int tarn_decode_pair_back(const uint8_t *packet, size_t length, tarn_pair_back *back) {
    byte_reader r = packet_open(packet, length, TARN_PKT_PAIR_BACK, TARN_PAIR_BACK_SIZE);
    if (!r.ok() || !back) return -1;
    back->back_value = r.u16();
    back->count = r.u8();
    if (back->count > TARN_PAIR_BACK_WORDS_MAX) return -1;
    for (int i = 0; i < back->count; i++)
        back->back_words[i] = r.u32();
    back->name_len = r.u8();
    read_name(r, back->name_len, back->name);
    return r.ok() ? 0 : -1;
}
