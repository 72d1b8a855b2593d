#include "cli/reply_records.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/string.hpp>
#include <boost/json/value.hpp>

#include "ipc/json.h"

namespace {

using boost::json::object;
using boost::json::value;

// Finds the members of a record. A daemon gives all its records the same order, so the member that
// is asked for next is looked for behind the last one first.
class Members {
public:
    explicit Members(const object& record_) noexcept
        : record(record_), next(record_.begin()), end(record_.end()) {}

    // The key is a constant, so that it is compared in place.
    template <size_t size>
    [[nodiscard]] const value* find(const char (&key)[size]) noexcept {
        const std::string_view wanted(key, size - 1);
        if (next == end || std::string_view(next->key()) != wanted) next = record.find(wanted);
        return next == end ? nullptr : &(next++)->value();
    }

private:
    const object& record;
    object::const_iterator next;
    const object::const_iterator end;
};

bool read(const value* number, uint32_t& out) noexcept {
    if (!number || !isNumber(*number)) return false;
    out = toUnsigned32(*number);
    return true;
}

bool read(const value* number, uint16_t& out) noexcept {
    if (!number || !isNumber(*number)) return false;
    out = toUnsigned16(*number);
    return true;
}

bool read(const value* member, std::string_view& out) noexcept {
    const boost::json::string* text = member ? member->if_string() : nullptr;
    if (text) out = std::string_view(text->data(), text->size());
    return text != nullptr;
}

bool read(const value* member, const boost::json::array*& out) noexcept {
    out = member ? member->if_array() : nullptr;
    return out != nullptr;
}

}  // namespace

bool readDevice(const value& from, DeviceRecord& out) noexcept {
    const object* record = from.if_object();
    if (!record) return false;
    Members members(*record);
    return read(members.find("id"), out.id) && read(members.find("name"), out.name) &&
           read(members.find("vid"), out.vid) && read(members.find("pid"), out.pid) &&
           read(members.find("rev"), out.rev) && read(members.find("port"), out.port) &&
           read(members.find("serial"), out.serial) && read(members.find("state"), out.state);
}

bool readServer(const value& from, ServerRecord& out) noexcept {
    const object* record = from.if_object();
    if (!record) return false;
    Members members(*record);
    return read(members.find("id"), out.id) && read(members.find("host"), out.host) &&
           read(members.find("port"), out.port) && read(members.find("state"), out.state) &&
           read(members.find("devices"), out.devices);
}

bool readServerDevices(const value& from, ServerRecord& out) noexcept {
    const object* record = from.if_object();
    if (!record) return false;
    Members members(*record);
    return read(members.find("id"), out.id) && read(members.find("devices"), out.devices);
}

bool hasSerial(const DeviceRecord& device) noexcept {
    return !device.serial.empty() && device.serial.front() != '\0';
}
