#include <boost/json/object.hpp>
#include <functional>

#include "tests/ipc/client_fixture.h"
#include "tests/support/failing_allocations.h"

namespace {

using Words = std::vector<std::string>;
using Extent = FailingAllocations::Extent;

constexpr const char* kDictionary = "cannot allocate dictionary for request";
constexpr const char* kObject = "cannot allocate object for request";
constexpr const char* kObjects = "cannot allocate objects for request";
constexpr const char* kConvert = "cannot convert dictionary to JSON";
constexpr const char* kEnded = "error connection terminated\n";

class OutOfMemoryRequest : public RunningClientTest {
protected:
    // Has each allocation of the request fail in its turn. What was said, each of it once; where
    // nothing was said the last of it is "". Never is a part of the frame sent, nor anything when
    // there were words. Of a connection that ends for a lack of memory the client tells.
    Words sweep(const std::function<void()>& request, const std::string& whole, Extent extent) {
        reconnect();  // what a connection has room for from before cannot fail
        Words said;
        for (uint64_t nth = 1;; ++nth) {
            FailingAllocations failing(nth, extent);
            request();
            failing.end();
            const std::string sent = received();
            const bool isEnded = sent == "(end of stream)";
            const std::string words = isEnded ? log.lines().back() : err.take();
            if (!failing.happened()) {
                EXPECT_EQ(words, "");
                EXPECT_EQ(sent, whole);
                return said;
            }
            EXPECT_TRUE(isEnded || sent.empty() || (words.empty() && sent == whole))
                << nth << " " << sent;
            if (said.empty() || said.back() != words) said.push_back(words);
            if (isEnded) reconnect();
        }
    }

