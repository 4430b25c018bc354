// What the service's settings mean to this worker. The service checks their ranges and keeps them; mode, flag_a, level and
// flag_b mean whatever a worker says they mean.
//
//   port          the UDP port
//   frame_rate    frames a second: the test pattern's, and the most that a video file is played at
//   bitrate_kbps  of the test pattern; a video file has its own
//   mode          1: "sample.h264" beside the program, if there is one; 2: always the test pattern
//   flag_a        1: what comes from a client's clipboard is sent back
//   level         parity against loss: 0 little, 1 medium, 2 much
//   flag_b        1: clients that search the LAN are answered
//   packet_size   bytes of a packet in a session, where the path would take more
#pragma once

#include <optional>

#include <ipc_protocol.h>

#include "host/host_server.h"

namespace app {

// `sample`: the video file, if there is one.
server_settings apply_settings(const host_service::Settings &settings, std::optional<video_file> sample);

// "port 9876, 60 frames/s, ...", for a status.
std::string settings_text(const host_service::Settings &settings);

} // namespace app
