#include "tests/ipc/client_fixture.h"

#include <cstring>

namespace {

using namespace std::string_literals;
using Lines = std::vector<std::string>;

constexpr uint64_t kUntouched = 0x1234567890;

class DecoderTest : public ClientTest {
protected:
    DecoderTest() { installCallbacks(); }

    bool decode(const std::string& bytes) {
        return client->parseProtocolBuffer(bytes.data(), bytes.size(), &dropSize);
    }

    uint64_t dropSize = kUntouched;
};

TEST_F(DecoderTest, LessThanAHeaderIsWaitedFor) {
    const std::string header = frameHeader(1, 0);
    for (size_t size = 0; size < 8; ++size) {
        dropSize = kUntouched;
        EXPECT_TRUE(decode(header.substr(0, size)));
        EXPECT_EQ(dropSize, 0U);
    }
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(err.take(), "");
}

TEST_F(DecoderTest, ALengthOfZeroIsRefused) {
    EXPECT_FALSE(decode(frameHeader(0, 0)));
    EXPECT_EQ(err.take(), "invalid protocol\n");
    EXPECT_EQ(dropSize, kUntouched);
}

TEST_F(DecoderTest, ALengthOfZeroIsRefusedWhateverFollows) {
    EXPECT_FALSE(decode(frameHeader(0, 0) + frame(0, "{}")));
    EXPECT_EQ(err.take(), "invalid protocol\n");
    EXPECT_EQ(dropSize, kUntouched);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(DecoderTest, TheGreatestLengthIsWaitedFor) {
    EXPECT_TRUE(decode(frameHeader(0, 104'857'600)));
    EXPECT_EQ(dropSize, 0U);
    EXPECT_EQ(err.take(), "");
}

TEST_F(DecoderTest, AGreaterLengthIsRefusedWithoutItsPayload) {
    for (const uint32_t length : {104'857'601U, 0x80000000U, 0xffffffffU}) {
        EXPECT_FALSE(decode(frameHeader(0, length)));
        EXPECT_EQ(err.take(), "invalid protocol\n");
        EXPECT_EQ(dropSize, kUntouched);
    }
}

TEST_F(DecoderTest, APayloadOfTheGreatestLengthIsRead) {
    std::string payload(104'857'600, ' ');
    payload.replace(0, 2, "{}");
    EXPECT_TRUE(decode(frame(0, payload)));
    EXPECT_EQ(dropSize, 104'857'608U);
    EXPECT_EQ(log.lines(), Lines{"data 0 {}"});
}

TEST_F(DecoderTest, AnIncompletePayloadIsWaitedFor) {
    const std::string bytes = frame(2, "{\"status\":\"ok\"}");
    for (size_t size = 8; size < bytes.size(); ++size) {
        dropSize = kUntouched;
        EXPECT_TRUE(decode(bytes.substr(0, size)));
        EXPECT_EQ(dropSize, 0U);
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(DecoderTest, AFrameIsDeliveredWithItsCode) {
    EXPECT_TRUE(decode(frame(3, "{\"status\":\"ok\"}")));
    EXPECT_EQ(dropSize, 23U);
    EXPECT_EQ(log.lines(), Lines{"data 3 {\"status\":\"ok\"}"});
}

TEST_F(DecoderTest, CodesAreSigned) {
    EXPECT_TRUE(decode(frame(-1, "{}") + frame(INT32_MIN, "{}")));
    EXPECT_EQ(log.lines(), (Lines{"data -1 {}", "data -2147483648 {}"}));
}

TEST_F(DecoderTest, TwoFramesAndABeginningAreTwoReplies) {
    const std::string whole = frame(0, "{\"a\":1}") + frame(1, "{\"b\":2}");
    EXPECT_TRUE(decode(whole + frame(2, "{}").substr(0, 3)));
    EXPECT_EQ(dropSize, whole.size());
    EXPECT_EQ(log.lines(), (Lines{"data 0 {\"a\":1}", "data 1 {\"b\":2}"}));
    EXPECT_EQ(err.take(), "");
}

TEST_F(DecoderTest, APartialPayloadAfterAFrameStays) {
    const std::string whole = frame(0, "{\"a\":1}");
    EXPECT_TRUE(decode(whole + frame(1, "{\"b\":2}").substr(0, 12)));
    EXPECT_EQ(dropSize, whole.size());
    EXPECT_EQ(log.lines(), Lines{"data 0 {\"a\":1}"});
}

TEST_F(DecoderTest, FramesBeforeABadLengthStayDelivered) {
    EXPECT_FALSE(decode(frame(0, "{\"a\":1}") + frameHeader(1, 0)));
    EXPECT_EQ(log.lines(), Lines{"data 0 {\"a\":1}"});
    EXPECT_EQ(err.take(), "invalid protocol\n");
    EXPECT_EQ(dropSize, kUntouched);
}

TEST_F(DecoderTest, FramesBeforeABadPayloadStayDelivered) {
    EXPECT_FALSE(decode(frame(0, "{\"a\":1}") + frame(1, "{") + frame(2, "{}")));
    EXPECT_EQ(log.lines(), Lines{"data 0 {\"a\":1}"});
    EXPECT_EQ(err.take(), "cannot parse protocol");
    EXPECT_EQ(dropSize, kUntouched);
}

TEST_F(DecoderTest, APayloadThatIsNoJsonIsRefused) {
    for (const auto& payload :
         {"hello"s, " "s, "{"s, "{}{}"s, "{\"a\":1,}"s, "\0"s, "{\"a\":\"\xff\"}"s, "{}\0"s}) {
        EXPECT_FALSE(decode(frame(0, payload))) << payload;
        EXPECT_EQ(err.take(), "cannot parse protocol") << payload;
        EXPECT_EQ(dropSize, kUntouched);
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(DecoderTest, ABareScalarIsRefused) {
    for (const char* payload : {"1", "\"ok\"", "true", "null"}) {
        EXPECT_FALSE(decode(frame(0, payload))) << payload;
        EXPECT_EQ(err.take(), "cannot parse protocol") << payload;
    }
}

TEST_F(DecoderTest, AnArrayIsTheWrongTopLevel) {
    for (const char* payload : {"[]", "[{\"status\":\"ok\"}]"}) {
        EXPECT_FALSE(decode(frame(0, payload))) << payload;
        EXPECT_EQ(err.take(), "cannot parse JSON, got wrong top-level object") << payload;
        EXPECT_EQ(dropSize, kUntouched);
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(DecoderTest, DeepNestingIsRefused) {
    const std::string inner = std::string(511, '[') + std::string(511, ']');
    EXPECT_TRUE(decode(frame(0, "{\"a\":" + inner + "}")));
    EXPECT_FALSE(decode(frame(0, "{\"a\":[" + inner + "]}")));
    EXPECT_EQ(err.take(), "cannot parse protocol");
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(DecoderTest, WithoutACallbackFramesAreConsumedSilently) {
    ASSERT_TRUE(client->setOnData(nullptr));
    EXPECT_TRUE(decode(frame(0, "{}") + frame(1, "{}")));
    EXPECT_EQ(dropSize, 20U);
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(err.take(), "");
}

TEST_F(DecoderTest, WithoutACallbackBadFramesAreStillRefused) {
    ASSERT_TRUE(client->setOnData(nullptr));
    EXPECT_FALSE(decode(frame(0, "[]")));
    EXPECT_EQ(err.take(), "cannot parse JSON, got wrong top-level object");
}

TEST_F(DecoderTest, ACallbackThatIsReplacedMidwayTakesTheNextFrame) {
    ASSERT_TRUE(client->setOnData([this](int32_t code, const boost::json::object&) {
        log.add("first " + std::to_string(code));
        EXPECT_TRUE(client->setOnData([this](int32_t next, const boost::json::object&) {
            log.add("second " + std::to_string(next));
        }));
    }));
    EXPECT_TRUE(decode(frame(5, "{}") + frame(6, "{}") + frame(7, "{}")));
    EXPECT_EQ(log.lines(), (Lines{"first 5", "second 6", "second 7"}));
}

}  // namespace
