// Servers and devices that change as time passes, as a client of the program hxusbvd-sim sees it.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <optional>

#include "sim/device_traffic.h"
#include "sim/inventory_file.h"
#include "sim/request_handler.h"
#include "tests/sim/simulated_daemon.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::string kAddRequest = frame(1, R"({"host":"new","port":5})");
const std::string kPlugRequest =
    frame(3, R"({"action":"plug","server-id":3,"device-id":7,"once":false})");
const std::string kPlugOnceRequest =
    frame(3, R"({"action":"plug","server-id":3,"device-id":7,"once":true})");

const std::string kOk = frame(2, R"({"status":"ok"})");
const std::string kDeviceOk = frame(3, R"({"status":"ok"})");
const std::string kDeviceNotFound = frame(3, R"({"status":"notfound"})");

// So long that nothing happens before a test is over.
const std::string kForever = "3600000";

std::string act(std::string_view action, int id) {
    return frame(2,
                 R"({"action":")" + std::string(action) + R"(","id":)" + std::to_string(id) + '}');
}

class LivingServers : public SimulatedDaemon {
protected:
    // What the server with the id shows.
    [[nodiscard]] std::string stateOf(int id) const {
        const std::string list = exchange(kListRequest);
        const size_t server = list.find(R"({"id":)" + std::to_string(id) + R"(,"host")");
        if (server == std::string::npos) return "(none)";
        const std::string key = R"("state":")";
        const size_t start = list.find(key, server) + key.size();
        return list.substr(start, list.find('"', start) - start);
    }
};

TEST_F(LivingServers, AddedServerConnectsAndThenHasItsDevices) {
    const RunningProgram daemon = start({"--latency", "50"});
    const Clock::time_point added = Clock::now();
    EXPECT_EQ(exchange(kAddRequest), frame(1, R"({"status":"ok","id":4})"));
    EXPECT_NE(
        listOnceItHas(R"({"id":4,"host":"new","port":5,"state":"connected","devices":[{"id":1,)"),
        "");
    EXPECT_GE(Clock::now() - added, std::chrono::milliseconds(50));
}

TEST_F(LivingServers, AddedServerIsConnectingUntilThenAndHasNoDevices) {
    const RunningProgram daemon = start({"--latency", kForever});
    EXPECT_EQ(exchange(kAddRequest), frame(1, R"({"status":"ok","id":4})"));
    EXPECT_EQ(exchange(kAddRequest), frame(1, R"({"status":"already"})"));
    EXPECT_NE(exchange(kListRequest)
                  .find(R"({"id":4,"host":"new","port":5,"state":"connecting","devices":[]})"),
              std::string::npos);
    EXPECT_EQ(exchange(frame(3, R"({"action":"plug","server-id":4,"device-id":1,"once":false})")),
              kDeviceNotFound);
}

TEST_F(LivingServers, WithoutLatencyTheReplyComesWhenAllIsDone) {
    const RunningProgram daemon = start({"--latency", "0"});
    const UnixStream client = UnixStream::connectTo(path);
    ASSERT_TRUE(client.send(kPlugRequest + act("reconnect", 3) + kListRequest));
    EXPECT_EQ(client.receiveFrame(), kDeviceOk);
    EXPECT_EQ(client.receiveFrame(), kOk);
    EXPECT_EQ(client.receiveFrame(), listReply("connected", "plugged"));
}

TEST_F(LivingServers, UnreachableServerFails) {
    const RunningProgram daemon = start({"--latency", "1"});
    EXPECT_EQ(exchange(frame(1, R"({"host":"a.unreachable.example","port":5})")),
              frame(1, R"({"status":"ok","id":4})"));
    EXPECT_NE(listOnceItHas(R"("state":"failed")").find(R"("state":"failed","devices":[])"),
              std::string::npos);
}

TEST_F(LivingServers, ReconnectPlugsAgainWhenItCompletesWhatWasPluggedForGood) {
    const RunningProgram daemon = start({"--latency", "20"});
    EXPECT_EQ(exchange(kPlugRequest), kDeviceOk);
    EXPECT_EQ(exchange(act("disconnect", 3)), kOk);
    EXPECT_EQ(listOnceItHas("disconnected"), listReply("disconnected"));
    EXPECT_EQ(exchange(act("reconnect", 3)), kOk);
    EXPECT_EQ(listOnceItHas(R"("state":"connected")"), listReply("connected", "plugged"));
}

