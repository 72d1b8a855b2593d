#include "tests/sim/simulated_daemon.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "tests/support/descriptors.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{60};

}  // namespace

std::string listReply(std::string_view serverState, std::string_view deviceState) {
    const std::string address = deviceState == "plugged" ? R"("virtual-3-7")" : "null";
    return frame(0,
                 R"({"status":"ok","servers":[{"id":3,"host":"box","port":33000,"state":")" +
                     std::string(serverState) +
                     R"(","devices":[{"id":7,"name":"Mouse","vid":1,"pid":2,"rev":0,"port":"1-1",)"
                     R"("serial":"","state":")" +
                     std::string(deviceState) + R"(","addr":)" + address + "}]}]}");
}

void SimulatedDaemon::SetUp() {
    std::string name = std::filesystem::temp_directory_path() / "simXXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
    path = directory / "sock";
    inventoryPath = directory / "inventory.json";
    std::ofstream(inventoryPath) << R"({"servers":[{"id":3,"host":"box","devices":[)"
                                    R"({"id":7,"name":"Mouse","vid":1,"pid":2,"port":"1-1"})"
                                    "]}]}";
}

void SimulatedDaemon::TearDown() {
    std::filesystem::remove_all(directory);
}

std::vector<std::string> SimulatedDaemon::command(const std::vector<std::string>& options) const {
    std::vector<std::string> words{SIM_PROGRAM, "--socket", path, "--inventory", inventoryPath};
    words.insert(words.end(), options.begin(), options.end());
    return words;
}

RunningProgram SimulatedDaemon::start(const std::vector<std::string>& options) const {
    RunningProgram daemon(command(options));
    EXPECT_TRUE(daemon.waitForOutput("listening on " + path.string() + "\n"))
        << daemon.finish().err;
    return daemon;
}

void SimulatedDaemon::leaveStaleSocket() const {
    const int sock = makeSocket(AF_UNIX, SOCK_STREAM);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(sock);
}

std::string SimulatedDaemon::exchange(std::string_view request) const {
    const UnixStream client = UnixStream::connectTo(path);
    EXPECT_TRUE(client.send(request));
    return client.receiveFrame();
}

std::string SimulatedDaemon::listOnceItHas(std::string_view text) const {
    const Clock::time_point deadline = Clock::now() + kPatience;
    std::string list;
    do {
        if (Clock::now() > deadline)
            throw std::runtime_error("never seen: " + std::string(text) + " in " + list);
        list = exchange(kListRequest);
    } while (list.find(text) == std::string::npos);
    return list;
}
