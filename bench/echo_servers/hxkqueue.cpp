// The library: what a stream's block is given, it writes.

#include "examples/server.h"
#include "kqueue/HXKQueueStreamSocket.h"

namespace {

bool echo(const std::shared_ptr<HXKQueue>& loop, int sock) {
    const auto stream = loop->createStreamSocket(sock, true);
    if (!stream) return false;
    loop->startObject(stream, [weakLoop = std::weak_ptr(loop)](
                                  const auto& source, const char* bytes, uint64_t size,
                                  uint64_t* /*dropSize*/, int32_t code) {
        const auto running = weakLoop.lock();
        if (!running) return true;
        if (code == HXKQueueEventData) running->write(source, bytes, size);
        if (code == HXKQueueEventTerminated) running->stopObject(source);
        return true;
    });
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    return runServer(argc, argv, echo);
}