TEST_F(LivingServers, ReconnectLeavesWhatWasPluggedOnceUnplugged) {
    const RunningProgram daemon = start({"--latency", "20"});
    EXPECT_EQ(exchange(kPlugOnceRequest), kDeviceOk);
    EXPECT_EQ(exchange(act("reconnect", 3)), kOk);
    EXPECT_EQ(listOnceItHas(R"("state":"connected")"), listReply("connected"));
}

TEST_F(LivingServers, ReconnectOfAConnectedServerTakesTheTimeOfBothSteps) {
    const RunningProgram daemon = start({"--latency", "40"});
    const Clock::time_point asked = Clock::now();
    EXPECT_EQ(exchange(act("reconnect", 3)), kOk);
    EXPECT_EQ(listOnceItHas(R"("state":"connected")"), listReply("connected"));
    EXPECT_GE(Clock::now() - asked, std::chrono::milliseconds(80));
}

TEST_F(LivingServers, DisconnectShowsWhileItLasts) {
    const RunningProgram daemon = start({"--latency", kForever});
    EXPECT_EQ(exchange(kPlugRequest), kDeviceOk);
    EXPECT_EQ(exchange(act("disconnect", 3)), kOk);
    EXPECT_EQ(exchange(kListRequest), listReply("disconnecting"));
    EXPECT_EQ(exchange(kPlugRequest), kDeviceNotFound);
}

TEST_F(LivingServers, LaterRequestsDecideWhereAServerEnds) {
    const RunningProgram daemon = start({"--latency", "10"});
    ASSERT_EQ(exchange(kAddRequest), frame(1, R"({"status":"ok","id":4})"));
    const UnixStream client = UnixStream::connectTo(path);
    const std::string reconnect = act("reconnect", 3);
    const std::string disconnect = act("disconnect", 3);
    ASSERT_TRUE(client.send(act("disconnect", 4) + disconnect + reconnect + disconnect + reconnect +
                            reconnect));
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(client.receiveFrame(), kOk);
    EXPECT_NE(listOnceItHas(R"("id":3,"host":"box","port":33000,"state":"connected")"), "");
    EXPECT_NE(listOnceItHas(R"("id":4,"host":"new","port":5,"state":"disconnected")"), "");
}

// The timers of the four servers before may fire while the fifth connects; their ids are gone.
TEST_F(LivingServers, ServerRemovedWhileConnectingIsGoneForGood) {
    const RunningProgram daemon = start({"--latency", "5"});
    for (int id = 4; id < 8; ++id) {
        ASSERT_EQ(exchange(kAddRequest),
                  frame(1, R"({"status":"ok","id":)" + std::to_string(id) + '}'));
        ASSERT_EQ(exchange(act("remove", id)), kOk);
    }
    ASSERT_EQ(exchange(kAddRequest), frame(1, R"({"status":"ok","id":8})"));
    EXPECT_NE(listOnceItHas(R"("id":8,"host":"new","port":5,"state":"connected")"), "");
    for (int id = 4; id < 8; ++id)
        EXPECT_EQ(stateOf(id), "(none)");
    EXPECT_EQ(stateOf(3), "connected");
}

TEST_F(LivingServers, ServersOfTheFileInAPassingStateGoOn) {
    std::ofstream(inventoryPath) << R"({"servers":[{"id":1,"host":"a","state":"connecting"},)"
                                    R"({"id":2,"host":"b","state":"disconnecting"},)"
                                    R"({"id":3,"host":"c","state":"failed"}]})";
    for (const char* latency : {"0", "1"}) {
        const RunningProgram daemon = start({"--latency", latency});
        EXPECT_NE(listOnceItHas(R"("host":"a","port":33000,"state":"connected")"), "");
        EXPECT_NE(listOnceItHas(R"("host":"b","port":33000,"state":"disconnected")"), "");
        EXPECT_EQ(stateOf(3), "failed");
    }
}

