#include "cli/tree_list.h"

#include <boost/json/array.hpp>
#include <cstdio>
#include <exception>

#include "cli/reply_records.h"
#include "cli/report_writer.h"
#include "cli/sorted_records.h"

namespace {

// Takes the place of what out held. False when memory is short.
template <typename Record>
bool readSorted(const boost::json::array& elements, typename SortedRecords<Record>::Read read,
                SortedRecords<Record>& out) {
    out.clear();
    try {
        out.add(elements, read);
    } catch (const std::exception&) {
        return false;
    }
    out.sort();
    return true;
}

void print(const ServerRecord& server, ReportWriter& report) {
    report.decimal(server.id).literal(" - ").text(server.host).literal(":").decimal(server.port);
    report.literal(" - ").text(server.state).literal("\n");
}

void print(const DeviceRecord& device, ReportWriter& report) {
    report.literal(" ").decimal(device.id);
    report.literal("\t").hex(device.vid).literal(":").hex(device.pid);
    report.literal(":").hex(device.rev);
    report.literal("\t").text(device.port).literal("\t").text(device.name);
    report.literal(" /").text(device.state);
    if (hasSerial(device)) report.literal(", ").text(device.serial);
    report.literal("/\n");
}

}  // namespace

void output_tree_list(const boost::json::array& servers, bool serversOnly) noexcept {
    SortedRecords<ServerRecord> sorted;
    if (!readSorted(servers, readServer, sorted)) return;
    ReportWriter report(stdout);
    SortedRecords<DeviceRecord> devices;  // one server's at a time
    for (size_t i = 0; i < sorted.size(); ++i) {
        print(sorted[i], report);
        if (serversOnly || !readSorted(*sorted[i].devices, readDevice, devices)) continue;
        for (size_t k = 0; k < devices.size(); ++k)
            print(devices[k], report);
    }
}
