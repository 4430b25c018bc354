// An H.264 file in memory, cut into access units.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "host/annexb.h"

namespace app {

struct video_file {
    std::vector<uint8_t> bytes;
    std::vector<access_unit> units; // at least one
    std::optional<double> frame_rate;
};

// Throws std::runtime_error for a file that can't be read, has no start code, or has an access unit beyond
// frame_size_max.
video_file load_video(const std::filesystem::path &path);

} // namespace app
