// Rebuilds frames from packets in any order. Eight slots hold the frames under construction and those that
// wait to be popped; a slot keeps its buffers when it is released. Every packet first has to agree with its
// own arithmetic, so that no later step meets an index or an offset out of range. No timer: a slot is freed
// by a newer frame that completes, by the need for a slot, or by a pop. One thread at a time.
#include <stdlib.h>
#include <string.h>

#include "video_internal.h"

namespace {
struct group_record {
    uint8_t received[32]; // bit i of byte i / 8: shard i is here
    uint8_t seen;         // a shard came, parity_shards is set
    uint8_t done;
    uint8_t parity_shards;
    uint8_t data_count;
    uint8_t parity_count;
    uint8_t parity_index[TARN_FEC_MAX_DATA]; // in order of arrival; a group is done before it has more than k
};

struct frame_slot {
    uint32_t in_use;
    uint32_t complete;
    uint32_t frame_id;
    tarn_video_shard first; // fixed part of the first packet, for comparison and delivery
    video_division division;
    uint32_t groups_done;
    uint32_t recovered;
    uint8_t *data;   // the frame, with the padding of its last shard
    uint8_t *parity; // received parity shards, those of a group from the group's offset on
    uint64_t data_capacity;
    uint64_t parity_capacity;
    group_record *group_state;
    uint64_t group_capacity; // records
};
} // namespace

struct tarn_reassembler {
    uint64_t max_frame;
    uint32_t started;                 // a packet was accepted
    uint32_t any_complete;            // a frame has been completed
    uint32_t pop_next;                // frame id after the last one delivered
    uint32_t next_frame;              // frame id after the newest completed
    uint32_t ready;                   // complete frames waiting
    uint8_t scratch[VIDEO_MAX_SHARD]; // stands in for parity shards that didn't arrive
    frame_slot slots[TARN_VIDEO_SLOTS];
    tarn_reassembler_stats stats;
};

// How far the start of the stream may move back before the first frame is complete.
static constexpr int32_t START_TOLERANCE = 7;

static int32_t newer_by(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b); }

tarn_reassembler *tarn_reassembler_create(size_t max_frame) {
    if (max_frame < 1 || max_frame > UINT32_MAX) return nullptr;
    auto *made = static_cast<tarn_reassembler *>(calloc(1, sizeof(tarn_reassembler)));
    if (!made) return nullptr;
    made->max_frame = max_frame;
    tarn_fec_init();
    return made;
}

void tarn_reassembler_destroy(tarn_reassembler *reassembler) {
    if (!reassembler) return;
    for (frame_slot &slot : reassembler->slots) {
        free(slot.data);
        free(slot.parity);
        free(slot.group_state);
    }
    free(reassembler);
}

void tarn_reassembler_get_stats(const tarn_reassembler *reassembler, tarn_reassembler_stats *stats) {
    if (reassembler && stats) *stats = reassembler->stats;
}

// Holds a packet against its own arithmetic. On success *division is that of its frame.
static bool consistent(const tarn_reassembler *r, const tarn_video_shard &f, size_t size,
                       video_division *division) {
    if (f.shard_size < 1 || f.shard_size > VIDEO_MAX_SHARD || f.shard_size != size) return false;
    if (f.frame_size < 1 || f.frame_size > r->max_frame) return false;
    if (f.data_shards < 1 || f.data_shards > TARN_FEC_MAX_DATA) return false;
    const int sum = f.data_shards + f.parity_shards;
    if (sum > TARN_FEC_MAX_SHARDS || f.shard >= sum) return false;
    if (!video_divide(f.frame_size, f.shard_size, division)) return false;
    return f.group_count == division->groups && f.group < f.group_count &&
           f.data_shards == division->data_shards(f.group) && f.group_offset == division->offset(f.group);
}

// Whether a packet of this frame may still be of use. Before the first frame is complete, the start of the
// stream moves back for packets that were overtaken.
static bool in_time(tarn_reassembler *r, uint32_t frame_id) {
    if (!r->started) {
        r->started = 1;
        r->pop_next = r->next_frame = frame_id;
    }
    const int32_t newer = newer_by(frame_id, r->next_frame);
    if (newer >= 0) return true;
    if (r->any_complete || newer < -START_TOLERANCE) return false;
    r->pop_next = r->next_frame = frame_id;
    return true;
}

