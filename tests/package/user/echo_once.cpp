// Sends a line over a Unix socket to a server on the same loop and waits for it to come back, then
// for a timer. Status 0 when both happened.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <string_view>

#include "kqueue/HXKQueue.h"
#include "kqueue/HXKQueueAcceptedConnection.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTimer.h"
#include "kqueue/HXKQueueUnixClient.h"
#include "kqueue/HXKQueueUnixServer.h"

namespace {

constexpr std::string_view kLine = "hello\n";
constexpr std::chrono::minutes kPatience{1};

using Source = std::shared_ptr<HXKQueueEventProtocol>;

int fail(const char* what) {
    std::fprintf(stderr, "echo_once: %s\n", what);
    return EXIT_FAILURE;
}

// All that a stream receives goes back.
HXKQueueEventBlock echoOn(const std::weak_ptr<HXKQueue>& weakLoop) {
    return [weakLoop](const Source& stream, const char* bytes, uint64_t size,
                      uint64_t* /*dropSize*/, int32_t code) {
        const auto loop = weakLoop.lock();
        if (loop && code == HXKQueueEventData) loop->write(stream, bytes, size);
        if (loop && code == HXKQueueEventTerminated) loop->stopObject(stream);
        return true;
    };
}

void serve(const std::shared_ptr<HXKQueue>& loop, const Source& server) {
    loop->startObject(server, [weakLoop = std::weak_ptr(loop)](
                                  const Source& /*server*/, const char* bytes, uint64_t /*size*/,
                                  uint64_t* /*dropSize*/, int32_t /*code*/) {
        const auto running = weakLoop.lock();
        if (!running) return false;
        const auto* accepted = reinterpret_cast<const HXKQueueAcceptedConnection*>(bytes);
        const auto stream = running->createStreamSocket(accepted->sock, true);
        if (stream) running->startObject(stream, echoOn(running));
        return stream != nullptr;
    });
}

// What the blocks tell the main thread. It outlives them: they end with the loop.
struct News {
    std::promise<std::string> cameBack;
    std::promise<void> fired;
};

int run(const std::shared_ptr<HXKQueue>& loop, const std::string& path, News& news) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    const auto client = loop->createUnixClient(path.c_str());
    const auto timer = loop->createTimer(10, true);
    if (!server || !client || !timer) return fail("a source could not be made");
    serve(loop, server);

    loop->startObject(client, [&news](const Source& /*client*/, const char* bytes, uint64_t size,
                                      uint64_t* dropSize, int32_t code) {
        if (code != HXKQueueEventData) return true;
        *dropSize = size < kLine.size() ? 0 : size;
        if (*dropSize > 0) news.cameBack.set_value({bytes, size});
        return true;
    });
    loop->write(client, kLine.data(), kLine.size());
    auto line = news.cameBack.get_future();
    if (line.wait_for(kPatience) != std::future_status::ready) return fail("nothing came back");
    if (line.get() != kLine) return fail("something else came back");

    loop->startObject(timer, [&news](const Source& /*timer*/, const char* /*bytes*/,
                                     uint64_t /*size*/, uint64_t* /*dropSize*/, int32_t /*code*/) {
        news.fired.set_value();
        return true;
    });
    if (news.fired.get_future().wait_for(kPatience) != std::future_status::ready)
        return fail("the timer did not fire");
    return EXIT_SUCCESS;
}

}  // namespace

int main() {
    std::string directory = std::filesystem::temp_directory_path() / "echo_onceXXXXXX";
    if (mkdtemp(directory.data()) == nullptr) return fail("there is no temporary directory");
    const auto loop = HXKQueue::initWithSubsystem("org.example.echo_once");
    if (!loop) return fail("there is no loop");
    loop->start();
    News news;
    const int status = run(loop, directory + "/socket", news);
    loop->stop();
    std::filesystem::remove_all(directory);
    if (status == EXIT_SUCCESS) std::puts("hello, again");
    return status;
}
