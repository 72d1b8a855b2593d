// A kernel event queue and the descriptors to try it on.
#pragma once

#include <gtest/gtest.h>
#include <sys/event.h>
#include <sys/types.h>

#include <array>
#include <string>
#include <utility>
#include <vector>

using Records = std::vector<struct kevent>;

inline constexpr int64_t kMillisecond = 1'000'000;  // nanoseconds

// The clock that timers and timeouts follow, in nanoseconds.
int64_t now();

// Lets so many milliseconds pass with nobody waiting on a queue.
void pass(int milliseconds);

// Closes what it holds when it goes.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : fd(number) {}
    Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~Descriptor() { reset(); }

    operator int() const { return fd; }  // NOLINT(google-explicit-constructor): it is one
    void reset();

private:
    int fd = -1;
};

struct Pair {
    Descriptor ours;
    Descriptor peer;
};

Pair unixPair();
Pair datagramPair();  // Unix datagrams, of which one may have no bytes
Pair tcpPair();
Pair pipePair();          // ours reads, peer writes
Pair writablePipePair();  // peer reads, ours writes
// The two ends of a FIFO whose name is gone, in the order and the ways that they are opened.
Pair fifoPair(int ours, int peer);

// A new file without a name, for reading and writing.
Descriptor emptyFile();

// In raw mode every byte counts, in the other one every line.
void setRaw(int terminal);

Descriptor tcpListener(uint16_t& port);
Descriptor connectTo(uint16_t port, bool blocking = true);
int connectSocket(int fd, uint16_t port);  // as connect(2), to this machine

// ours is the terminal, peer plays the person at it. Both are -1 where there are none to be had.
Pair terminalPair();
inline constexpr const char* kNoTerminals = "left out: no pseudo-terminal can be had here";

// A change without data, and without flags of the filter.
struct kevent makeChange(int fd, int filter, int flags, void* udata = nullptr);

void send(int fd, const std::string& bytes);
std::string receive(int fd, size_t size);

// Puts pieces of the given size in until the kernel refuses.
void fillUp(int fd, size_t piece = 1000);

class KernelQueueTest : public testing::Test {
protected:
    static constexpr int kPatience = 20'000;  // milliseconds: longer means it hangs

    KernelQueueTest();

    // One change on its own; the error number, 0 for none.
    int change(uint64_t ident, int filter, int flags, int64_t data = 0, void* udata = nullptr);
    int setTimer(uint64_t ident, int64_t period, int flags = EV_ADD) {
        return change(ident, EVFILT_TIMER, flags, period);
    }
    void add(int fd, int filter, void* udata = nullptr);
    void remove(int fd, int filter);

    // Waits for at least one record.
    Records wait(size_t room = 64, int milliseconds = kPatience);
    Records look(size_t room = 64) { return wait(room, 0); }

    // The one record that is there, or a failed test.
    struct kevent waitForOne();

    Descriptor queue;
};
