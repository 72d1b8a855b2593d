// The program hxusbvd-sim as a client sees it, on a private path.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <vector>

#include "tests/sim/simulated_daemon.h"
#include "tests/support/descriptors.h"

namespace {

constexpr int kManyClients = 100;

const std::string kAddRequest = frame(1, R"({"host":"new","port":5})");
const std::string kRemoveRequest = frame(2, R"({"action":"remove","id":9})");
const std::string kPlugRequest =
    frame(3, R"({"action":"plug","server-id":3,"device-id":7,"once":false})");

const std::string kListReply = listReply("connected");
const std::string kOkReply = frame(3, R"({"status":"ok"})");
const std::string kAlreadyReply = frame(3, R"({"status":"already"})");
const std::string kNotFoundReply = frame(2, R"({"status":"notfound"})");

TEST_F(SimulatedDaemon, EndsWithStatus0OnEitherSignalAndRemovesItsSocket) {
    for (const int number : {SIGTERM, SIGINT}) {
        RunningProgram daemon = start();
        daemon.signal(number);
        const Outcome outcome = daemon.finish();
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out, "hxusbvd-sim: listening on " + path.string() + "\n");
        EXPECT_EQ(outcome.err, "");
        EXPECT_FALSE(std::filesystem::exists(path));
    }
}

TEST_F(SimulatedDaemon, LeavesASocketThatIsNotItsOwn) {
    RunningProgram daemon = start();
    std::filesystem::rename(path, directory / "moved");
    leaveStaleSocket();
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.finish().status, 0);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(SimulatedDaemon, EverybodyMayConnect) {
    const RunningProgram daemon = start();
    struct stat file {};
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0666U);
}

TEST_F(SimulatedDaemon, AnswersEveryCommand) {
    const RunningProgram daemon = start();
    EXPECT_EQ(exchange(kListRequest), kListReply);
    EXPECT_EQ(exchange(kPlugRequest), kOkReply);
    EXPECT_EQ(exchange(kPlugRequest), kAlreadyReply);
    EXPECT_EQ(exchange(kRemoveRequest), kNotFoundReply);
    EXPECT_EQ(exchange(kAddRequest), frame(1, R"({"status":"ok","id":4})"));
    EXPECT_EQ(exchange(kAddRequest), frame(1, R"({"status":"already"})"));
    EXPECT_EQ(exchange(frame(2, R"({"action":"disconnect","host":"new","port":5})")),
              frame(2, R"({"status":"ok"})"));
    EXPECT_EQ(exchange(frame(2, "{}")), frame(2, R"({"status":"error"})"));
    EXPECT_EQ(exchange(frame(77, "{}")), frame(77, R"({"status":"error"})"));
}

TEST_F(SimulatedDaemon, ClientMaySendManyRequestsOneAfterTheOther) {
    const RunningProgram daemon = start();
    const UnixStream client = UnixStream::connectTo(path);
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(client.send(kListRequest));
        EXPECT_EQ(client.receiveFrame(), kListReply);
    }
}

TEST_F(SimulatedDaemon, RequestsSentInOneGoAreAnsweredInOrder) {
    const RunningProgram daemon = start();
    const UnixStream client = UnixStream::connectTo(path);
    ASSERT_TRUE(client.send(kListRequest + kPlugRequest + kRemoveRequest + kPlugRequest));
    EXPECT_EQ(client.receiveFrame(), kListReply);
    EXPECT_EQ(client.receiveFrame(), kOkReply);
    EXPECT_EQ(client.receiveFrame(), kNotFoundReply);
    EXPECT_EQ(client.receiveFrame(), kAlreadyReply);
    EXPECT_TRUE(client.isSilent());
}

TEST_F(SimulatedDaemon, RequestMayBeCutAtEveryByte) {
    const RunningProgram daemon = start();
    const UnixStream client = UnixStream::connectTo(path);
    for (size_t cut = 1; cut < kRemoveRequest.size(); ++cut) {
        ASSERT_TRUE(client.send(std::string_view(kRemoveRequest).substr(0, cut)));
        client.waitUntilTaken();
        ASSERT_TRUE(client.isSilent()) << cut;
        ASSERT_TRUE(client.send(std::string_view(kRemoveRequest).substr(cut)));
        ASSERT_EQ(client.receiveFrame(), kNotFoundReply) << cut;
    }
}

