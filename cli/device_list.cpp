#include "cli/device_list.h"

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string_view>
#include <vector>

#include "cli/reply_records.h"
#include "cli/report_writer.h"
#include "cli/sorted_records.h"

namespace {

using boost::json::array;
using boost::json::value;

bool isKept(const DeviceRecord& device, bool pluggedOnly) {
    return !pluggedOnly || device.state == "plugged";
}

void print(uint32_t serverId, const DeviceRecord& device, ReportWriter& report) {
    report.decimal(serverId).literal(":").decimal(device.id);
    report.literal(" - ").hex(device.vid).literal(":").hex(device.pid);
    report.literal(":").hex(device.rev);
    report.literal(" - ").text(device.name).literal(", ").text(device.port);
    if (hasSerial(device)) report.literal(", ").text(device.serial);
    report.literal(", ").text(device.state).literal("\n");
}

// Servers, and nearly always each has an id of its own: so it is their devices that are sorted, one
// server's after the other's, and not all devices of the reply.
using Servers = SortedRecords<ServerRecord>;

// Where the servers end that have the id of the one at begin.
size_t endOfId(const Servers& servers, size_t begin) {
    size_t end = begin;
    while (end < servers.size() && servers[end].id == servers[begin].id)
        ++end;
    return end;
}

// What may be a device, among the elements that may be anything.
size_t countObjects(const array& elements) {
    return static_cast<size_t>(std::count_if(elements.begin(), elements.end(),
                                             [](const value& each) { return each.is_object(); }));
}

// The most devices that the servers of one id have together.
size_t mostDevices(const Servers& servers) {
    size_t most = 0;
    for (size_t begin = 0, end; begin < servers.size(); begin = end) {
        end = endOfId(servers, begin);
        size_t devices = 0;
        for (size_t i = begin; i < end; ++i)
            devices += countObjects(*servers[i].devices);
        most = std::max(most, devices);
    }
    return most;
}

// Once the first line is printed no memory is asked for any more. Throws std::bad_alloc.
void listByIds(const array& elements, bool pluggedOnly) {
    Servers servers;
    servers.add(elements, readServerDevices);
    servers.sort();
    SortedRecords<DeviceRecord> devices;  // of the servers of one id
    devices.reserve(mostDevices(servers));
    ReportWriter report(stdout);
    for (size_t begin = 0, end; begin < servers.size(); begin = end) {
        end = endOfId(servers, begin);
        devices.clear();
        for (size_t i = begin; i < end; ++i)
            devices.add(*servers[i].devices, readDevice);
        devices.sort();
        for (size_t i = 0; i < devices.size(); ++i)
            if (isKept(devices[i], pluggedOnly)) print(servers[begin].id, devices[i], report);
    }
}

// What the devices of all servers are sorted by. Most names differ in their first bytes.
struct NamedDevice {
    uint64_t firstBytes;
    std::string_view name;
    const value* device;
    uint32_t serverId;
    uint32_t place;  // in the reply, which holds fewer than 32 bits can count
};

using NamedDevices = std::vector<NamedDevice>;

// As a number that compares as the bytes do.
uint64_t firstBytesOf(std::string_view name) {
    uint64_t bytes = 0;
    for (size_t i = 0; i < sizeof bytes; ++i)
        bytes = bytes << 8 | (i < name.size() ? static_cast<unsigned char>(name[i]) : 0U);
    return bytes;
}

NamedDevices flatten(const array& servers, bool pluggedOnly) {
    NamedDevices devices;
    for (const value& element : servers) {
        ServerRecord server;
        if (!readServerDevices(element, server)) continue;
        for (const value& member : *server.devices) {
            DeviceRecord device;
            if (!readDevice(member, device) || !isKept(device, pluggedOnly)) continue;
            devices.push_back({.firstBytes = firstBytesOf(device.name),
                               .name = device.name,
                               .device = &member,
                               .serverId = server.id,
                               .place = static_cast<uint32_t>(devices.size())});
        }
    }
    return devices;
}

// Bytes of UTF-8 compare as their character codes do. Less than 0, 0 or more than 0.
int compareNames(const NamedDevice& a, const NamedDevice& b) {
    if (a.firstBytes != b.firstBytes) return a.firstBytes < b.firstBytes ? -1 : 1;
    return a.name.compare(b.name);
}

// Devices of equal names keep the order of the reply, in either direction.
void sortByNames(NamedDevices& devices, bool ascending) {
    std::sort(devices.begin(), devices.end(),
              [ascending](const NamedDevice& a, const NamedDevice& b) {
                  const int compared = compareNames(a, b);
                  if (compared == 0) return a.place < b.place;
                  return ascending ? compared < 0 : compared > 0;
              });
}

// Throws std::bad_alloc, with nothing printed.
void listByNames(const array& servers, bool ascending, bool pluggedOnly) {
    NamedDevices devices = flatten(servers, pluggedOnly);
    sortByNames(devices, ascending);
    ReportWriter report(stdout);
    for (const NamedDevice& entry : devices) {
        DeviceRecord device;
        if (readDevice(*entry.device, device)) print(entry.serverId, device, report);
    }
}

}  // namespace

void output_device_list(const array& servers, bool sortByName, bool ascending,
                        bool pluggedOnly) noexcept {
    try {
        if (sortByName)
            listByNames(servers, ascending, pluggedOnly);
        else
            listByIds(servers, pluggedOnly);
    } catch (const std::exception&) {  // without memory nothing is printed
        return;
    }
}
