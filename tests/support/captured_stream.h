// Collects what this process writes to a standard stream, as bytes.
#pragma once

#include <cstdio>
#include <string>

class CapturedStream {
public:
    // stdout or stderr, whose bytes go nowhere else until the end of this object.
    explicit CapturedStream(std::FILE* stream);
    CapturedStream(const CapturedStream&) = delete;
    CapturedStream& operator=(const CapturedStream&) = delete;
    ~CapturedStream();

    // The bytes since the last call, or since the beginning.
    [[nodiscard]] std::string take();

private:
    std::FILE* stream;
    int original;  // what the stream wrote to before
    int collected;
    long taken = 0;
};
