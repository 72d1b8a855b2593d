// Runs code that ends its process, or a program, and tells all that a person would have seen.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct Outcome {
    int status = 0;  // exit status, or 128 + the number of the signal that ended it
    std::string out;
    std::string err;

    bool operator==(const Outcome&) const = default;
};

// Runs body in a child process; a body that returns ends it with status 0.
[[nodiscard]] Outcome runInChild(const std::function<void()>& body);

// Runs a program with the given arguments, the first of which is its path, and nothing on standard
// input. A program that cannot be run throws std::runtime_error.
[[nodiscard]] Outcome runProgram(const std::vector<std::string>& arguments);

// A program that runs while the test goes on; finish waits for it.
class RunningProgram {
public:
    explicit RunningProgram(const std::vector<std::string>& arguments);
    ~RunningProgram();  // ends a program that was not waited for, with SIGKILL
    RunningProgram(RunningProgram&& other) noexcept;
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    void signal(int number) const;

    // Whether it has not ended yet.
    [[nodiscard]] bool isRunning() const;

    // Reads its standard output until text has appeared there: true, or false when the output
    // ends first. What was read is part of finish's outcome all the same.
    [[nodiscard]] bool waitForOutput(std::string_view text);

    [[nodiscard]] Outcome finish();

    // The most memory that a program which has finished had in use at a time, in bytes. It is never
    // less than the most that this process had had in use when it started the program, as the
    // system counts that, too.
    [[nodiscard]] size_t peakMemory() const { return peak; }
    [[nodiscard]] size_t leastPeakMemory() const { return peakAtStart; }
    [[nodiscard]] int pid() const { return child; }

private:
    int child = -1;
    int outPipe = -1;
    int errPipe = -1;
    std::string seen;        // of its standard output, by waitForOutput
    size_t peakAtStart = 0;  // of this process
    size_t peak = 0;
};
