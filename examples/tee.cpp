// Copies standard input to standard output, and to the files that are named, to the last byte.
//
//     tee [FILE...]
//
// Memory stays bounded however slow the reader is, except that a regular file on standard input is
// read in one piece. Ends with status 1 when something could not be read or written.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <future>
#include <memory>
#include <utility>
#include <vector>

#include "examples/stream_descriptor.h"
#include "kqueue/HXKQueue.h"
#include "kqueue/HXKQueueBipipeClient.h"
#include "kqueue/HXKQueueTimer.h"

namespace {

constexpr uint64_t kMostPending = 1 << 20;  // bytes that wait for the reader
constexpr uint64_t kGlanceMs = 10;

struct File {
    const char* name;
    std::ofstream stream;
};

int fail(const char* what, const char* how) {
    std::fprintf(stderr, "tee: %s %s\n", what, how);
    return 1;
}

// A stream does not report the end of a regular file, only that it could not be read.
int statusOfEnd() {
    takeEndOfFile(STDIN_FILENO);
    return isRegularFile(STDIN_FILENO) ? fail("standard input", "cannot be read") : 0;
}

// All but the result is the I/O thread's. The two sources' blocks own it until they are stopped.
class Tee : public std::enable_shared_from_this<Tee> {
public:
    Tee(std::weak_ptr<HXKQueue> loopOfSources, std::vector<File> named)
        : loop(std::move(loopOfSources)), files(std::move(named)) {}

    // Starts the loop. Returns the exit status once everything is copied, or cannot be.
    int run(HXKQueue& running);

private:
    void onEvent(const char* bytes, uint64_t size, int32_t code);
    void onGlance();
    void pause();
    void finish(int status);

    const std::weak_ptr<HXKQueue> loop;
    std::vector<File> files;
    std::shared_ptr<HXKQueueBipipeClient> stream;
    std::shared_ptr<HXKQueueTimer> timer;  // null: finished
    bool isPaused = false;
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
// end of the input is reported again.
void Tee::onEvent(const char* bytes, uint64_t size, int32_t code) {
    const auto running = loop.lock();
    if (!running || !timer) return;
    if (code == HXKQueueEventData) {
        running->write(stream, bytes, size);
        for (File& file : files)
            file.stream.write(bytes, static_cast<std::streamsize>(size));
        if (stream->pendingBytes() > kMostPending) pause();
    } else if (code == HXKQueueEventTerminated) {
        if (isPaused) return finish(fail("standard output", "cannot be written"));
        if (stream->pendingBytes() == 0) return finish(statusOfEnd());
        pause();
    }
}

// Nothing else tells that the last byte has been taken, nor that a regular file has ended.
void Tee::onGlance() {
    if (!timer || stream->pendingBytes() > 0) return;
    if (isFileAtEnd(STDIN_FILENO)) return finish(0);
    if (std::exchange(isPaused, false)) stream->resumeReading();
}

void Tee::pause() {
    isPaused = true;
    stream->pauseReading();
}

void Tee::finish(int status) {
    for (File& file : files) {
        file.stream.close();
        if (!file.stream) status = fail(file.name, "cannot be written");
    }
    if (const auto running = loop.lock()) {
        running->stopObject(stream);
        running->stopObject(std::exchange(timer, nullptr));
    }
    result.set_value(status);
}

}  // namespace

int main(int argc, char** argv) {
    if (std::any_of(argv + 1, argv + argc, [](const char* name) { return *name == '-'; })) {
        std::fputs("Usage: tee [FILE...]\n", stderr);
        return 2;
    }
    if (const char* why = objectionTo(STDIN_FILENO, Direction::Reading))
        return fail("standard input", why);
    if (const char* why = objectionTo(STDOUT_FILENO, Direction::Writing))
        return fail("standard output", why);
    if (areTheSameFile(STDIN_FILENO, STDOUT_FILENO))
        return fail("standard input", "is standard output, too");
    keepOthersOffStandardError();
    std::vector<File> files;
    for (int i = 1; i < argc; ++i) {
        files.push_back({argv[i], std::ofstream(argv[i], std::ios::binary)});
        if (!files.back().stream) return fail(argv[i], "cannot be opened");
    }
    const auto loop = HXKQueue::initWithSubsystem("org.example.tee");
    if (!loop) return fail("there is", "no event loop");
    const BlockingMode input(STDIN_FILENO);
    const BlockingMode output(STDOUT_FILENO);
    // The loop is left running: to stop it takes a second, and the process ends now.
    return std::make_shared<Tee>(loop, std::move(files))->run(*loop);
}
