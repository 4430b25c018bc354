// What the host program and the client program say to each other inside a session. They use packets that the library
// defines and leave their meaning to the programs; this is the meaning.
//
//   TARN_PKT_VIDEO_SHARD   host to client: one H.264 access unit is one frame. Ids count from 0, one by one, for each
//                          session. frame_flags: below. frame_time: microseconds since the stream's first frame.
//                          frame_aux: 0.
//   TARN_PKT_VALUE_A       host to client: the stream has ended, and had this many frames. Repeated until the client
//                          says that it knows.
//   TARN_PKT_CLIENT_STATS  client to host, once a second and at its end: the words below.
//   TARN_PKT_CLIPBOARD and its answer: files of either side, as <tarnglider/clipboard.h> does it. A side offers nothing
//                          while something comes in, so that neither takes the other's for outdated.
//
// The host begins a stream when a session carries its first packet, which the client's engine sends by itself; a host
// without a video begins none.
//
// Outside sessions, plain:
//   TARN_PKT_DISCOVER        client to host, broadcast: is there a host? Answered to addresses of a LAN alone.
//   TARN_PKT_DISCOVER_REPLY  reply_a: the host's LAN identifier, below; reply_b: its UDP port; reply_e: bits below; its
//                            name. Nothing of this is proven; pairing and handshake prove the host.
#pragma once

#include <cstddef>
#include <cstdint>

#include <tarnglider/secure.h>

namespace app {

// Where a host listens if nobody says otherwise.
constexpr uint16_t default_port = 9876;

// Largest access unit, on both sides.
constexpr size_t frame_size_max = 16 << 20;

enum frame_flag : uint8_t { frame_key = 1 }; // the picture stands by itself

enum stats_word : size_t {
    stats_frames = 0,   // delivered in order
    stats_lost = 1,     // known to be missing
    stats_received = 2, // shards
    stats_repaired = 3, // shards rebuilt from parity
    stats_bad = 4,      // packets that contradict themselves
    stats_state = 5     // bits, below
};
constexpr uint32_t stats_done = 1;     // the client needs nothing more: it has the end, or it leaves
constexpr uint32_t stats_no_video = 2; // the client stays, and wants no video

enum discover_flag : uint8_t { discover_window = 1, discover_password = 2 }; // what pairing is open

// A host's LAN identifier: the first 4 bytes of its key id.
inline uint32_t lan_id_of(const uint8_t key[32]) {
    uint8_t id[TARN_KEY_ID_SIZE];
    tarn_key_id(id, key);
    return static_cast<uint32_t>(id[0]) | static_cast<uint32_t>(id[1]) << 8 |
           static_cast<uint32_t>(id[2]) << 16 | static_cast<uint32_t>(id[3]) << 24;
}

} // namespace app