static frame_slot *find_slot(tarn_reassembler *r, uint32_t frame_id) {
    for (frame_slot &slot : r->slots) {
        if (slot.in_use && slot.frame_id == frame_id) return &slot;
    }
    return nullptr;
}

// A free slot, or that of the oldest frame if it is older than this one; a late frame doesn't displace newer
// ones.
static frame_slot *take_slot(tarn_reassembler *r, uint32_t frame_id) {
    frame_slot *oldest = nullptr;
    for (frame_slot &slot : r->slots) {
        if (!slot.in_use) return &slot;
        if (!oldest || newer_by(slot.frame_id, oldest->frame_id) < 0) oldest = &slot;
    }
    if (newer_by(oldest->frame_id, frame_id) >= 0) return nullptr;
    if (oldest->complete) r->ready--;
    oldest->in_use = 0;
    return oldest;
}

// Makes a buffer hold `need` elements. The old content is of no use, so it goes first and never stands beside
// the new one. On failure the buffer is empty.
template <class T>
static bool grow(T **buffer, uint64_t *capacity, uint64_t need, uint64_t most) {
    if (*capacity >= need) return true;
    uint64_t wanted = *capacity + *capacity / 2;
    if (wanted > most) wanted = most;
    if (wanted < need) wanted = need;
    free(*buffer);
    *buffer = nullptr;
    *capacity = 0;
    if (wanted > SIZE_MAX / sizeof(T)) return false;
    *buffer = static_cast<T *>(malloc(static_cast<size_t>(wanted) * sizeof(T)));
    if (!*buffer) return false;
    *capacity = wanted;
    return true;
}

// Starts a frame. If memory fails the slot stays free.
static bool prepare_slot(const tarn_reassembler *r, frame_slot *slot, const tarn_video_shard &f,
                         const video_division &division) {
    const uint64_t bytes = uint64_t{division.shards} * division.shard_size;
    const uint64_t most = r->max_frame + VIDEO_MAX_SHARD;
    if (!grow(&slot->data, &slot->data_capacity, bytes, most) ||
        !grow(&slot->parity, &slot->parity_capacity, bytes, most) ||
        !grow(&slot->group_state, &slot->group_capacity, division.groups, most / TARN_FEC_MAX_DATA + 1)) {
        return false;
    }
    memset(slot->group_state, 0, division.groups * sizeof(group_record));
    slot->in_use = 1;
    slot->complete = 0;
    slot->frame_id = f.frame_id;
    slot->first = f;
    slot->division = division;
    slot->groups_done = 0;
    slot->recovered = 0;
    return true;
}

static bool same_frame(const tarn_video_shard &a, const tarn_video_shard &b) {
    return a.frame_size == b.frame_size && a.frame_flags == b.frame_flags && a.shard_size == b.shard_size &&
           a.frame_time == b.frame_time && a.frame_aux == b.frame_aux;
}

static bool is_received(const group_record &group, int shard) {
    return group.received[shard / 8] >> shard % 8 & 1;
}

static void store_shard(frame_slot *slot, group_record &group, const tarn_video_shard &f,
                        const uint8_t *bytes) {
    const size_t size = f.shard_size;
    if (f.shard < f.data_shards) {
        memcpy(slot->data + f.group_offset + f.shard * size, bytes, size);
        group.data_count++;
        return;
    }
    memcpy(slot->parity + f.group_offset + group.parity_count * size, bytes, size);
    group.parity_index[group.parity_count++] = static_cast<uint8_t>(f.shard - f.data_shards);
}

