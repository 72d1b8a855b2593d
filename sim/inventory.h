// What the simulated daemon knows: servers, their devices, and what has become of both.
//
// A device is plugged or unplugged. One that was plugged without once is plugged again whenever
// its server is reconnected, until it is unplugged. A disconnected server keeps its devices, all
// unplugged; they cannot be plugged until it is reconnected.
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

struct Device {
    uint32_t id = 0;  // unique within its server
    std::string name;
    uint16_t vid = 0;
    uint16_t pid = 0;
    uint16_t rev = 0;
    std::string port;
    std::string serial;  // may be empty
    bool plugged = false;
    bool replug = false;  // plugged again by a reconnect
};

struct Server {
    uint32_t id = 0;
    std::string host;
    uint16_t port = 0;
    bool connected = true;
    std::vector<Device> devices;
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
    // one server. A device that is plugged in a disconnected server is unplugged until that one
    // is reconnected.
    explicit Inventory(std::vector<Server> initialServers);

    [[nodiscard]] const std::vector<Server>& servers() const { return known; }

    struct Addition {
        Status status;  // Ok, Already, or Error: there is no id left
        uint32_t id;    // of the new server; 0 when there is none
    };

    // A new server is connected and offers two devices. It gets the id after the highest one
    // that was ever in use, so that no id comes to mean another server.
    [[nodiscard]] Addition add(std::string_view host, uint16_t port);

    // Ok or NotFound. Disconnecting a disconnected server changes nothing; reconnecting a
    // connected one disconnects it first.
    [[nodiscard]] Status act(ServerAction action, const ServerKey& server);

    // Ok, Already, or NotFound, which a device of a disconnected server counts as.
    [[nodiscard]] Status plug(const ServerKey& server, uint32_t device, bool once);

    // Ok, Already or NotFound. Whatever comes of it, the device is not plugged again by itself.
    [[nodiscard]] Status unplug(const ServerKey& server, uint32_t device);

private:
    using Position = std::vector<Server>::iterator;

    [[nodiscard]] Position find(const ServerKey& key);
    [[nodiscard]] Device* findDevice(Position server, uint32_t id);

    std::vector<Server> known;
    std::optional<uint32_t> nextId = 1;  // none: the ids are used up
};
