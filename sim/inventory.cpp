#include "sim/inventory.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {

bool matches(const Server& server, const ServerKey& key) {
    if (const uint32_t* id = std::get_if<uint32_t>(&key)) return server.id == *id;
    const auto& address = std::get<ServerAddress>(key);
    return server.host == address.host && server.port == address.port;
}

void disconnect(Server& server) {
    server.connected = false;
    for (Device& device : server.devices)
        device.plugged = false;
}

void reconnect(Server& server) {
    server.connected = true;
    for (Device& device : server.devices)
        device.plugged = device.replug;
}

std::optional<uint32_t> idAfter(uint32_t id) {
    if (id == std::numeric_limits<uint32_t>::max()) return std::nullopt;
    return id + 1;
}

std::optional<uint32_t> idAfterAll(const std::vector<Server>& servers) {
    uint32_t highest = 0;
    for (const Server& server : servers)
        highest = std::max(highest, server.id);
    return idAfter(highest);
}

std::vector<Device> devicesOfNewServer(uint32_t serverId) {
    return {{.id = 1,
             .name = "Flash Drive",
             .vid = 0x0951,
             .pid = 0x1666,
             .rev = 0x0110,
             .port = "1-1",
             .serial = "FD" + std::to_string(serverId)},
            {.id = 2,
             .name = "Keyboard",
             .vid = 0x046d,
             .pid = 0xc31c,
             .rev = 0x6402,
             .port = "1-2",
             .serial = ""}};
}

}  // namespace

Inventory::Inventory(std::vector<Server> initialServers)
    : known(std::move(initialServers)), nextId(idAfterAll(known)) {
    for (Server& server : known)
        if (!server.connected) disconnect(server);
}

Inventory::Addition Inventory::add(std::string_view host, uint16_t port) {
    if (find(ServerAddress{.host = host, .port = port}) != known.end())
        return {.status = Status::Already, .id = 0};
    if (!nextId) return {.status = Status::Error, .id = 0};
    const uint32_t id = *nextId;
    known.push_back({.id = id,
                     .host = std::string(host),
                     .port = port,
                     .connected = true,
                     .devices = devicesOfNewServer(id)});
    nextId = idAfter(id);
    return {.status = Status::Ok, .id = id};
}

Status Inventory::act(ServerAction action, const ServerKey& server) {
    const auto found = find(server);
    if (found == known.end()) return Status::NotFound;
    switch (action) {
        case ServerAction::Remove:
            known.erase(found);
            break;
        case ServerAction::Disconnect:
            disconnect(*found);
            break;
        case ServerAction::Reconnect:
            reconnect(*found);
            break;
    }
    return Status::Ok;
}

Status Inventory::plug(const ServerKey& server, uint32_t device, bool once) {
    const auto found = find(server);
    Device* wanted = findDevice(found, device);
    if (wanted == nullptr || !found->connected) return Status::NotFound;
    if (wanted->plugged) return Status::Already;
    wanted->plugged = true;
    wanted->replug = !once;
    return Status::Ok;
}

Status Inventory::unplug(const ServerKey& server, uint32_t device) {
    Device* wanted = findDevice(find(server), device);
    if (wanted == nullptr) return Status::NotFound;
    wanted->replug = false;
    return std::exchange(wanted->plugged, false) ? Status::Ok : Status::Already;
}

Inventory::Position Inventory::find(const ServerKey& key) {
    return std::find_if(known.begin(), known.end(),
                        [&key](const Server& server) { return matches(server, key); });
}

Device* Inventory::findDevice(Position server, uint32_t id) {
    if (server == known.end()) return nullptr;
    const auto device = std::find_if(server->devices.begin(), server->devices.end(),
                                     [id](const Device& candidate) { return candidate.id == id; });
    return device == server->devices.end() ? nullptr : &*device;
}
