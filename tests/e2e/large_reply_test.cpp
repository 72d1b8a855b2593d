// Replies as large as a frame may be.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "tests/e2e/control_path.h"
#include "tests/e2e/ends.h"
#include "tests/e2e/scripted_peer.h"
#include "tests/e2e/utility.h"
#include "tests/kqueue/stress_scale.h"

namespace {

constexpr size_t kLongestPayload = 104'857'600;
// The program itself, and 16 MiB of pages that are at hand before they are used.
constexpr size_t kOtherMemory = size_t{32} << 20;

constexpr uint32_t kHighestId = 4'000'000'000;

// A list reply that fills its frame, with what the utility shall print of it.
struct LongList {
    std::string frame;
    std::string tree;
};

std::string deviceRecord(uint32_t id) {
    const std::string number = std::to_string(id);
    return R"({"id":)" + number + R"(,"name":"Gerät )" + number +
           R"(","vid":1133,"pid":2,"rev":3,"port":"1-1","serial":"","state":"plugged","addr":null})";
}

std::string deviceLine(uint32_t id) {
    const std::string number = std::to_string(id);
    return " " + number + "\t046d:0002:0003\t1-1\tGerät " + number + " /plugged/\n";
}

// Devices in descending order, so that the whole list has to be turned round.
LongList makeLongList(size_t payloadSize) {
    const std::string head =
        R"({"status":"ok","servers":[{"id":1,"host":"h","port":2,"state":"s","devices":[)";
    const std::string tail = R"(]}],"padding":")";
    constexpr size_t kLongestRecord = 160;
    std::string payload = head;
    uint32_t id = kHighestId;
    for (; payload.size() + kLongestRecord + tail.size() < payloadSize; --id) {
        if (id != kHighestId) payload += ',';
        payload += deviceRecord(id);
    }
    payload += tail;
    payload.append(payloadSize - payload.size() - 2, 'x') += "\"}";
    LongList list{.frame = frame(0, payload), .tree = "1 - h:2 - s\n"};
    while (id++ < kHighestId)
        list.tree += deviceLine(id);
    return list;
}

// Lengths that fit no buffer: single bytes, primes, and one off the powers of two.
void sendInOddPieces(const UnixStream& connection, std::string_view bytes) {
    constexpr std::array<size_t, 7> kSizes{1, 7, 4093, 65'537, 3, 212'991, 1'048'573};
    for (size_t i = 0; !bytes.empty(); ++i) {
        const std::string_view piece = bytes.substr(0, kSizes[i % kSizes.size()]);
        ASSERT_TRUE(connection.send(piece));
        bytes.remove_prefix(piece.size());
    }
}

class LargeReplyTest : public ControlPathTest {};

TEST_F(LargeReplyTest, OneOf100MiBInOddPiecesPrintsTheWholeReportInSevenTimesThatMemory) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility({"srv"});  // before this process itself needs memory
    const UnixStream connection = peer.accept();
    ASSERT_EQ(connection.receiveFrame().size(), 8U);
    const LongList list = makeLongList(kLongestPayload);
    ASSERT_EQ(list.frame.size(), kLongestPayload + 8);
    sendInOddPieces(connection, list.frame);
    const Outcome outcome = utility.finish();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out.size(), list.tree.size());
    EXPECT_TRUE(outcome.out == list.tree);  // not EXPECT_EQ, which would print both
    expectPeakOfAtMost(7 * kLongestPayload + kOtherMemory, utility);
}

// A value of two bytes takes twelve times as much where the reader collects the elements of an
// array, and once more where they then live. Nothing takes more.
TEST_F(LargeReplyTest, SmallestValuesTakeAtMostTwentySixTimesTheirSize) {
    constexpr size_t kSize = size_t{stress::kThreadSanitizer ? 1 : 8} << 20;
    const ScriptedPeer peer;
    RunningProgram utility = startUtility({"srv"});
    const UnixStream connection = peer.accept();
    ASSERT_EQ(connection.receiveFrame().size(), 8U);
    std::string payload = R"({"status":"ok","servers":[)";
    while (payload.size() < kSize)
        payload += "0,";
    payload += "0]}";
    EXPECT_TRUE(connection.send(frame(0, payload)));
    EXPECT_EQ(utility.finish(), silentSuccess());
    expectPeakOfAtMost(26 * payload.size() + kOtherMemory, utility);
}

// What cannot be read is kept until the frame is complete, and nothing besides.
TEST_F(LargeReplyTest, OneOf100MiBOfOpeningBracketsEndsCleanlyInOneAndAHalfTimesThatMemory) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility({"srv"});
    const UnixStream connection = peer.accept();
    ASSERT_EQ(connection.receiveFrame().size(), 8U);
    EXPECT_TRUE(connection.send(frame(0, std::string(kLongestPayload, '['))));
    EXPECT_EQ(utility.finish(), kCannotParse);
    expectPeakOfAtMost(kLongestPayload / 2 * 3 + kOtherMemory, utility);
}

}  // namespace
