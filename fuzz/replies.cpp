// From a reply's bytes to the report and the status, for every command: both are what a plain
// reading of the reply gives, so no reply ends the process in any other way.

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/request_flow.h"
#include "fuzz/support/captured_output.h"
#include "fuzz/support/loop_without_kernel.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/plain_reading.h"
#include "fuzz/support/process_end.h"
#include "fuzz/support/reply_stream.h"

namespace {

namespace json = boost::json;

constexpr int kWaits = -1;

struct Outcome {
    int status = kWaits;
    std::string out;
    std::string err;

    bool operator==(const Outcome&) const = default;
};

std::string describe(const Outcome& outcome) {
    return std::to_string(outcome.status) + '\n' + outcome.out + outcome.err;
}

// As the report prints it.
std::string upToNul(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

struct Device {
    uint32_t serverId = 0;
    uint32_t id = 0;
    std::string vendorProductRelease;
    std::string name, port, serial, state;
};

struct Server {
    uint32_t id = 0;
    uint32_t port = 0;
    std::string host, state;
    std::vector<Device> devices;
};

// Reads members of one record; whether all were there and of their types.
class Record {
public:
    explicit Record(const json::value& value)
        : object(value.if_object()), sound(object != nullptr) {}

    uint64_t number(const char* key) {
        const json::value* value = member(key);
        if (value && value->is_bool()) return value->get_bool() ? 1 : 0;
        if (value && value->is_int64()) return static_cast<uint64_t>(value->get_int64());
        if (value && value->is_uint64()) return value->get_uint64();
        if (value && value->is_double()) return wholePart(value->get_double());
        sound = false;
        return 0;
    }

    std::string text(const char* key) {
        const json::value* value = member(key);
        if (value && value->is_string())
            return {value->get_string().begin(), value->get_string().end()};
        sound = false;
        return {};
    }

    const json::array& array(const char* key) {
        static const json::array kNothing;
        const json::value* value = member(key);
        if (value && value->is_array()) return value->get_array();
        sound = false;
        return kNothing;
    }

    [[nodiscard]] bool isSound() const { return sound; }

private:
    const json::value* member(const char* key) const {
        return object ? object->if_contains(key) : nullptr;
    }

    static uint64_t wholePart(double number) {
        const double whole = std::trunc(number);
        if (whole < -0x1p63 || whole >= 0x1p64) return 0;
        return whole < 0 ? static_cast<uint64_t>(static_cast<int64_t>(whole))
                         : static_cast<uint64_t>(whole);
    }

    const json::object* object;
    bool sound;
};

std::string fourDigits(uint64_t number) {
    char digits[8];
    std::snprintf(digits, sizeof digits, "%04x", static_cast<unsigned>(number & 0xffff));
    return digits;
}

std::vector<Device> readDevices(const json::array& elements, uint32_t serverId) {
    std::vector<Device> devices;
    for (const json::value& element : elements) {
        Record record(element);
        Device device;
        device.serverId = serverId;
        device.id = static_cast<uint32_t>(record.number("id"));
        device.vendorProductRelease = fourDigits(record.number("vid")) + ':' +
                                      fourDigits(record.number("pid")) + ':' +
                                      fourDigits(record.number("rev"));
        device.name = record.text("name");
        device.port = record.text("port");
        device.serial = record.text("serial");
        device.state = record.text("state");
        if (record.isSound()) devices.push_back(device);
    }
    return devices;
}

// A report of devices alone looks at nothing else of a server.
std::vector<Server> readServers(const json::array& elements, bool devicesAlone) {
    std::vector<Server> servers;
    for (const json::value& element : elements) {
        Record record(element);
        Server server;
        server.id = static_cast<uint32_t>(record.number("id"));
        server.devices = readDevices(record.array("devices"), server.id);
        if (!devicesAlone) {
            server.port = record.number("port") & 0xffff;
            server.host = record.text("host");
            server.state = record.text("state");
        }
        if (record.isSound()) servers.push_back(server);
    }
    return servers;
}

template <typename Records, typename Key>
void sortBy(Records& records, Key key) {
    std::stable_sort(records.begin(), records.end(),
                     [key](const auto& a, const auto& b) { return key(a) < key(b); });
}

std::string treeReport(const json::array& elements, bool showDevices) {
    std::vector<Server> servers = readServers(elements, false);
    sortBy(servers, [](const Server& server) { return server.id; });
    std::string report;
    for (Server& server : servers) {
        report += std::to_string(server.id) + " - " + upToNul(server.host) + ':' +
                  std::to_string(server.port) + " - " + upToNul(server.state) + '\n';
        if (!showDevices) continue;
        sortBy(server.devices, [](const Device& device) { return device.id; });
        for (const Device& device : server.devices) {
            report += ' ' + std::to_string(device.id) + '\t' + device.vendorProductRelease + '\t' +
                      upToNul(device.port) + '\t' + upToNul(device.name) + " /" +
                      upToNul(device.state);
            if (!upToNul(device.serial).empty()) report += ", " + upToNul(device.serial);
            report += "/\n";
        }
    }
    return report;
}

std::string deviceReport(const json::array& elements, const ParsedCommand& command) {
    std::vector<Device> devices;
    for (const Server& server : readServers(elements, true))
        for (const Device& device : server.devices)
            if (!command.pluggedOnly || device.state == "plugged") devices.push_back(device);
    if (!command.sortByName)
        sortBy(devices,
               [](const Device& device) { return uint64_t{device.serverId} << 32 | device.id; });
    else if (command.ascending)
        sortBy(devices, [](const Device& device) { return device.name; });
    else
        std::stable_sort(devices.begin(), devices.end(),
                         [](const Device& a, const Device& b) { return a.name > b.name; });
    std::string report;
    for (const Device& device : devices) {
        report += std::to_string(device.serverId) + ':' + std::to_string(device.id) + " - " +
                  device.vendorProductRelease + " - " + upToNul(device.name) + ", " +
                  upToNul(device.port);
        if (!upToNul(device.serial).empty()) report += ", " + upToNul(device.serial);
        report += ", " + upToNul(device.state) + '\n';
    }
    return report;
}

const Outcome kInternalError = {.status = 5, .out = "", .err = "Internal error.\n"};

// What the reply to the command's own request leads to.
Outcome expectedOf(const ParsedCommand& command, const json::value& reply) {
    Record record(reply);
    const std::string status = record.text("status");
    if (!record.isSound()) return kInternalError;
    switch (command.kind) {
        case CommandKind::ServerList:
        case CommandKind::DeviceList: {
            const json::array& servers = record.array("servers");
            if (status != "ok" || !record.isSound()) return kInternalError;
            return {.status = 0,
                    .out = command.kind == CommandKind::DeviceList
                               ? deviceReport(servers, command)
                               : treeReport(servers, command.showDevices),
                    .err = ""};
        }
        case CommandKind::ServerAdd: {
            const bool hasId = reply.get_object().contains("id");
            const auto id = static_cast<uint32_t>(hasId ? record.number("id") : 0);
            if (!record.isSound()) return kInternalError;
            if (status == "already")
                return {.status = 37, .out = "", .err = "The server has been already added.\n"};
            if (status != "ok" || !hasId) return kInternalError;
            return {.status = 0,
                    .out = "The server is added with Id: " + std::to_string(id) + ".\n",
                    .err = ""};
        }
        case CommandKind::ServerAction:
            if (status == "notfound")
                return {.status = 2, .out = "", .err = "The server has not been found.\n"};
            break;
        case CommandKind::DeviceAction:
            if (status == "notfound")
                return {.status = 2, .out = "", .err = "The device has not been found.\n"};
            if (status == "already")
                return {.status = 37,
                        .out = "",
                        .err = "The device has been already " + *command.action + "ged.\n"};
            break;
    }
    return status == "ok" ? Outcome{.status = 0, .out = "", .err = ""} : kInternalError;
}

// The code of the command's request and of the replies that it listens to.
int32_t codeOf(CommandKind kind) {
    switch (kind) {
        case CommandKind::ServerAdd:
            return 1;
        case CommandKind::ServerAction:
            return 2;
        case CommandKind::DeviceAction:
            return 3;
        default:
            return 0;
    }
}

Outcome expectedOf(const ParsedCommand& command, const PlainReading& stream) {
    for (const auto& [code, reply] : stream.replies)
        if (code == codeOf(command.kind)) return expectedOf(command, reply);
    if (stream.words.empty()) return {};
    return {.status = 5, .out = "", .err = stream.words};
}

ParsedCommand takeCommand(FuzzedDataProvider& input) {
    constexpr const char* kServerActions[] = {"remove", "disconnect", "reconnect"};
    constexpr const char* kDeviceActions[] = {"plug", "unplug"};
    const auto choice = input.ConsumeIntegral<uint8_t>();
    ParsedCommand command;
    command.kind = static_cast<CommandKind>((choice & 7) % 5);
    command.showDevices = (choice & 8) != 0;
    command.sortByName = (choice & 16) != 0;
    command.ascending = (choice & 32) != 0;
    command.pluggedOnly = (choice & 64) != 0;
    command.host = "box.example";
    if (command.kind == CommandKind::ServerAction)
        command.action = std::make_shared<const std::string>(kServerActions[(choice >> 3) % 3]);
    if (command.kind == CommandKind::DeviceAction)
        command.action = std::make_shared<const std::string>(kDeviceActions[(choice >> 3) % 2]);
    return command;
}

// Carries the command out at a daemon that answers with the stream.
Outcome carryOut(const ParsedCommand& command, std::string_view stream) {
    static CapturedOutput out(stdout);
    static CapturedOutput err(stderr);
    Outcome outcome;
    loopLog() = {};
    loopLog().whileParked = [stream] {
        uint64_t drop = stream.size();
        loopLog().block(nullptr, stream.data(), stream.size(), &drop, HXKQueueEventData);
    };
    try {
        require(runRequest(command) == 0, "a command that is not done ends well");
    } catch (const ProcessEnd& end) {
        outcome.status = end.status;
    }
    loopLog() = {};
    outcome.out = out.take();
    outcome.err = err.take();
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const ParsedCommand command = takeCommand(input);
    const std::string stream = makeStream(input);
    requireEqual(carryOut(command, stream), expectedOf(command, readPlainly(stream)),
                 "what the reply leads to", describe);
    return 0;
}
