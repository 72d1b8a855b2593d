#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "kqueue/HXKQueueBipipeClient.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTCPClient.h"
#include "kqueue/HXKQueueTCPServer.h"
#include "kqueue/HXKQueueUnixClient.h"
#include "kqueue/HXKQueueUnixServer.h"
#include "tests/kqueue/endpoint.h"
#include "tests/kqueue/failing_calls.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/support/failing_allocations.h"

namespace {

using Extent = FailingAllocations::Extent;

// The loop is not started: what the factories do needs no I/O thread.
class FactoryFailure : public testing::Test {
protected:
    FactoryFailure()
        : path(directory.file("socket")), listener(listenAt(path)), before(openDescriptors()) {}
    ~FactoryFailure() override { close(listener); }

    static int listenAt(const std::string& path) {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(bind(sock, reinterpret_cast<struct sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(sock, 16), 0);
        return sock;
    }

    void expectOnlyError(const std::string& message) {
        EXPECT_EQ(log.errors(), std::vector<std::string>{"error " + message});
        EXPECT_EQ(openDescriptors(), before);
    }

    // Fails each allocation of the factory in turn, alone or with all that come after it. The first
    // ones are the object itself; the others belong to its registration, which it tells before the
    // factory tells that there is no source.
    template <typename Factory>
    void failEachAllocation(const std::string& message, Factory factory) {
        for (const Extent extent : {Extent::OnlyThatOne, Extent::FromThereOn}) {
            size_t unregistered = 0;
            for (uint64_t nth = 1;; ++nth) {
                const size_t errorsBefore = log.errors().size();
                const size_t openBefore = openDescriptors();
                FailingAllocations failing(nth, extent);
                const auto source = factory();
                failing.end();
                std::vector<std::string> errors = log.errors();
                errors.erase(errors.begin(),
                             errors.begin() + static_cast<std::ptrdiff_t>(errorsBefore));
                if (!failing.happened()) {
                    EXPECT_NE(source, nullptr);
                    EXPECT_TRUE(errors.empty());
                    break;
                }
                EXPECT_EQ(source, nullptr) << nth;
                EXPECT_EQ(openDescriptors(), openBefore) << nth;
                ASSERT_FALSE(errors.empty()) << nth;
                EXPECT_EQ(errors.back(), "error " + message);
                errors.pop_back();
                if (errors.empty()) continue;
                EXPECT_EQ(errors.size(), 1U);
                EXPECT_TRUE(errors.front().ends_with(">: cannot be added")) << errors.front();
                ++unregistered;
            }
            EXPECT_GT(unregistered, 0U);
        }
    }

    LogRecorder log{LogLevel::Error};
    TemporaryDirectory directory;
    std::string path;
    int listener;
    std::shared_ptr<HXKQueue> loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
    size_t before;
};

TEST_F(FactoryFailure, WithoutASocketEveryFactoryThatMakesOneFails) {
    const struct sockaddr_storage address = loopback(AF_INET, 0);
    failingCalls.socket = EMFILE;
    EXPECT_EQ(loop->createUnixClient(path.c_str()), nullptr);
    failingCalls.socket = EMFILE;
    EXPECT_EQ(loop->createTCPClient(asSockaddr(address)), nullptr);
    failingCalls.socket = EMFILE;
    EXPECT_EQ(loop->createTCPServer(asSockaddr(address)), nullptr);
    failingCalls.socket = EMFILE;
    EXPECT_EQ(loop->createUnixServer(directory.file("other").c_str(), 0600), nullptr);
    EXPECT_EQ(log.errors(),
              (std::vector<std::string>{"error cannot initialize unix socket object",
                                        "error cannot initialize TCP socket object",
                                        "error cannot initialize TCP server socket object",
                                        "error cannot initialize unix server socket object"}));
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(FactoryFailure, ClientWhoseFlagsCannotBeReadFails) {
    failingCalls.getFlags = EBADF;
    EXPECT_EQ(loop->createUnixClient(path.c_str()), nullptr);
    expectOnlyError("cannot initialize unix socket object");
}

TEST_F(FactoryFailure, ClientWhoseFlagsCannotBeSetFails) {
    failingCalls.setFlags = EPERM;
    EXPECT_EQ(loop->createUnixClient(path.c_str()), nullptr);
    expectOnlyError("cannot initialize unix socket object");
}

TEST_F(FactoryFailure, TcpClientThatFailsAtOnceLeavesNothingOpen) {
    failingCalls.setFlags = EPERM;
    EXPECT_EQ(loop->createTCPClient(asSockaddr(loopback(AF_INET, 1))), nullptr);
    expectOnlyError("cannot initialize TCP socket object");
}

TEST_F(FactoryFailure, ServersThatCannotListenFailAndTheUnixOneLeavesItsFile) {
    const std::string other = directory.file("other");
    failingCalls.listen = EADDRINUSE;
    EXPECT_EQ(loop->createUnixServer(other.c_str(), 0600), nullptr);
    expectOnlyError("cannot initialize unix server socket object");
    EXPECT_EQ(access(other.c_str(), F_OK), 0);
    failingCalls.listen = EADDRINUSE;
    EXPECT_EQ(loop->createTCPServer(asSockaddr(loopback(AF_INET, 0))), nullptr);
    EXPECT_EQ(log.errors().back(), "error cannot initialize TCP server socket object");
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(FactoryFailure, ServerDoesWithoutTheOptionsItCannotSet) {
    failingCalls.setOption = ENOPROTOOPT;
    EXPECT_NE(loop->createTCPServer(asSockaddr(loopback(AF_INET, 0))), nullptr);
    EXPECT_EQ(failingCalls.setOption, 0);
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(FactoryFailure, ServerDoesWithoutTheModeItCannotSet) {
    const std::string other = directory.file("other");
    failingCalls.changeMode = EPERM;
    EXPECT_NE(loop->createUnixServer(other.c_str(), 0600), nullptr);
    EXPECT_EQ(failingCalls.changeMode, 0);
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(FactoryFailure, ClientThatStaysInNonBlockingModeIsMadeAllTheSame) {
    failingCalls.setBlocking = EPERM;
    EXPECT_NE(loop->createUnixClient(path.c_str()), nullptr);
    EXPECT_EQ(failingCalls.setBlocking, 0);
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(FactoryFailure, StreamSocketFailsWithEachOfItsAllocations) {
    failEachAllocation("cannot initialize stream socket object",
                       [this] { return loop->createStreamSocket(listener, false); });
}

TEST_F(FactoryFailure, BipipeClientFailsWithEachOfItsAllocations) {
    const std::array<int, 2> ends = {listener, listener};
    failEachAllocation("cannot initialize bipipe object",
                       [&] { return loop->createBipipeClient(ends.data(), false); });
}

TEST_F(FactoryFailure, BipipeThatOwnsOneNumberForBothEndsClosesItTwice) {
    const int sock = dup(listener);
    const std::array<int, 2> ends = {sock, sock};
    const auto source = loop->createBipipeClient(ends.data(), true);
    failingCalls.closesOfWatched = 0;
    failingCalls.watched = sock;
    source->stop();
    EXPECT_EQ(failingCalls.closesOfWatched, 2);
    failingCalls.watched = -1;
}

TEST_F(FactoryFailure, UnixClientFailsWithEachOfItsAllocations) {
    failEachAllocation("cannot initialize unix socket object",
                       [this] { return loop->createUnixClient(path.c_str()); });
}

TEST_F(FactoryFailure, TcpServerFailsWithEachOfItsAllocations) {
    failEachAllocation("cannot initialize TCP server socket object",
                       [this] { return loop->createTCPServer(asSockaddr(loopback(AF_INET, 0))); });
}

TEST_F(FactoryFailure, UnixServerFailsWithEachOfItsAllocations) {
    const std::string other = directory.file("other");
    failEachAllocation("cannot initialize unix server socket object",
                       [&] { return loop->createUnixServer(other.c_str(), 0600); });
}

TEST_F(FactoryFailure, TcpClientFailsWithEachOfItsAllocations) {
    struct sockaddr_storage address = loopback(AF_INET, 0);
    const int sock = socket(AF_INET, SOCK_STREAM, 0);
    socklen_t length = sizeof(sockaddr_in);
    ASSERT_EQ(bind(sock, asSockaddr(address), length), 0);
    ASSERT_EQ(listen(sock, 16), 0);
    getsockname(sock, reinterpret_cast<struct sockaddr*>(&address), &length);
    failEachAllocation("cannot initialize TCP socket object",
                       [&] { return loop->createTCPClient(asSockaddr(address)); });
    close(sock);
}

TEST_F(FactoryFailure, BlockThatCannotBeKeptIsToldThatTheStreamHasEnded) {
    const auto source = loop->createStreamSocket(listener, false);
    int32_t said = -1;
    HXKQueueEventBlock block = [&said](auto&&, auto&&, auto&&, auto&&, int32_t code) {
        said = code;
        return true;
    };
    {
        const FailingAllocations failing(1);
        loop->startObject(source, std::move(block));
    }
    EXPECT_EQ(said, HXKQueueEventTerminated);
    expectOnlyError(tagOf(source.get()) + ": cannot keep event block");
}

TEST_F(FactoryFailure, BytesThatCannotBeQueuedAreLogged) {
    const auto source = loop->createStreamSocket(listener, false);
    loop->startObject(source, [](auto&&...) { return true; });
    {
        const FailingAllocations failing(1);
        EXPECT_TRUE(loop->write(source, "x", 1));
    }
    expectOnlyError(tagOf(source.get()) + ": cannot queue bytes");
}

TEST_F(FactoryFailure, AbsurdNumberOfBytesIsLogged) {
    const auto source = loop->createStreamSocket(listener, false);
    loop->startObject(source, [](auto&&...) { return true; });
    EXPECT_TRUE(loop->write(source, "x", UINT64_MAX));
    expectOnlyError(tagOf(source.get()) + ": cannot queue bytes");
    EXPECT_EQ(source->pendingBytes(), 0U);
}

class BipipeFailure : public LoopTest {
protected:
    BipipeFailure() {
        EXPECT_EQ(pipe(ends.data()), 0);
        bipipe = loop->createBipipeClient(ends.data(), false);
    }
    ~BipipeFailure() override {
        stopLoop();
        for (const int end : ends)
            close(end);
    }

    EventRecorder events;
    std::array<int, 2> ends{};
    std::shared_ptr<HXKQueueBipipeClient> bipipe;
};

TEST_F(BipipeFailure, BytesThatCannotBeQueuedEndTheStreamOnce) {
    loop->startObject(bipipe, events.block());
    {
        const FailingAllocations failing(1);
        loop->write(bipipe, "x", 1);
    }
    EXPECT_EQ(log.errors(),
              std::vector<std::string>{"error " + tagOf(bipipe.get()) + ": cannot queue bytes"});
    settle();
    settle();
    EXPECT_EQ(events.codes(),
              (std::vector<int32_t>{HXKQueueEventConnected, HXKQueueEventTerminated}));
    EXPECT_NE(events.last().thread, std::this_thread::get_id());
}

// A read filter would take the byte out of the pipe.
TEST_F(BipipeFailure, BlockThatCannotBeKeptIsToldOfTheEndWithADropCountAndNothingIsRegistered) {
    {
        HXKQueueEventBlock block = events.dropping(0);
        const FailingAllocations failing(1);
        loop->startObject(bipipe, std::move(block));
    }
    ASSERT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventTerminated});
    EXPECT_TRUE(events.last().hadDropSize);
    EXPECT_EQ(events.last().thread, std::this_thread::get_id());
    ASSERT_EQ(::write(ends[1], "x", 1), 1);
    settle();
    settle();
    EXPECT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
}

TEST_F(BipipeFailure, NoBlockThatCannotBeKeptIsLoggedOnly) {
    {
        const FailingAllocations failing(1);
        loop->startObject(bipipe, nullptr);
    }
    EXPECT_EQ(log.errors(), std::vector<std::string>{"error " + tagOf(bipipe.get()) +
                                                     ": cannot keep event block"});
}

class ReceiveFailure : public LoopTest {};

TEST_F(ReceiveFailure, BytesWithoutMemoryForThemAreTerminated) {
    EventRecorder events;
    const Stream stream = makeStream();
    loop->startObject(stream.source, events.block());
    // After the first byte the I/O thread has all that it needs, but for more bytes than one.
    ASSERT_EQ(::write(stream.peer, "x", 1), 1);
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    const std::string bytes(1000, 'x');
    {
        const FailingAllocations failing(1, FailingAllocations::Extent::OnlyThatOne,
                                         FailingAllocations::Threads::All);
        ASSERT_EQ(::write(stream.peer, bytes.data(), bytes.size()), 1000);
        while (events.count(HXKQueueEventTerminated) == 0)
            sched_yield();
    }
    EXPECT_EQ(log.errors(), std::vector<std::string>{"error " + tagOf(stream.source.get()) +
                                                     ": cannot receive bytes"});
    stopLoop();
    close(stream.peer);
}

class SendFailure : public LoopTest {};

// With a hole in what it says the stream is of no use, so what is written later does not follow.
TEST_F(SendFailure, BytesWithoutMemoryForThemAreTerminatedAndNothingFollowsThem) {
    EventRecorder events;
    const Stream stream = makeStream();
    loop->startObject(stream.source, events.block());
    loop->write(stream.source, "before", 6);
    const std::string bytes(1000, 'x');
    {
        const FailingAllocations failing(1);
        loop->write(stream.source, bytes.data(), bytes.size());
    }
    loop->write(stream.source, "after", 5);
    ASSERT_TRUE(events.waitFor(HXKQueueEventTerminated));
    EXPECT_NE(events.last().thread, std::this_thread::get_id());
    EXPECT_EQ(log.errors(), std::vector<std::string>{"error " + tagOf(stream.source.get()) +
                                                     ": cannot queue bytes"});
    loop->stopObject(stream.source);
    std::array<char, 64> arrived{};
    EXPECT_EQ(recv(stream.peer, arrived.data(), arrived.size(), MSG_WAITALL), 6);
    EXPECT_STREQ(arrived.data(), "before");
    stopLoop();
    close(stream.peer);
}

class AcceptFailure : public LoopTest {
protected:
    // A server does not get its client at once. It goes on until the end of the test, so that no
    // other has its address, which the log tells servers by.
    void failOnce() {
        const UnixEndpoint endpoint;
        EventRecorder events;
        const auto server = endpoint.listenOn(*loop);
        failed.push_back(server);
        failingCalls.accept = EMFILE;
        loop->startObject(server, events.answering(false));
        const int client = endpoint.connectedSocket();
        ASSERT_TRUE(events.waitFor(HXKQueueEventData));
        EXPECT_EQ(log.errors(), std::vector<std::string>{"error " + tagOf(server.get()) +
                                                         ": cannot accept unix connection"});
        close(client);
        loop->stopObject(server);
        settle();
    }

    std::vector<std::shared_ptr<HXKQueueEventProtocol>> failed;
};

TEST_F(AcceptFailure, IsLoggedOncePerRecordAndTheServerGoesOn) {
    ASSERT_NO_FATAL_FAILURE(failOnce());
    stopLoop();
}

// The connection waits, and the others go on, until there is a descriptor again. What happens
// meanwhile has happened before: a sanitizer needs descriptors to look at an object for the first
// time.
TEST_F(AcceptFailure, ForWantOfDescriptorsIsOverWhenThereIsOne) {
    const UnixEndpoint endpoint;
    EventRecorder events;
    EventRecorder others;
    const Stream stream = makeStream();
    loop->startObject(stream.source, others.block());
    ASSERT_EQ(::write(stream.peer, "x", 1), 1);
    ASSERT_TRUE(others.waitFor(HXKQueueEventData));
    ASSERT_NO_FATAL_FAILURE(failOnce());
    const auto server = endpoint.listenOn(*loop);
    loop->startObject(server, events.answering(false));
    const int client = socket(AF_UNIX, SOCK_STREAM, 0);

    struct rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    struct rlimit none = before;
    none.rlim_cur = static_cast<rlim_t>(nextDescriptor());
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    ASSERT_EQ(connect(client, asSockaddr(endpoint.address), endpoint.length), 0);
    EXPECT_TRUE(log.waitFor("error " + tagOf(server.get()) + ": cannot accept unix connection"));
    ASSERT_EQ(::write(stream.peer, "x", 1), 1);
    EXPECT_TRUE(others.waitFor(HXKQueueEventData, 2));
    EXPECT_TRUE(events.all().empty());
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(events.waitFor(HXKQueueEventData));
    stopLoop();
    close(client);
    close(stream.peer);
}

TEST_F(AcceptFailure, OfATcpServerIsLoggedToo) {
    const TcpEndpoint endpoint;
    EventRecorder events;
    const auto server = endpoint.listenOn(*loop);
    failingCalls.accept = ECONNABORTED;
    loop->startObject(server, events.answering(false));
    const int client = endpoint.connectedSocket();
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    EXPECT_EQ(log.errors(), std::vector<std::string>{"error " + tagOf(server.get()) +
                                                     ": cannot accept inet connection"});
    close(client);
    stopLoop();
}

TEST_F(AcceptFailure, ConnectionOfAPeerThatCannotBeIdentifiedIsClosedSilently) {
    const UnixEndpoint endpoint;
    EventRecorder events;
    const auto server = endpoint.listenOn(*loop);
    loop->startObject(server, events.answering(false));
    failingCalls.peerCredentials = ENOTCONN;
    const size_t before = openDescriptors();
    const int client = endpoint.connectedSocket();
    const struct timeval patience = {.tv_sec = 20, .tv_usec = 0};
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    char byte = 0;
    EXPECT_EQ(read(client, &byte, 1), 0);
    close(client);
    settle();
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(events.all().empty());
    EXPECT_TRUE(log.errors().empty());
    stopLoop();
}

}  // namespace
