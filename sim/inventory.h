// What the simulated daemon knows: servers, their devices, and what has become of both.
//
// Connecting and disconnecting are steps: an operation begins one, which shows in the server's
// state, and advance completes it, whenever its caller thinks that the time has come. A connecting
// server ends up connected, or failed if its host is unreachable.example or a name under it; a
// disconnecting one ends up disconnected, or connecting if a reconnect was asked for.
//
// A device is plugged or unplugged. One that was plugged without once is plugged again whenever
// its server is connected again, or it comes back itself, until it is unplugged. A server that is
// not connected keeps its devices, all unplugged; they cannot be plugged until it is connected. A
// device that is gone keeps its id, but until it comes back no operation finds it.
//
// Threads    none of its own: one thread at a time.
// Errors     a status. Operations that add something throw std::bad_alloc and then change
//            nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "sim/server_state.h"

struct Device {
    uint32_t id = 0;  // unique within its server
    std::string name;
    uint16_t vid = 0;
    uint16_t pid = 0;
    uint16_t rev = 0;
    std::string port;
    std::string serial;  // may be empty
    bool plugged = false;
    bool replug = false;  // plugged again when it and its connection are back
    bool present = true;  // false: gone
};

struct Server {
    uint32_t id = 0;
    std::string host;
    uint16_t port = 0;
    ServerState state = ServerState::Connected;
    std::vector<Device> devices;
    bool explored = true;       // false: its devices turn up when it connects for the first time
    bool reconnects = false;    // a disconnecting one goes on to connect
    uint32_t stateChanges = 0;  // numbers its steps
    uint32_t stepTaken = 0;     // the last one that takeBegunStep returned
};

struct ServerAddress {
    std::string_view host;
    uint16_t port;
};

// How a request names a server: by the id that it was given, or by its address.
using ServerKey = std::variant<uint32_t, ServerAddress>;

enum class Status { Ok, Already, NotFound, Error };

enum class ServerAction { Remove, Disconnect, Reconnect };

class Inventory {
public:
    // The ids and the addresses of the servers are unique, and so are the ids of the devices of
    // one server. A device that is plugged in a server that is not connected is unplugged until
    // that one is. Servers in a passing state have begun a step.
    explicit Inventory(std::vector<Server> initialServers);

    [[nodiscard]] const std::vector<Server>& servers() const { return known; }

    struct Addition {
        Status status;  // Ok, Already, or Error: there is no id left
        uint32_t id;    // of the new server; 0 when there is none
    };

    // A new server is connecting; when it is connected it offers two devices. It gets the id after
    // the highest one that was ever in use, so that no id comes to mean another server.
    [[nodiscard]] Addition add(std::string_view host, uint16_t port);

    // Ok or NotFound. To disconnect a server that is connecting breaks that off. To reconnect a
    // connected one disconnects it first; one that is connecting just goes on. Of a disconnect and
    // a reconnect during one disconnecting, the later counts.
    [[nodiscard]] Status act(ServerAction action, const ServerKey& server);

    // A step of one server. Later ones have other numbers.
    struct Step {
        uint32_t server;
        uint32_t number;
    };

    // A step that has begun and was not returned yet, or none. It has to be given to advance.
    [[nodiscard]] std::optional<Step> takeBegunStep();

    // Completes a step; nothing when its server is gone or has begun another one meanwhile.
    void advance(const Step& step);

    // Ok, Already, or NotFound, which a device of a server that is not connected counts as.
    [[nodiscard]] Status plug(const ServerKey& server, uint32_t device, bool once);

    // Ok, Already or NotFound. A device that is found is not plugged again by itself.
    [[nodiscard]] Status unplug(const ServerKey& server, uint32_t device);

    // How many devices the connected servers have, the gone ones included.
    [[nodiscard]] size_t countConnectedDevices() const;

    // Lets one of those go, or come back if it is gone. They count from 0, server by server.
    void comeOrGo(size_t connectedDevice);

private:
    using Position = std::vector<Server>::iterator;

    [[nodiscard]] Position find(const ServerKey& key);
    [[nodiscard]] Device* findDevice(Position server, uint32_t id);

    std::vector<Server> known;
    std::optional<uint32_t> nextId = 1;  // none: the ids are used up
};
