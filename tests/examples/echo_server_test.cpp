// The program echo_server as its clients see it, and what it has in common with the other server.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/examples/byte_traffic.h"
#include "tests/examples/running_server.h"
#include "tests/support/descriptor_limit.h"

namespace {

constexpr int kManyClients = 100;

void expectEcho(const UnixStream& client, const std::string& bytes) {
    ASSERT_TRUE(client.send(bytes));
    EXPECT_EQ(client.receive(bytes.size()), bytes);
}

void expectEchoOver(int family) {
    std::optional<TcpServerRun> run;
    try {
        run.emplace(ECHO_SERVER_PROGRAM, family);
    } catch (const TcpServerRun::NoAddress&) {
        GTEST_SKIP() << "no such addresses on this machine";
    }
    const UnixStream client = run->connect();
    expectEcho(client, "hello");
    const std::string bytes = noise(kMebibyte / 2, 1);
    ASSERT_TRUE(client.send(bytes));
    client.closeSending();
    EXPECT_TRUE(client.receiveToEnd() == bytes);
}

TEST(EchoServer, HundredClientsGetTheirOwnBytesBack) {
    const UnixServerRun run(ECHO_SERVER_PROGRAM);
    std::vector<UnixStream> clients;
    for (int i = 0; i < kManyClients; ++i)
        clients.push_back(run.connect());
    const auto bytesOf = [](size_t i) { return noise(65'536, static_cast<uint32_t>(i)); };
    for (size_t i = 0; i < clients.size(); ++i)
        ASSERT_TRUE(clients[i].send(bytesOf(i)));
    for (size_t i = 0; i < clients.size(); ++i)
        EXPECT_TRUE(clients[i].receive(65'536) == bytesOf(i)) << i;
}

TEST(EchoServer, ClientThatEndsItsSendingGetsEverythingBeforeTheEnd) {
    const UnixServerRun run(ECHO_SERVER_PROGRAM);
    const UnixStream client = run.connect();
    const std::string bytes = noise(8 * kMebibyte, 1);
    std::thread sender([&] {
        EXPECT_TRUE(client.send(bytes));
        client.closeSending();
    });
    EXPECT_TRUE(client.receiveToEnd() == bytes);
    sender.join();
}

TEST(EchoServer, ClientThatSendsNothingIsClosedWhenItEnds) {
    const UnixServerRun run(ECHO_SERVER_PROGRAM);
    const UnixStream client = run.connect();
    client.closeSending();
    EXPECT_EQ(client.receiveToEnd(), "");
}

// More than the buffers on the way there and back can grow to: tcp_rmem and tcp_wmem (tcp(7)) allow
// 32 and 4 MiB, twice.
TEST(EchoServer, ReadsNoMoreFromAClientThatDoesNotRead) {
    const TcpServerRun run(ECHO_SERVER_PROGRAM, AF_INET);
    const int sock = run.connectedSocket();
    const std::string bytes = noise(96 * kMebibyte, 1);
    const size_t sent = writeUntilStalled(sock, bytes);
    const UnixStream client(sock);
    EXPECT_LT(sent, bytes.size());
    expectEcho(run.connect(), "meanwhile");
    client.closeSending();
    EXPECT_TRUE(client.receiveToEnd() == bytes.substr(0, sent));
}

TEST(EchoServer, ServesOthersWhenClientsVanish) {
    const UnixServerRun run(ECHO_SERVER_PROGRAM);
    const std::string bytes = noise(kMebibyte, 1);
    for (int i = 0; i < kManyClients; ++i) {
        const UnixStream silent = run.connect();
        const UnixStream unreading = run.connect();
        ASSERT_TRUE(unreading.send("hello"));
    }
    for (int i = 0; i < 5; ++i) {
        const UnixStream unreading = run.connect();
        ASSERT_TRUE(unreading.send(bytes));
        unreading.closeSending();
    }
    expectEcho(run.connect(), "hello");
    EXPECT_TRUE(run.server.isRunning());
}

TEST(EchoServer, ClientBeyondTheThousandthIsClosedUntilAnotherLeaves) {
    // The server's too, which inherits the limit.
    const std::string lacking = raiseDescriptorLimit(1'020);
    if (!lacking.empty()) GTEST_SKIP() << lacking;
    const UnixServerRun run(ECHO_SERVER_PROGRAM);
    std::vector<UnixStream> clients;
    for (int i = 0; i < 1000; ++i)
        clients.push_back(run.connect());
    expectEcho(clients.back(), "hello");
    EXPECT_EQ(run.connect().receiveToEnd(), "");
    clients.pop_back();
    const auto isServed = [&run] {
        const UnixStream client = run.connect();
        return client.send("hello") && client.receive(5) == "hello";
    };
    while (!isServed())
        std::this_thread::yield();
}

TEST(EchoServer, ServesOverIPv4) {
    expectEchoOver(AF_INET);
}

TEST(EchoServer, ServesOverIPv6) {
    expectEchoOver(AF_INET6);
}

TEST(EchoServer, EndsOnEitherSignalAndRemovesItsSocket) {
    for (const int number : {SIGTERM, SIGINT}) {
        UnixServerRun run(ECHO_SERVER_PROGRAM);
        const UnixStream client = run.connect();
        expectEcho(client, "hello");
        run.server.signal(number);
        EXPECT_EQ(client.receiveToEnd(), "");
        const Outcome outcome = run.server.finish();
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.err, "");
        EXPECT_FALSE(std::filesystem::exists(run.path));
    }
}

TEST(EchoServer, SocketIsItsUsersOnly) {
    const UnixServerRun run(ECHO_SERVER_PROGRAM);
    struct stat file {};
    ASSERT_EQ(stat(run.path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0600U);
}

TEST(EchoServer, WrongCommandLineIsStatus2) {
    const std::string usage =
        std::string("Usage: ") + ECHO_SERVER_PROGRAM + " unix PATH | tcp ADDRESS PORT\n";
    const auto expectRefusal = [&](std::vector<std::string> arguments, const std::string& why) {
        arguments.insert(arguments.begin(), ECHO_SERVER_PROGRAM);
        const Outcome expected{.status = 2, .out = "", .err = why + usage};
        EXPECT_EQ(runProgram(arguments), expected) << arguments.back();
    };
    expectRefusal({}, "");
    expectRefusal({"unix"}, "");
    expectRefusal({"unix", "a", "b"}, "");
    expectRefusal({"udp", "127.0.0.1", "5000"}, "");
    expectRefusal({"tcp", "127.0.0.1"}, "");
    for (const std::string port : {"0", "65536", "-1", "http", "80x", ""})
        expectRefusal({"tcp", "127.0.0.1", port}, port + " is not a port from 1 to 65535\n");
}

TEST(EchoServer, TellsWhereItCannotListen) {
    const auto expectFailure = [](std::vector<std::string> arguments, const std::string& why) {
        arguments.insert(arguments.begin(), ECHO_SERVER_PROGRAM);
        const Outcome expected{.status = 1, .out = "", .err = why};
        EXPECT_EQ(runProgram(arguments), expected);
    };
    expectFailure({"unix", "/nonexistent/socket"}, "cannot listen on /nonexistent/socket\n");
    expectFailure({"unix", ""}, "cannot listen on \n");
    expectFailure({"tcp", "localhost.example", "5000"},
                  "localhost.example is not an Internet address\n");
    expectFailure({"tcp", "192.0.2.1", "5000"}, "cannot listen on 192.0.2.1 5000\n");
}

TEST(EchoServer, LeavesAFileThatIsInItsPlaceAlone) {
    const ScratchDirectory directory;
    directory.write("file", "precious");
    const std::string path = directory.path("file");
    const Outcome outcome = runProgram({ECHO_SERVER_PROGRAM, "unix", path});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              path + " exists; if it is the socket of a server that is gone, remove it\n");
    EXPECT_EQ(directory.content("file"), "precious");
}

}  // namespace
