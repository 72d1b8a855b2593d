#include "sim/request_handler.h"

#include <gtest/gtest.h>

#include "ipc/frame.h"

namespace {

class RequestHandler : public testing::Test {
protected:
    std::string answer(int32_t command, std::string_view payload) {
        return answerRequest(inventory, command, payload).value_or("(malformed)");
    }

    void settle() {
        while (const auto step = inventory.takeBegunStep())
            inventory.advance(*step);
    }

    Inventory inventory{{{.id = 3,
                          .host = "box",
                          .port = 33000,
                          .devices = {{.id = 7,
                                       .name = "Maus \"ä\"",
                                       .vid = 1133,
                                       .pid = 2,
                                       .rev = 3,
                                       .port = "1-1",
                                       .serial = "S"}}}}};
};

constexpr const char* kOk = R"({"status":"ok"})";
constexpr const char* kAlready = R"({"status":"already"})";
constexpr const char* kNotFound = R"({"status":"notfound"})";
constexpr const char* kError = R"({"status":"error"})";

TEST_F(RequestHandler, ListHasEveryKeyOfEveryRecord) {
    EXPECT_EQ(answer(kListServers, ""),
              R"({"status":"ok","servers":[{"id":3,"host":"box","port":33000,"state":"connected",)"
              R"("devices":[{"id":7,"name":"Maus \"ä\"","vid":1133,"pid":2,"rev":3,"port":"1-1",)"
              R"("serial":"S","state":"unplugged","addr":null}]}]})");
}

TEST_F(RequestHandler, ListShowsTheStatesThatResult) {
    ASSERT_EQ(
        answer(kDeviceAction, R"({"action":"plug","server-id":3,"device-id":7,"once":false})"),
        kOk);
    EXPECT_NE(answer(kListServers, "").find(R"("state":"plugged","addr":"virtual-3-7")"),
              std::string::npos);
    ASSERT_EQ(answer(kServerAction, R"({"action":"disconnect","id":3})"), kOk);
    EXPECT_NE(answer(kListServers, "").find(R"("state":"disconnecting")"), std::string::npos);
    EXPECT_NE(answer(kListServers, "").find(R"("state":"unplugged","addr":null)"),
              std::string::npos);
}

TEST_F(RequestHandler, ListHasTheWordOfEveryState) {
    Server server = inventory.servers().at(0);
    for (size_t state = 0; state < kServerStateWords.size(); ++state) {
        server.state = static_cast<ServerState>(state);
        inventory = Inventory({server});
        EXPECT_NE(answer(kListServers, "")
                      .find(R"("state":")" + std::string(kServerStateWords[state]) + '"'),
                  std::string::npos);
    }
}

TEST_F(RequestHandler, ListLeavesOutDevicesThatAreNotThere) {
    inventory.comeOrGo(0);
    EXPECT_NE(answer(kListServers, "").find(R"("devices":[])"), std::string::npos);
    inventory.comeOrGo(0);
    EXPECT_NE(answer(kListServers, "").find(R"("devices":[{"id":7,)"), std::string::npos);
}

TEST_F(RequestHandler, AddedServerShowsItsDevicesWhenItIsConnected) {
    inventory = Inventory({});
    ASSERT_EQ(answer(kAddServer, R"({"host":"new","port":5})"), R"({"status":"ok","id":1})");
    EXPECT_NE(answer(kListServers, "").find(R"("state":"connecting","devices":[])"),
              std::string::npos);
    settle();
    EXPECT_NE(answer(kListServers, "").find(R"("state":"connected","devices":[{"id":1,)"),
              std::string::npos);
}

TEST_F(RequestHandler, ListMayComeWithAnObject) {
    EXPECT_EQ(answer(kListServers, "{}"), answer(kListServers, ""));
}

TEST_F(RequestHandler, ListOfAnEmptyInventoryIsAnEmptyArray) {
    inventory = Inventory({});
    EXPECT_EQ(answer(kListServers, ""), R"({"status":"ok","servers":[]})");
}

TEST_F(RequestHandler, ListBeyondTheFrameLimitIsAnError) {
    std::vector<Server> servers(1);
    servers[0].host.assign(kMaxPayloadLength, 'x');
    inventory = Inventory(std::move(servers));
    EXPECT_EQ(answer(kListServers, ""), kError);
}

TEST_F(RequestHandler, AddGivesOutTheIdAndThenSaysAlready) {
    EXPECT_EQ(answer(kAddServer, R"({"host":"new","port":5})"), R"({"status":"ok","id":4})");
    EXPECT_EQ(answer(kAddServer, R"({"host":"new","port":5})"), kAlready);
}

TEST_F(RequestHandler, PortKeepsItsLow16Bits) {
    EXPECT_EQ(answer(kAddServer, R"({"host":"box","port":98536})"), kAlready);
}

