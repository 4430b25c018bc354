// PINs and passwords on their way in.
#include "common/secret.h"

#include <fstream>
#include <iostream>
#include <stdexcept>

#include "common/platform.h"
#include "common/text.h"

namespace app {
namespace {

constexpr size_t secret_max = 255; // what tarn_client_pair takes

// The first line of a stream, without a copy in a buffer that grew.
void read_line(std::istream &in, secret_text &out) {
    out.text.resize(1000);
    in.getline(out.text.data(), 1000);
    out.text.resize(out.text.find('\0')); // getline always writes one
}

void ask(const secret_sources &sources, secret_text &out) {
    secret_text typed;
    if (!ask_hidden(std::string(sources.prompt) + ": ", typed.text)) {
        read_line(std::cin, typed);
        secret_line(typed.text, "standard input", out);
        return;
    }
    secret_line(typed.text, "what was typed", out);
    if (!sources.twice) return;
    ask_hidden("the same again: ", typed.text);
    if (typed.text != out.text) throw std::runtime_error("the two are not the same; nothing was changed");
}

} // namespace

void secret_line(std::string_view content, const std::string &source, secret_text &out) {
    content = content.substr(0, content.find('\n'));
    if (!content.empty() && content.back() == '\r') content.remove_suffix(1);
    if (content.empty()) throw std::runtime_error(source + " holds no secret: its first line is empty");
    if (content.size() > secret_max)
        throw std::runtime_error(source + " holds a secret of more than 255 bytes");
    if (content.find('\0') != std::string_view::npos)
        throw std::runtime_error(source + " holds a secret with a NUL byte");
    out.text.assign(content);
}

void read_secret(const secret_sources &sources, secret_text &out) {
    if (sources.file) {
        std::ifstream in(*sources.file, std::ios::binary);
        secret_text content;
        content.text.resize(1000);
        in.read(content.text.data(), 1000);
        if (!in && !in.eof()) throw std::runtime_error("can't read the secret from " + utf8(*sources.file));
        content.text.resize(static_cast<size_t>(in.gcount()));
        secret_line(content.text, utf8(*sources.file), out);
    } else if (const std::optional<std::string> value = environment(sources.variable)) {
        secret_line(*value, sources.variable, out);
    } else {
        ask(sources, out);
    }
}

} // namespace app
