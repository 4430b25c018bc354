// Cuts frames into packets. Data shards are read where they lie in the caller's frame, but for the last one,
// which gets its padding in a buffer; parity is computed right behind the room for its packet's fixed part.
// Everything is allocated at creation. One thread at a time.
#include <stdlib.h>
#include <string.h>

#include "bytes_internal.h"
#include "video_internal.h"

static constexpr size_t HEADER = TARN_VIDEO_SHARD_HEADER;

struct tarn_packetizer {
    uint64_t packet_size;
    int32_t fec_percent;
    int32_t min_parity;
    uint8_t *packet;     // one packet
    uint8_t *last_shard; // the frame's last shard, padded with zeros
    uint8_t *parity;     // 255 packets
};

static int clamp(int value, int most) { return value < 0 ? 0 : value > most ? most : value; }

tarn_packetizer *tarn_packetizer_create(size_t packet_size, int fec_percent, int min_parity) {
    if (packet_size < TARN_VIDEO_MIN_PACKET || packet_size > TARN_VIDEO_MAX_PACKET) return nullptr;
    auto *made = static_cast<tarn_packetizer *>(calloc(1, sizeof(tarn_packetizer)));
    if (!made) return nullptr;
    made->packet_size = packet_size;
    made->packet = static_cast<uint8_t *>(malloc(packet_size));
    made->last_shard = static_cast<uint8_t *>(malloc(packet_size));
    made->parity = static_cast<uint8_t *>(malloc(packet_size * TARN_FEC_MAX_SHARDS));
    if (!made->packet || !made->last_shard || !made->parity) {
        tarn_packetizer_destroy(made);
        return nullptr;
    }
    tarn_packetizer_set_fec(made, fec_percent, min_parity);
    tarn_fec_init();
    return made;
}

void tarn_packetizer_set_fec(tarn_packetizer *packetizer, int fec_percent, int min_parity) {
    if (!packetizer) return;
    packetizer->fec_percent = clamp(fec_percent, 1000);
    packetizer->min_parity = clamp(min_parity, TARN_FEC_MAX_SHARDS);
}

void tarn_packetizer_destroy(tarn_packetizer *packetizer) {
    if (!packetizer) return;
    free(packetizer->packet);
    free(packetizer->last_shard);
    free(packetizer->parity);
    free(packetizer);
}

namespace {
// One frame on its way out. `shard` is the fixed part of the next packet.
struct sending {
    tarn_packetizer *own;
    uint32_t session;
    tarn_video_shard shard;
    video_division division;
    const uint8_t *data;
    size_t size;
    tarn_packet_fn send;
    void *context;
};
} // namespace

// Fixed part, 42 bytes:
//   0 common header   8 u32 frame_id     12 u16 group         14 u16 group_count   16 u8 shard
//   17 u8 data_shards 18 u8 parity_shards 19 u8 frame_flags   20 u16 shard_size    22 u32 frame_size
//   26 u32 group_offset                  30 u64 frame_time    38 u32 frame_aux
static void write_fixed_part(const sending &s, uint8_t *packet) {
    const tarn_video_shard &f = s.shard;
    const tarn_header header = {TARN_PKT_VIDEO_SHARD, 0, s.session};
    byte_writer w(packet + tarn_encode_header(packet, TARN_HEADER_SIZE, &header), HEADER - TARN_HEADER_SIZE);
    w.u32(f.frame_id);
    w.u16(f.group);
    w.u16(f.group_count);
    w.u8(f.shard);
    w.u8(f.data_shards);
    w.u8(f.parity_shards);
    w.u8(f.frame_flags);
    w.u16(f.shard_size);
    w.u32(f.frame_size);
    w.u32(f.group_offset);
    w.u64(f.frame_time);
    w.u32(f.frame_aux);
}

static int parity_count(const tarn_packetizer *own, int k) {
    const int by_percent = (own->fec_percent * k + 99) / 100;
    const int wanted = by_percent > own->min_parity ? by_percent : own->min_parity;
    return wanted > TARN_FEC_MAX_SHARDS - k ? TARN_FEC_MAX_SHARDS - k : wanted;
}

// Shard `index` of the frame, at its full size.
static const uint8_t *shard_at(const sending &s, uint64_t index) {
    const size_t size = s.division.shard_size;
    const size_t begin = static_cast<size_t>(index) * size;
    if (s.size - begin >= size) return s.data + begin;
    memcpy(s.own->last_shard, s.data + begin, s.size - begin);
    memset(s.own->last_shard + (s.size - begin), 0, size - (s.size - begin));
    return s.own->last_shard;
}

// Sends one group and returns its number of packets.
static int send_group(sending &s, uint32_t group) {
    tarn_packetizer *own = s.own;
    const size_t size = s.division.shard_size;
    const int k = static_cast<int>(s.division.data_shards(group));
    const int p = parity_count(own, k);
    s.shard.group = static_cast<uint16_t>(group);
    s.shard.data_shards = static_cast<uint8_t>(k);
    s.shard.parity_shards = static_cast<uint8_t>(p);
    s.shard.group_offset = static_cast<uint32_t>(s.division.offset(group));

    const uint8_t *data[TARN_FEC_MAX_DATA];
    for (int i = 0; i < k; i++) {
        data[i] = shard_at(s, s.division.first_shard(group) + static_cast<uint32_t>(i));
        s.shard.shard = static_cast<uint8_t>(i);
        write_fixed_part(s, own->packet);
        memcpy(own->packet + HEADER, data[i], size);
        s.send(s.context, own->packet, HEADER + size);
    }
    if (p == 0) return k;

    uint8_t *parity[TARN_FEC_MAX_SHARDS];
    for (int j = 0; j < p; j++) {
        parity[j] = own->parity + static_cast<size_t>(j) * own->packet_size + HEADER;
    }
    tarn_fec_encode(k, p, size, data, parity);
    for (int j = 0; j < p; j++) {
        s.shard.shard = static_cast<uint8_t>(k + j);
        write_fixed_part(s, parity[j] - HEADER);
        s.send(s.context, parity[j] - HEADER, HEADER + size);
    }
    return k + p;
}

int tarn_packetizer_send_frame(tarn_packetizer *packetizer, uint32_t session, const tarn_frame_info *info,
                               const uint8_t *data, size_t size, tarn_packet_fn send, void *context) {
    if (!packetizer || !info || !data || !send || size == 0 || size > UINT32_MAX) return -1;
    // The first count says how many shards are needed; dividing by it again balances them, so that the last
    // isn't nearly empty.
    const uint64_t first_count = divide_up(size, packetizer->packet_size - HEADER);
    const uint32_t shard_size = static_cast<uint32_t>(divide_up(size, first_count));
    sending s = {packetizer, session, {}, {}, data, size, send, context};
    if (!video_divide(size, shard_size, &s.division)) return -1;
    s.shard.frame_id = info->frame_id;
    s.shard.group_count = static_cast<uint16_t>(s.division.groups);
    s.shard.frame_flags = info->frame_flags;
    s.shard.shard_size = static_cast<uint16_t>(shard_size);
    s.shard.frame_size = static_cast<uint32_t>(size);
    s.shard.frame_time = info->frame_time;
    s.shard.frame_aux = info->frame_aux;
    int packets = 0;
    for (uint32_t group = 0; group < s.division.groups; group++) {
        packets += send_group(s, group);
    }
    return packets;
}
