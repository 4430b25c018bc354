// What the service's settings mean to this worker.
#include "worker/worker_settings.h"

#include <algorithm>
#include <array>
#include <utility>

#include "common/text.h"
#include "worker/test_pattern.h"

namespace app {
namespace {

constexpr uint8_t mode_pattern = 2;

struct parity {
    int percent; // of a frame's data
    int least;   // shards in a group
};
constexpr std::array<parity, 3> levels = {{{10, 2}, {30, 5}, {60, 8}}};

} // namespace

server_settings apply_settings(const host_service::Settings &settings, std::optional<video_file> sample) {
    server_settings out;
    out.port = settings.port;
    out.payload_max = settings.packet_size;
    out.stream.loop = true;
    out.stream.fec_percent = levels.at(settings.level).percent;
    out.stream.min_parity = levels.at(settings.level).least;
    out.stream.frame_rate = settings.frame_rate;
    if (sample && settings.mode != mode_pattern) {
        out.stream.frame_rate = std::min(out.stream.frame_rate, sample->frame_rate.value_or(30));
        out.video = std::move(sample);
    } else {
        out.video = test_pattern(settings.frame_rate, settings.bitrate_kbps);
    }
    out.clips.echo = settings.flag_a != 0;
    out.searches = settings.flag_b != 0;
    return out;
}

std::string settings_text(const host_service::Settings &s) {
    return format(
        "port %u, frame_rate %u, bitrate_kbps %u, mode %u, flag_a %u, level %u, flag_b %u, packet_size %u",
        unsigned{s.port}, unsigned{s.frame_rate}, s.bitrate_kbps, unsigned{s.mode}, unsigned{s.flag_a},
        unsigned{s.level}, unsigned{s.flag_b}, unsigned{s.packet_size});
}

} // namespace app
