#include "fuzz/support/captured_output.h"

#include <cstdlib>

#include "fuzz/support/oracle.h"

CapturedOutput::CapturedOutput(std::FILE*& stream_) : stream(stream_), original(stream_) {
    stream = open_memstream(&bytes, &size);
    if (stream == nullptr) refute("there is memory for a stream");
}

CapturedOutput::~CapturedOutput() {
    std::fclose(stream);
    std::free(bytes);
    stream = original;
}

// Behind a rewind, size counts to the position.
std::string CapturedOutput::take() {
    std::fflush(stream);
    std::string text(bytes, size);
    std::rewind(stream);
    return text;
}
