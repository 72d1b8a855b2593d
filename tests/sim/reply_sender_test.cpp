// Every misbehaviour, byte by byte, as a client of the program hxusbvd-sim sees it.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <utility>

#include "tests/sim/simulated_daemon.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::string kPlugRequest =
    frame(3, R"({"action":"plug","server-id":3,"device-id":7,"once":false})");
const std::string kRemoveRequest = frame(2, R"({"action":"remove","id":9})");

const std::string kListReply = listReply("connected");
const std::string kOkPayload = R"({"status":"ok"})";
const std::string kOkReply = frame(3, kOkPayload);
const std::string kAlreadyReply = frame(3, R"({"status":"already"})");
const std::string kNotFoundReply = frame(2, R"({"status":"notfound"})");

const std::string kForever = "3600000";

class Misbehaviour : public SimulatedDaemon {
protected:
    [[nodiscard]] RunningProgram startWith(const std::string& word,
                                           const std::string& delay = "") const {
        std::vector<std::string> options{"--misbehave", word};
        if (!delay.empty()) options.insert(options.end(), {"--delay", delay});
        return start(options);
    }

    // All that comes until the daemon closes.
    [[nodiscard]] std::string receiveToEnd(std::string_view request) const {
        const UnixStream client = UnixStream::connectTo(path);
        EXPECT_TRUE(client.send(request));
        return client.receiveToEnd();
    }
};

TEST_F(Misbehaviour, DelayComesBeforeEachReply) {
    const RunningProgram daemon = startWith("delay", "30");
    const UnixStream client = UnixStream::connectTo(path);
    const Clock::time_point start = Clock::now();
    ASSERT_TRUE(client.send(kListRequest + kPlugRequest + kRemoveRequest + kPlugRequest));
    EXPECT_EQ(client.receiveFrame(), kListReply);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(30));
    EXPECT_EQ(client.receiveFrame(), kOkReply);
    EXPECT_EQ(client.receiveFrame(), kNotFoundReply);
    EXPECT_EQ(client.receiveFrame(), kAlreadyReply);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(120));
    ASSERT_TRUE(client.send(kRemoveRequest));
    EXPECT_EQ(client.receiveFrame(), kNotFoundReply);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(150));
}

TEST_F(Misbehaviour, HundredDelayedClientsAllGetTheirReplies) {
    const RunningProgram daemon = startWith("delay", "1");
    std::vector<UnixStream> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(UnixStream::connectTo(path));
        ASSERT_TRUE(clients.back().send(kRemoveRequest + kListRequest));
    }
    for (const UnixStream& client : clients) {
        EXPECT_EQ(client.receiveFrame(), kNotFoundReply);
        EXPECT_EQ(client.receiveFrame(), kListReply);
    }
}

TEST_F(Misbehaviour, DelayOfNothingIsNone) {
    const RunningProgram daemon = startWith("delay", "0");
    EXPECT_EQ(exchange(kListRequest), kListReply);
}

TEST_F(Misbehaviour, ClientThatEndsItsSendingBeforeALateReplyIsClosedAtOnce) {
    for (const char* word : {"delay", "bytes"}) {
        RunningProgram daemon = startWith(word, kForever);
        for (int i = 0; i < 50; ++i) {
            const UnixStream client = UnixStream::connectTo(path);
            ASSERT_TRUE(client.send(kListRequest + kPlugRequest));
            client.waitUntilTaken();
            client.closeSending();
            EXPECT_EQ(client.receiveToEnd(), "");
        }
        daemon.signal(SIGTERM);
        EXPECT_EQ(daemon.finish().status, 0);
    }
}

TEST_F(Misbehaviour, ClientsThatLeaveAmidLateRepliesDisturbNobody) {
    for (const char* word : {"delay", "bytes"}) {
        RunningProgram daemon = startWith(word, "1");
        for (int i = 0; i < 50; ++i) {
            const UnixStream client = UnixStream::connectTo(path);
            ASSERT_TRUE(client.send(kListRequest + kListRequest));
            EXPECT_EQ(client.receive(1), kListReply.substr(0, 1));
        }
        EXPECT_EQ(exchange(kRemoveRequest), kNotFoundReply);
        daemon.signal(SIGTERM);
        EXPECT_EQ(daemon.finish().status, 0);
    }
}

