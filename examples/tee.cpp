// Copies standard input to standard output, to the last byte.
//
// Memory stays bounded however slow the reader is, except that a regular file on standard input is
// read in one piece. Ends with status 1 when something could not be read or written.

#include <unistd.h>

#include <cstdio>
#include <future>
#include <memory>
#include <utility>

#include "examples/stream_descriptor.h"
#include "kqueue/HXKQueue.h"
#include "kqueue/HXKQueueBipipeClient.h"
#include "kqueue/HXKQueueTimer.h"

namespace {

constexpr uint64_t kMostPending = 1 << 20;  // bytes that wait for the reader
constexpr uint64_t kGlanceMs = 10;

int fail(const char* what, const char* how) {
    std::fprintf(stderr, "tee: %s %s\n", what, how);
    return 1;
}

// A stream does not report the end of a regular file, only that it could not be read.
int statusOfEnd() {
    return isRegularFile(STDIN_FILENO) ? fail("standard input", "cannot be read") : 0;
}

// A terminal announces all the lines that wait and gives one; zeros stand for the others.
uint64_t countZerosAtEnd(const char* bytes, uint64_t size) {
    uint64_t count = 0;
    while (count < size && bytes[size - count - 1] == '\0')
        ++count;
    return count;
}

// All but the result is the I/O thread's. The two sources' blocks own it until they are stopped.
class Tee : public std::enable_shared_from_this<Tee> {
public:
    explicit Tee(std::weak_ptr<HXKQueue> loopOfSources) : loop(std::move(loopOfSources)) {}

    // Starts the loop. Returns the exit status once everything is copied, or cannot be.
    int run(HXKQueue& running);

private:
    void onEvent(const char* bytes, uint64_t size, int32_t code);
    void onGlance();
    void pause();
    void finish(int status);

    const std::weak_ptr<HXKQueue> loop;
    std::shared_ptr<HXKQueueBipipeClient> stream;
    std::shared_ptr<HXKQueueTimer> timer;  // null: finished
    bool isPaused = false;
    bool hasEnded = false;  // the end will not be reported again
    std::promise<int> result;
};

int Tee::run(HXKQueue& running) {
    constexpr int kStandard[2] = {STDIN_FILENO, STDOUT_FILENO};
    stream = running.createBipipeClient(kStandard, false);
    timer = running.createTimer(kGlanceMs, false);
    if (!stream || !timer) return fail("there is", "no memory");
    running.startObject(
        stream, [tee = shared_from_this()](const auto& /*source*/, const char* bytes, uint64_t size,
                                           uint64_t* /*dropSize*/, int32_t code) {
            tee->onEvent(bytes, size, code);
            return true;
        });
    running.startObject(timer, [tee = shared_from_this()](const auto&... /*ignored*/) {
        tee->onGlance();
        return true;
    });
    running.start();
    return result.get_future().get();
}

// With reading paused it can only be the output that has ended; with nothing to write, only the
// input. Otherwise the pause tells: either the next write fails as well, or all is written and the
// end of the input is reported again (a terminal reports it once).
void Tee::onEvent(const char* bytes, uint64_t size, int32_t code) {
    const auto running = loop.lock();
    if (!running || !timer) return;
    if (code == HXKQueueEventData) {
        if (isatty(STDIN_FILENO) != 0) size -= countZerosAtEnd(bytes, size);
        running->write(stream, bytes, size);
        if (stream->pendingBytes() > kMostPending) pause();
    } else if (code == HXKQueueEventTerminated) {
        if (isPaused) return finish(fail("standard output", "cannot be written"));
        if (stream->pendingBytes() == 0) return finish(statusOfEnd());
        hasEnded = isatty(STDIN_FILENO) != 0;
        pause();
    }
}

// Nothing else tells that the last byte has been taken, nor that a regular file has ended.
void Tee::onGlance() {
    if (!timer || stream->pendingBytes() > 0) return;
    if (hasEnded || isFileAtEnd(STDIN_FILENO)) return finish(0);
    if (std::exchange(isPaused, false)) stream->resumeReading();
}

void Tee::pause() {
    isPaused = true;
    stream->pauseReading();
}

void Tee::finish(int status) {
    if (const auto running = loop.lock()) {
        running->stopObject(stream);
        running->stopObject(std::exchange(timer, nullptr));
    }
    result.set_value(status);
}

}  // namespace

int main() {
    if (const char* why = objectionTo(STDIN_FILENO, Direction::Reading))
        return fail("standard input", why);
    if (const char* why = objectionTo(STDOUT_FILENO, Direction::Writing))
        return fail("standard output", why);
    if (areTheSameFile(STDIN_FILENO, STDOUT_FILENO))
        return fail("standard input", "is standard output, too");
    const auto loop = HXKQueue::initWithSubsystem("org.example.tee");
    if (!loop) return fail("there is", "no event loop");
    const BlockingMode input(STDIN_FILENO);
    const BlockingMode output(STDOUT_FILENO);
    // The loop is left running: to stop it takes a second, and the process ends now.
    return std::make_shared<Tee>(loop)->run(*loop);
}
