#include "sim/inventory.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

namespace {

bool matches(const Server& server, const ServerKey& key) {
    if (const uint32_t* id = std::get_if<uint32_t>(&key)) return server.id == *id;
    const auto& address = std::get<ServerAddress>(key);
    return server.host == address.host && server.port == address.port;
}

constexpr std::string_view kUnreachableHost = "unreachable.example";
constexpr std::string_view kUnreachableDomain = ".unreachable.example";

// What a request leads to, from every state.
struct Course {
    ServerState from;
    ServerState onDisconnect;
    ServerState onReconnect;
};

constexpr Course kCourses[] = {
    {ServerState::Connecting, ServerState::Disconnecting, ServerState::Connecting},
    {ServerState::Connected, ServerState::Disconnecting, ServerState::Disconnecting},
    {ServerState::Disconnecting, ServerState::Disconnecting, ServerState::Disconnecting},
    {ServerState::Disconnected, ServerState::Disconnected, ServerState::Connecting},
    {ServerState::Failed, ServerState::Disconnected, ServerState::Connecting},
};

ServerState stateAfter(bool reconnect, ServerState state) {
    const auto* course = std::find_if(std::begin(kCourses), std::end(kCourses),
                                      [state](const Course& each) { return each.from == state; });
    return reconnect ? course->onReconnect : course->onDisconnect;
}

// What time leads to.
ServerState stateAfterStep(const Server& server) {
    if (server.state == ServerState::Disconnecting)
        return server.reconnects ? ServerState::Connecting : ServerState::Disconnected;
    const bool unreachable =
        server.host == kUnreachableHost || server.host.ends_with(kUnreachableDomain);
    return unreachable ? ServerState::Failed : ServerState::Connected;
}

void settlePlugs(Server& server) {
    for (Device& device : server.devices)
        device.plugged = server.state == ServerState::Connected && device.present && device.replug;
}

void enter(Server& server, ServerState state) {
    if (server.state == state) return;
    server.state = state;
    ++server.stateChanges;
    if (state == ServerState::Connected && !std::exchange(server.explored, true))
        for (Device& device : server.devices)
            device.present = true;
    settlePlugs(server);
}

void redirect(Server& server, bool reconnect) {
    server.reconnects = reconnect;
    enter(server, stateAfter(reconnect, server.state));
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
             .serial = "FD" + std::to_string(serverId),
             .present = false},
            {.id = 2,
             .name = "Keyboard",
             .vid = 0x046d,
             .pid = 0xc31c,
             .rev = 0x6402,
             .port = "1-2",
             .serial = "",
             .present = false}};
}

}  // namespace

Inventory::Inventory(std::vector<Server> initialServers)
    : known(std::move(initialServers)), nextId(idAfterAll(known)) {
    for (Server& server : known) {
        server.stateChanges = 1;
        if (server.state != ServerState::Connected) settlePlugs(server);
    }
}

Inventory::Addition Inventory::add(std::string_view host, uint16_t port) {
    if (find(ServerAddress{.host = host, .port = port}) != known.end())
        return {.status = Status::Already, .id = 0};
    if (!nextId) return {.status = Status::Error, .id = 0};
    const uint32_t id = *nextId;
    known.push_back({.id = id,
                     .host = std::string(host),
                     .port = port,
                     .state = ServerState::Connecting,
                     .devices = devicesOfNewServer(id),
                     .explored = false,
                     .stateChanges = 1});
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
            redirect(*found, false);
            break;
        case ServerAction::Reconnect:
            redirect(*found, true);
            break;
    }
    return Status::Ok;
}

std::optional<Inventory::Step> Inventory::takeBegunStep() {
    for (Server& server : known) {
        if (!isPassing(server.state) || server.stepTaken == server.stateChanges) continue;
        server.stepTaken = server.stateChanges;
        return Step{.server = server.id, .number = server.stateChanges};
    }
    return std::nullopt;
}

void Inventory::advance(const Step& step) {
    const auto found = find(step.server);
    if (found == known.end() || found->stateChanges != step.number) return;
    if (isPassing(found->state)) enter(*found, stateAfterStep(*found));
}

Status Inventory::plug(const ServerKey& server, uint32_t device, bool once) {
    const auto found = find(server);
    Device* wanted = findDevice(found, device);
    if (wanted == nullptr || found->state != ServerState::Connected) return Status::NotFound;
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

size_t Inventory::countConnectedDevices() const {
    size_t count = 0;
    for (const Server& server : known)
        if (server.state == ServerState::Connected) count += server.devices.size();
    return count;
}

void Inventory::comeOrGo(size_t connectedDevice) {
    for (Server& server : known) {
        if (server.state != ServerState::Connected) continue;
        if (connectedDevice < server.devices.size()) {
            Device& device = server.devices[connectedDevice];
            device.present = !device.present;
            device.plugged = device.present && device.replug;
            return;
        }
        connectedDevice -= server.devices.size();
    }
}

Inventory::Position Inventory::find(const ServerKey& key) {
    return std::find_if(known.begin(), known.end(),
                        [&key](const Server& server) { return matches(server, key); });
}

Device* Inventory::findDevice(Position server, uint32_t id) {
    if (server == known.end()) return nullptr;
    const auto device = std::find_if(
        server->devices.begin(), server->devices.end(),
        [id](const Device& candidate) { return candidate.id == id && candidate.present; });
    return device == server->devices.end() ? nullptr : &*device;
}
