// The records of a list reply, as the reports need them. Texts are views into the reply; numbers
// are narrowed.
//
// The read functions return false, with out in an undefined state, for a value that is no such
// record: not an object, or a member absent or of another type.
#pragma once

#include <boost/json/fwd.hpp>
#include <cstdint>
#include <string_view>

struct DeviceRecord {
    uint32_t id;
    uint16_t vid;
    uint16_t pid;
    uint16_t rev;
    std::string_view name;
    std::string_view port;  // a text, unlike a server's
    std::string_view serial;
    std::string_view state;
};

struct ServerRecord {
    uint32_t id;
    uint16_t port;
    std::string_view host;
    std::string_view state;
    const boost::json::array* devices;
};

[[nodiscard]] bool readDevice(const boost::json::value& from, DeviceRecord& out) noexcept;

[[nodiscard]] bool readServer(const boost::json::value& from, ServerRecord& out) noexcept;

// The id and the devices alone; the other members may be anything.
[[nodiscard]] bool readServerDevices(const boost::json::value& from, ServerRecord& out) noexcept;

// Whether there is a serial number to show.
[[nodiscard]] bool hasSerial(const DeviceRecord& device) noexcept;
