#include "cli/device_list.h"

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <vector>

#include "cli/reply_records.h"
#include "cli/report_writer.h"

namespace {

struct FlatDevice {
    uint32_t serverId;
    DeviceRecord device;
};

using FlatDevices = std::vector<FlatDevice>;

bool isKept(const DeviceRecord& device, bool pluggedOnly) {
    return !pluggedOnly || device.state == "plugged";
}

FlatDevices flatten(const boost::json::array& servers, bool pluggedOnly) {
    FlatDevices devices;
    for (const boost::json::value& element : servers) {
        ServerRecord server;
        if (!readServerDevices(element, server)) continue;
        for (const boost::json::value& member : *server.devices) {
            DeviceRecord device;
            if (readDevice(member, device) && isKept(device, pluggedOnly))
                devices.push_back({.serverId = server.id, .device = device});
        }
    }
    return devices;
}

uint64_t idsOf(const FlatDevice& entry) {
    return static_cast<uint64_t>(entry.serverId) << 32 | entry.device.id;
}

bool byIds(const FlatDevice& a, const FlatDevice& b) {
    return idsOf(a) < idsOf(b);
}

// Bytes of UTF-8 compare as their character codes do.
bool byNameAscending(const FlatDevice& a, const FlatDevice& b) {
    return a.device.name < b.device.name;
}

bool byNameDescending(const FlatDevice& a, const FlatDevice& b) {
    return byNameAscending(b, a);
}

// Without the memory that it would like to have, stable_sort sorts in place.
void sort(FlatDevices& devices, bool sortByName, bool ascending) {
    const auto byName = ascending ? byNameAscending : byNameDescending;
    std::stable_sort(devices.begin(), devices.end(), sortByName ? byName : byIds);
}

void print(const FlatDevices& devices) {
    ReportWriter report(stdout);
    for (const auto& [serverId, device] : devices) {
        report.decimal(serverId).text(":").decimal(device.id);
        report.text(" - ").hex(device.vid).text(":").hex(device.pid).text(":").hex(device.rev);
        report.text(" - ").text(device.name).text(", ").text(device.port);
        report.text(serialSeparator(device)).text(device.serial);
        report.text(", ").text(device.state).text("\n");
    }
}

}  // namespace

void output_device_list(const boost::json::array& servers, bool sortByName, bool ascending,
                        bool pluggedOnly) noexcept {
    FlatDevices devices;
    try {
        devices = flatten(servers, pluggedOnly);
    } catch (const std::exception&) {
        return;
    }
    sort(devices, sortByName, ascending);
    print(devices);
}
