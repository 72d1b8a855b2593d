// One run of a program from its start to its end, and what it has cost.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct RunFigures {
    double wall = 0;    // seconds
    double user = 0;    // seconds, with those of the programs it has started
    double system = 0;  // seconds
    double peak = 0;    // bytes of memory, of the largest of them
    double faults = 0;  // pages that were handed out at first use
};

// What a program has printed, in memory that no program's peak counts.
class Output {
public:
    Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    ~Output();

    [[nodiscard]] int descriptor() const { return file; }
    [[nodiscard]] size_t size() const;
    [[nodiscard]] size_t lines() const;
    [[nodiscard]] bool operator==(const Output& other) const;

private:
    int file;
};

// What it prints goes to output, with what it prints on standard error if it is to end with another
// status than 0. Any other end than that ends the benchmark.
[[nodiscard]] RunFigures runMeasured(const std::vector<std::string>& arguments,
                                     const Output& output, int status);
