// The program chat as its clients see it.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/examples/running_server.h"

namespace {

std::string receiveLine(const UnixStream& client) {
    std::string line;
    std::string byte;
    while (!line.ends_with('\n') && !(byte = client.receive(1)).empty())
        line += byte;
    return line;
}

class Chat : public testing::Test {
protected:
    // Returns once both are in the room and know so.
    void SetUp() override { ASSERT_EQ(receiveLine(first), "guest2 joins\n"); }

    UnixServerRun run{CHAT_PROGRAM};
    UnixStream first = run.connect();
    UnixStream second = run.connect();
};

TEST_F(Chat, LineGoesToAllOthersAndNotBack) {
    const UnixStream third = run.connect();
    ASSERT_EQ(receiveLine(first), "guest3 joins\n");
    ASSERT_EQ(receiveLine(second), "guest3 joins\n");
    ASSERT_TRUE(first.send("hello\n"));
    EXPECT_EQ(receiveLine(second), "guest1: hello\n");
    EXPECT_EQ(receiveLine(third), "guest1: hello\n");
    ASSERT_TRUE(second.send("hi\n"));
    EXPECT_EQ(receiveLine(first), "guest2: hi\n");
    EXPECT_EQ(receiveLine(third), "guest2: hi\n");
}

TEST_F(Chat, LineMayArriveInPiecesAndLinesTogether) {
    ASSERT_TRUE(first.send("hel"));
    first.waitUntilTaken();
    EXPECT_TRUE(second.isSilent());
    ASSERT_TRUE(first.send("lo\nand\n\nmo"));
    EXPECT_EQ(receiveLine(second), "guest1: hello\n");
    EXPECT_EQ(receiveLine(second), "guest1: and\n");
    ASSERT_TRUE(first.send("re\r\n"));
    EXPECT_EQ(receiveLine(second), "guest1: more\n");
}

TEST_F(Chat, LastWordsOfOneWhoLeavesAreHeard) {
    ASSERT_TRUE(first.send("good\nbye"));
    first.close();
    EXPECT_EQ(receiveLine(second), "guest1: good\n");
    EXPECT_EQ(receiveLine(second), "guest1: bye\n");
    EXPECT_EQ(receiveLine(second), "guest1 leaves\n");
}

TEST_F(Chat, EmptyLinesAreNotPassedOnWhateverTheyEndWith) {
    ASSERT_TRUE(first.send("\r\n\nhi\r\n"));
    EXPECT_EQ(receiveLine(second), "guest1: hi\n");
}

TEST_F(Chat, ControlCharactersDoNotReachOthersTerminals) {
    ASSERT_TRUE(first.send("\x1b[2J\tf\xc3\xbcr\x7f\n"));
    EXPECT_EQ(receiveLine(second), "guest1: ?[2J?f\xc3\xbcr?\n");
}

TEST_F(Chat, LongestLineIsHeardAndALongerOneDropsItsSender) {
    const std::string longest(1000, 'x');
    ASSERT_TRUE(first.send(longest + '\n'));
    EXPECT_EQ(receiveLine(second), "guest1: " + longest + '\n');
    ASSERT_TRUE(first.send("ok\n" + longest + "x\nnever heard\n"));
    EXPECT_EQ(receiveLine(second), "guest1: ok\n");
    EXPECT_EQ(receiveLine(second), "guest1 is dropped: too long a line\n");
    EXPECT_EQ(first.receiveToEnd(), "");
    const UnixStream third = run.connect();
    EXPECT_EQ(receiveLine(second), "guest3 joins\n");
}

TEST_F(Chat, LineWithoutAnEndDropsItsSender) {
    ASSERT_TRUE(first.send(std::string(1001, 'x')));
    EXPECT_EQ(receiveLine(second), "guest1 is dropped: too long a line\n");
}

TEST_F(Chat, SlowReaderIsDropped) {
    const std::string line = std::string(999, 'x') + '\n';
    for (int i = 0; i < 4000; ++i)
        ASSERT_TRUE(second.send(line));
    EXPECT_EQ(receiveLine(second), "guest1 is dropped: reads too slowly\n");
    const UnixStream third = run.connect();
    EXPECT_EQ(receiveLine(second), "guest3 joins\n");
    ASSERT_TRUE(third.send("hello\n"));
    EXPECT_EQ(receiveLine(second), "guest3: hello\n");
}

TEST_F(Chat, FullRoomTakesNobodyElseUntilSomebodyLeaves) {
    std::vector<UnixStream> others;
    for (int number = 3; number <= 100; ++number) {
        others.push_back(run.connect());
        ASSERT_EQ(receiveLine(first), "guest" + std::to_string(number) + " joins\n");
    }
    EXPECT_EQ(run.connect().receiveToEnd(), "");
    second.close();
    EXPECT_EQ(receiveLine(first), "guest2 leaves\n");
    const UnixStream late = run.connect();
    EXPECT_EQ(receiveLine(first), "guest101 joins\n");
}

TEST_F(Chat, EndsOnASignalWithEverybody) {
    run.server.signal(SIGTERM);
    EXPECT_EQ(first.receiveToEnd(), "");
    EXPECT_EQ(second.receiveToEnd(), "");
    EXPECT_EQ(run.server.finish().status, 0);
}

TEST(ChatOverTcp, LineGoesToTheOther) {
    const TcpServerRun run(CHAT_PROGRAM, AF_INET);
    const UnixStream first = run.connect();
    const UnixStream second = run.connect();
    ASSERT_EQ(receiveLine(first), "guest2 joins\n");
    ASSERT_TRUE(second.send("hello\n"));
    EXPECT_EQ(receiveLine(first), "guest2: hello\n");
}

}  // namespace
