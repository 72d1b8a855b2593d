// An event loop whose own costs are measured: what it does is the same for each.
//
// Every operation makes a loop of its own and leaves it behind, so it runs in a process of its own
// (bench/support/in_child.h). It checks that the work was done, and ends the process otherwise.
// Processor time is that of all threads.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

// Seconds of processor time, for all of the sources together.
struct PhaseCosts {
    double create = 0;
    double arm = 0;
    double deliver = 0;  // one event each
    double stop = 0;
};

// Seconds from a call on another thread until the loop's thread has acted.
struct Latency {
    double middle = 0;
    double slow = 0;  // one of a hundred takes longer
    double longest = 0;
};

struct HandOver {
    Latency start;  // of a source; acted: its first event
    Latency write;  // acted: the bytes have arrived at the peer
    Latency stop;   // acted: what the source has held is gone
};

struct Rest {
    double processorShare = 0;  // of one processor
    double heapBytes = 0;       // a connection, as malloc counts
    double residentBytes = 0;   // a connection
};

// The first descriptors of the pairs are the loop's, the others their peers.
using Pairs = std::vector<std::array<int, 2>>;

struct Subject {
    const char* name;

    // Periodic timers, which fire once. periodMs is long enough to arm them all.
    PhaseCosts (*timers)(size_t count, unsigned periodMs);

    // Streams, each with a descriptor of its own, and a byte for each.
    PhaseCosts (*sources)(const Pairs& pairs);

    // So many streams that share these descriptors, and a byte for each descriptor, which the last
    // stream that was armed on it receives. Null for a loop that cannot.
    PhaseCosts (*sharingSources)(const Pairs& pairs, size_t count);

    HandOver (*handOver)(size_t samples);

    // Seconds for so many messages of kMessageSize bytes, each handed over to one stream from
    // another thread, until the last byte has arrived.
    double (*writes)(size_t messages);

    // With connections that have had a message echoed each, and then say nothing for so long.
    Rest (*rest)(const Pairs& connections, double seconds);
};

inline constexpr size_t kMessageSize = 64;

extern const Subject kHxkqueue;
extern const Subject kLibuv;

// Of a libuv loop without connections that a timer wakes every 5 ms, as the library's loop wakes,
// over so many seconds: the share of a processor.
[[nodiscard]] double processorShareOfTickingLibuv(double seconds);
