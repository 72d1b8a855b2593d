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

// A frame that comes in many pieces, each of which the socket shows behind what is there already.
class LargeFrameTest : public DecoderTest {
protected:
    // Shows ever more of the bytes, and then all. Whether all but the last time were waited
    // through.
    bool isWaitedFor(const std::string& bytes) {
        for (size_t size = 1; size < bytes.size(); size += 50'021) {
            dropSize = kUntouched;
            if (!decode(bytes.substr(0, size)) || dropSize != 0) return false;
        }
        dropSize = kUntouched;
        return log.lines().empty() && err.take().empty();
    }

    // A reply of so many bytes, and what the log makes of it.
    static std::string reply(char mark) {
        return "{\"text\":\"" + std::string(300'000, mark) + "\"}";
    }
};

TEST_F(LargeFrameTest, IsDeliveredOnceWithItsLastByte) {
    const std::string bytes = frame(5, reply('a'));
    ASSERT_TRUE(isWaitedFor(bytes));
    EXPECT_TRUE(decode(bytes));
    EXPECT_EQ(dropSize, bytes.size());
    EXPECT_EQ(log.lines(), Lines{"data 5 " + reply('a')});
}

TEST_F(LargeFrameTest, IsRefusedWithItsLastByteAndNotBefore) {
    for (const std::string& payload :
         {"[x" + reply('a'), reply('a') + "x", std::string(300'000, '['), reply('\xff')}) {
        const std::string bytes = frame(5, payload);
        ASSERT_TRUE(isWaitedFor(bytes));
        EXPECT_FALSE(decode(bytes));
        EXPECT_EQ(dropSize, kUntouched);
        EXPECT_EQ(err.take(), "cannot parse protocol");
    }
    EXPECT_EQ(log.lines(), Lines{});
}

// A long text, with an escape in front, is cut within a character or an escape of one.
TEST_F(LargeFrameTest, IsReadTheSameWhereverACharacterIsCut) {
    const std::string before = "{\"text\":\"\\n" + std::string(70'000, 'a');
    for (const std::string character :
         {"\303\251", "\342\202\254", "\360\237\230\200", "\\u20ac", "\\ud83d\\ude00"}) {
        const std::string bytes = frame(5, before + character + std::string(10'000, 'b') + "\"}");
        ASSERT_TRUE(decode(bytes));
        const std::string whole = log.lines().back();
        const size_t place = bytes.find(character);
        for (size_t cut = place; cut <= place + character.size(); ++cut) {
            ASSERT_TRUE(decode(bytes.substr(0, cut)));
            ASSERT_TRUE(decode(bytes));
            EXPECT_TRUE(log.lines().back() == whole) << cut - place << " of " << character;
        }
    }
}

TEST_F(LargeFrameTest, FollowsAnotherInTheSameBytes) {
    const std::string first = frame(1, reply('a'));
    const std::string second = frame(2, reply('b'));
    ASSERT_TRUE(isWaitedFor(first));
    EXPECT_TRUE(decode(first + second.substr(0, 200'000)));
    EXPECT_EQ(dropSize, first.size());
    EXPECT_TRUE(decode(second));
    EXPECT_EQ(dropSize, second.size());
    EXPECT_EQ(log.lines(), (Lines{"data 1 " + reply('a'), "data 2 " + reply('b')}));
}

TEST_F(LargeFrameTest, IsReadAfreshBehindOneThatWasRefused) {
    const std::string refused = frame(1, "x" + reply('a'));
    ASSERT_TRUE(isWaitedFor(refused));
    EXPECT_FALSE(decode(refused));
    static_cast<void>(err.take());
    const std::string bytes = frame(1, reply('b') + " ");
    ASSERT_EQ(bytes.size(), refused.size());
    ASSERT_TRUE(isWaitedFor(bytes));
    EXPECT_TRUE(decode(bytes));
    EXPECT_EQ(log.lines(), Lines{"data 1 " + reply('b')});
}

TEST_F(LargeFrameTest, IsReadAfreshBehindBytesThatWereNoFrame) {
    ASSERT_TRUE(isWaitedFor(frame(1, reply('a'))));
    EXPECT_FALSE(decode(std::string(8, '\0')));
    EXPECT_EQ(err.take(), "invalid protocol\n");
    EXPECT_TRUE(decode(frame(1, reply('b'))));
    EXPECT_EQ(log.lines(), Lines{"data 1 " + reply('b')});
}

TEST_F(LargeFrameTest, IsReadAfreshWhenTheSocketHasDiscardedItsBeginning) {
    ASSERT_TRUE(client->setOnError([this] { log.add("error"); }));
    ASSERT_TRUE(isWaitedFor(frame(1, reply('a'))));
    EXPECT_TRUE(client->handleEvent(nullptr, nullptr, 0, nullptr, HXKQueueEventTerminated));
    EXPECT_EQ(err.take(), "connection terminated\n");
    EXPECT_TRUE(decode(frame(1, reply('b'))));
    EXPECT_EQ(log.lines(), (Lines{"error", "data 1 " + reply('b')}));
}

// Another connection's frame, or one behind a frame that nobody has dropped.
TEST_F(LargeFrameTest, WithAnotherHeaderIsAnotherFrame) {
    ASSERT_TRUE(isWaitedFor(frame(1, reply('a'))));
    EXPECT_TRUE(decode(frame(2, reply('b'))));
    EXPECT_EQ(log.lines(), Lines{"data 2 " + reply('b')});
}

}  // namespace
