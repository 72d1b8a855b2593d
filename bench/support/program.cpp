#include "bench/support/program.h"

#include <fcntl.h>
#include <linux/perf_event.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

namespace {

// Where the kernel says which number the event has that every system call begins with.
constexpr const char* kSystemCallEvents[] = {
    "/sys/kernel/tracing/events/raw_syscalls/sys_enter/id",
    "/sys/kernel/debug/tracing/events/raw_syscalls/sys_enter/id",
};

uint64_t systemCallEvent() {
    uint64_t number = 0;
    for (const char* path : kSystemCallEvents)
        if (std::ifstream(path) >> number) break;
    return number;
}

int openCounter(pid_t thread, uint64_t event) {
    perf_event_attr what{};
    what.size = sizeof what;
    what.type = PERF_TYPE_TRACEPOINT;
    what.config = event;
    return static_cast<int>(syscall(SYS_perf_event_open, &what, thread, -1, -1, 0));
}

}  // namespace

void fail(const std::string& what) {
    std::perror(what.c_str());
    std::exit(1);
}

void failCheck(const std::string& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(1);
}

Program::Program(const std::vector<std::string>& arguments) {
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1) fail("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    errno = posix_spawn(&child, words[0], &actions, nullptr, words.data(), environ);
    if (errno != 0) fail(arguments[0]);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    output = ends[0];
    for (char next = 0; next != '\n';)
        if (read(output, &next, 1) != 1) failCheck(arguments[0] + " does not begin");
}

Program::~Program() {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(output);
}

double Program::processorSeconds() const {
    clockid_t clock;
    timespec time{};
    if (clock_getcpuclockid(child, &clock) != 0 || clock_gettime(clock, &time) != 0)
        fail("processor time");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

SystemCallCounter::SystemCallCounter(const Program& program) {
    const uint64_t event = systemCallEvent();
    const std::string threads = "/proc/" + std::to_string(program.pid()) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(threads)) {
        const int counter = openCounter(std::stoi(thread.path().filename().string()), event);
        if (counter == -1)
            complete = false;
        else
            counters.push_back(counter);
    }
}

SystemCallCounter::~SystemCallCounter() {
    for (const int counter : counters)
        close(counter);
}

std::optional<uint64_t> SystemCallCounter::count() const {
    if (!complete) return std::nullopt;
    uint64_t sum = 0;
    for (const int counter : counters) {
        uint64_t of = 0;
        if (read(counter, &of, sizeof of) != sizeof of) return std::nullopt;
        sum += of;
    }
    return sum;
}
