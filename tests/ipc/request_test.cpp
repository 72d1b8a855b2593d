#include <boost/json/object.hpp>
#include <limits>

#include "tests/ipc/client_fixture.h"

namespace {

using namespace std::string_literals;

using RequestTest = RunningClientTest;

TEST_F(RequestTest, AServerListRequestIsAHeaderOfZeros) {
    client->requestServerList();
    EXPECT_EQ(peer->receive(8), "\0\0\0\0\0\0\0\0"s);
    EXPECT_EQ(received(), "");
}

TEST_F(RequestTest, AddServer) {
    client->requestAddServer("box", 33000);
    EXPECT_EQ(received(), "\x01\0\0\0\x1b\0\0\0{\"host\":\"box\",\"port\":33000}"s);
}

TEST_F(RequestTest, ServerActionByHost) {
    client->requestServerAction("disconnect", "box", 4464);
    EXPECT_EQ(received(),
              "\x02\0\0\0\x30\0\0\0{\"action\":\"disconnect\",\"host\":\"box\",\"port\":4464}"s);
}

TEST_F(RequestTest, ServerActionById) {
    client->requestServerAction("remove", 3);
    EXPECT_EQ(received(), "\x02\0\0\0\x1a\0\0\0{\"action\":\"remove\",\"id\":3}"s);
}

TEST_F(RequestTest, PlugByHost) {
    client->requestDeviceAction("plug", "box", 1, 7, true);
    EXPECT_EQ(received(), frame(3,
                                "{\"action\":\"plug\",\"host\":\"box\",\"port\":1,"
                                "\"device-id\":7,\"once\":true}"));
}

TEST_F(RequestTest, UnplugByHostHasNoOnce) {
    client->requestDeviceAction("unplug", "box", 1, 7, true);
    EXPECT_EQ(received(),
              frame(3, "{\"action\":\"unplug\",\"host\":\"box\",\"port\":1,\"device-id\":7}"));
}

TEST_F(RequestTest, PlugById) {
    client->requestDeviceAction("plug", 2, 5, false);
    EXPECT_EQ(received(),
              "\x03\0\0\0\x3a\0\0\0"
              "{\"action\":\"plug\",\"server-id\":2,\"device-id\":5,\"once\":false}"s);
}

TEST_F(RequestTest, UnplugByIdHasNoOnce) {
    client->requestDeviceAction("unplug", 2, 5, true);
    EXPECT_EQ(received(), frame(3, "{\"action\":\"unplug\",\"server-id\":2,\"device-id\":5}"));
}

TEST_F(RequestTest, OnlyTheExactWordPlugHasOnce) {
    client->requestDeviceAction("Plug", 2, 5, true);
    client->requestDeviceAction("plug ", "box", 2, 5, true);
    EXPECT_EQ(received(),
              frame(3, "{\"action\":\"Plug\",\"server-id\":2,\"device-id\":5}") +
                  frame(3, "{\"action\":\"plug \",\"host\":\"box\",\"port\":2,\"device-id\":5}"));
}

TEST_F(RequestTest, NumbersReachTheEndsOfTheirRanges) {
    client->requestAddServer("", 0);
    client->requestAddServer("", 65535);
    client->requestDeviceAction("unplug", 4294967295, 0, false);
    EXPECT_EQ(received(),
              frame(1, "{\"host\":\"\",\"port\":0}") + frame(1, "{\"host\":\"\",\"port\":65535}") +
                  frame(3, "{\"action\":\"unplug\",\"server-id\":4294967295,\"device-id\":0}"));
}

TEST_F(RequestTest, TextIsEscapedAndUtf8IsNot) {
    client->requestAddServer("a\"\\\n\xc3\xa9", 1);
    EXPECT_EQ(received(), frame(1, "{\"host\":\"a\\\"\\\\\\n\xc3\xa9\",\"port\":1}"));
}

TEST_F(RequestTest, AHostThatIsNotUtf8IsRefused) {
    const auto expectRefusal = [this] {
        EXPECT_EQ(err.take(), "cannot allocate object for request");
        EXPECT_EQ(received(), "");
    };
    client->requestAddServer("b\xffx", 1);
    expectRefusal();
    client->requestServerAction("remove", "\xc3", 1);
    expectRefusal();
    client->requestDeviceAction("plug", "\xed\xa0\x80", 1, 2, true);
    expectRefusal();
}

TEST_F(RequestTest, NoHostIsRefused) {
    client->requestAddServer(nullptr, 1);
    EXPECT_EQ(err.take(), "cannot allocate object for request");
    EXPECT_EQ(received(), "");
}

TEST_F(RequestTest, AnActionThatIsNotUtf8CannotBeConverted) {
    client->requestServerAction("\xff", 3);
    EXPECT_EQ(err.take(), "cannot convert dictionary to JSON");
    EXPECT_EQ(received(), "");
}

TEST_F(RequestTest, ADictionaryWithoutAJsonFormCannotBeConverted) {
    const boost::json::object dictionary{{"port", std::numeric_limits<double>::quiet_NaN()}};
    client->sendJSON(&dictionary, 1);
    EXPECT_EQ(err.take(), "cannot convert dictionary to JSON");
    EXPECT_EQ(received(), "");
}

TEST_F(RequestTest, ADictionaryIsSentCompactlyUnderAnyCode) {
    const boost::json::object dictionary{{"b", {1, 2}}, {"a", nullptr}};
    const boost::json::object empty;
    client->sendJSON(&dictionary, -7);
    client->sendJSON(&empty, 9);
    EXPECT_EQ(received(), frame(-7, "{\"b\":[1,2],\"a\":null}") + frame(9, "{}"));
}

TEST_F(RequestTest, ALongRequestIsSentWhole) {
    const std::string host(1'000'000, 'h');
    client->requestAddServer(host.c_str(), 1);
    EXPECT_EQ(received(), frame(1, "{\"host\":\"" + host + "\",\"port\":1}"));
}

}  // namespace
