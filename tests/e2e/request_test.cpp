// What the utility sends, byte by byte, and that it sends it once.

#include <gtest/gtest.h>

#include "tests/e2e/control_path.h"
#include "tests/e2e/scripted_peer.h"
#include "tests/e2e/utility.h"

namespace {

class Request : public ControlPathTest {
protected:
    // All that the utility sends in one run. It is given the time for a second request: a reply
    // that is not for it passes before the right one comes.
    [[nodiscard]] static std::string sentBy(const Words& words) {
        const ScriptedPeer peer;
        RunningProgram utility = startUtility(words);
        const UnixStream connection = peer.accept();
        const std::string request = connection.receiveFrame();
        EXPECT_TRUE(connection.send(frame(99, "{}")));
        connection.waitUntilTaken();
        EXPECT_TRUE(connection.isSilent());
        EXPECT_TRUE(connection.send(frame(request.at(0), "{}")));
        EXPECT_EQ(utility.finish(), failedWith(5, "Internal error.\n"));
        return request + connection.receiveToEnd();
    }
};

TEST_F(Request, ListIsEightZeroBytes) {
    const std::string zeros(8, '\0');
    for (const Words& words : {Words{"srv"},
                               {"srv", "list"},
                               {"srv", "list", "-D"},
                               {"srv", "list", "extra"},
                               {"dev"},
                               {"dev", "list"},
                               {"dev", "list", "-n"},
                               {"dev", "list", "-p", "extra"}})
        EXPECT_EQ(sentBy(words), zeros) << testing::PrintToString(words);
}

TEST_F(Request, AddServer) {
    EXPECT_EQ(sentBy({"srv", "add", "box"}), frame(1, R"({"host":"box","port":33000})"));
    EXPECT_EQ(sentBy({"srv", "add", "-p", "5", "box"}), frame(1, R"({"host":"box","port":5})"));
}

TEST_F(Request, ServerActionById) {
    EXPECT_EQ(sentBy({"srv", "disconnect", "-i", "3"}),
              frame(2, R"({"action":"disconnect","id":3})"));
    EXPECT_EQ(sentBy({"srv", "reconnect", "-i", "3"}),
              frame(2, R"({"action":"reconnect","id":3})"));
}

TEST_F(Request, RemoveById3HasItsBytes) {
    EXPECT_EQ(sentBy({"srv", "remove", "-i", "3"}),
              std::string("\x02\0\0\0\x1A\0\0\0", 8) + R"({"action":"remove","id":3})");
}

TEST_F(Request, ServerActionByHost) {
    EXPECT_EQ(sentBy({"srv", "remove", "-h", "box"}),
              frame(2, R"({"action":"remove","host":"box","port":33000})"));
    EXPECT_EQ(sentBy({"srv", "disconnect", "-p", "9", "-h", "box"}),
              frame(2, R"({"action":"disconnect","host":"box","port":9})"));
}

TEST_F(Request, PlugById2And5HasItsBytes) {
    EXPECT_EQ(sentBy({"dev", "plug", "2:5"}),
              std::string("\x03\0\0\0\x3A\0\0\0", 8) +
                  R"({"action":"plug","server-id":2,"device-id":5,"once":false})");
}

TEST_F(Request, PlugById) {
    EXPECT_EQ(sentBy({"dev", "plug", "-1", "-i", "2", "5"}),
              frame(3, R"({"action":"plug","server-id":2,"device-id":5,"once":true})"));
}

TEST_F(Request, PlugByHost) {
    EXPECT_EQ(
        sentBy({"dev", "plug", "-h", "box", "5"}),
        frame(3, R"({"action":"plug","host":"box","port":33000,"device-id":5,"once":false})"));
    EXPECT_EQ(sentBy({"dev", "plug", "-1", "-p", "1", "-h", "box", "5"}),
              frame(3, R"({"action":"plug","host":"box","port":1,"device-id":5,"once":true})"));
}

TEST_F(Request, UnplugById) {
    EXPECT_EQ(sentBy({"dev", "unplug", "2:5"}),
              frame(3, R"({"action":"unplug","server-id":2,"device-id":5})"));
}

TEST_F(Request, UnplugByHost) {
    EXPECT_EQ(sentBy({"dev", "unplug", "-h", "box", "5"}),
              frame(3, R"({"action":"unplug","host":"box","port":33000,"device-id":5})"));
}

TEST_F(Request, PortKeepsItsLow16BitsAndTextIs0) {
    EXPECT_EQ(sentBy({"srv", "add", "-p", "70000", "box"}),
              frame(1, R"({"host":"box","port":4464})"));
    EXPECT_EQ(sentBy({"srv", "add", "-p", "abc", "box"}), frame(1, R"({"host":"box","port":0})"));
    EXPECT_EQ(sentBy({"srv", "add", "-p", " 12x", "box"}), frame(1, R"({"host":"box","port":12})"));
    EXPECT_EQ(sentBy({"srv", "add", "-p", "-1", "box"}),
              frame(1, R"({"host":"box","port":65535})"));
}

TEST_F(Request, OptionBehindAnOperandIsNone) {
    EXPECT_EQ(sentBy({"srv", "add", "box", "-p", "5"}), frame(1, R"({"host":"box","port":33000})"));
}

TEST_F(Request, OperandMayLookLikeAnOptionAfterTwoDashes) {
    EXPECT_EQ(sentBy({"srv", "add", "--", "-p"}), frame(1, R"({"host":"-p","port":33000})"));
}

TEST_F(Request, LastOptionCounts) {
    EXPECT_EQ(sentBy({"srv", "remove", "-i", "3", "-i", "4"}),
              frame(2, R"({"action":"remove","id":4})"));
}

TEST_F(Request, ServerIdGoesBeforeTheHost) {
    EXPECT_EQ(sentBy({"srv", "remove", "-h", "box", "-i", "3"}),
              frame(2, R"({"action":"remove","id":3})"));
}

TEST_F(Request, ServerOfTheOperandGoesBeforeTheOptions) {
    EXPECT_EQ(sentBy({"dev", "unplug", "-i", "2", "3:7"}),
              frame(3, R"({"action":"unplug","server-id":3,"device-id":7})"));
}

TEST_F(Request, IdsKeepTheirLow32Bits) {
    EXPECT_EQ(sentBy({"srv", "remove", "-i", "-1"}),
              frame(2, R"({"action":"remove","id":4294967295})"));
    EXPECT_EQ(sentBy({"srv", "remove", "-i", " 5"}), frame(2, R"({"action":"remove","id":5})"));
    EXPECT_EQ(sentBy({"srv", "remove", "-i", "4294967299"}),
              frame(2, R"({"action":"remove","id":3})"));
    EXPECT_EQ(sentBy({"dev", "unplug", "4294967297:99999999999999999999999"}),
              frame(3, R"({"action":"unplug","server-id":1,"device-id":4294967295})"));
}

TEST_F(Request, HostTravelsAsItIs) {
    EXPECT_EQ(sentBy({"srv", "add", "büro\"\\/\t"}),
              frame(1, R"({"host":"büro\"\\/\t","port":33000})"));
    EXPECT_EQ(sentBy({"srv", "add", ""}), frame(1, R"({"host":"","port":33000})"));
}

TEST_F(Request, HostThatIsNotUtf8IsNotSentAndTheUtilityWaitsForTheEnd) {
    for (const Words& words : {Words{"srv", "add", "\xff"},
                               {"srv", "remove", "-h", "a\xc3"},
                               {"dev", "plug", "-h", "\xed\xa0\x80", "7"}}) {
        const ScriptedPeer peer;
        RunningProgram utility = startUtility(words);
        UnixStream connection = peer.accept();
        EXPECT_TRUE(connection.send(frame(99, "{}")));
        connection.waitUntilTaken();
        EXPECT_TRUE(connection.isSilent());
        EXPECT_TRUE(utility.isRunning());
        connection.close();
        EXPECT_EQ(utility.finish(), failedWith(5,
                                               "cannot allocate object for request"
                                               "connection terminated\n"));
    }
}

}  // namespace
