// Replies that arrive in pieces, in bunches, or wrong.

#include <gtest/gtest.h>

#include "tests/e2e/control_path.h"
#include "tests/e2e/ends.h"
#include "tests/e2e/scripted_peer.h"
#include "tests/e2e/utility.h"

namespace {

constexpr uint32_t kLongestPayload = 104'857'600;

const Words kAdd{"srv", "add", "box"};
const Words kList{"srv", "list"};
const std::string kAddReply = frame(1, R"({"status":"ok","id":7})");
const std::string kListReply = frame(
    0, R"({"status":"ok","servers":[{"id":1,"host":"ü","port":2,"state":"s","devices":[]}]})");
const Outcome kListed = printed("1 - ü:2 - s\n");

class Framing : public ControlPathTest {
protected:
    // The utility's end when each piece is sent after it has taken the one before.
    static Outcome runAgainstPieces(const std::vector<std::string_view>& pieces,
                                    const Words& words) {
        const ScriptedPeer peer;
        RunningProgram utility = startUtility(words);
        const UnixStream connection = peer.accept();
        EXPECT_GE(connection.receiveFrame().size(), 8U);
        for (const std::string_view piece : pieces) {
            EXPECT_TRUE(utility.isRunning());
            EXPECT_TRUE(connection.send(piece));
            connection.waitUntilTaken();
        }
        return utility.finish();
    }

    static void expectAllCuts(std::string_view reply, const Words& words, const Outcome& end) {
        for (size_t cut = 1; cut < reply.size(); ++cut)
            EXPECT_EQ(runAgainstPieces({reply.substr(0, cut), reply.substr(cut)}, words), end)
                << "cut at " << cut;
    }

    static std::vector<std::string_view> singleBytes(std::string_view bytes) {
        std::vector<std::string_view> pieces;
        for (size_t i = 0; i < bytes.size(); ++i)
            pieces.push_back(bytes.substr(i, 1));
        return pieces;
    }
};

TEST_F(Framing, ReplyMayBeCutAtEveryByte) {
    expectAllCuts(kAddReply, kAdd, kAdded);
    expectAllCuts(kListReply, kList, kListed);
}

TEST_F(Framing, ReplyMayArriveAByteAtATime) {
    EXPECT_EQ(runAgainstPieces(singleBytes(kAddReply), kAdd), kAdded);
    EXPECT_EQ(runAgainstPieces(singleBytes(kListReply), kList), kListed);
}

TEST_F(Framing, ReplyMayComeBeforeTheRequestIsRead) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kAdd);
    const UnixStream connection = peer.accept();
    EXPECT_TRUE(connection.send(kAddReply));
    EXPECT_EQ(utility.finish(), kAdded);
}

TEST_F(Framing, ReplyMayHaveWhiteSpaceAndUnknownMembers) {
    EXPECT_EQ(runUtilityAgainst(
                  frame(1, " {\n\t\"x\" : [ {} ] , \"status\" : \"ok\" ,\r\"id\":7 } "), kAdd),
              kAdded);
}

std::string repliesToOtherCommands(int32_t command) {
    std::string frames;
    for (const int32_t other : {0, 1, 2, 3, 4, 256, -1, 0x01000000})
        if (other != command) frames += frame(other, R"({"status":"notfound","servers":0})");
    return frames;
}

TEST_F(Framing, RepliesToOtherCommandsArePassedOver) {
    EXPECT_EQ(runUtilityAgainst(repliesToOtherCommands(0) + kListReply, kList), kListed);
    EXPECT_EQ(runUtilityAgainst(repliesToOtherCommands(1) + kAddReply, kAdd), kAdded);
    EXPECT_EQ(runUtilityAgainst(repliesToOtherCommands(2) + frame(2, R"({"status":"ok"})"),
                                {"srv", "remove", "-i", "3"}),
              silentSuccess());
    EXPECT_EQ(runUtilityAgainst(repliesToOtherCommands(3) + frame(3, R"({"status":"ok"})"),
                                {"dev", "plug", "3:7"}),
              silentSuccess());
}

TEST_F(Framing, RepliesToOtherCommandsMayArriveAByteAtATimeToo) {
    const std::string frames = frame(0, "{}") + frame(2, R"({"status":"ok"})") + kAddReply;
    EXPECT_EQ(runAgainstPieces(singleBytes(frames), kAdd), kAdded);
}

TEST_F(Framing, FirstReplyToTheCommandCounts) {
    const std::string second = frame(1, R"({"status":"already"})");
    EXPECT_EQ(runUtilityAgainst(frame(0, "{}") + kAddReply + second, kAdd), kAdded);
    EXPECT_EQ(runUtilityAgainst(kAddReply + frameHeader(1, 0), kAdd), kAdded);
    EXPECT_EQ(runUtilityAgainst(kAddReply + "gar", kAdd), kAdded);
}

TEST_F(Framing, LengthsBeyondTheLimitsAreRejectedByTheHeaderAlone) {
    for (const uint32_t length :
         {uint32_t{0}, kLongestPayload + 1, uint32_t{0x80000000}, uint32_t{0xffffffff}})
        for (const int32_t command : {0, 1, 99})
            EXPECT_EQ(runUtilityAgainst(frameHeader(command, length), kAdd), kInvalidProtocol)
                << command << ' ' << length;
}

