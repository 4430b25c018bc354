// A video for a worker that has none: grey, with a band of coloured blocks that travels over it. It is H.264 of the plainest
// kind (ITU-T H.264, baseline, every picture by itself), made without an encoder: a coloured block carries its samples
// as they are, 384 bytes each, so the number of blocks sets the bit rate; a grey one is a prediction and takes a byte.
#pragma once

#include <cstdint>

#include "host/video_file.h"

namespace app {

// Some seconds' worth of pictures, whose last one leads over to the first. The bit rate is met as far as the picture's
// 880 blocks allow: from one coloured block to all of them.
video_file test_pattern(uint16_t frame_rate, uint32_t bitrate_kbps);

} // namespace app
