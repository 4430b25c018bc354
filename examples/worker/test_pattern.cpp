// The test pattern's pictures. Names in quotation marks are those of ITU-T H.264, chapter 7.3.
#include "worker/test_pattern.h"

#include <algorithm>
#include <bit>
#include <cstddef>

namespace app {
namespace {

constexpr uint32_t columns = 40; // of macroblocks, 16 x 16 each: 640 x 352
constexpr uint32_t rows = 22;
constexpr uint32_t blocks = columns * rows;
constexpr uint32_t block_bytes = 384; // of one coloured block: 256 of luma, 2 x 64 of chroma
// Even, since "idr_pic_id" alternates; and the band moves by a row with each picture, so that it comes around.
constexpr uint32_t pictures = 3 * rows;
static_assert(pictures % 2 == 0);

// Writes bits, the first one highest. A NAL unit's bytes go straight into the stream, with the third byte of any
// 00 00 0x that is no start code escaped.
class bit_writer {
public:
    explicit bit_writer(std::vector<uint8_t> &out) : out_(out) {}

    void begin(uint8_t header) {
        out_.insert(out_.end(), {0, 0, 0, 1, header});
        zeros_ = 0;
    }

    void end() {
        bits(1, 1); // "rbsp_stop_one_bit"
        align();
    }

    void bits(uint32_t value, int count) {
        if (used_ == 0 && count == 8) return put(static_cast<uint8_t>(value)); // most of a picture
        while (count-- > 0) {
            byte_ = static_cast<uint8_t>(uint32_t{byte_} << 1 | (value >> count & 1));
            if (++used_ == 8) put(byte_);
        }
    }

    // Exp-Golomb: the length of value + 1 in zeros, then value + 1 itself.
    void ue(uint32_t value) {
        const int length = static_cast<int>(std::bit_width(value + 1)); // an unsigned one in older libraries
        bits(0, length - 1);
        bits(value + 1, length);
    }

    void align() {
        while (used_ != 0)
            bits(0, 1);
    }

private:
    void put(uint8_t byte) {
        if (zeros_ == 2 && byte <= 3) {
            out_.push_back(3);
            zeros_ = 0;
        }
        out_.push_back(byte);
        zeros_ = byte == 0 ? zeros_ + 1 : 0;
        used_ = 0;
    }

    std::vector<uint8_t> &out_;
    uint8_t byte_ = 0;
    int used_ = 0;
    int zeros_ = 0;
};

void write_sequence(bit_writer &out, uint16_t frame_rate) {
    out.begin(0x67);
    out.bits(66, 8);   // "profile_idc": baseline
    out.bits(0xC0, 8); // the constraints of baseline and main
    out.bits(51, 8);   // "level_idc": enough for 240 pictures a second
    out.ue(0);         // "seq_parameter_set_id"
    out.ue(0);         // "log2_max_frame_num_minus4"
    out.ue(2);         // "pic_order_cnt_type": as they come
    out.ue(0);         // "max_num_ref_frames"
    out.bits(0, 1);    // "gaps_in_frame_num_value_allowed_flag"
    out.ue(columns - 1);
    out.ue(rows - 1);
    out.bits(0b1001, 4);  // frames only, no 8 x 8 inference, no cropping, "vui_parameters_present_flag"
    out.bits(0b00001, 5); // of all that a display may want to know the timing alone
    out.bits(1, 32);      // "num_units_in_tick"
    out.bits(uint32_t{frame_rate} * 2, 32); // "time_scale", in fields
    out.bits(0b10000, 5);                   // "fixed_frame_rate_flag"; no more
    out.end();
}

void write_picture_parameters(bit_writer &out) {
    out.begin(0x68);
    out.ue(0);          // "pic_parameter_set_id"
    out.ue(0);          // "seq_parameter_set_id"
    out.bits(0b00, 2);  // CAVLC
    out.ue(0);          // one slice group
    out.ue(0);          // no references,
    out.ue(0);          //   of either kind
    out.bits(0b000, 3); // no weights
    for (int i = 0; i < 3; i++)
        out.ue(0);      // quantizers as they are
    out.bits(0b100, 3); // "deblocking_filter_control_present_flag"
    out.end();
}

void write_coloured(bit_writer &out, uint32_t block, uint32_t picture) {
    out.ue(25); // "mb_type": I_PCM
    out.align();
    const uint32_t shade = (block % columns + picture) % columns;
    for (uint32_t i = 0; i < 256; i++)
        out.bits(32 + shade * 4 + i % 16, 8);
    for (uint32_t i = 0; i < 64; i++)
        out.bits(48 + block / columns * 7, 8);
    for (uint32_t i = 0; i < 64; i++)
        out.bits(208 - block / columns * 7, 8);
}

// A block that looks like the mean of its neighbours. Even "nothing to correct" is written in a way that hangs on how
// much the neighbours to the left and above carry: much if they are coloured.
void write_grey(bit_writer &out, bool beside_coloured) {
    out.ue(3); // "mb_type": I_16x16_2_0_0
    out.ue(0); // "intra_chroma_pred_mode": the mean
    out.ue(0); // "mb_qp_delta"
    if (beside_coloured) {
        out.bits(0b000011, 6); // "coeff_token" of none, for 8 or more around
    } else {
        out.bits(1, 1);
    }
}

void write_picture(bit_writer &out, uint32_t picture, uint32_t coloured) {
    const uint32_t first = picture * columns % blocks;
    const auto is_coloured = [&](uint32_t block) { return (block + blocks - first) % blocks < coloured; };
    out.begin(0x65);
    out.ue(0);           // "first_mb_in_slice"
    out.ue(7);           // "slice_type": I, as all
    out.ue(0);           // "pic_parameter_set_id"
    out.bits(0, 4);      // "frame_num"
    out.ue(picture % 2); // "idr_pic_id"
    out.bits(0b00, 2);   // "no_output_of_prior_pics_flag", "long_term_reference_flag"
    out.ue(0);           // "slice_qp_delta"
    out.ue(1);           // "disable_deblocking_filter_idc"
    for (uint32_t block = 0; block < blocks; block++) {
        if (is_coloured(block)) {
            write_coloured(out, block, picture);
        } else {
            const bool left = block % columns != 0 && is_coloured(block - 1);
            const bool above = block >= columns && is_coloured(block - columns);
            write_grey(out, left || above);
        }
    }
    out.end();
}

} // namespace

video_file test_pattern(uint16_t frame_rate, uint32_t bitrate_kbps) {
    const uint64_t wanted = uint64_t{bitrate_kbps} * 1000 / 8 / frame_rate; // bytes of a picture
    const uint64_t coloured = (wanted > blocks ? wanted - blocks : 0) / block_bytes;
    video_file video;
    video.frame_rate = frame_rate;
    bit_writer out(video.bytes);
    for (uint32_t picture = 0; picture < pictures; picture++) {
        const size_t offset = video.bytes.size();
        write_sequence(out, frame_rate);
        write_picture_parameters(out);
        write_picture(out, picture, static_cast<uint32_t>(std::clamp<uint64_t>(coloured, 1, blocks)));
        video.units.push_back({offset, video.bytes.size() - offset, true});
    }
    return video;
}

} // namespace app
