// What the measurements of every event loop have in common.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "bench/loop/subject.h"

// A check that fails ends the process, with status 1.
void require(bool holds, const char* what);

// So far, of all threads.
[[nodiscard]] double processorSeconds();

[[nodiscard]] double processorSecondsOf(const std::function<void()>& work);

// Seconds of a clock that does not jump.
[[nodiscard]] double wallSeconds();

void sleepFor(double seconds);

// At most ten milliseconds, so that the next call finds the loop at any point of its wait.
void sleepAtRandom();

[[nodiscard]] Latency latencyOf(const std::vector<double>& seconds);

[[nodiscard]] Pairs makePairs(size_t count);

// Sends a byte to the loop's end of each pair, and to its peer.
void sendOneByteEachWay(const Pairs& pairs);

// Sends a message through each connection and waits until it has come back.
void exchangeOneMessageEach(const Pairs& connections);

// Blocks until so many bytes have been read.
void readAll(int fd, size_t size);

// Of this process.
struct Memory {
    double heap = 0;
    double resident = 0;
};
[[nodiscard]] Memory memoryInUse();

// What has been taken since, for each connection, and what idling for so long costs.
[[nodiscard]] Rest restSince(const Memory& before, size_t connections, double seconds);
