// The example programs on POSIX systems.
#include "common/platform.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

#include "common/text.h"

namespace app {
namespace {

volatile std::sig_atomic_t stop_flag = 0;

extern "C" void on_stop_signal(int) { stop_flag = 1; }

[[noreturn]] void fail(const char *what, const std::filesystem::path &path, int code) {
    throw std::runtime_error(std::string(what) + " " + utf8(path) + ": " +
                             std::generic_category().message(code));
}

// Keeps the terminal from showing what is typed, and gives it back as it was.
class hidden_input {
public:
    hidden_input() {
        known_ = ::tcgetattr(STDIN_FILENO, &before_) == 0;
        termios hidden = before_;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        hidden.c_lflag |= ECHONL;
        if (known_) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    }
    ~hidden_input() {
        if (known_) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
    }
    hidden_input(const hidden_input &) = delete;
    hidden_input &operator=(const hidden_input &) = delete;

private:
    termios before_{};
    bool known_ = false;
};

int write_all(int fd, std::string_view rest) {
    while (!rest.empty()) {
        const ssize_t n = ::write(fd, rest.data(), rest.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        rest.remove_prefix(static_cast<size_t>(n));
    }
    return ::fsync(fd) == 0 ? 0 : errno;
}

} // namespace

void catch_stop_signals() {
    struct sigaction action = {};
    action.sa_handler = on_stop_signal;
    // No SA_RESTART: the wait for datagrams ends at once. The handler stays, since one stop may come as several
    // signals: to the process and to its group.
    action.sa_flags = 0;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool stop_requested() { return stop_flag != 0; }

std::vector<std::string> utf8_arguments(int argc, char **argv) {
    std::vector<std::string> result;
    for (int i = 1; i < argc; i++)
        result.emplace_back(argv[i]);
    return result;
}

std::filesystem::path default_directory(const char *role) {
    if (const char *config = std::getenv("XDG_CONFIG_HOME"); config != nullptr && config[0] == '/')
        return std::filesystem::path(config) / "tarnglider" / role;
    if (const char *home = std::getenv("HOME"); home != nullptr && home[0] != '\0')
        return std::filesystem::path(home) / ".config" / "tarnglider" / role;
    throw std::runtime_error("HOME is not set; say where to keep the identity with --dir");
}

void make_private_directory(const std::filesystem::path &path) {
    std::error_code error;
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), error);
    if (error) fail("can't make the folder", path.parent_path(), error.value());
    if (::mkdir(path.c_str(), 0700) == 0) return;
    const int code = errno;
    if (code == EEXIST && std::filesystem::is_directory(path, error)) return;
    fail("can't make the folder", path, code == EEXIST ? ENOTDIR : code);
}

void create_private_file(const std::filesystem::path &path, std::string_view content) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) fail("can't write", path, errno);
    int code = write_all(fd, content);
    if (::close(fd) != 0 && code == 0) code = errno;
    if (code == 0) return;
    ::unlink(path.c_str());
    fail("can't write", path, code);
}

std::string machine_name() {
    char name[256] = {};
    return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

std::optional<std::string> environment(const char *name) {
    const char *value = std::getenv(name);
    if (value == nullptr) return std::nullopt;
    return value;
}

bool ask_hidden(const std::string &prompt, std::string &line) {
    if (::isatty(STDIN_FILENO) == 0) return false;
    catch_stop_signals(); // one that comes now ends the read, so that the terminal is given back
    const hidden_input hidden;
    std::fprintf(stderr, "%s", prompt.c_str());
    std::fflush(stderr);
    line.clear();
    for (;;) {
        char c = 0;
        const ssize_t n = ::read(STDIN_FILENO, &c, 1);
        if (n < 0 && errno == EINTR && !stop_requested()) continue;
        if (n <= 0) throw std::runtime_error("cancelled");
        if (c == '\n') return true;
        if (line.size() < 1023) line += c;
    }
}

void require_private_file(const std::filesystem::path &path) {
    struct stat info = {};
    if (::stat(path.c_str(), &info) != 0) fail("can't read", path, errno);
    if ((info.st_mode & 077) != 0)
        throw std::runtime_error(utf8(path) + " holds a secret and others may read it; run: chmod 600 " +
                                 utf8(path));
}

} // namespace app