TEST_F(SimulatedDaemon, RequestsMayArriveAByteAtATime) {
    const RunningProgram daemon = start();
    const UnixStream client = UnixStream::connectTo(path);
    for (const char byte : kRemoveRequest + kListRequest) {
        ASSERT_TRUE(client.send({&byte, 1}));
        client.waitUntilTaken();
    }
    EXPECT_EQ(client.receiveFrame(), kNotFoundReply);
    EXPECT_EQ(client.receiveFrame(), kListReply);
}

TEST_F(SimulatedDaemon, MalformedFrameEndsThatConnectionOnly) {
    const RunningProgram daemon = start();
    const UnixStream bystander = UnixStream::connectTo(path);
    for (const std::string& malformed :
         {frameHeader(0, 104'857'601), frameHeader(0, 0xffffffff), frame(1, ""), frame(0, "[]"),
          frame(0, "7"), frame(1, "{"), frame(3, "\xff\xfe"), frame(9, "null")}) {
        const UnixStream client = UnixStream::connectTo(path);
        ASSERT_TRUE(client.send(malformed));
        EXPECT_EQ(client.receiveToEnd(), "");
        ASSERT_TRUE(bystander.send(kListRequest));
        EXPECT_EQ(bystander.receiveFrame(), kListReply);
    }
}

TEST_F(SimulatedDaemon, NothingAfterAMalformedFrameIsAnswered) {
    const RunningProgram daemon = start();
    const UnixStream client = UnixStream::connectTo(path);
    ASSERT_TRUE(client.send(frame(1, "garbage") + kPlugRequest));
    EXPECT_EQ(client.receiveToEnd(), "");
    EXPECT_EQ(exchange(kListRequest), kListReply);
}

TEST_F(SimulatedDaemon, ManyClientsAreServedAtOnce) {
    const RunningProgram daemon = start();
    std::vector<UnixStream> clients;
    for (int i = 0; i < kManyClients; ++i) {
        clients.push_back(UnixStream::connectTo(path));
        ASSERT_TRUE(clients.back().send(kListRequest.substr(0, 5)));
    }
    for (const UnixStream& client : clients)
        ASSERT_TRUE(client.send(kListRequest.substr(5)));
    for (const UnixStream& client : clients)
        EXPECT_EQ(client.receiveFrame(), kListReply);
}

TEST_F(SimulatedDaemon, ClientThatNeverReadsHoldsUpNobody) {
    const RunningProgram daemon = start();
    const UnixStream sluggish = UnixStream::connectTo(path);
    constexpr int kRequests = 20'000;
    std::string requests;
    for (int i = 0; i < kRequests; ++i)
        requests += kListRequest;
    ASSERT_TRUE(sluggish.send(requests));
    sluggish.waitUntilTaken();
    EXPECT_EQ(exchange(kListRequest), kListReply);
    for (int i = 0; i < kRequests; ++i)
        ASSERT_EQ(sluggish.receiveFrame(), kListReply) << i;
}

TEST_F(SimulatedDaemon, ClientsThatVanishDisturbNobody) {
    const RunningProgram daemon = start();
    for (int i = 0; i < kManyClients; ++i) {
        const UnixStream silent = UnixStream::connectTo(path);
        const UnixStream cutOff = UnixStream::connectTo(path);
        ASSERT_TRUE(cutOff.send(kRemoveRequest.substr(0, 11)));
        const UnixStream unreading = UnixStream::connectTo(path);
        ASSERT_TRUE(unreading.send(kListRequest + kListRequest));
    }
    EXPECT_EQ(exchange(kListRequest), kListReply);
    EXPECT_TRUE(daemon.isRunning());
}

TEST_F(SimulatedDaemon, ClosesItsEndWhenTheClientCloses) {
    const RunningProgram daemon = start();
    const UnixStream client = UnixStream::connectTo(path);
    client.closeSending();
    EXPECT_EQ(client.receiveToEnd(), "");
}

