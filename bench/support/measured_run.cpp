#include "bench/support/measured_run.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench/support/program.h"

namespace {

constexpr size_t kPiece = 65'536;

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

pid_t start(const std::vector<std::string>& arguments, int output, bool withErrors) {
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    if (withErrors) posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
    pid_t child = -1;
    errno = posix_spawnp(&child, words[0], &actions, nullptr, words.data(), environ);
    if (errno != 0) fail(arguments[0]);
    posix_spawn_file_actions_destroy(&actions);
    return child;
}

size_t readAt(int file, size_t offset, char* into) {
    const ssize_t count = pread(file, into, kPiece, static_cast<off_t>(offset));
    if (count == -1) fail("pread");
    return static_cast<size_t>(count);
}

}  // namespace

Output::Output() : file(memfd_create("output", MFD_CLOEXEC)) {
    if (file == -1) fail("memfd_create");
}

Output::~Output() {
    close(file);
}

size_t Output::size() const {
    struct stat about {};
    if (fstat(file, &about) == -1) fail("fstat");
    return static_cast<size_t>(about.st_size);
}

size_t Output::lines() const {
    char piece[kPiece];
    size_t count = 0;
    size_t offset = 0;
    while (const size_t size = readAt(file, offset, piece)) {
        count += static_cast<size_t>(std::count(piece, piece + size, '\n'));
        offset += size;
    }
    return count;
}

bool Output::operator==(const Output& other) const {
    char mine[kPiece];
    char theirs[kPiece];
    for (size_t offset = 0;; offset += kPiece) {
        const size_t size = readAt(file, offset, mine);
        if (readAt(other.file, offset, theirs) != size || std::memcmp(mine, theirs, size) != 0)
            return false;
        if (size < kPiece) return true;
    }
}

RunFigures runMeasured(const std::vector<std::string>& arguments, const Output& output,
                       int status) {
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = start(arguments, output.descriptor(), status != 0);
    int ended = 0;
    rusage usage{};
    if (wait4(child, &ended, 0, &usage) != child) fail("wait4");
    const auto end = std::chrono::steady_clock::now();
    if (!WIFEXITED(ended) || WEXITSTATUS(ended) != status) {
        std::fprintf(stderr, "%s: ends with %#x\n", arguments[0].c_str(),
                     static_cast<unsigned>(ended));
        std::exit(1);
    }
    return {
        .wall = std::chrono::duration<double>(end - begin).count(),
        .user = seconds(usage.ru_utime),
        .system = seconds(usage.ru_stime),
        .peak = static_cast<double>(usage.ru_maxrss) * 1024,
        .faults = static_cast<double>(usage.ru_minflt),
    };
}
