// A client with the test at the other end of its connection.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ipc/HXTarnIPCClient.h"
#include "kqueue/HXKQueue.h"
#include "tests/support/captured_stream.h"
#include "tests/support/unix_listener.h"
#include "tests/support/unix_stream.h"

// The callbacks of a client, written down in order: "connected", "data 3 {...}" and "error", which
// is followed by what standard error has had since the last look.
class CallbackLog {
public:
    void add(std::string line);

    // All lines, as soon as there are so many; what there is after a minute.
    [[nodiscard]] std::vector<std::string> waitFor(size_t count);
    [[nodiscard]] std::vector<std::string> lines();

private:
    std::mutex lock;
    std::condition_variable added;
    std::vector<std::string> entries;  // guarded by lock
};

// The loop is not started: what the client does on the test's own thread.
class ClientTest : public testing::Test {
protected:
    ClientTest();

    // The client that reports to log.
    void installCallbacks();

    CapturedStream err{stderr};
    UnixListener daemon;
    std::shared_ptr<HXKQueue> loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
    std::shared_ptr<HXTarnIPCClient> client;
    CallbackLog log;
};

// The loop runs, the client is started, and peer is the daemon's end of the connection. After an
// error the client stops itself.
class RunningClientTest : public ClientTest {
protected:
    RunningClientTest();
    ~RunningClientTest() override;

    // Another client takes the place of this one.
    void reconnect();

    // What the daemon has received, when the client sends nothing more.
    [[nodiscard]] std::string received();

    std::optional<UnixStream> peer;
};
