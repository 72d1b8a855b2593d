// Prints a line whenever a period has passed, and a last one a period after that.
//
//     ticker PERIOD_MS [COUNT]
//
// COUNT is 10 unless given.

#include <charconv>
#include <chrono>
#include <cstdio>
#include <future>
#include <limits>
#include <string_view>

#include "kqueue/HXKQueue.h"
#include "kqueue/HXKQueueTimer.h"

namespace {

using Clock = std::chrono::steady_clock;

// A whole number from 1 up to what a timer's period can be, or 0.
int32_t parseCount(std::string_view text) {
    int32_t number = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), number);
    return error == std::errc() && end == text.end() && number > 0 ? number : 0;
}

// What the two timers' blocks share. It outlives them, because they end with the loop.
struct Ticker {
    const int32_t count;
    const Clock::time_point start = Clock::now();
    int32_t ticks = 0;           // I/O thread only
    std::promise<void> ended{};  // tells the main thread

    void print(const char* what) const {
        const auto elapsed =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
        std::printf("%s after %lld ms\n", what, static_cast<long long>(elapsed.count()));
        std::fflush(stdout);
    }
};

// Expiries that the loop could not deliver one by one count as one tick.
void startTicking(const std::shared_ptr<HXKQueue>& loop, Ticker& ticker,
                  const std::shared_ptr<HXKQueueTimer>& periodic,
                  const std::shared_ptr<HXKQueueTimer>& last) {
    loop->startObject(periodic, [&ticker, last, weakLoop = std::weak_ptr(loop)](
                                    const auto& source, const char* /*bytes*/, uint64_t /*size*/,
                                    uint64_t* /*dropSize*/, int32_t /*code*/) {
        const auto running = weakLoop.lock();
        if (!running) return true;
        ticker.print("tick");
        if (++ticker.ticks < ticker.count && std::ferror(stdout) == 0) return true;
        running->stopObject(source);
        running->startObject(last, [&ticker](const auto&... /*ignored*/) {
            ticker.print("end");
            ticker.ended.set_value();
            return true;
        });
        return true;
    });
}

int tick(int32_t periodMs, int32_t count) {
    const auto loop = HXKQueue::initWithSubsystem("org.example.ticker");
    const auto periodic =
        loop ? loop->createTimer(static_cast<uint64_t>(periodMs), false) : nullptr;
    const auto last = loop ? loop->createTimer(static_cast<uint64_t>(periodMs), true) : nullptr;
    if (!periodic || !last) {
        std::fputs("ticker: cannot make a loop with two timers\n", stderr);
        return 1;
    }
    Ticker ticker{.count = count};
    startTicking(loop, ticker, periodic, last);
    loop->start();
    ticker.ended.get_future().wait();
    loop->stop();
    if (std::ferror(stdout) == 0) return 0;
    std::fputs("ticker: standard output has failed\n", stderr);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int32_t kUsualCount = 10;
    const int32_t periodMs = argc > 1 ? parseCount(argv[1]) : 0;
    const int32_t count = argc > 2 ? parseCount(argv[2]) : kUsualCount;
    if (argc >= 2 && argc <= 3 && periodMs > 0 && count > 0) return tick(periodMs, count);
    std::fprintf(stderr, "Usage: ticker PERIOD_MS [COUNT], each from 1 to %d\n",
                 std::numeric_limits<int32_t>::max());
    return 2;
}
