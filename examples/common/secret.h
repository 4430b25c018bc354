// PINs and passwords on their way in: from a file, the environment, the terminal without echo, or standard input, but
// never from the command line, which every user of the machine can read.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <tarnglider/secure.h>

namespace app {

// A text that is wiped. It isn't copied or moved, which would leave bytes behind; a reserved one doesn't grow.
struct secret_text {
    std::string text;
    secret_text() { text.reserve(1024); }
    secret_text(const secret_text &) = delete;
    secret_text &operator=(const secret_text &) = delete;
    ~secret_text() {
        text.resize(text.capacity());
        tarn_secure_wipe(text.data(), text.size());
    }
};

// Where a secret comes from: the first of these that there is.
struct secret_sources {
    std::optional<std::filesystem::path> file; // its first line
    const char *variable = "";                 // of the environment
    const char *prompt = ""; // on the terminal; without one, the first line of standard input
    bool twice = false;      // a new secret is typed twice
};

// Takes the first line of `content` into `out`. Throws std::runtime_error, which names `source`, for an empty line and
// for one that no peer can be given: above 255 bytes, or with a NUL.
void secret_line(std::string_view content, const std::string &source, secret_text &out);

void read_secret(const secret_sources &sources, secret_text &out);

} // namespace app
