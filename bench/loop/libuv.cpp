// The peer. Its loop is not for other threads, so what these hand over goes through a queue of
// their own and a wake-up, as libuv's users do it.

#include <uv.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <semaphore>
#include <thread>
#include <utility>

#include "bench/loop/measuring.h"
#include "bench/loop/subject.h"

namespace {

void requireDone(int result) {
    require(result == 0, uv_strerror(result));
}

uv_handle_t* handle(void* any) {
    return static_cast<uv_handle_t*>(any);
}

// One iteration without a wait.
void runOnce(uv_loop_t& loop) {
    uv_run(&loop, UV_RUN_NOWAIT);
}

PhaseCosts timers(size_t count, unsigned periodMs) {
    uv_loop_t loop;
    requireDone(uv_loop_init(&loop));
    PhaseCosts costs;
    std::vector<std::unique_ptr<uv_timer_t>> timers(count);
    size_t fired = 0;
    size_t closed = 0;
    costs.create = processorSecondsOf([&] {
        for (auto& timer : timers) {
            timer = std::make_unique<uv_timer_t>();
            uv_timer_init(&loop, timer.get());
            timer->data = &fired;
        }
    });
    uv_update_time(&loop);
    costs.arm = processorSecondsOf([&] {
        for (const auto& timer : timers)
            uv_timer_start(
                timer.get(), [](uv_timer_t* of) { ++*static_cast<size_t*>(of->data); }, periodMs,
                periodMs);
    });
    sleepFor((periodMs + 1) / 1000.0);
    costs.deliver = processorSecondsOf([&] { runOnce(loop); });
    require(fired == count, "not every timer has fired once");
    costs.stop = processorSecondsOf([&] {
        for (const auto& timer : timers) {
            timer->data = &closed;
            uv_close(handle(timer.get()),
                     [](uv_handle_t* of) { ++*static_cast<size_t*>(of->data); });
        }
        runOnce(loop);
    });
    require(closed == count, "not every timer is closed");
    return costs;
}

// onRead, or the end of the write, frees it.
void provideBuffer(uv_handle_t* /*handle*/, size_t size, uv_buf_t* buffer) {
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc)
    *buffer = uv_buf_init(static_cast<char*>(std::malloc(size)), static_cast<unsigned>(size));
}

void countBytes(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
    if (count > 0) *static_cast<size_t*>(stream->data) += static_cast<size_t>(count);
    std::free(buffer->base);
}

std::unique_ptr<uv_pipe_t> openPipe(uv_loop_t& loop, int fd) {
    auto pipe = std::make_unique<uv_pipe_t>();
    requireDone(uv_pipe_init(&loop, pipe.get(), 0));
    requireDone(uv_pipe_open(pipe.get(), fd));
    return pipe;
}

uv_stream_t* stream(uv_pipe_t& pipe) {
    return reinterpret_cast<uv_stream_t*>(&pipe);
}

PhaseCosts sources(const Pairs& pairs) {
    uv_loop_t loop;
    requireDone(uv_loop_init(&loop));
    PhaseCosts costs;
    std::vector<std::unique_ptr<uv_pipe_t>> pipes;
    pipes.reserve(2 * pairs.size());
    size_t received = 0;
    size_t closed = 0;
    costs.create = processorSecondsOf([&] {
        for (const auto& pair : pairs)
            for (const int end : pair)
                pipes.push_back(openPipe(loop, end));
    });
    costs.arm = processorSecondsOf([&] {
        for (const auto& pipe : pipes) {
            pipe->data = &received;
            uv_read_start(stream(*pipe), provideBuffer, countBytes);
        }
        runOnce(loop);  // epoll is told here
    });
    sendOneByteEachWay(pairs);
    costs.deliver = processorSecondsOf([&] {
        while (received < pipes.size())
            runOnce(loop);
    });
    require(received == pipes.size(), "not every stream has received its byte");
    costs.stop = processorSecondsOf([&] {
        for (const auto& pipe : pipes) {
            pipe->data = &closed;
            uv_close(handle(pipe.get()),
                     [](uv_handle_t* of) { ++*static_cast<size_t*>(of->data); });
        }
        runOnce(loop);
    });
    require(closed == pipes.size(), "not every stream is closed");
    return costs;
}

// A loop that runs on a thread of its own. Neither ends.
class RunningLoop {
public:
    RunningLoop() {
        requireDone(uv_loop_init(&loop));
        requireDone(uv_async_init(
            &loop, &wakeUp, [](uv_async_t* of) { static_cast<RunningLoop*>(of->data)->takeUp(); }));
        wakeUp.data = this;
    }

    void start() {
        std::thread([this] { uv_run(&loop, UV_RUN_DEFAULT); }).detach();
    }

    // Has the loop's thread call it.
    void post(std::function<void()> work) {
        {
            const std::lock_guard guard(lock);
            posted.push_back(std::move(work));
        }
        uv_async_send(&wakeUp);
    }