TEST_F(RequestHandler, ServerActionsWorkByIdAndByAddress) {
    for (const char* action : {"disconnect", "reconnect", "remove"}) {
        const std::string start = R"({"action":")" + std::string(action) + "\",";
        EXPECT_EQ(answer(kServerAction, start + R"("id":9})"), kNotFound) << action;
        EXPECT_EQ(answer(kServerAction, start + R"("host":"box","port":1})"), kNotFound) << action;
        EXPECT_EQ(answer(kServerAction, start + R"("host":"box","port":33000})"), kOk) << action;
        ASSERT_TRUE(answerRequest(inventory, kAddServer, R"({"host":"box","port":33000})"));
        const uint32_t id = inventory.servers().at(0).id;
        EXPECT_EQ(answer(kServerAction, start + R"("id":)" + std::to_string(id) + '}'), kOk)
            << action;
    }
}

TEST_F(RequestHandler, DeviceActionsWorkByIdAndByAddress) {
    for (const char* server : {R"("server-id":3)", R"("host":"box","port":33000)"}) {
        const std::string device = std::string(server) + R"(,"device-id":7})";
        const std::string plug = R"({"action":"plug","once":false,)" + device;
        const std::string unplug = R"({"action":"unplug",)" + device;
        EXPECT_EQ(answer(kDeviceAction, plug), kOk);
        EXPECT_EQ(answer(kDeviceAction, plug), kAlready);
        EXPECT_EQ(answer(kDeviceAction, unplug), kOk);
        EXPECT_EQ(answer(kDeviceAction, unplug), kAlready);
    }
}

TEST_F(RequestHandler, DeviceActionsOnTheUnknownAnswerNotFound) {
    for (const char* target : {R"("server-id":9,"device-id":7})", R"("server-id":3,"device-id":9})",
                               R"("host":"box","port":1,"device-id":7})",
                               R"("host":"no","port":33000,"device-id":7})"}) {
        EXPECT_EQ(answer(kDeviceAction, std::string(R"({"action":"plug","once":true,)") + target),
                  kNotFound);
        EXPECT_EQ(answer(kDeviceAction, std::string(R"({"action":"unplug",)") + target), kNotFound);
    }
}

TEST_F(RequestHandler, OnceIsRemembered) {
    for (const char* once : {"true", "false"}) {
        const std::string plug =
            R"({"action":"plug","server-id":3,"device-id":7,"once":)" + std::string(once) + '}';
        ASSERT_EQ(answer(kDeviceAction, plug), kOk);
        ASSERT_EQ(answer(kServerAction, R"({"action":"disconnect","id":3})"), kOk);
        ASSERT_EQ(answer(kServerAction, R"({"action":"reconnect","id":3})"), kOk);
        settle();
        const bool plugged = std::string_view(once) == "false";
        EXPECT_EQ(inventory.servers().at(0).devices.at(0).plugged, plugged) << once;
    }
}

TEST_F(RequestHandler, MissingAndWrongKeysAreErrors) {
    for (const char* request :
         {R"({})", R"({"host":"h"})", R"({"port":1})", R"({"host":1,"port":1})",
          R"({"host":"h","port":"1"})", R"({"host":"","port":1})", R"({"host":null,"port":1})"})
        EXPECT_EQ(answer(kAddServer, request), kError) << request;
    for (const char* request :
         {R"({})", R"({"action":"remove"})", R"({"id":3})", R"({"action":1,"id":3})",
          R"({"action":"Remove","id":3})", R"({"action":"plug","id":3})",
          R"({"action":"remove","id":"3"})", R"({"action":"remove","server-id":3})",
          R"({"action":"remove","host":"box"})", R"({"action":"remove","port":33000})",
          R"({"action":"remove","id":3,"host":"box","port":33000})"})
        EXPECT_EQ(answer(kServerAction, request), kError) << request;
    for (const char* request :
         {R"({})", R"({"action":"plug","server-id":3,"device-id":7})",
          R"({"action":"plug","server-id":3,"device-id":7,"once":1})",
          R"({"action":"plug","server-id":3,"once":true})",
          R"({"action":"plug","device-id":7,"once":true})",
          R"({"action":"plug","id":3,"device-id":7,"once":true})",
          R"({"action":"unplug","server-id":3,"device-id":"7"})",
          R"({"action":"remove","server-id":3,"device-id":7})",
          R"({"server-id":3,"device-id":7,"once":true})",
          R"({"action":"unplug","server-id":3,"host":"box","port":33000,"device-id":7})"})
        EXPECT_EQ(answer(kDeviceAction, request), kError) << request;
    EXPECT_EQ(inventory.servers().size(), 1U);
    EXPECT_FALSE(inventory.servers()[0].devices[0].plugged);
}

TEST_F(RequestHandler, UnknownCommandIsAnError) {
    EXPECT_EQ(answer(4, "{}"), kError);
    EXPECT_EQ(answer(-1, "{}"), kError);
}

TEST_F(RequestHandler, PayloadThatIsNoObjectIsMalformed) {
    for (const int32_t command : {0, 1, 2, 3, 99})
        for (const char* payload : {"[]", "7", "\"x\"", "null", "{", "{} x", "{\"a\":\"\xff\"}"})
            EXPECT_FALSE(answerRequest(inventory, command, payload)) << command << payload;
}

TEST_F(RequestHandler, OnlyAListMayBeEmpty) {
    for (const int32_t command : {1, 2, 3, 99})
        EXPECT_FALSE(answerRequest(inventory, command, "")) << command;
}

}  // namespace
