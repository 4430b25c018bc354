// How much of a video stream the network lost.
#include "client/shard_tally.h"

namespace app {
namespace {

// Frames that stay open for packets that come late, beyond the eight that the reassembler keeps.
constexpr size_t open_max = 16;

} // namespace

void shard_tally::add(const tarn_video_shard &shard) {
    if (any_settled_ && shard.frame_id <= settled_to_) return;
    if (shard.group >= shard.group_count) return;
    std::vector<group> &groups = open_[shard.frame_id];
    if (groups.empty()) groups.resize(shard.group_count);
    if (shard.group >= groups.size()) return;
    group &mine = groups[shard.group];
    mine.size = static_cast<uint32_t>(shard.data_shards) + shard.parity_shards;
    mine.seen.set(shard.shard);
    if (open_.size() <= open_max) return;
    settled_to_ = open_.begin()->first;
    any_settled_ = true;
    settle(open_.begin()->second);
    open_.erase(open_.begin());
}

void shard_tally::close() {
    for (const auto &[id, groups] : open_)
        settle(groups);
    open_.clear();
}

void shard_tally::settle(const std::vector<group> &groups) {
    // Groups of a frame differ by one shard at most, so one of which nothing came is as large as any other.
    uint32_t size = 0;
    for (const group &each : groups) {
        if (each.size != 0) size = each.size;
    }
    for (const group &each : groups) {
        sent_ += each.size != 0 ? each.size : size;
        came_ += each.seen.count();
    }
}

} // namespace app
