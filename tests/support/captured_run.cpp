#include "tests/support/captured_run.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "tests/support/descriptors.h"
#include "tests/support/peak_memory.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX has no header declare it

namespace {

struct Child {
    pid_t pid;
    int out;
    int err;
};

struct Pipe {
    int readEnd;
    int writeEnd;
};

Pipe makeOutput() {
    const auto [readEnd, writeEnd] = makePipe();
    if (readEnd == -1) throw std::runtime_error("pipe failed");
    return {.readEnd = readEnd, .writeEnd = writeEnd};
}

Child forkInto(const std::function<void()>& body) {
    const Pipe out = makeOutput();
    const Pipe err = makeOutput();
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == -1) throw std::runtime_error("fork failed");
    if (pid == 0) {
        const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
        dup2(nothing, STDIN_FILENO);
        dup2(out.writeEnd, STDOUT_FILENO);
        dup2(err.writeEnd, STDERR_FILENO);
        signal(SIGPIPE, SIG_DFL);  // whatever the tests are run by
        body();
        std::exit(0);
    }
    close(out.writeEnd);
    close(err.writeEnd);
    return {.pid = pid, .out = out.readEnd, .err = err.readEnd};
}

std::vector<char*> argumentVector(const std::vector<std::string>& arguments) {
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    return words;
}

// Under the thread sanitizer a program lingers at its end, by default for a second, for races that
// show only then. The tests end so many programs that less has to do.
void shortenLingering() {
    constexpr std::string_view kLingering = "atexit_sleep_ms=20";
    const char* given = getenv("TSAN_OPTIONS");
    std::string options = given != nullptr ? given : "";
    if (options.find(kLingering) != std::string::npos) return;
    options.append(options.empty() ? "" : ":").append(kLingering);
    setenv("TSAN_OPTIONS", options.c_str(), 1);
}

// Not by fork: copying the address space of a test under a sanitizer takes longer than the
// program runs.
Child spawn(const std::vector<std::string>& arguments) {
    shortenLingering();
    const Pipe out = makeOutput();
    const Pipe err = makeOutput();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out.writeEnd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.writeEnd, STDERR_FILENO);
    posix_spawnattr_t attributes;  // whatever the tests are run by, SIGPIPE ends a program
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    const std::vector<char*> words = argumentVector(arguments);
    pid_t pid = -1;
    const int failure = posix_spawn(&pid, words[0], &actions, &attributes, words.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    close(out.writeEnd);
    close(err.writeEnd);
    if (failure != 0)
        throw std::runtime_error("cannot run " + arguments[0] + ": " + std::strerror(failure));
    return {.pid = pid, .out = out.readEnd, .err = err.readEnd};
}

// Closes fd and makes it -1 at the end of what can be read.
void drain(int& fd, std::string& text) {
    std::array<char, 65536> piece;
    const ssize_t size = read(fd, piece.data(), piece.size());
    if (size > 0) {
        text.append(piece.data(), static_cast<size_t>(size));
    } else if (size == 0 || errno != EINTR) {
        close(fd);
        fd = -1;
    }
}

Outcome collect(pid_t pid, int& out, int& err, size_t& peak) {
    Outcome outcome;
    while (out != -1 || err != -1) {
        std::array<pollfd, 2> waiting{{{out, POLLIN, 0}, {err, POLLIN, 0}}};
        if (poll(waiting.data(), waiting.size(), -1) == -1) continue;
        if (waiting[0].revents != 0) drain(out, outcome.out);
        if (waiting[1].revents != 0) drain(err, outcome.err);
    }
    int status = 0;
    struct rusage usage {};
    while (wait4(pid, &status, 0, &usage) == -1 && errno == EINTR) {
    }
    peak = peakBytes(usage);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
}

}  // namespace

Outcome runInChild(const std::function<void()>& body) {
    Child child = forkInto(body);
    size_t peak = 0;
    return collect(child.pid, child.out, child.err, peak);
}

Outcome runProgram(const std::vector<std::string>& arguments) {
    Child child = spawn(arguments);
    size_t peak = 0;
    return collect(child.pid, child.out, child.err, peak);
}

RunningProgram::RunningProgram(const std::vector<std::string>& arguments) {
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    peakAtStart = peakBytes(usage);
    const Child started = spawn(arguments);
    child = started.pid;
    outPipe = started.out;
    errPipe = started.err;
}

RunningProgram::RunningProgram(RunningProgram&& other) noexcept
    : child(std::exchange(other.child, -1)),
      outPipe(std::exchange(other.outPipe, -1)),
      errPipe(std::exchange(other.errPipe, -1)),
      seen(std::move(other.seen)),
      peakAtStart(other.peakAtStart),
      peak(other.peak) {}

RunningProgram::~RunningProgram() {
    if (child == -1) return;
    kill(child, SIGKILL);
    collect(child, outPipe, errPipe, peak);
}

void RunningProgram::signal(int number) const {
    kill(child, number);
}

bool RunningProgram::isRunning() const {
    siginfo_t ended{};
    return waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == 0;
}

bool RunningProgram::waitForOutput(std::string_view text) {
    while (seen.find(text) == std::string::npos && outPipe != -1)
        drain(outPipe, seen);
    return seen.find(text) != std::string::npos;
}

Outcome RunningProgram::finish() {
    Outcome outcome = collect(child, outPipe, errPipe, peak);
    outcome.out.insert(0, seen);
    child = -1;
    return outcome;
}
