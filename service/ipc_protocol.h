// The messages of the local channels: tools to service, service to worker, worker to service. Pure byte work without
// state; ipc_transport moves the frames. Integers on the wire are little-endian.
//
//   offset  size    field
//   0       4       magic "TGIP"
//   4       2       version, 1
//   6       2       verb; in a reply with response_flag set
//   8       4       length of the payload, 0 to 16384
//   12      length  payload: a request's by its verb, a reply's a u32 status and then a text
//
// Nothing here reports in words: a bad message is false or an empty frame, and an output is written only on success.
#ifndef HOST_SERVICE_IPC_PROTOCOL_H
#define HOST_SERVICE_IPC_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace host_service {

constexpr size_t header_size = 12;
constexpr size_t max_payload = 16384;
constexpr size_t max_frame = header_size + max_payload; // and the size of a pipe's buffers
constexpr size_t max_reply_text = max_payload - 4;      // behind the status
constexpr size_t settings_size = 16;
constexpr uint16_t response_flag = 0x8000;

// 1 to 10 are an administrator's commands, 32 and 33 belong to the worker alone; every other value is invalid.
enum class Verb : uint16_t {
    status = 1,            // empty
    pairing_open = 2,      // u32, 30 to 300 seconds
    pairing_close = 3,     // empty
    set_password = 4,      // 1 to 256 bytes of UTF-8
    clear_password = 5,    // empty
    remove_client = 6,     // the client's public key, 32 bytes
    set_relays = 7,        // relay configuration text, 1 to 16384 bytes of UTF-8
    set_settings = 8,      // a Settings record, 16 bytes
    restart_worker = 9,    // empty; the service acts on it
    stop_worker = 10,      // empty; the service acts on it, and sends it to the worker
    worker_ack = 32,       // empty; the worker's heartbeat on the events channel
    secure_attention = 33, // empty; the worker asks for the secure attention sequence
};

enum class Status : uint32_t {
    ok = 0,
    status_code_1 = 1, // a worker's own; the service passes it on and never makes it
    denied = 2,
    unavailable = 3,
    status_code_4 = 4, // a worker's own, likewise
    failed = 5,
};

struct Request {
    Verb verb = Verb::status;
    std::vector<uint8_t> payload;
};

// What a tool gets from transact.
struct Response {
    Status status = Status::failed;
    std::string text;
};

// The worker's configuration, as an administrator sets it and the store keeps it. On the wire 16 bytes, the fields
// in this order and a reserved u16 that is 0 behind them. mode, flag_a, level and flag_b are the worker's to define.
struct Settings {
    uint16_t port = 9876;          // 1 to 65535
    uint16_t frame_rate = 60;      // 1 to 240 frames a second
    uint32_t bitrate_kbps = 20000; // 500 to 500000
    uint8_t mode = 1;              // 1 or 2
    uint8_t flag_a = 1;            // 0 or 1
    uint8_t level = 1;             // 0 to 2
    uint8_t flag_b = 1;            // 0 or 1
    uint16_t packet_size = 1400;   // 512 to 1400 bytes of payload in one network packet
};

// The little-endian u32 at bytes.
uint32_t read_u32(const uint8_t *bytes);

// Checks a header alone: false for null data, fewer than 12 bytes, null outputs, a wrong magic or version. Otherwise
// both outputs are stored, and the answer is whether the length is at most max_payload.
bool decode_header(const uint8_t *data, size_t size, uint16_t *verb, uint32_t *length);

// False for a null output, a size other than 16, a reserved field other than 0 or any field out of its range.
bool decode_settings(std::span<const uint8_t> bytes, Settings *settings);

// The 16 bytes; empty if a field is out of its range.
std::vector<uint8_t> encode_settings(const Settings &settings);

// Whether the payload is what its verb asks for.
bool valid_request(const Request &request);

// Takes exactly one whole frame, no byte more, that holds a valid request.
bool decode_request(const uint8_t *data, size_t size, Request *request);

// The whole frame; empty if the request is invalid.
std::vector<uint8_t> encode_request(const Request &request);

// The whole frame of a reply to verb; empty if text is longer than max_reply_text. The text's bytes are not looked at.
std::vector<uint8_t> encode_response(Verb verb, Status status, std::string_view text);

// Takes exactly one whole reply to expected. The text may hold any bytes.
bool decode_response(const uint8_t *data, size_t size, Verb expected, Status *status, std::string *text);

} // namespace host_service

#endif
