// Sends every client its own bytes back, to the last one: also to a client that has ended its
// sending, and no faster than it reads.
//
//     echo_server unix PATH
//     echo_server tcp ADDRESS PORT

#include <exception>
#include <memory>
#include <utility>

#include "examples/server.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTimer.h"

namespace {

// So much may wait for a client to read it before the server reads more from it. What one read
// brings comes on top.
constexpr uint64_t kMostPending = 1 << 20;

constexpr uint64_t kGlanceMs = 10;

// Below the usual limit of descriptors. Out of them, the server would be told of the same waiting
// connection again and again.
constexpr int kMostClients = 1000;

// One client. Everything happens on the loop's I/O thread, so nothing is locked. Its stream's block
// owns it, and it owns the stream: that cycle ends when the stream is stopped, here or by the loop.
class Echo : public std::enable_shared_from_this<Echo> {
public:
    explicit Echo(std::weak_ptr<HXKQueue> loopOfStream) : loop(std::move(loopOfStream)) {
        ++clients;
    }
    Echo(const Echo&) = delete;
    Echo& operator=(const Echo&) = delete;
    ~Echo() { --clients; }

    static bool serve(const std::shared_ptr<HXKQueue>& loop, int sock) noexcept;

private:
    void onEvent(const char* bytes, uint64_t size, int32_t code) noexcept;
    void pause(HXKQueue& running) noexcept;
    void onGlance() noexcept;
    void end(HXKQueue& running) noexcept;

    static inline int clients = 0;

    const std::weak_ptr<HXKQueue> loop;
    std::shared_ptr<HXKQueueStreamSocket> stream;  // null: ended
    std::shared_ptr<HXKQueueTimer> timer;          // while reading is paused
};

bool Echo::serve(const std::shared_ptr<HXKQueue>& loop, int sock) noexcept {
    if (clients == kMostClients) return false;
    try {
        const auto echo = std::make_shared<Echo>(loop);
        HXKQueueEventBlock block = [echo](const auto& /*source*/, const char* bytes, uint64_t size,
                                          uint64_t* /*dropSize*/, int32_t code) {
            echo->onEvent(bytes, size, code);
            return true;
        };
        echo->stream = loop->createStreamSocket(sock, true);
        if (!echo->stream) return false;
        loop->startObject(echo->stream, std::move(block));
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// While reading is paused, the end that is reported can only be that of writing. Otherwise it is
// the client's last word: once it has been given all of its bytes, it is told the same.
void Echo::onEvent(const char* bytes, uint64_t size, int32_t code) noexcept {
    const auto running = loop.lock();
    if (!running || !stream) return;
    if (code == HXKQueueEventData) {
        running->write(stream, bytes, size);
        // A write that failed may have paused it in this same iteration.
        if (!timer && stream->pendingBytes() > kMostPending) pause(*running);
    } else if (code == HXKQueueEventTerminated) {
        if (timer || stream->pendingBytes() == 0)
            end(*running);
        else
            pause(*running);
    }
}

// What ends the pause is a timer, for nothing tells that the last byte has been taken.
void Echo::pause(HXKQueue& running) noexcept {
    try {
        HXKQueueEventBlock block = [echo = shared_from_this()](const auto&... /*ignored*/) {
            echo->onGlance();
            return true;
        };
        timer = running.createTimer(kGlanceMs, false);
        if (!timer) return end(running);
        running.startObject(timer, std::move(block));
        stream->pauseReading();
    } catch (const std::exception&) {
        end(running);
    }
}

// An end that was told before the pause is told again after it.
void Echo::onGlance() noexcept {
    const auto running = loop.lock();
    if (!running || !stream || !timer || stream->pendingBytes() > 0) return;
    running->stopObject(std::exchange(timer, nullptr));
    stream->resumeReading();
}

void Echo::end(HXKQueue& running) noexcept {
    running.stopObject(std::exchange(stream, nullptr));
    running.stopObject(std::exchange(timer, nullptr));
}

}  // namespace

int main(int argc, char** argv) {
    return runServer(argc, argv, Echo::serve);
}