    // Words that come in the order of the steps.
    void expectWords(const std::function<void()>& request, const std::string& whole,
                     const Words& expected) {
        EXPECT_EQ(sweep(request, whole, Extent::OnlyThatOne), expected);
        EXPECT_EQ(sweep(request, whole, Extent::FromThereOn), expected);
    }
};

TEST_F(OutOfMemoryRequest, AddServer) {
    expectWords([this] { client->requestAddServer("box", 1); },
                frame(1, "{\"host\":\"box\",\"port\":1}"),
                {kDictionary, kObject, kConvert, "", kEnded});
}

TEST_F(OutOfMemoryRequest, ServerActionByHost) {
    expectWords([this] { client->requestServerAction("remove", "box", 1); },
                frame(2, "{\"action\":\"remove\",\"host\":\"box\",\"port\":1}"),
                {kDictionary, kObject, kConvert, "", kEnded});
}

TEST_F(OutOfMemoryRequest, ServerActionById) {
    expectWords([this] { client->requestServerAction("remove", 3); },
                frame(2, "{\"action\":\"remove\",\"id\":3}"),
                {kDictionary, kObjects, kConvert, "", kEnded});
}

TEST_F(OutOfMemoryRequest, DeviceActionByHost) {
    expectWords([this] { client->requestDeviceAction("plug", "box", 1, 7, true); },
                frame(3,
                      "{\"action\":\"plug\",\"host\":\"box\",\"port\":1,\"device-id\":7,"
                      "\"once\":true}"),
                {kDictionary, kObject, kObjects, kConvert, "", kEnded});
}

TEST_F(OutOfMemoryRequest, DeviceActionById) {
    expectWords([this] { client->requestDeviceAction("unplug", 3, 7, true); },
                frame(3, "{\"action\":\"unplug\",\"server-id\":3,\"device-id\":7}"),
                {kDictionary, kObjects, kConvert, "", kEnded});
}

// There is no dictionary and no text: only the frame's own buffer can be missing.
TEST_F(OutOfMemoryRequest, AServerListIsNotSentOrComplainedAbout) {
    expectWords([this] { client->sendJSON(nullptr, 9); }, frame(9, ""), {""});
}

TEST_F(OutOfMemoryRequest, WithoutAFrameBufferNothingIsSent) {
    FailingAllocations failing(1);
    client->sendJSON(nullptr, 9);
    failing.end();
    EXPECT_TRUE(failing.happened());
    EXPECT_EQ(err.take(), "");
    EXPECT_EQ(received(), "");
}

// Or the process would wait for the reply to a request that nobody has heard of.
TEST_F(OutOfMemoryRequest, AFrameThatCannotBeQueuedEndsTheConnection) {
    FailingAllocations failing(2);
    client->sendJSON(nullptr, 9);
    failing.end();
    EXPECT_EQ(received(), "(end of stream)");
    EXPECT_EQ(log.lines().back(), kEnded);
}

class OutOfMemoryClient : public ClientTest {
protected:
    // What the last frame was read into goes with one that cannot be read.
    void forgetMemoryOfFrames() {
        uint64_t dropSize = 0;
        const std::string bytes = frame(0, "{");
        ASSERT_FALSE(client->parseProtocolBuffer(bytes.data(), bytes.size(), &dropSize));
        ASSERT_EQ(err.take(), "cannot parse protocol");
    }
};

TEST_F(OutOfMemoryClient, AFrameThatCannotBeDecodedCannotBeParsed) {
    size_t delivered = 0;
    ASSERT_TRUE(client->setOnData([&](int32_t, const boost::json::object&) { ++delivered; }));
    const std::string bytes = frame(
        0, "{\"status\":\"ok\",\"servers\":[{\"id\":1,\"devices\":[{\"name\":\"a name\"}]}]}");
    for (const Extent extent : {Extent::OnlyThatOne, Extent::FromThereOn}) {
        uint64_t failures = 0;
        for (uint64_t nth = 1;; ++nth) {
            forgetMemoryOfFrames();
            uint64_t dropSize = 77;
            delivered = 0;
            FailingAllocations failing(nth, extent);
            const bool sound = client->parseProtocolBuffer(bytes.data(), bytes.size(), &dropSize);
            failing.end();
            EXPECT_EQ(sound, !failing.happened());
            EXPECT_EQ(err.take(), sound ? "" : "cannot parse protocol");
            EXPECT_EQ(dropSize, sound ? bytes.size() : 77U);
            EXPECT_EQ(delivered, sound ? 1U : 0U);
            if (sound) break;
            ++failures;
        }
        EXPECT_GE(failures, 2U);
    }
}

// What cannot be read while it arrives is read when it is there.
TEST_F(OutOfMemoryClient, AFrameThatArrivesWithoutMemoryToReadItIsReadLater) {
    size_t delivered = 0;
    ASSERT_TRUE(client->setOnData([&](int32_t, const boost::json::object&) { ++delivered; }));
    const std::string bytes = frame(0, "{\"text\":\"" + std::string(200'000, 'x') + "\"}");
    uint64_t dropSize = 77;
    FailingAllocations failing(1);
    EXPECT_TRUE(client->parseProtocolBuffer(bytes.data(), 100'000, &dropSize));
    failing.end();
    EXPECT_TRUE(failing.happened());
    EXPECT_EQ(dropSize, 0U);
    EXPECT_TRUE(client->parseProtocolBuffer(bytes.data(), bytes.size(), &dropSize));
    EXPECT_EQ(delivered, 1U);
    EXPECT_EQ(dropSize, bytes.size());
    EXPECT_EQ(err.take(), "");
}

TEST_F(OutOfMemoryClient, ThereIsNone) {
    for (const Extent extent : {Extent::OnlyThatOne, Extent::FromThereOn}) {
        uint64_t nth = 1;
        for (bool happened = true; happened; ++nth) {
            FailingAllocations failing(nth, extent);
            const auto other = HXTarnIPCClient::initWithKQueue(loop, daemon.path());
            failing.end();
            happened = failing.happened();
            EXPECT_EQ(other == nullptr, happened) << nth;
            EXPECT_EQ(err.take(), "");
        }
        EXPECT_GT(nth, 3U);  // the client, its socket, that one's registration
    }
}

TEST_F(OutOfMemoryClient, ACallbackThatCannotBeKeptLeavesTheEarlierOne) {
    installCallbacks();
    const auto connected = client->onConnected();
    const auto data = client->onData();
    const auto error = client->onError();
    HXTarnIPCClient::OnConnected newConnected = [] {};
    HXTarnIPCClient::OnData newData = [](int32_t, const boost::json::object&) {};
    HXTarnIPCClient::OnError newError = [] {};
    FailingAllocations failing(1, Extent::FromThereOn);
    const bool any = client->setOnConnected(newConnected) || client->setOnData(newData) ||
                     client->setOnError(newError);
    failing.end();
    EXPECT_FALSE(any);
    EXPECT_EQ(client->onConnected(), connected);
    EXPECT_EQ(client->onData(), data);
    EXPECT_EQ(client->onError(), error);
}

TEST_F(OutOfMemoryClient, AStartThatCannotReportIsAFailedConnect) {
    bool failed = false;
    ASSERT_TRUE(client->setOnError([&] { failed = true; }));
    FailingAllocations failing(1);
    client->start();
    failing.end();
    EXPECT_TRUE(failed);
    EXPECT_EQ(err.take(), "cannot connect\n");
}

TEST(FailingAllocations, FailExactlyTheOneThatIsAskedFor) {
    FailingAllocations failing(2);
    const auto tryOne = [] {
        try {
            void* volatile memory = ::operator new(1);  // a compiler may leave out an unused one
            ::operator delete(memory);
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    };
    const bool first = tryOne();
    EXPECT_FALSE(failing.happened());
    const bool second = tryOne();
    const bool third = tryOne();
    failing.end();
    EXPECT_TRUE(failing.happened());
    EXPECT_EQ((std::vector{first, second, third}), (std::vector{true, false, true}));
}

}  // namespace
