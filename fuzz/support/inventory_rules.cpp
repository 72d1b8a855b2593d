#include "fuzz/support/inventory_rules.h"

#include <cstdint>
#include <set>
#include <utility>

#include "fuzz/support/oracle.h"
#include "ipc/frame.h"
#include "sim/request_handler.h"

namespace {

void requireSound(const Server& server) {
    std::set<uint32_t> ids;
    for (const Device& device : server.devices) {
        require(ids.insert(device.id).second, "the devices of a server have ids of their own");
        require(!device.plugged || (device.present && server.state == ServerState::Connected),
                "what is plugged is there");
    }
}

}  // namespace

void requireSound(const Inventory& inventory) {
    std::set<uint32_t> ids;
    std::set<std::pair<std::string, uint16_t>> addresses;
    for (const Server& server : inventory.servers()) {
        require(ids.insert(server.id).second, "servers have ids of their own");
        require(addresses.emplace(server.host, server.port).second,
                "servers have addresses of their own");
        require(!server.host.empty(), "a server has a host");
        requireSound(server);
    }
}

std::string listOf(Inventory& inventory) {
    const auto reply = answerRequest(inventory, kListServers, "");
    require(reply.has_value(), "a list is to be had");
    return *reply;
}
