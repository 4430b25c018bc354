// An H.264 file in memory.
#include "host/video_file.h"

#include <fstream>
#include <stdexcept>
#include <system_error>

#include "common/stream_protocol.h"
#include "common/text.h"

namespace app {

video_file load_video(const std::filesystem::path &path) {
    std::error_code error;
    const uintmax_t size = std::filesystem::file_size(path, error);
    if (error) throw std::runtime_error("can't read the video " + utf8(path) + ": " + error.message());
    video_file video;
    video.bytes.resize(static_cast<size_t>(size));
    std::ifstream in(path, std::ios::binary);
    in.read(reinterpret_cast<char *>(video.bytes.data()), static_cast<std::streamsize>(size));
    if (!in) throw std::runtime_error("can't read the video " + utf8(path) + ": check its permissions");
    video.units = split_access_units(video.bytes);
    if (video.units.empty())
        throw std::runtime_error(
            utf8(path) + " is not an H.264 Annex B stream: it holds no start code; " +
            "ffmpeg -i FILE -c copy -bsf:v h264_mp4toannexb OUT.h264 makes one of a container");
    for (const access_unit &unit : video.units) {
        if (unit.size > frame_size_max)
            throw std::runtime_error(utf8(path) + " has an access unit of " + std::to_string(unit.size) +
                                     " bytes at byte " + std::to_string(unit.offset) + "; the limit is " +
                                     std::to_string(frame_size_max));
    }
    video.frame_rate = stream_frame_rate(video.bytes);
    return video;
}

} // namespace app