TEST_F(Misbehaviour, BytesComeOneByOneAndDelayComesBeforeEach) {
    const RunningProgram daemon = startWith("bytes", "3");
    const UnixStream client = UnixStream::connectTo(path);
    const Clock::time_point start = Clock::now();
    ASSERT_TRUE(client.send(kPlugRequest + kRemoveRequest));
    std::chrono::milliseconds earliest{0};
    for (const char byte : kOkReply + kNotFoundReply) {
        EXPECT_EQ(client.receive(1), std::string(1, byte));
        earliest += std::chrono::milliseconds(3);
        EXPECT_GE(Clock::now() - start, earliest);
    }
    EXPECT_TRUE(client.isSilent());
}

TEST_F(Misbehaviour, SilenceIsAllThatComes) {
    const RunningProgram daemon = startWith("silence");
    const UnixStream client = UnixStream::connectTo(path);
    ASSERT_TRUE(client.send(kPlugRequest + kListRequest));
    client.waitUntilTaken();
    client.closeSending();
    EXPECT_EQ(client.receiveToEnd(), "");
}

TEST_F(Misbehaviour, ConnectionIsClosedBeforeDuringOrAfterTheFirstReply) {
    const std::vector<std::pair<std::string, std::string>> endings{
        {"close-before", ""},
        {"close-during", kListReply.substr(0, kListReply.size() / 2)},
        {"close-after", kListReply}};
    for (const auto& [word, bytes] : endings) {
        const RunningProgram daemon = startWith(word);
        EXPECT_EQ(receiveToEnd(kListRequest), bytes) << word;
        EXPECT_EQ(receiveToEnd(kListRequest + kListRequest), bytes) << word;
    }
}

TEST_F(Misbehaviour, LongReplyIsSentWholeBeforeTheConnectionIsClosed) {
    std::ofstream(inventoryPath) << R"({"servers":[{"id":3,"host":")" + std::string(3'000'000, 'x')
                                 << R"("}]})";
    const RunningProgram daemon = startWith("close-after");
    EXPECT_EQ(
        receiveToEnd(kListRequest),
        frame(0, R"({"status":"ok","servers":[{"id":3,"host":")" + std::string(3'000'000, 'x') +
                     R"(","port":33000,"state":"connected","devices":[]}]})"));
}

TEST_F(Misbehaviour, ClientThatDoesNotTakeALongReplyMayLeaveAllTheSame) {
    std::ofstream(inventoryPath) << R"({"servers":[{"id":3,"host":")" + std::string(3'000'000, 'x')
                                 << R"("}]})";
    RunningProgram daemon = startWith("close-after");
    for (int i = 0; i < 20; ++i) {
        const UnixStream client = UnixStream::connectTo(path);
        ASSERT_TRUE(client.send(kListRequest));
        client.waitUntilTaken();
    }
    EXPECT_EQ(receiveToEnd(kRemoveRequest), kNotFoundReply);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.finish().status, 0);
}

TEST_F(Misbehaviour, RequestsAreCarriedOutAllTheSame) {
    const RunningProgram daemon = startWith("length-zero");
    for (const std::string& payload : {kOkPayload, std::string(R"({"status":"already"})")}) {
        const UnixStream client = UnixStream::connectTo(path);
        ASSERT_TRUE(client.send(kPlugRequest));
        EXPECT_EQ(client.receive(8 + payload.size()), frameHeader(3, 0) + payload);
    }
}

TEST_F(Misbehaviour, WrongBytesComeInsteadOfEachReply) {
    const std::vector<std::pair<std::string, std::string>> wrong{
        {"garbage", "This is not a frame.\n"},
        {"not-json", frame(3, "This is not JSON.")},
        {"array", frame(3, '[' + kOkPayload + ']')},
        {"length-long", frameHeader(3, 16) + kOkPayload},
        {"length-short", frameHeader(3, 14) + kOkPayload},
        {"length-zero", frameHeader(3, 0) + kOkPayload},
        {"length-limit", frameHeader(3, 104'857'601) + kOkPayload},
        {"length-negative", frameHeader(3, 0xffffffff) + kOkPayload}};
    for (const auto& [word, bytes] : wrong) {
        const RunningProgram daemon = startWith(word);
        const UnixStream client = UnixStream::connectTo(path);
        ASSERT_TRUE(client.send(kPlugRequest));
        EXPECT_EQ(client.receive(bytes.size()), bytes) << word;
        EXPECT_TRUE(client.isSilent()) << word;
    }
}

}  // namespace