TEST_F(LivingServers, DaemonEndsInTheMiddleOfEverything) {
    RunningProgram daemon =
        start({"--latency", kForever, "--events=1", "--misbehave", "delay", "--delay", kForever});
    const UnixStream client = UnixStream::connectTo(path);
    ASSERT_TRUE(client.send(kAddRequest + act("reconnect", 3) + kListRequest));
    client.waitUntilTaken();
    daemon.signal(SIGTERM);
    EXPECT_EQ(client.receiveToEnd(), "");
    const Outcome outcome = daemon.finish();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
}

const std::string kWithoutDevices =
    R"({"id":3,"host":"box","port":33000,"state":"connected","devices":[]})";

TEST_F(LivingServers, DeviceGoesAndComesBackByItselfWithItsIdAndPluggedAgain) {
    const RunningProgram daemon = start({"--events=30"});
    while (exchange(kPlugRequest) != kDeviceOk) {
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_NE(listOnceItHas(kWithoutDevices), "");
        EXPECT_EQ(listOnceItHas(R"("id":7)"), listReply("connected", "plugged"));
    }
}

TEST_F(LivingServers, DevicePluggedOnceComesBackUnplugged) {
    const RunningProgram daemon = start({"--events=30"});
    while (exchange(kPlugOnceRequest) != kDeviceOk) {
    }
    EXPECT_NE(listOnceItHas(kWithoutDevices), "");
    EXPECT_EQ(listOnceItHas(R"("id":7)"), listReply("connected"));
}

TEST_F(LivingServers, DevicesOfADisconnectedServerStay) {
    const RunningProgram daemon = start({"--events=1", "--latency", "0"});
    const UnixStream client = UnixStream::connectTo(path);
    ASSERT_TRUE(client.send(act("disconnect", 3) + kListRequest));
    EXPECT_EQ(client.receiveFrame(), kOk);
    const std::string list = client.receiveFrame();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(exchange(kListRequest), list);
}

TEST_F(LivingServers, EventsComeNoSoonerThanTheirInterval) {
    const Clock::time_point started = Clock::now();
    const RunningProgram daemon = start({"--events=60"});
    EXPECT_NE(listOnceItHas(kWithoutDevices), "");
    EXPECT_EQ(listOnceItHas(R"("id":7)"), listReply("connected"));
    EXPECT_GE(Clock::now() - started, std::chrono::milliseconds(120));
}

// The list after each event of a seed.
class Foresight {
public:
    Foresight(const std::string& inventoryFile, uint32_t seed) : traffic(seed) {
        std::string error;
        inventory = readInventoryFile(inventoryFile, error);
        EXPECT_TRUE(inventory) << error;
    }

    [[nodiscard]] std::string list() {
        return frame(0, answerRequest(*inventory, 0, "").value_or(""));
    }
    void goOn() { traffic.happen(*inventory); }

private:
    std::optional<Inventory> inventory;
    DeviceTraffic traffic;
};

TEST_F(LivingServers, EventsCanBeForeseenFromTheSeed) {
    constexpr int kDevices = 40;
    constexpr int kMostEvents = 100'000;
    std::ofstream file(inventoryPath);
    file << R"({"servers":[{"id":3,"host":"box","devices":[)";
    for (int id = 1; id <= kDevices; ++id)
        file << (id == 1 ? "" : ",") << R"({"id":)" << id
             << R"(,"name":"n","vid":1,"pid":2,"port":"p"})";
    file << "]}]}";
    file.close();

    const RunningProgram daemon = start({"--events=20", "--seed", "7"});
    Foresight foresight(inventoryPath, 7);
    const std::string complete = foresight.list();
    std::string seen;
    for (int i = 0; i < 3; ++i) {
        const std::string last = i == 0 ? complete : seen;
        do {
            seen = exchange(kListRequest);
        } while (seen == last);
        int events = 0;
        while (foresight.list() != seen && events < kMostEvents) {
            foresight.goOn();
            ++events;
        }
        ASSERT_EQ(foresight.list(), seen);
    }
}

}  // namespace
