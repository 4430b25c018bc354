// H.264 byte streams: NAL units, access units, the timing in a sequence parameter set.
#include "host/annexb.h"

#include <algorithm>

namespace app {
namespace {

// NAL unit types that matter here (H.264, table 7-1).
enum nal_type : int {
    nal_slice = 1,
    nal_partition_a = 2,
    nal_idr = 5,
    nal_sei = 6,
    nal_sps = 7,
    nal_pps = 8,
    nal_delimiter = 9,
    nal_prefix = 14,
    nal_reserved_18 = 18
};

// One NAL unit. `begin` is its start code, with the zero byte that may stand before it; `body` is its header byte.
struct nal_unit {
    size_t begin;
    size_t body;
    size_t end;
    int type; // -1 if the stream ends before the header byte
};

// Walks the start codes 00 00 01 and 00 00 00 01.
class nal_reader {
public:
    explicit nal_reader(std::span<const uint8_t> stream) : stream_(stream), next_(find(0)) {}

    bool read(nal_unit &out) {
        if (next_ == stream_.size()) return false;
        out.body = next_ + 3;
        out.begin = with_zero_byte(next_);
        next_ = find(out.body);
        out.end = next_ == stream_.size() ? next_ : with_zero_byte(next_);
        out.type = out.body < out.end ? stream_[out.body] & 0x1F : -1;
        return true;
    }

private:
    // The first 00 00 01 at or behind `from`; the stream's size if there is none.
    size_t find(size_t from) const {
        for (size_t i = from; i + 3 <= stream_.size(); i++) {
            if (stream_[i + 2] > 1) {
                i += 2; // none of the next two places can begin a start code
            } else if (stream_[i] == 0 && stream_[i + 1] == 0 && stream_[i + 2] == 1) {
                return i;
            }
        }
        return stream_.size();
    }
    // A zero byte right before a start code belongs to it: no NAL unit ends in one.
    size_t with_zero_byte(size_t code) const { return code > 0 && stream_[code - 1] == 0 ? code - 1 : code; }

