// A program that runs beside the benchmark, its processor time and its system calls.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// A measurement cannot go on after a failure: says what failed, and errno's reason, and ends the
// benchmark with status 1.
[[noreturn]] void fail(const std::string& what);

// The same for what is no system call's failure, and without a reason.
[[noreturn]] void failCheck(const std::string& what);

class Program {
public:
    // Starts it and waits for its first line of output.
    explicit Program(const std::vector<std::string>& arguments);
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();  // ends it at once

    // Of all its threads, so far.
    [[nodiscard]] double processorSeconds() const;

    [[nodiscard]] pid_t pid() const { return child; }

private:
    pid_t child = -1;
    int output = -1;
};

// Counts the system calls of a program's threads, those that it has when counting begins.
class SystemCallCounter {
public:
    explicit SystemCallCounter(const Program& program);
    SystemCallCounter(const SystemCallCounter&) = delete;
    SystemCallCounter& operator=(const SystemCallCounter&) = delete;
    ~SystemCallCounter();

    // Since counting began; nothing where the kernel does not let this user count.
    [[nodiscard]] std::optional<uint64_t> count() const;

private:
    std::vector<int> counters;  // one a thread
    bool complete = true;
};