// More replies than any socket holds are still to be sent when it has heard of the end.
TEST_F(SimulatedDaemon, ClientThatHasEndedItsSendingGetsEveryReply) {
    const RunningProgram daemon = start();
    constexpr int kRequests = 20'000;
    std::string requests;
    for (int i = 0; i < kRequests; ++i)
        requests += kListRequest;
    const UnixStream client = UnixStream::connectTo(path);
    ASSERT_TRUE(client.send(requests));
    client.closeSending();
    client.waitUntilTaken();
    EXPECT_EQ(exchange(kListRequest), kListReply);
    for (int i = 0; i < kRequests; ++i)
        ASSERT_EQ(client.receiveFrame(), kListReply) << i;
    EXPECT_EQ(client.receiveToEnd(), "");
}

TEST_F(SimulatedDaemon, EndsAllConnectionsWhenItEnds) {
    RunningProgram daemon = start();
    const UnixStream client = UnixStream::connectTo(path);
    ASSERT_TRUE(client.send(kListRequest));
    ASSERT_EQ(client.receiveFrame(), kListReply);
    daemon.signal(SIGTERM);
    EXPECT_EQ(client.receiveToEnd(), "");
    EXPECT_EQ(daemon.finish().status, 0);
}

TEST_F(SimulatedDaemon, SecondOneOnThePathRefusesToStart) {
    const RunningProgram daemon = start();
    const Outcome second = runProgram(command());
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.out, "");
    EXPECT_EQ(second.err, "hxusbvd-sim: a daemon is already listening on " + path.string() + "\n");
    EXPECT_EQ(exchange(kListRequest), kListReply);
}

TEST_F(SimulatedDaemon, RefusesToStartWhereABusyDaemonHasNoRoomForAnotherClient) {
    const int sock = makeSocket(AF_UNIX, SOCK_STREAM);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(sock, 0), 0);
    const UnixStream waiting = UnixStream::connectTo(path);
    EXPECT_EQ(runProgram(command()).err,
              "hxusbvd-sim: a daemon is already listening on " + path.string() + "\n");
    close(sock);
}

TEST_F(SimulatedDaemon, ReplacesAStaleSocketFile) {
    leaveStaleSocket();
    const RunningProgram daemon = start();
    EXPECT_EQ(exchange(kListRequest), kListReply);
}

TEST_F(SimulatedDaemon, LeavesAFileThatIsNoSocketAlone) {
    std::ofstream(path) << "precious";
    const Outcome outcome = runProgram(command());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "hxusbvd-sim: " + path.string() + " exists and is no socket\n");
    std::string content;
    std::ifstream(path) >> content;
    EXPECT_EQ(content, "precious");
}

TEST_F(SimulatedDaemon, TellsWhyItCannotListen) {
    const auto errorFor = [](const std::string& socketPath) {
        const Outcome outcome = runProgram({SIM_PROGRAM, "--socket", socketPath});
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.out, "");
        return outcome.err;
    };
    EXPECT_EQ(errorFor("/nonexistent/sock"),
              "hxusbvd-sim: cannot listen on /nonexistent/sock: /nonexistent: No such file or "
              "directory\n");
    EXPECT_EQ(errorFor("/dev/null/sock"),
              "hxusbvd-sim: cannot look at /dev/null/sock: Not a directory\n");
    EXPECT_EQ(errorFor(""), "hxusbvd-sim: the socket path must be 1 to 103 bytes long\n");
    EXPECT_EQ(errorFor("/" + std::string(103, 'x')),
              "hxusbvd-sim: the socket path must be 1 to 103 bytes long\n");
}

TEST_F(SimulatedDaemon, WrongInventoryIsToldAndNothingIsListenedOn) {
    std::ofstream(inventoryPath) << R"({"servers":[{"id":1}]})";
    const Outcome outcome = runProgram(command());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "hxusbvd-sim: the inventory " + inventoryPath.string() +
                               " is wrong: servers[0]: \"host\" is missing\n");
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(SimulatedDaemon, HelpGoesToStandardOutput) {
    const Outcome outcome = runProgram({SIM_PROGRAM, "--help"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.out.starts_with("Usage: hxusbvd-sim "));
    EXPECT_EQ(outcome.err, "");
}

TEST_F(SimulatedDaemon, WrongArgumentIsNamedAndHelpGoesToStandardError) {
    const Outcome outcome = runProgram({SIM_PROGRAM, "--sokcet"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.out, "");
    EXPECT_TRUE(
        outcome.err.starts_with("hxusbvd-sim: unknown argument: --sokcet\nUsage: hxusbvd-sim "))
        << outcome.err;
}

}  // namespace
