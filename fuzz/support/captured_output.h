// What the code under test writes to a standard stream, or to that stream's descriptor, in memory.
// The fuzzer's own stream stays what it was, because it is another handle of the same descriptor.
#pragma once

#include <cstdio>
#include <string>

class CapturedOutput {
public:
    // stdout or stderr, which are variables of the C library here. Until the end of this object.
    explicit CapturedOutput(std::FILE*& stream);
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;
    ~CapturedOutput();

    // The bytes since the last call, or since the beginning.
    [[nodiscard]] std::string take();

private:
    std::FILE*& stream;
    std::FILE* const original;
};