    uv_loop_t loop;

private:
    void takeUp() {
        std::vector<std::function<void()>> taken;
        {
            const std::lock_guard guard(lock);
            taken.swap(posted);
        }
        for (const auto& work : taken)
            work();
    }

    uv_async_t wakeUp;
    std::mutex lock;
    std::vector<std::function<void()>> posted;  // guarded by lock
};

// The loop's thread releases it.
struct Acted {
    std::binary_semaphore done{0};
    double end = 0;

    void act() {
        end = wallSeconds();
        done.release();
    }
};

template <typename Handle>
void actOn(Handle* of) {
    static_cast<Acted*>(of->data)->act();
}

// The loop's thread does the work, and what that brings about releases acted.
template <typename Work>
double secondsUntilActed(RunningLoop& loop, Acted& acted, Work work) {
    sleepAtRandom();
    const double begin = wallSeconds();
    loop.post(work);
    acted.done.acquire();
    return acted.end - begin;
}

HandOver handOver(size_t samples) {
    auto* loop = new RunningLoop;
    const Pairs pairs = makePairs(1);
    auto* pipe = openPipe(loop->loop, pairs[0][0]).release();
    auto* timer = new uv_timer_t;
    uv_timer_init(&loop->loop, timer);
    loop->start();
    std::vector<double> starts;
    std::vector<double> stops;
    std::vector<double> writes;
    for (size_t i = 0; i < samples; ++i) {
        Acted acted;
        timer->data = &acted;
        starts.push_back(secondsUntilActed(
            *loop, acted, [timer] { uv_timer_start(timer, actOn<uv_timer_t>, 0, 0); }));
        auto* other = new uv_timer_t;  // left behind with the loop
        other->data = &acted;
        stops.push_back(secondsUntilActed(*loop, acted, [loop, other] {
            uv_timer_init(&loop->loop, other);
            uv_close(handle(other), actOn<uv_handle_t>);
        }));
        sleepAtRandom();
        const double begin = wallSeconds();
        loop->post([pipe] {
            char byte = 'x';
            const uv_buf_t bytes = uv_buf_init(&byte, 1);
            require(uv_try_write(stream(*pipe), &bytes, 1) == 1, "nothing written");
        });
        readAll(pairs[0][1], 1);
        writes.push_back(wallSeconds() - begin);
    }
    return {.start = latencyOf(starts), .write = latencyOf(writes), .stop = latencyOf(stops)};
}

struct WriteRequest {
    uv_write_t request;
    std::vector<char> bytes;
};

// Takes a copy, as the library does.
WriteRequest* newRequest(const char* bytes, size_t size) {
    return new WriteRequest{.request = {}, .bytes = std::vector<char>(bytes, bytes + size)};
}

void sendAndDelete(uv_stream_t* to, WriteRequest* write) {
    const uv_buf_t bytes =
        uv_buf_init(write->bytes.data(), static_cast<unsigned>(write->bytes.size()));
    uv_write(&write->request, to, &bytes, 1,
             [](uv_write_t* of, int) { delete reinterpret_cast<WriteRequest*>(of); });
}

double writes(size_t messages) {
    auto* loop = new RunningLoop;
    const Pairs pairs = makePairs(1);
    auto* pipe = openPipe(loop->loop, pairs[0][0]).release();
    loop->start();
    const std::vector<char> message(kMessageSize, 'm');
    const double begin = wallSeconds();
    std::thread reader([&] { readAll(pairs[0][1], messages * kMessageSize); });
    for (size_t i = 0; i < messages; ++i)
        loop->post([pipe, write = newRequest(message.data(), message.size())] {
            sendAndDelete(stream(*pipe), write);
        });
    reader.join();
    return wallSeconds() - begin;
}

void echo(uv_stream_t* from, ssize_t count, const uv_buf_t* buffer) {
    if (count > 0) sendAndDelete(from, newRequest(buffer->base, static_cast<size_t>(count)));
    std::free(buffer->base);
}

Rest rest(const Pairs& connections, double seconds) {
    auto* loop = new RunningLoop;
    std::vector<std::unique_ptr<uv_pipe_t>> pipes;
    pipes.reserve(connections.size());
    const Memory before = memoryInUse();
    for (const auto& connection : connections) {
        pipes.push_back(openPipe(loop->loop, connection[0]));
        uv_read_start(stream(*pipes.back()), provideBuffer, echo);
    }
    loop->start();
    exchangeOneMessageEach(connections);
    return restSince(before, connections.size(), seconds);
}

}  // namespace

double processorShareOfTickingLibuv(double seconds) {
    auto* loop = new RunningLoop;
    auto* timer = new uv_timer_t;  // left behind with the loop
    uv_timer_init(&loop->loop, timer);
    uv_timer_start(
        timer, [](uv_timer_t* /*timer*/) {}, 5, 5);
    loop->start();
    return restSince({}, 0, seconds).processorShare;
}

const Subject kLibuv = {.name = "libuv",
                        .timers = timers,
                        .sources = sources,
                        .sharingSources = nullptr,
                        .handOver = handOver,
                        .writes = writes,
                        .rest = rest};
