#include "cli/reply_records.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/string.hpp>
#include <boost/json/value.hpp>

#include "ipc/json.h"

namespace {

using boost::json::object;

bool read(const object& record, std::string_view key, uint32_t& out) noexcept {
    const boost::json::value* number = numberMember(record, key);
    if (number) out = toUnsigned32(*number);
    return number != nullptr;
}

bool read(const object& record, std::string_view key, uint16_t& out) noexcept {
    const boost::json::value* number = numberMember(record, key);
    if (number) out = toUnsigned16(*number);
    return number != nullptr;
}

bool read(const object& record, std::string_view key, std::string_view& out) noexcept {
    const boost::json::string* text = stringMember(record, key);
    if (text) out = std::string_view(text->data(), text->size());
    return text != nullptr;
}

bool read(const object& record, std::string_view key, const boost::json::array*& out) noexcept {
    out = arrayMember(record, key);
    return out != nullptr;
}

}  // namespace

bool readDevice(const boost::json::value& value, DeviceRecord& out) noexcept {
    const object* record = value.if_object();
    return record != nullptr && read(*record, "id", out.id) && read(*record, "name", out.name) &&
           read(*record, "vid", out.vid) && read(*record, "pid", out.pid) &&
           read(*record, "rev", out.rev) && read(*record, "port", out.port) &&
           read(*record, "serial", out.serial) && read(*record, "state", out.state);
}

bool readServer(const boost::json::value& value, ServerRecord& out) noexcept {
    const object* record = value.if_object();
    return record != nullptr && read(*record, "id", out.id) && read(*record, "host", out.host) &&
           read(*record, "port", out.port) && read(*record, "state", out.state) &&
           read(*record, "devices", out.devices);
}

bool readServerDevices(const boost::json::value& value, ServerRecord& out) noexcept {
    const object* record = value.if_object();
    return record != nullptr && read(*record, "id", out.id) &&
           read(*record, "devices", out.devices);
}

std::string_view serialSeparator(const DeviceRecord& device) noexcept {
    return device.serial.empty() || device.serial.front() == '\0' ? "" : ", ";
}
