// A running event loop, and what it logs.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kqueue/HXKQueue.h"
#include "platform/log.h"
#include "tests/kqueue/event_recorder.h"

// "error MESSAGE" and "debug MESSAGE" of the category "kqueue", for as long as it lives. The first
// lines need no memory, so that a lack of it can be recorded.
class LogRecorder {
public:
    explicit LogRecorder(LogLevel least = LogLevel::Debug);
    ~LogRecorder();
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    [[nodiscard]] std::vector<std::string> lines() const;
    [[nodiscard]] std::vector<std::string> errors() const;
    [[nodiscard]] size_t count() const;
    [[nodiscard]] bool has(const std::string& line) const;
    [[nodiscard]] bool hasAny(bool (*matches)(std::string_view message)) const;
    // Waits for the line; false after twenty seconds.
    bool waitFor(const std::string& line);

private:
    struct Line {
        LogLevel level;
        std::array<char, 256> message;
        [[nodiscard]] std::string text() const;
    };

    mutable std::mutex lock;
    std::condition_variable changed;
    std::vector<Line> recorded;  // guarded by lock
};

// "<0x...>", as the log names an object.
std::string tagOf(const void* object);

// How many descriptors the process has open.
size_t openDescriptors();

// The number that the next descriptor will have, as long as no other thread opens one.
int nextDescriptor();

// A directory of the test's own, empty again and gone at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    [[nodiscard]] std::string file(const std::string& name) const { return path + "/" + name; }

private:
    std::string path;
};

// An address on loopback; port 0 lets the kernel choose.
struct sockaddr_storage loopback(sa_family_t family, uint16_t port);
const struct sockaddr* asSockaddr(const struct sockaddr_storage& address);

class LoopTest : public testing::Test {
protected:
    static constexpr const char* kSubsystem = "org.example.usb.virt.ctl";

    LoopTest();
    ~LoopTest() override;

    // Stops the loop before the end of the test.
    void stopLoop();

    // Returns once the I/O thread has begun and ended an iteration after this call. No other
    // thread may open descriptors meanwhile.
    void settle();

    // Of two connected sockets one as a source of the loop, closed on stop, and the other.
    struct Stream {
        std::shared_ptr<HXKQueueStreamSocket> source;
        int sock = -1;
        int peer = -1;
    };
    Stream makeStream(bool closeOnStop = true);

    LogRecorder log;
    std::shared_ptr<HXKQueue> loop;
};
