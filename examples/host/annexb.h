// Cuts an H.264 byte stream (ITU-T H.264, Annex B) into access units, and reads its frame rate. It judges only what
// the cuts need and takes any bytes: whatever goes in, the units in order are the input, byte for byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace app {

struct access_unit {
    size_t offset;
    size_t size;
    bool key; // holds an IDR picture
};

// Bytes before the first start code go with the first unit, a tail without a picture with the last one. No unit at
// all comes of bytes without a start code.
//
// A picture begins with a slice whose first_mb_in_slice is 0. So the rare streams that send a picture's slices out
// of order, or lost a first slice, are cut at other places than a decoder would cut them.
std::vector<access_unit> split_access_units(std::span<const uint8_t> stream);

// Frames a second by the timing of the first sequence parameter set that can be read; nothing without such timing,
// or if it isn't between 1 and 1000.
std::optional<double> stream_frame_rate(std::span<const uint8_t> stream);

} // namespace app