TEST_F(Framing, BytesAfterARejectedHeaderChangeNothing) {
    EXPECT_EQ(runUtilityAgainst(frameHeader(1, 0) + kAddReply, kAdd), kInvalidProtocol);
}

TEST_F(Framing, LongestPayloadIsAwaited) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kAdd);
    UnixStream connection = peer.accept();
    EXPECT_EQ(connection.receiveFrame().size(), 35U);
    EXPECT_TRUE(connection.send(frameHeader(1, kLongestPayload)));
    connection.waitUntilTaken();
    EXPECT_TRUE(connection.send("{"));
    connection.waitUntilTaken();
    EXPECT_TRUE(utility.isRunning());
    connection.close();
    EXPECT_EQ(utility.finish(), kTerminated);
}

TEST_F(Framing, ArrayAtTheTopIsRejected) {
    EXPECT_EQ(runUtilityAgainst(frame(1, "[]"), kAdd), kWrongTopLevel);
    EXPECT_EQ(runUtilityAgainst(frame(1, R"([{"status":"ok","id":7}])"), kAdd), kWrongTopLevel);
    EXPECT_EQ(runUtilityAgainst(frame(99, "[]"), kAdd), kWrongTopLevel);
}

TEST_F(Framing, ScalarAtTheTopCannotBeParsed) {
    for (const char* scalar : {"7", "-1.5", "\"ok\"", "true", "false", "null"})
        EXPECT_EQ(runUtilityAgainst(frame(1, scalar), kAdd), kCannotParse) << scalar;
}

TEST_F(Framing, GarbageCannotBeParsed) {
    for (const std::string& garbage :
         {std::string(" "), std::string("x"), std::string("{"), std::string(R"({"status":"ok")"),
          std::string(R"({"status":"ok","id":7}x)"), std::string(R"({"status":"ok","id":7,})"),
          std::string(R"({'status':'ok'})"), std::string("{}{}"), std::string("{}\0", 3),
          std::string(8, '\0'), std::string("{\"status\":\"\xff\"}"),
          std::string("{\"status\":\"\xc0\xaf\"}"), std::string("{\"a\":NaN}"),
          std::string("{\"a\":01}")})
        EXPECT_EQ(runUtilityAgainst(frame(1, garbage), kAdd), kCannotParse)
            << testing::PrintToString(garbage);
}

TEST_F(Framing, WrongFrameAfterOneForAnotherCommandIsAnError) {
    EXPECT_EQ(runUtilityAgainst(frame(0, "{}") + frame(2, "x"), kAdd), kCannotParse);
    EXPECT_EQ(runUtilityAgainst(frame(0, "{}") + frame(2, "[]"), kAdd), kWrongTopLevel);
    EXPECT_EQ(runUtilityAgainst(frame(0, "{}") + frameHeader(2, 0), kAdd), kInvalidProtocol);
}

std::string nested(size_t depth) {
    const std::string arrays = std::string(depth - 1, '[') + std::string(depth - 1, ']');
    return frame(1, R"({"status":"ok","id":7,"x":)" + arrays + '}');
}

// As deep in objects, which stand in arrays by turns.
std::string nestedByTurns(size_t depth) {
    std::string opening;
    std::string closing;
    for (size_t level = 1; level < depth; ++level) {
        opening += level % 2 == 0 ? "[" : "{\"x\":";
        closing.insert(0, level % 2 == 0 ? "]" : "}");
    }
    return frame(1, R"({"status":"ok","id":7,"x":)" + opening + '0' + closing + '}');
}

TEST_F(Framing, NestingIsReadDownToALimit) {
    for (const auto make : {nested, nestedByTurns}) {
        EXPECT_EQ(runUtilityAgainst(make(511), kAdd), kAdded);
        EXPECT_EQ(runUtilityAgainst(make(512), kAdd), kAdded);
        EXPECT_EQ(runUtilityAgainst(make(513), kAdd), kCannotParse);
    }
}

TEST_F(Framing, ReplyThatIsCutShortIsATerminatedConnection) {
    for (const size_t size : {size_t{1}, size_t{7}, size_t{8}, size_t{9}, kAddReply.size() - 1}) {
        const ScriptedPeer peer;
        RunningProgram utility = startUtility(kAdd);
        UnixStream connection = peer.accept();
        EXPECT_EQ(connection.receiveFrame().size(), 35U);
        EXPECT_TRUE(connection.send(std::string_view(kAddReply).substr(0, size)));
        connection.close();
        EXPECT_EQ(utility.finish(), kTerminated) << size;
    }
}

TEST_F(Framing, WholeReplyCountsEvenWhenThePeerClosesRightAfterIt) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kAdd);
    UnixStream connection = peer.accept();
    EXPECT_EQ(connection.receiveFrame().size(), 35U);
    EXPECT_TRUE(connection.send(kAddReply));
    connection.close();
    EXPECT_EQ(utility.finish(), kAdded);
}

}  // namespace
