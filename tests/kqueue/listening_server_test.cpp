#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <vector>

#include "kqueue/HXKQueueAcceptedConnection.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTCPServer.h"
#include "kqueue/HXKQueueUnixServer.h"
#include "tests/kqueue/held_port.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/support/quiet_send.h"

namespace {

const HXKQueueAcceptedConnection& connectionOf(const RecordedEvent& event) {
    return *reinterpret_cast<const HXKQueueAcceptedConnection*>(event.bytes.data());
}

class UnixServer : public LoopTest {
protected:
    UnixServer() : path(directory.file("socket")) {}
    ~UnixServer() override { stopLoop(); }

    static int connectTo(const std::string& path) {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(sock, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0)
            return sock;
        close(sock);
        return -1;
    }

    static mode_t modeOf(const std::string& path) {
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        return status.st_mode;
    }

    TemporaryDirectory directory;
    std::string path;
    EventRecorder events;
};

TEST_F(UnixServer, LogsItsCreation) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    ASSERT_NE(server, nullptr);
    EXPECT_TRUE(log.has("debug " + tagOf(server.get()) + ": unix server(" + path + ") created"));
}

TEST_F(UnixServer, ReportsWhoConnected) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->startObject(server, events.block());
    const int client = connectTo(path);
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    const RecordedEvent event = events.last();
    EXPECT_EQ(event.source, server);
    EXPECT_EQ(event.size, 136U);
    EXPECT_FALSE(event.hadDropSize);
    const HXKQueueAcceptedConnection& connection = connectionOf(event);
    EXPECT_EQ(connection.peer.uid, geteuid());
    EXPECT_EQ(connection.peer.gid, getegid());
    EXPECT_EQ(connection.peer.pid, getpid());
    ASSERT_EQ(::write(connection.sock, "hello", 5), 5);
    std::array<char, 5> bytes{};
    EXPECT_EQ(recv(client, bytes.data(), 5, MSG_WAITALL), 5);
    close(connection.sock);
    close(client);
}

TEST_F(UnixServer, AcceptedConnectionServesAsAStreamSocket) {
    EventRecorder streamEvents;
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->startObject(server, events.block([&](const RecordedEvent& event, auto*) {
        const auto stream = loop->createStreamSocket(connectionOf(event).sock, true);
        loop->startObject(stream, streamEvents.block([this](const RecordedEvent& data, auto*) {
            loop->write(data.source, data.bytes.data(), data.bytes.size());
            return true;
        }));
        return true;
    }));
    const int client = connectTo(path);
    ASSERT_EQ(::write(client, "echo", 4), 4);
    std::array<char, 4> bytes{};
    ASSERT_EQ(recv(client, bytes.data(), 4, MSG_WAITALL), 4);
    EXPECT_EQ(std::string(bytes.data(), 4), "echo");
    close(client);
}

TEST_F(UnixServer, DeclinedConnectionIsClosedAndLeavesNoDescriptor) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->startObject(server, events.answering(false));
    const size_t before = openDescriptors();
    for (int i = 0; i < 20; ++i) {
        const int client = connectTo(path);
        char byte = 0;
        EXPECT_EQ(read(client, &byte, 1), 0);
        close(client);
    }
    settle();
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(events.count(HXKQueueEventData), 20U);
}

TEST_F(UnixServer, ConnectionThatCameBeforeTheStartIsReportedAfterIt) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    const int client = connectTo(path);
    ASSERT_NE(client, -1);
    settle();
    EXPECT_TRUE(events.all().empty());
    loop->startObject(server, events.answering(false));
    EXPECT_TRUE(events.waitFor(HXKQueueEventData));
    close(client);
}

TEST_F(UnixServer, ThreePendingConnectionsAreThreeEvents) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    const std::array<int, 3> clients = {connectTo(path), connectTo(path), connectTo(path)};
    loop->startObject(server, events.answering(false));
    EXPECT_TRUE(events.waitFor(HXKQueueEventData, 3));
    settle();
    EXPECT_EQ(events.all().size(), 3U);
    for (const int client : clients)
        close(client);
}

