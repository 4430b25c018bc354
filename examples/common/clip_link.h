// The clipboard of one session: the files that this side offers one after another, and what comes in, saved as files.
//
//   waiting    a file was offered and its answer is due; a change of session or packet size ends that
//   due        the next file is offered as soon as nothing comes in; one that gets no answer is offered three times
//
// With an echo, what comes in is offered back when the files are through; only the newest of it.
//
// A blob that comes in while something is offered here would be taken for outdated by the transfer, hence the pause.
// All functions belong to one thread; only the two sinks are called from the transfer's thread, too.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <tarnglider/clipboard.h>

namespace app {

struct clip_file {
    std::string name;
    uint8_t kind = 0;
    std::vector<uint8_t> bytes;
};

struct clip_options {
    std::vector<clip_file> send;
    std::optional<std::filesystem::path> save;
    bool echo = false;
    bool receives() const { return save || echo; } // else what comes in is not answered
    bool any() const { return receives() || !send.empty(); }
};

// The kind of some bytes: PNG by its signature, text if they are UTF-8 without NUL, else 0.
uint8_t clip_kind(std::span<const uint8_t> bytes);

// Reads the files, and makes the folder if there is none. Throws std::runtime_error for a file that is empty, too large,
// or neither PNG nor text.
clip_options load_clips(const std::vector<std::string> &send, const std::string &save);

class clip_link {
public:
    using packet_sink = std::function<void(std::span<const uint8_t> packet)>;
    using note_sink = std::function<void(const std::string &line)>;

    // The options outlive the link. The sinks must not call it.
    clip_link(const clip_options &options, packet_sink send, note_sink note);
    clip_link(const clip_link &) = delete;
    clip_link &operator=(const clip_link &) = delete;

    // Takes one opened packet; false if it is none of the clipboard's.
    bool packet(std::span<const uint8_t> data, int64_t now_us);

    // What is due by time, on this session with packets of this size; 0: there is none now.
    void advance(uint32_t session, size_t payload, int64_t now_us);

    // True while files are to be sent or something comes in.
    bool busy(int64_t now_us) const;

    uint64_t sent() const { return sent_; }
    uint64_t received() const { return received_; }
    uint64_t failed() const { return failed_; }

private:
    const clip_file *due() const;
    void answer(uint32_t id, uint8_t status, int64_t now_us);
    void next_file();
    void give_up(const char *why);
    void take(uint8_t kind, std::span<const uint8_t> bytes);
    void save(uint8_t kind, std::span<const uint8_t> bytes);

    struct clip_end {
        void operator()(tarn_clip *clip) const { tarn_clip_destroy(clip); }
    };

    const clip_options &options_;
    packet_sink send_;
    note_sink note_;
    uint32_t session_ = 0;
    size_t payload_ = 0;
    size_t next_ = 0; // of the files
    std::optional<clip_file> echo_;
    int tries_ = 0; // of it
    bool waiting_ = false;
    uint32_t id_ = 0;
    int64_t heard_us_ = 0; // of the file that is waited for: the offer, then each answer
    std::optional<int64_t> incoming_us_;
    uint64_t sent_ = 0;
    uint64_t received_ = 0;
    uint64_t failed_ = 0;
    std::unique_ptr<tarn_clip, clip_end> clip_; // last, so that its thread is gone before the rest
};

} // namespace app