    std::span<const uint8_t> stream_;
    size_t next_;
};

bool has_slice_header(int type) { return type == nal_slice || type == nal_partition_a || type == nal_idr; }

bool begins_picture(std::span<const uint8_t> stream, const nal_unit &nal) {
    // first_mb_in_slice is the header's first field: Exp-Golomb, of which 0 is the one bit 1.
    return has_slice_header(nal.type) && nal.body + 1 < nal.end && (stream[nal.body + 1] & 0x80) != 0;
}

// Units of these types stand before a picture, never between its slices (H.264, 7.4.1.2.3).
bool precedes_picture(int type) {
    return (type >= nal_sei && type <= nal_delimiter) || (type >= nal_prefix && type <= nal_reserved_18);
}

// Reads bits; behind the end it reads zeros and remembers that it did.
class bit_reader {
public:
    explicit bit_reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    uint32_t bits(int count) {
        uint32_t value = 0;
        for (int i = 0; i < count; i++) {
            const size_t byte = position_ / 8;
            const uint32_t bit = byte < bytes_.size() ? (bytes_[byte] >> (7 - position_ % 8)) & 1U : 0;
            failed_ |= byte >= bytes_.size();
            value = value << 1 | bit;
            position_++;
        }
        return value;
    }
    // Exp-Golomb code, unsigned. Codes of over 32 bits are no codes of a parameter set.
    uint32_t ue() {
        int zeros = 0;
        while (!failed_ && bits(1) == 0) {
            zeros++;
        }
        if (zeros > 31) failed_ = true;
        return failed_ ? 0 : (1U << zeros) - 1 + bits(zeros);
    }
    int32_t se() {
        const uint32_t code = ue();
        const auto half = static_cast<int32_t>(code / 2);
        return code % 2 != 0 ? half + 1 : -half;
    }
    bool failed() const { return failed_; }

private:
    std::span<const uint8_t> bytes_;
    size_t position_ = 0;
    bool failed_ = false;
};

// The payload of a NAL unit without its emulation prevention bytes: 00 00 03 stands for 00 00.
std::vector<uint8_t> unescape(std::span<const uint8_t> payload) {
    std::vector<uint8_t> out;
    int zeros = 0;
    for (const uint8_t byte : payload) {
        if (zeros >= 2 && byte == 3) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        out.push_back(byte);
    }
    return out;
}

void skip_scaling_list(bit_reader &in, int entries) {
    int32_t last = 8;
    int32_t next = 8;
    for (int i = 0; i < entries && !in.failed(); i++) {
        // A delta outside 8 bits is no valid list; the mask keeps the sum in range.
        if (next != 0) next = (last + (in.se() & 0xFF)) & 0xFF;
        last = next == 0 ? last : next;
    }
}

void skip_high_profile(bit_reader &in) {
    const uint32_t chroma_format = in.ue();
    if (chroma_format == 3) in.bits(1); // separate_colour_plane_flag
    in.ue();                            // bit_depth_luma_minus8
    in.ue();                            // bit_depth_chroma_minus8
    in.bits(1);                         // qpprime_y_zero_transform_bypass_flag
    if (in.bits(1) == 0) return;        // seq_scaling_matrix_present_flag
    const int lists = chroma_format == 3 ? 12 : 8;
    for (int i = 0; i < lists; i++) {
        if (in.bits(1) != 0) skip_scaling_list(in, i < 6 ? 16 : 64);
    }
}

void skip_picture_order(bit_reader &in) {
    const uint32_t type = in.ue();
    if (type == 0) in.ue(); // log2_max_pic_order_cnt_lsb_minus4
    if (type != 1) return;
    in.bits(1); // delta_pic_order_always_zero_flag
    in.se();    // offset_for_non_ref_pic
    in.se();    // offset_for_top_to_bottom_field
    for (uint32_t cycle = in.ue(); cycle > 0 && !in.failed(); cycle--) {
        in.se();
    }
}

// Up to the timing in the video usability information (H.264, 7.3.2.1.1 and E.1.1). `sps` begins behind the NAL
// header byte.
std::optional<double> sps_frame_rate(const std::vector<uint8_t> &sps) {
    bit_reader in(sps);
    const uint32_t profile = in.bits(8);
    in.bits(16); // constraint flags, level_idc
    in.ue();     // seq_parameter_set_id
    constexpr uint32_t high_profiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    if (std::find(std::begin(high_profiles), std::end(high_profiles), profile) != std::end(high_profiles))
        skip_high_profile(in);
    in.ue(); // log2_max_frame_num_minus4
    skip_picture_order(in);
    in.ue();                         // max_num_ref_frames
    in.bits(1);                      // gaps_in_frame_num_value_allowed_flag
    in.ue();                         // pic_width_in_mbs_minus1
    in.ue();                         // pic_height_in_map_units_minus1
    if (in.bits(1) == 0) in.bits(1); // frame_mbs_only_flag, mb_adaptive_frame_field_flag
    in.bits(1);                      // direct_8x8_inference_flag
    for (uint32_t i = 0, n = in.bits(1) * 4; i < n; i++) {
        in.ue(); // frame cropping
    }
    if (in.bits(1) == 0) return std::nullopt;              // vui_parameters_present_flag
    if (in.bits(1) != 0 && in.bits(8) == 255) in.bits(32); // aspect ratio, the extended one in full
    if (in.bits(1) != 0) in.bits(1);                       // overscan
    if (in.bits(1) != 0) {                                 // video_signal_type_present_flag
        in.bits(4);                                        // video_format, video_full_range_flag
        if (in.bits(1) != 0) in.bits(24);                  // colour description
    }
    if (in.bits(1) != 0) { // chroma_loc_info_present_flag
        in.ue();
        in.ue();
    }
    if (in.bits(1) == 0) return std::nullopt; // timing_info_present_flag
    const uint32_t tick = in.bits(32);
    const uint32_t scale = in.bits(32);
    if (in.failed() || tick == 0) return std::nullopt;
    const double rate = static_cast<double>(scale) / (2.0 * static_cast<double>(tick)); // a tick is a field
    return rate >= 1.0 && rate <= 1000.0 ? std::optional<double>(rate) : std::nullopt;
}

} // namespace

std::vector<access_unit> split_access_units(std::span<const uint8_t> stream) {
    std::vector<access_unit> units;
    nal_reader reader(stream);
    nal_unit nal{};
    bool has_picture = false;
    while (reader.read(nal)) {
        if (units.empty()) {
            units.push_back({0, 0, false});
        } else if (has_picture && (begins_picture(stream, nal) || precedes_picture(nal.type))) {
            units.back().size = nal.begin - units.back().offset;
            units.push_back({nal.begin, 0, false});
            has_picture = false;
        }
        has_picture |= has_slice_header(nal.type);
        units.back().key |= nal.type == nal_idr;
    }
    if (units.empty()) return units;
    if (!has_picture && units.size() > 1) units.pop_back();
    units.back().size = stream.size() - units.back().offset;
    return units;
}

std::optional<double> stream_frame_rate(std::span<const uint8_t> stream) {
    nal_reader reader(stream);
    nal_unit nal{};
    while (reader.read(nal)) {
        if (nal.type != nal_sps) continue;
        // A parameter set is some dozens of bytes; the cap bounds the copy of a hostile one.
        const size_t size = std::min<size_t>(nal.end - nal.body - 1, 1024);
        if (const auto rate = sps_frame_rate(unescape(stream.subspan(nal.body + 1, size)))) return rate;
    }
    return std::nullopt;
}

} // namespace app