// Rebuilds the data shards that a group still lacks. Returns false if the decoder refuses.
static bool rebuild_group(tarn_reassembler *r, frame_slot *slot, const group_record &group,
                          const tarn_video_shard &f) {
    const size_t size = f.shard_size;
    const int k = f.data_shards;
    uint8_t *shards[TARN_FEC_MAX_SHARDS];
    uint8_t present[TARN_FEC_MAX_SHARDS] = {};
    for (int i = 0; i < k; i++) {
        shards[i] = slot->data + f.group_offset + static_cast<size_t>(i) * size;
        present[i] = is_received(group, i);
    }
    for (int j = 0; j < group.parity_shards; j++) {
        shards[k + j] = r->scratch;
    }
    for (size_t n = 0; n < group.parity_count; n++) {
        shards[k + group.parity_index[n]] = slot->parity + f.group_offset + n * size;
        present[k + group.parity_index[n]] = 1;
    }
    if (tarn_fec_decode(k, group.parity_shards, size, shards, present) != 0) return false;
    const uint32_t rebuilt = static_cast<uint32_t>(k - group.data_count);
    slot->recovered += rebuilt;
    r->stats.shards_recovered += rebuilt;
    return true;
}

// Once a frame is complete, older ones that aren't can never be shown.
static void complete_frame(tarn_reassembler *r, frame_slot *slot) {
    slot->complete = 1;
    r->any_complete = 1;
    r->ready++;
    r->stats.frames_completed++;
    r->stats.frames_lost += slot->frame_id - r->next_frame;
    r->next_frame = slot->frame_id + 1;
    for (frame_slot &other : r->slots) {
        if (other.in_use && !other.complete && newer_by(other.frame_id, slot->frame_id) < 0) other.in_use = 0;
    }
}

// Puts a shard into its frame. Returns false for a packet that counts as bad.
static bool take_shard(tarn_reassembler *r, frame_slot *slot, const tarn_video_shard &f,
                       const uint8_t *bytes) {
    group_record &group = slot->group_state[f.group];
    if (group.seen && group.parity_shards != f.parity_shards) return false;
    group.seen = 1;
    group.parity_shards = f.parity_shards;
    if (is_received(group, f.shard)) return true;
    group.received[f.shard / 8] |= static_cast<uint8_t>(1 << f.shard % 8);
    r->stats.shards_received++;
    if (group.done) return true;
    store_shard(slot, group, f, bytes);
    if (group.data_count + group.parity_count < f.data_shards) return true;
    if (group.data_count < f.data_shards && !rebuild_group(r, slot, group, f)) return false;
    group.done = 1;
    if (++slot->groups_done == slot->division.groups) complete_frame(r, slot);
    return true;
}

static int bad_packet(tarn_reassembler *r) {
    r->stats.bad_packets++;
    return -1;
}

static int state_of(const tarn_reassembler *r) { return r->ready > 0 ? 1 : 0; }

int tarn_reassembler_push(tarn_reassembler *reassembler, const uint8_t *packet, size_t len) {
    tarn_reassembler *r = reassembler;
    if (!r) return -1;
    tarn_video_shard f;
    const uint8_t *bytes;
    size_t size;
    video_division division;
    if (tarn_decode_video_shard(packet, len, &f, &bytes, &size) != 0 || !consistent(r, f, size, &division)) {
        return bad_packet(r);
    }
    if (!in_time(r, f.frame_id)) return state_of(r);
    frame_slot *slot = find_slot(r, f.frame_id);
    if (slot) {
        if (!same_frame(f, slot->first)) return bad_packet(r);
        if (slot->complete) return state_of(r);
    } else {
        slot = take_slot(r, f.frame_id);
        if (!slot || !prepare_slot(r, slot, f, division)) return state_of(r);
    }
    if (!take_shard(r, slot, f, bytes)) return bad_packet(r);
    return state_of(r);
}

int tarn_reassembler_pop(tarn_reassembler *reassembler, tarn_frame *frame, uint32_t *lost) {
    if (!reassembler || !frame) return 0;
    frame_slot *oldest = nullptr;
    for (frame_slot &slot : reassembler->slots) {
        if (!slot.in_use || !slot.complete) continue;
        if (!oldest || newer_by(slot.frame_id, oldest->frame_id) < 0) oldest = &slot;
    }
    if (!oldest) return 0;
    if (lost) *lost = oldest->frame_id - reassembler->pop_next;
    reassembler->pop_next = oldest->frame_id + 1;
    *frame = {oldest->data,
              oldest->first.frame_size,
              oldest->frame_id,
              oldest->first.frame_flags,
              oldest->first.frame_time,
              oldest->first.frame_aux,
              oldest->recovered};
    oldest->in_use = 0;
    reassembler->ready--;
    return 1;
}
