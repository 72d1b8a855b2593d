#include "sim/request_handler.h"

#include <boost/json/array.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <utility>

#include "ipc/frame.h"
#include "ipc/json.h"

namespace {

namespace json = boost::json;

json::object status(std::string_view word) {
    return {{"status", word}};
}

json::object failure() {
    return status("error");
}

json::object status(Status result) {
    switch (result) {
        case Status::Ok:
            return status("ok");
        case Status::Already:
            return status("already");
        case Status::NotFound:
            return status("notfound");
        case Status::Error:
            break;
    }
    return failure();
}

std::optional<std::string_view> text(const json::object& request, std::string_view key) {
    const json::string* value = stringMember(request, key);
    if (value == nullptr) return std::nullopt;
    return *value;
}

std::optional<ServerAddress> address(const json::object& request) {
    const std::optional<std::string_view> host = text(request, "host");
    const json::value* port = numberMember(request, "port");
    if (!host || host->empty() || port == nullptr) return std::nullopt;
    return ServerAddress{.host = *host, .port = toUnsigned16(*port)};
}

// The server is named either by the id at idKey or by its address; both at once is wrong.
std::optional<ServerKey> serverKey(const json::object& request, std::string_view idKey) {
    if (!request.contains(idKey)) return address(request);
    const json::value* id = numberMember(request, idKey);
    if (id == nullptr || request.contains("host") || request.contains("port")) return std::nullopt;
    return toUnsigned32(*id);
}

std::optional<ServerAction> serverAction(std::string_view word) {
    if (word == "remove") return ServerAction::Remove;
    if (word == "disconnect") return ServerAction::Disconnect;
    if (word == "reconnect") return ServerAction::Reconnect;
    return std::nullopt;
}

// The address of a plugged device is where it appears on this machine.
json::object deviceRecord(const Server& server, const Device& device) {
    json::value address;
    if (device.plugged)
        address = "virtual-" + std::to_string(server.id) + '-' + std::to_string(device.id);
    return {{"id", device.id},           {"name", device.name},
            {"vid", device.vid},         {"pid", device.pid},
            {"rev", device.rev},         {"port", device.port},
            {"serial", device.serial},   {"state", device.plugged ? "plugged" : "unplugged"},
            {"addr", std::move(address)}};
}

json::object serverRecord(const Server& server) {
    json::array devices;
    for (const Device& device : server.devices)
        if (device.present) devices.emplace_back(deviceRecord(server, device));
    return {{"id", server.id},
            {"host", server.host},
            {"port", server.port},
            {"state", wordOf(server.state)},
            {"devices", std::move(devices)}};
}

json::object listServers(const Inventory& inventory) {
    json::array servers;
    for (const Server& server : inventory.servers())
        servers.emplace_back(serverRecord(server));
    json::object reply = status("ok");
    reply.emplace("servers", std::move(servers));
    return reply;
}

json::object addServer(Inventory& inventory, const json::object& request) {
    const std::optional<ServerAddress> wanted = address(request);
    if (!wanted) return failure();
    const Inventory::Addition addition = inventory.add(wanted->host, wanted->port);
    json::object reply = status(addition.status);
    if (addition.status == Status::Ok) reply.emplace("id", addition.id);
    return reply;
}

json::object actOnServer(Inventory& inventory, const json::object& request) {
    const std::optional<ServerAction> action = serverAction(text(request, "action").value_or(""));
    const std::optional<ServerKey> server = serverKey(request, "id");
    if (!action || !server) return failure();
    return status(inventory.act(*action, *server));
}

json::object actOnDevice(Inventory& inventory, const json::object& request) {
    const std::string_view action = text(request, "action").value_or("");
    const std::optional<ServerKey> server = serverKey(request, "server-id");
    const json::value* device = numberMember(request, "device-id");
    if (!server || device == nullptr) return failure();
    if (action == "unplug") return status(inventory.unplug(*server, toUnsigned32(*device)));
    const json::value* once = request.if_contains("once");
    if (action != "plug" || once == nullptr || !once->is_bool()) return failure();
    return status(inventory.plug(*server, toUnsigned32(*device), once->get_bool()));
}

json::object answer(Inventory& inventory, int32_t command, const json::object& request) {
    switch (command) {
        case kListServers:
            return listServers(inventory);
        case kAddServer:
            return addServer(inventory, request);
        case kServerAction:
            return actOnServer(inventory, request);
        case kDeviceAction:
            return actOnDevice(inventory, request);
        default:
            return failure();
    }
}

}  // namespace

std::optional<std::string> answerRequest(Inventory& inventory, int32_t command,
                                         std::string_view payload) {
    if (payload.empty() && command == kListServers) payload = "{}";
    json::monotonic_resource arena;
    const std::optional<json::value> request = readJson(payload, &arena);
    if (!request || !request->is_object()) return std::nullopt;
    std::string reply = json::serialize(answer(inventory, command, request->get_object()));
    if (reply.size() > kMaxPayloadLength) return json::serialize(failure());
    return reply;
}