TEST_F(UnixServer, PathOf103BytesIsAcceptedAndOneOf104TouchesNothing) {
    std::string longest = directory.file("");
    longest.resize(103, 'p');
    EXPECT_NE(loop->createUnixServer(longest.c_str(), 0600), nullptr);
    const int client = connectTo(longest);
    EXPECT_NE(client, -1);
    close(client);

    const size_t before = openDescriptors();
    EXPECT_EQ(loop->createUnixServer((longest + "p").c_str(), 0600), nullptr);
    EXPECT_EQ(log.errors(),
              std::vector<std::string>{"error cannot initialize unix server socket object"});
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_NE(access((longest + "p").c_str(), F_OK), 0);
    EXPECT_EQ(access(longest.c_str(), F_OK), 0);
}

TEST_F(UnixServer, ReplacesAStaleSocketFile) {
    auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->stopObject(server);
    ASSERT_TRUE(log.waitFor("debug " + tagOf(server.get()) + ": stop"));
    settle();
    EXPECT_EQ(connectTo(path), -1);
    ASSERT_NE(loop->createUnixServer(path.c_str(), 0600), nullptr);
    const int client = connectTo(path);
    EXPECT_NE(client, -1);
    close(client);
}

TEST_F(UnixServer, ReplacesARegularFile) {
    close(open(path.c_str(), O_CREAT | O_WRONLY, 0644));
    ASSERT_NE(loop->createUnixServer(path.c_str(), 0600), nullptr);
    EXPECT_TRUE(S_ISSOCK(modeOf(path)));
}

TEST_F(UnixServer, FailsWhereADirectoryLies) {
    const std::string inTheWay = directory.file("directory");
    ASSERT_EQ(mkdir(inTheWay.c_str(), 0700), 0);
    const size_t before = openDescriptors();
    EXPECT_EQ(loop->createUnixServer(inTheWay.c_str(), 0600), nullptr);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(log.errors(),
              std::vector<std::string>{"error cannot initialize unix server socket object"});
    rmdir(inTheWay.c_str());
}

TEST_F(UnixServer, FileHasExactlyTheModeWhateverTheMaskIs) {
    const mode_t before = umask(0777);
    for (const uint16_t perm : {uint16_t{0600}, uint16_t{0666}, uint16_t{0777}, uint16_t{0}}) {
        ASSERT_NE(loop->createUnixServer(path.c_str(), perm), nullptr);
        EXPECT_EQ(modeOf(path) & 07777, perm);
    }
    umask(before);
}

TEST_F(UnixServer, FileStaysAndNothingAcceptsAfterStop) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->startObject(server, events.answering(false));
    loop->stopObject(server);
    ASSERT_TRUE(log.waitFor("debug " + tagOf(server.get()) + ": stop"));
    settle();
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    EXPECT_EQ(connectTo(path), -1);
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(UnixServer, WritingToItDoesNothing) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->startObject(server, events.answering(false));
    EXPECT_TRUE(loop->write(server, "x", 1));
    settle();
    EXPECT_TRUE(events.all().empty());
}

TEST_F(UnixServer, DeclinedConnectionIsShutDownWhileADuplicateLives) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    std::atomic<int> duplicate{-1};
    loop->startObject(server, events.block([&](const RecordedEvent& event, auto*) {
        duplicate = dup(connectionOf(event).sock);
        return false;
    }));
    const int client = connectTo(path);
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    settle();
    char byte = 0;
    EXPECT_EQ(recv(client, &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(sendQuietly(client, "x", MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EPIPE);
    close(client);
    close(duplicate);
}

TEST_F(UnixServer, AcceptedConnectionIsInBlockingMode) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->startObject(server, events.block());
    const int client = connectTo(path);
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    const int accepted = connectionOf(events.last()).sock;
    EXPECT_EQ(fcntl(accepted, F_GETFL) & O_NONBLOCK, 0);
    close(accepted);
    close(client);
}

TEST_F(UnixServer, AtLeast128ConnectionsWaitBeforeTheStart) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    std::vector<int> clients(128);
    for (int& client : clients) {
        client = socket(AF_UNIX, SOCK_STREAM, 0);
        fcntl(client, F_SETFL, O_NONBLOCK);
        EXPECT_EQ(connect(client, reinterpret_cast<struct sockaddr*>(&address), sizeof address), 0);
    }
    loop->startObject(server, events.answering(false));
    EXPECT_TRUE(events.waitFor(HXKQueueEventData, clients.size()));
    for (const int client : clients)
        close(client);
}

