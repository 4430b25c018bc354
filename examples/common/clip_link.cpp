// The clipboard of one session.
#include "common/clip_link.h"

#include <algorithm>
#include <fstream>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <tarnglider/protocol.h>

#include "common/platform.h"
#include "common/text.h"

namespace app {
namespace {

constexpr int tries_max = 3;
// So long after the last piece nothing comes in any more: a sender repeats its question every 100 ms.
constexpr int64_t quiet_us = 300000;

// A transfer is given up after 5 seconds without an answer, and its first answer comes behind its last piece: at
// 2 MB/s, well below the rate at which pieces leave.
int64_t patience_us(size_t size) { return 7000000 + static_cast<int64_t>(size / 2); }

// The length of the UTF-8 sequence that begins with this byte; 0 for none.
size_t sequence_length(uint8_t lead) {
    if (lead < 0x80) return 1;
    if (lead < 0xC2) return 0;
    if (lead < 0xE0) return 2;
    if (lead < 0xF0) return 3;
    return lead < 0xF5 ? 4 : 0;
}

// Overlong forms, surrogates and numbers beyond the last are refused by the range of the second byte.
bool second_byte_fits(uint8_t lead, uint8_t second) {
    switch (lead) {
    case 0xE0:
        return second >= 0xA0;
    case 0xED:
        return second < 0xA0;
    case 0xF0:
        return second >= 0x90;
    case 0xF4:
        return second < 0x90;
    default:
        return true;
    }
}

bool is_text(std::span<const uint8_t> bytes) {
    for (size_t at = 0; at < bytes.size();) {
        const size_t length = sequence_length(bytes[at]);
        if (bytes[at] == 0 || length == 0 || length > bytes.size() - at) return false;
        for (size_t i = 1; i < length; i++) {
            if ((bytes[at + i] & 0xC0) != 0x80) return false;
        }
        if (length > 1 && !second_byte_fits(bytes[at], bytes[at + 1])) return false;
        at += length;
    }
    return true;
}

clip_file load_file(const std::filesystem::path &path) {
    std::error_code error;
    const uintmax_t size = std::filesystem::file_size(path, error);
    if (error) throw std::runtime_error("can't read " + utf8(path) + ": " + error.message());
    if (size == 0 || size > TARN_CLIP_PNG_MAX)
        throw std::runtime_error(utf8(path) + " can't be sent: it is empty, or above 16 MiB");
    clip_file file;
    file.name = utf8(path.filename());
    file.bytes.resize(static_cast<size_t>(size));
    std::ifstream in(path, std::ios::binary);
    in.read(reinterpret_cast<char *>(file.bytes.data()), static_cast<std::streamsize>(size));
    if (!in) throw std::runtime_error("can't read " + utf8(path) + ": check its permissions");
    file.kind = clip_kind(file.bytes);
    if (file.kind == 0)
        throw std::runtime_error(utf8(path) + " can't be sent: it is neither a PNG nor text in UTF-8");
    if (file.kind == TARN_CLIP_TEXT && size > TARN_CLIP_TEXT_MAX)
        throw std::runtime_error(utf8(path) + " can't be sent: it is a text above 1 MiB");
    return file;
}

} // namespace

uint8_t clip_kind(std::span<const uint8_t> bytes) {
    constexpr uint8_t png[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (bytes.size() >= sizeof png && std::equal(std::begin(png), std::end(png), bytes.begin()))
        return TARN_CLIP_PNG;
    return is_text(bytes) ? TARN_CLIP_TEXT : 0;
}

clip_options load_clips(const std::vector<std::string> &send, const std::string &save) {
    clip_options options;
    for (const std::string &name : send)
        options.send.push_back(load_file(path_from_utf8(name)));
    if (!save.empty()) {
        options.save = path_from_utf8(save);
        make_private_directory(*options.save);
    }
    return options;
}

clip_link::clip_link(const clip_options &options, packet_sink send, note_sink note)
    : options_(options), send_(std::move(send)), note_(std::move(note)) {
    tarn_clip_config config{};
    config.context = this;
    config.send = [](void *self, const uint8_t *packet, size_t size) {
        static_cast<clip_link *>(self)->send_({packet, size});
    };
    config.deliver = [](void *self, uint32_t, uint8_t kind, uint8_t *data, size_t size) {
        static_cast<clip_link *>(self)->take(kind, {data, size});
        tarn_clip_free(data);
    };
    config.log = [](void *self, const char *line) { static_cast<clip_link *>(self)->note_(line); };
    clip_.reset(tarn_clip_create(&config));
    if (!clip_) throw std::bad_alloc();
}

bool clip_link::packet(std::span<const uint8_t> data, int64_t now_us) {
    tarn_header header{};
    if (tarn_decode_header(data.data(), data.size(), &header) != 0) return false;
    if (header.type == TARN_PKT_CLIPBOARD) {
        if (!options_.receives()) return true;
        incoming_us_ = now_us;
    } else if (header.type != TARN_PKT_CLIPBOARD_ACK) {
        return false;
    }
    tarn_clip_receive(clip_.get(), data.data(), data.size());
    tarn_clipboard_ack ack{};
    if (header.type == TARN_PKT_CLIPBOARD_ACK && header.session == session_ &&
        tarn_decode_clipboard_ack(data.data(), data.size(), &ack) == 0)
        answer(ack.id, ack.status, now_us);
    return true;
}

const clip_file *clip_link::due() const {
    if (next_ < options_.send.size()) return &options_.send[next_];
    return echo_ ? &*echo_ : nullptr;
}

void clip_link::answer(uint32_t id, uint8_t status, int64_t now_us) {
    if (!waiting_ || id != id_) return;
    heard_us_ = now_us;
    if (status == TARN_CLIP_MISSING) return;
    if (status == TARN_CLIP_COMPLETE) {
        note_("sent " + due()->name);
        sent_++;
        next_file();
    } else {
        give_up("the peer can't take it");
    }
}

void clip_link::next_file() {
    waiting_ = false;
    tries_ = 0;
    if (next_ < options_.send.size()) {
        next_++;
    } else {
        echo_.reset();
    }
}

void clip_link::give_up(const char *why) {
    note_("could not send " + due()->name + ": " + why);
    failed_++;
    next_file();
}

void clip_link::advance(uint32_t session, size_t payload, int64_t now_us) {
    if (session != session_ || payload != payload_) {
        tarn_clip_set_session(clip_.get(), session, payload);
        session_ = session;
        payload_ = payload;
        waiting_ = false; // dropped with the change, and no try of its own
        incoming_us_.reset();
    }
    if (session == 0 || due() == nullptr) return;
    const clip_file &file = *due();
    if (waiting_) {
        if (now_us - heard_us_ <= patience_us(file.bytes.size())) return;
        waiting_ = false;
        if (++tries_ == tries_max) {
            give_up("no answer; does the peer save what it is sent?");
            return;
        }
    }
    if (incoming_us_ && now_us - *incoming_us_ < quiet_us) return;
    id_ = tarn_clip_offer(clip_.get(), file.kind, file.bytes.data(), file.bytes.size());
    waiting_ = id_ != 0;
    heard_us_ = now_us;
}

bool clip_link::busy(int64_t now_us) const {
    return due() != nullptr || (incoming_us_ && now_us - *incoming_us_ < quiet_us);
}

// Runs below a callback of the library, which no exception may pass.
void clip_link::take(uint8_t kind, std::span<const uint8_t> bytes) {
    try {
        if (options_.save) save(kind, bytes);
        received_++;
        if (!options_.echo) return;
        if (next_ == options_.send.size()) { // an older echo that is under way is outdated
            waiting_ = false;
            tries_ = 0;
        }
        echo_ = clip_file{"the echo", kind, {bytes.begin(), bytes.end()}};
    } catch (const std::exception &error) {
        note_(std::string("what came from the clipboard is lost: ") + error.what());
    }
}

void clip_link::save(uint8_t kind, std::span<const uint8_t> bytes) {
    std::filesystem::path path;
    unsigned number = 0;
    do {
        path = *options_.save / format("clip-%04u.%s", ++number, kind == TARN_CLIP_PNG ? "png" : "txt");
    } while (std::filesystem::exists(path));
    create_private_file(path, {reinterpret_cast<const char *>(bytes.data()), bytes.size()});
    note_("saved " + utf8(path));
}

} // namespace app
