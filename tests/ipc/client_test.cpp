#include <thread>

#include "tests/ipc/client_fixture.h"

namespace {

using Lines = std::vector<std::string>;

TEST(Client, ThereIsNoneWithoutADaemon) {
    UnixListener daemon;
    const CapturedStream err(stderr);
    const auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
    EXPECT_EQ(HXTarnIPCClient::initWithKQueue(loop, "/nonexistent/socket"), nullptr);
    daemon.close();
    EXPECT_EQ(HXTarnIPCClient::initWithKQueue(loop, daemon.path()), nullptr);
}

TEST(Client, SaysNothingItselfWithoutADaemon) {
    CapturedStream err(stderr);
    const auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
    EXPECT_EQ(HXTarnIPCClient::initWithKQueue(loop, "/nonexistent/socket"), nullptr);
    EXPECT_EQ(err.take(), "");
}

TEST_F(ClientTest, NoCallbackRunsBeforeStart) {
    installCallbacks();
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ClientTest, ACompleteConnectionIsReportedInsideStart) {
    std::thread::id reporter;
    ASSERT_TRUE(client->setOnConnected([&] { reporter = std::this_thread::get_id(); }));
    client->start();
    EXPECT_EQ(reporter, std::this_thread::get_id());
    client->stop();
}

TEST_F(ClientTest, EachCodeHasItsCallback) {
    installCallbacks();
    const std::string bytes = frame(1, "{\"a\":1}");
    uint64_t dropSize = bytes.size();
    EXPECT_TRUE(client->handleEvent(nullptr, nullptr, 0, nullptr, HXKQueueEventConnected));
    EXPECT_TRUE(
        client->handleEvent(nullptr, bytes.data(), bytes.size(), &dropSize, HXKQueueEventData));
    EXPECT_EQ(log.lines(), (Lines{"connected", "data 1 {\"a\":1}"}));
    EXPECT_EQ(err.take(), "");
}

TEST_F(ClientTest, AFailedConnectIsAnError) {
    installCallbacks();
    EXPECT_TRUE(client->handleEvent(nullptr, nullptr, 0, nullptr, HXKQueueEventCannotConnect));
    EXPECT_EQ(log.lines(), Lines{"error cannot connect\n"});
}

TEST_F(ClientTest, AnEndedConnectionIsAnError) {
    installCallbacks();
    EXPECT_TRUE(client->handleEvent(nullptr, nullptr, 0, nullptr, HXKQueueEventTerminated));
    EXPECT_EQ(log.lines(), Lines{"error connection terminated\n"});
}

TEST_F(ClientTest, BadBytesAreAnErrorAndLeaveTheDropCountAlone) {
    installCallbacks();
    uint64_t dropSize = 8;
    EXPECT_TRUE(
        client->handleEvent(nullptr, frameHeader(0, 0).data(), 8, &dropSize, HXKQueueEventData));
    EXPECT_EQ(dropSize, 8U);
    EXPECT_EQ(log.lines(), Lines{"error invalid protocol\n"});
}

TEST_F(ClientTest, UnknownCodesAreIgnored) {
    installCallbacks();
    uint64_t dropSize = 77;
    for (const int32_t code : {-1, 4, 1000})
        EXPECT_TRUE(client->handleEvent(nullptr, "bytes", 5, &dropSize, code));
    EXPECT_EQ(dropSize, 77U);
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(err.take(), "");
}

TEST_F(ClientTest, EventsWithoutCallbacksStillHaveTheirWords) {
    uint64_t dropSize = 0;
    EXPECT_TRUE(client->handleEvent(nullptr, nullptr, 0, nullptr, HXKQueueEventConnected));
    EXPECT_EQ(err.take(), "");
    EXPECT_TRUE(client->handleEvent(nullptr, nullptr, 0, nullptr, HXKQueueEventTerminated));
    EXPECT_EQ(err.take(), "connection terminated\n");
    EXPECT_TRUE(client->handleEvent(nullptr, nullptr, 0, nullptr, HXKQueueEventCannotConnect));
    EXPECT_EQ(err.take(), "cannot connect\n");
    EXPECT_TRUE(
        client->handleEvent(nullptr, frameHeader(0, 0).data(), 8, &dropSize, HXKQueueEventData));
    EXPECT_EQ(err.take(), "invalid protocol\n");
}

TEST_F(ClientTest, ThePropertiesHoldWhatTheyAreSet) {
    EXPECT_EQ(client->onConnected(), nullptr);
    EXPECT_EQ(client->onData(), nullptr);
    EXPECT_EQ(client->onError(), nullptr);
    installCallbacks();
    (*client->onConnected())();
    (*client->onError())();
    EXPECT_EQ(log.lines(), (Lines{"connected", "error "}));
}

TEST_F(ClientTest, AnEmptyCallbackIsNone) {
    installCallbacks();
    ASSERT_TRUE(client->setOnConnected(nullptr));
    ASSERT_TRUE(client->setOnData({}));
    ASSERT_TRUE(client->setOnError(HXTarnIPCClient::OnError()));
    EXPECT_EQ(client->onConnected(), nullptr);
    EXPECT_EQ(client->onData(), nullptr);
    EXPECT_EQ(client->onError(), nullptr);
}

TEST_F(ClientTest, ACallbackMayReplaceItself) {
    ASSERT_TRUE(client->setOnConnected([this, kept = std::string("still here")] {
        ASSERT_TRUE(client->setOnConnected(nullptr));
        log.add(kept);
    }));
    EXPECT_TRUE(client->handleEvent(nullptr, nullptr, 0, nullptr, HXKQueueEventConnected));
    EXPECT_EQ(log.lines(), Lines{"still here"});
}

TEST_F(ClientTest, StopDropsTheCallbacks) {
    installCallbacks();
    client->stop();
    EXPECT_EQ(client->onConnected(), nullptr);
    EXPECT_EQ(client->onData(), nullptr);
    EXPECT_EQ(client->onError(), nullptr);
}

TEST_F(ClientTest, WithoutALoopNothingIsSentOrSaid) {
    const UnixStream peer = daemon.accept();
    loop.reset();
    client->requestServerList();
    client->requestAddServer("box", 1);
    client->start();
    EXPECT_EQ(err.take(), "");
    EXPECT_EQ(log.lines(), Lines{});
    client->stop();
}

TEST_F(RunningClientTest, AReplyInTwoReadsIsDeliveredOnceAfterTheSecond) {
    const std::string reply = frame(2, "{\"status\":\"ok\"}");
    for (const size_t cut : {3U, 8U, 15U}) {
        const size_t before = log.lines().size();
        ASSERT_TRUE(peer->send(reply.substr(0, cut)));
        peer->waitUntilTaken();
        EXPECT_EQ(log.lines().size(), before) << cut;
        ASSERT_TRUE(peer->send(reply.substr(cut)));
        EXPECT_EQ(log.waitFor(before + 1).back(), "data 2 {\"status\":\"ok\"}");
    }
    EXPECT_EQ(log.lines().size(), 4U);
}

TEST_F(RunningClientTest, TwoRepliesInOneReadAreDeliveredInOrder) {
    ASSERT_TRUE(peer->send(frame(0, "{\"a\":1}") + frame(1, "{\"b\":2}")));
    EXPECT_EQ(log.waitFor(3), (Lines{"connected", "data 0 {\"a\":1}", "data 1 {\"b\":2}"}));
}

TEST_F(RunningClientTest, ALargeReplyIsDeliveredWhole) {
    const std::string text(5'000'000, 'x');
    ASSERT_TRUE(peer->send(frame(0, "{\"a\":\"" + text + "\"}")));
    EXPECT_EQ(log.waitFor(2).back(), "data 0 {\"a\":\"" + text + "\"}");
}

TEST_F(RunningClientTest, ALengthOfZeroIsAnErrorWithoutData) {
    ASSERT_TRUE(peer->send(frameHeader(0, 0)));
    EXPECT_EQ(log.waitFor(2), (Lines{"connected", "error invalid protocol\n"}));
}

TEST_F(RunningClientTest, AnArrayIsAnErrorWithoutData) {
    ASSERT_TRUE(peer->send(frame(0, "[]")));
    EXPECT_EQ(log.waitFor(2),
              (Lines{"connected", "error cannot parse JSON, got wrong top-level object"}));
}

TEST_F(RunningClientTest, AfterAnErrorTheWholeBufferIsDiscarded) {
    ASSERT_TRUE(client->setOnError([this] { log.add("error " + err.take()); }));
    ASSERT_TRUE(peer->send(frame(0, "{}") + frame(0, "no JSON") + frame(1, "{}")));
    EXPECT_EQ(log.waitFor(3), (Lines{"connected", "data 0 {}", "error cannot parse protocol"}));
    ASSERT_TRUE(peer->send(frame(2, "{}")));
    EXPECT_EQ(log.waitFor(4).back(), "data 2 {}");
}

TEST_F(RunningClientTest, ADaemonThatGoesAwayIsAnError) {
    peer->close();
    EXPECT_EQ(log.waitFor(2), (Lines{"connected", "error connection terminated\n"}));
}

TEST_F(RunningClientTest, ADaemonThatGoesAwayMidwayIsAnErrorWithoutData) {
    ASSERT_TRUE(peer->send(frame(0, "{\"a\":1}").substr(0, 12)));
    peer->close();
    EXPECT_EQ(log.waitFor(2), (Lines{"connected", "error connection terminated\n"}));
}

TEST_F(RunningClientTest, TheCallbacksRunOnTheLoopsThread) {
    const auto mainThread = std::this_thread::get_id();
    ASSERT_TRUE(client->setOnData([this, mainThread](int32_t, const boost::json::object&) {
        log.add(std::this_thread::get_id() == mainThread ? "main" : "other");
    }));
    ASSERT_TRUE(peer->send(frame(0, "{}")));
    EXPECT_EQ(log.waitFor(2).back(), "other");
}

TEST_F(RunningClientTest, StopClosesTheConnection) {
    client->stop();
    EXPECT_EQ(peer->receiveToEnd(), "");
    client->requestServerList();
    EXPECT_EQ(err.take(), "");
    EXPECT_EQ(log.lines(), Lines{"connected"});
}

TEST_F(RunningClientTest, StopReleasesTheClient) {
    const std::weak_ptr weak(client);
    const auto other = HXTarnIPCClient::initWithKQueue(loop, daemon.path());
    client->stop();
    client = other;
    // The socket drops its block right after it closes the connection, in the same iteration; the
    // answer of another connection comes in a later one.
    EXPECT_EQ(peer->receiveToEnd(), "");
    installCallbacks();
    client->start();
    ASSERT_TRUE(daemon.accept().send(frame(0, "{}")));
    EXPECT_EQ(log.waitFor(3).at(2), "data 0 {}");
    EXPECT_TRUE(weak.expired());
}

TEST_F(RunningClientTest, CallbacksMayBeReplacedWhileRepliesArrive) {
    constexpr size_t kReplies = 500;
    const std::string reply = frame(0, "{}");
    std::thread sender([&] {
        for (size_t i = 0; i < kReplies; ++i)
            EXPECT_TRUE(peer->send(reply));
    });
    while (log.lines().size() < kReplies + 1)
        ASSERT_TRUE(
            client->setOnData([this](int32_t, const boost::json::object&) { log.add("data"); }));
    sender.join();
    EXPECT_EQ(log.lines().size(), kReplies + 1);
}

}  // namespace