TEST_F(UnixServer, FileAtAPathThatIsTooLongStays) {
    std::string tooLong = directory.file("");
    tooLong.resize(104, 'p');
    close(open(tooLong.c_str(), O_CREAT | O_WRONLY, 0600));
    EXPECT_EQ(loop->createUnixServer(tooLong.c_str(), 0600), nullptr);
    EXPECT_EQ(access(tooLong.c_str(), F_OK), 0);
}

TEST_F(UnixServer, ListensInBlockingMode) {
    const int number = nextDescriptor();
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    int listens = 0;
    socklen_t length = sizeof listens;
    ASSERT_EQ(getsockopt(number, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length), 0);
    EXPECT_NE(listens, 0);  // some systems answer with the option's own bit
    EXPECT_EQ(fcntl(number, F_GETFL) & O_NONBLOCK, 0);
}

class TcpServer : public LoopTest {
protected:
    ~TcpServer() override { stopLoop(); }

    static int connectTo(uint16_t port) {
        const struct sockaddr_storage address = loopback(AF_INET, port);
        const int sock = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(sock, asSockaddr(address), sizeof(sockaddr_in)) == 0) return sock;
        close(sock);
        return -1;
    }

    const HeldPort held;
    const struct sockaddr_storage& address = held.address();
    const uint16_t port = ntohs(reinterpret_cast<const struct sockaddr_in*>(&address)->sin_port);
    EventRecorder events;
};

TEST_F(TcpServer, ReportsThePeersAddressAndLogsItsCreation) {
    const auto server = loop->createTCPServer(asSockaddr(address));
    ASSERT_NE(server, nullptr);
    EXPECT_TRUE(log.has("debug " + tagOf(server.get()) +
                        ": TCP Server (127.0.0.1:" + std::to_string(port) + ") created"));
    loop->startObject(server, events.block());
    const int client = connectTo(port);
    struct sockaddr_in own = {};
    socklen_t length = sizeof own;
    getsockname(client, reinterpret_cast<struct sockaddr*>(&own), &length);
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    EXPECT_EQ(events.last().size, 136U);
    const HXKQueueAcceptedConnection connection = connectionOf(events.last());
    const auto* peer = reinterpret_cast<const struct sockaddr_in*>(&connection.peerAddr);
    EXPECT_EQ(peer->sin_family, AF_INET);
    EXPECT_EQ(peer->sin_port, own.sin_port);
    EXPECT_EQ(peer->sin_addr.s_addr, own.sin_addr.s_addr);
    close(connection.sock);
    close(client);
}

TEST_F(TcpServer, TwoListenOnTheSameAddressAtOnce) {
    const auto first = loop->createTCPServer(asSockaddr(address));
    const auto second = loop->createTCPServer(asSockaddr(address));
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    loop->startObject(first, events.answering(false));
    loop->startObject(second, events.answering(false));
    for (int i = 0; i < 20; ++i) {
        const int client = connectTo(port);
        char byte = 0;
        EXPECT_EQ(read(client, &byte, 1), 0);
        close(client);
    }
    EXPECT_EQ(events.count(HXKQueueEventData), 20U);
}

