#include "tests/support/terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX has no header declare it

namespace {

constexpr int kPatienceMs = 60'000;

// So wide that no line of a test is broken.
constexpr unsigned short kColumns = 200;
constexpr unsigned short kRows = 50;

int openKeyboard() {
    const int keyboard = posix_openpt(O_RDWR | O_NOCTTY);
    if (keyboard == -1) throw std::runtime_error("there is no pseudo-terminal to be had");
    const struct winsize size = {
        .ws_row = kRows, .ws_col = kColumns, .ws_xpixel = 0, .ws_ypixel = 0};
    if (fcntl(keyboard, F_SETFD, FD_CLOEXEC) == 0 && grantpt(keyboard) == 0 &&
        unlockpt(keyboard) == 0 && ioctl(keyboard, TIOCSWINSZ, &size) == 0)
        return keyboard;
    close(keyboard);
    throw std::runtime_error("the pseudo-terminal cannot be used");
}

// The first terminal that the leader of a session opens is its controlling one.
pid_t spawnAt(const char* terminal, const std::vector<std::string>& arguments) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, terminal, O_RDWR, 0);
    posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    pid_t pid = -1;
    const int failure = posix_spawn(&pid, words[0], &actions, &attributes, words.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (failure == 0) return pid;
    throw std::runtime_error("cannot run " + arguments[0] + ": " + std::strerror(failure));
}

}  // namespace

std::string findProgram(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "");
    for (std::string directory; std::getline(directories, directory, ':');)
        if (access((directory + '/' + name).c_str(), X_OK) == 0) return directory + '/' + name;
    return "";
}

Terminal::Terminal(const std::vector<std::string>& arguments) : keyboard(openKeyboard()) {
    try {
        child = spawnAt(ptsname(keyboard), arguments);
    } catch (...) {
        close(keyboard);
        throw;
    }
}

Terminal::~Terminal() {
    if (keyboard != -1) close(keyboard);
    if (child == -1) return;
    kill(child, SIGKILL);
    while (waitpid(child, nullptr, 0) == -1 && errno == EINTR) {
    }
}

void Terminal::type(std::string_view keys) const {
    while (!keys.empty()) {
        const ssize_t written = write(keyboard, keys.data(), keys.size());
        if (written == -1 && errno != EINTR) throw std::runtime_error("nobody reads the keyboard");
        if (written > 0) keys.remove_prefix(static_cast<size_t>(written));
    }
}

Terminal::Reading Terminal::readOn() {
    struct pollfd waiting = {.fd = keyboard, .events = POLLIN, .revents = 0};
    if (poll(&waiting, 1, kPatienceMs) != 1) return Reading::kNothing;
    std::array<char, 4096> piece;
    const ssize_t size = read(keyboard, piece.data(), piece.size());
    if (size == -1 && errno == EINTR) return Reading::kSome;
    if (size <= 0) return Reading::kEnd;
    seen.append(piece.data(), static_cast<size_t>(size));
    return Reading::kSome;
}

bool Terminal::waitFor(std::string_view text) {
    for (;;) {
        if (const size_t at = seen.find(text, waitedFor); at != std::string::npos) {
            waitedFor = at + text.size();
            return true;
        }
        if (readOn() != Reading::kSome) return false;
    }
}

void Terminal::signal(int number) const {
    kill(child, number);
}

void Terminal::hangUp() {
    close(keyboard);
    keyboard = -1;
}

int Terminal::finish() {
    while (keyboard != -1) {
        const Reading reading = readOn();
        if (reading == Reading::kNothing) throw std::runtime_error("the terminal stays open");
        if (reading == Reading::kEnd) hangUp();
    }
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    child = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
