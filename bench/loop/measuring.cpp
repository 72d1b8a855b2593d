#include "bench/loop/measuring.h"

#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <random>

#include "bench/support/figures.h"
#include "bench/support/program.h"

namespace {

// How long the loop has for the last of its work before it counts as idle.
constexpr double kSettleSeconds = 0.1;

double secondsOf(clockid_t clock) {
    timespec time{};
    if (clock_gettime(clock, &time) != 0) fail("clock_gettime");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void sendByte(int fd) {
    if (write(fd, "x", 1) != 1) fail("write");
}

}  // namespace

void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "%s\n", what);
    std::_Exit(1);
}

double processorSeconds() {
    return secondsOf(CLOCK_PROCESS_CPUTIME_ID);
}

double processorSecondsOf(const std::function<void()>& work) {
    const double before = processorSeconds();
    work();
    return processorSeconds() - before;
}

double wallSeconds() {
    return secondsOf(CLOCK_MONOTONIC);
}

void sleepFor(double seconds) {
    const auto whole = static_cast<time_t>(seconds);
    timespec time{.tv_sec = whole,
                  .tv_nsec = static_cast<long>((seconds - static_cast<double>(whole)) * 1e9)};
    nanosleep(&time, nullptr);
}

void sleepAtRandom() {
    static std::minstd_rand random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): not a secret
    sleepFor(std::uniform_real_distribution(0.0, 0.01)(random));
}

Latency latencyOf(const std::vector<double>& seconds) {
    return {.middle = percentile(seconds, 0.5),
            .slow = percentile(seconds, 0.99),
            .longest = *std::max_element(seconds.begin(), seconds.end())};
}

Pairs makePairs(size_t count) {
    Pairs pairs(count);
    for (auto& pair : pairs)
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()) == -1) fail("socketpair");
    return pairs;
}

void sendOneByteEachWay(const Pairs& pairs) {
    for (const auto& [ours, peer] : pairs) {
        sendByte(peer);
        sendByte(ours);
    }
}

void exchangeOneMessageEach(const Pairs& connections) {
    char message[kMessageSize];
    std::memset(message, 'm', sizeof message);
    for (const auto& connection : connections)
        if (write(connection[1], message, sizeof message) != sizeof message) fail("write");
    for (const auto& connection : connections)
        readAll(connection[1], sizeof message);
}

void readAll(int fd, size_t size) {
    std::vector<char> buffer(65'536);
    while (size > 0) {
        const ssize_t count = read(fd, buffer.data(), std::min(buffer.size(), size));
        if (count == -1) fail("read");
        require(count > 0, "a connection has ended");
        size -= static_cast<size_t>(count);
    }
}

Memory memoryInUse() {
    size_t pages = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    const auto heap = mallinfo2();
    return {.heap = static_cast<double>(heap.uordblks + heap.hblkhd),
            .resident = static_cast<double>(resident) * static_cast<double>(getpagesize())};
}

Rest restSince(const Memory& before, size_t connections, double seconds) {
    sleepFor(kSettleSeconds);
    const Memory after = memoryInUse();
    const double spent = processorSecondsOf([seconds] { sleepFor(seconds); });
    const double each = connections > 0 ? 1 / static_cast<double>(connections) : 0;
    return {.processorShare = spent / seconds,
            .heapBytes = (after.heap - before.heap) * each,
            .residentBytes = (after.resident - before.resident) * each};
}