TEST_F(TcpServer, DeclinedConnectionIsClosedAndLeavesNoDescriptor) {
    const auto server = loop->createTCPServer(asSockaddr(address));
    loop->startObject(server, events.answering(false));
    settle();  // the first TCP source of a process has something looked up, in a file
    const size_t before = openDescriptors();
    for (int i = 0; i < 20; ++i) {
        const int client = connectTo(port);
        char byte = 0;
        EXPECT_EQ(read(client, &byte, 1), 0);
        close(client);
    }
    settle();
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(TcpServer, ConnectionsThatCameBeforeTheStartAreReportedOneByOne) {
    const auto server = loop->createTCPServer(asSockaddr(address));
    const std::array<int, 3> clients = {connectTo(port), connectTo(port), connectTo(port)};
    settle();
    loop->startObject(server, events.answering(false));
    EXPECT_TRUE(events.waitFor(HXKQueueEventData, 3));
    settle();
    EXPECT_EQ(events.all().size(), 3U);
    for (const int client : clients)
        close(client);
}

// The end of reading would be told in every iteration; the first bytes may still be taken.
TEST_F(TcpServer, ConnectionThatEndedBeforeItWasAcceptedIsWrittenToWithoutASignal) {
    const auto server = loop->createTCPServer(asSockaddr(address));
    close(connectTo(port));
    std::shared_ptr<HXKQueueStreamSocket> stream;
    EventRecorder streamEvents;
    loop->startObject(server, events.block([&](const RecordedEvent& event, auto*) {
        stream = loop->createStreamSocket(connectionOf(event).sock, true);
        loop->startObject(stream, streamEvents.block([&](const RecordedEvent& end, auto*) {
            if (end.code == HXKQueueEventTerminated) stream->pauseReading();
            return true;
        }));
        return true;
    }));
    ASSERT_TRUE(streamEvents.waitFor(HXKQueueEventTerminated));
    settle();
    const size_t before = streamEvents.count(HXKQueueEventTerminated);
    // The first is answered with a reset, and once that has come, a write fails.
    for (int i = 0; i < 1'000 && streamEvents.count(HXKQueueEventTerminated) == before; ++i) {
        loop->write(stream, "x", 1);
        settle();
    }
    EXPECT_GT(streamEvents.count(HXKQueueEventTerminated), before);
    stopLoop();  // its blocks use what ends here
}

TEST_F(TcpServer, FailsOnAnAddressThatIsNotOurs) {
    struct sockaddr_storage foreign = loopback(AF_INET, port);
    reinterpret_cast<struct sockaddr_in*>(&foreign)->sin_addr.s_addr = htonl(0xcb007101);
    const size_t before = openDescriptors();
    EXPECT_EQ(loop->createTCPServer(asSockaddr(foreign)), nullptr);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(log.errors(),
              std::vector<std::string>{"error cannot initialize TCP server socket object"});
}

TEST_F(TcpServer, NothingAcceptsAfterStop) {
    const auto server = loop->createTCPServer(asSockaddr(address));
    loop->startObject(server, events.answering(false));
    loop->stopObject(server);
    ASSERT_TRUE(log.waitFor("debug " + tagOf(server.get()) + ": stop"));
    settle();
    EXPECT_EQ(connectTo(port), -1);
}

TEST_F(TcpServer, ListensOnIPv6) {
    const auto server = loop->createTCPServer(asSockaddr(loopback(AF_INET6, port)));
    if (!server) GTEST_SKIP() << "no IPv6 on this machine";
    EXPECT_TRUE(log.has("debug " + tagOf(server.get()) +
                        ": TCP Server (::1:" + std::to_string(port) + ") created"));
}

TEST_F(TcpServer, ListensInBlockingModeWithBothReuseOptions) {
    const int number = nextDescriptor();
    const auto server = loop->createTCPServer(asSockaddr(address));
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(fcntl(number, F_GETFL) & O_NONBLOCK, 0);
    for (const int option : {SO_ACCEPTCONN, SO_REUSEPORT, SO_REUSEADDR}) {
        int value = 0;
        socklen_t length = sizeof value;
        ASSERT_EQ(getsockopt(number, SOL_SOCKET, option, &value, &length), 0);
        EXPECT_NE(value, 0) << option;
    }
}

TEST_F(TcpServer, AcceptedConnectionIsInBlockingMode) {
    const auto server = loop->createTCPServer(asSockaddr(address));
    loop->startObject(server, events.block());
    const int client = connectTo(port);
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    const int accepted = connectionOf(events.last()).sock;
    EXPECT_EQ(fcntl(accepted, F_GETFL) & O_NONBLOCK, 0);
    close(accepted);
    close(client);
}

}  // namespace
