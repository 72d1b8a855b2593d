// The dictionary of one request, made and then filled key by key.
//
//     add a server           "host", "port"
//     act on a server        "action", then "host" and "port", or "id"
//     act on a device        "action", then "host" and "port", or "server-id"; "device-id"; and
//                            "once", for the action "plug" only
//
// A step that fails writes its words to standard error, without a newline, and returns false. The
// request is then of no more use. Nothing throws.
#pragma once

#include <boost/json/object.hpp>
#include <cstdint>
#include <string_view>

class Request {
public:
    // "cannot allocate dictionary for request". One of the two comes first.
    [[nodiscard]] bool create() noexcept;
    [[nodiscard]] bool create(std::string_view action) noexcept;

    // "cannot allocate object for request", also for a host that is null or not UTF-8.
    [[nodiscard]] bool addHost(const char* host, uint16_t port) noexcept;

    // "cannot allocate objects for request".
    [[nodiscard]] bool addId(const char* key, uint32_t id) noexcept;

    // Adds the key if the request's action has it. "cannot allocate objects for request".
    [[nodiscard]] bool addOnce(bool once) noexcept;

    [[nodiscard]] const boost::json::object& dictionary() const noexcept { return object; }

private:
    boost::json::object object;
    bool isPlug = false;
};
