#include "cli/tree_list.h"

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/value.hpp>
#include <cstdio>
#include <exception>
#include <vector>

#include "cli/reply_records.h"
#include "cli/report_writer.h"

namespace {

// Replaces out by the records that can be read, by ascending id. Without the memory that it would
// like to have, stable_sort sorts in place. False when there is none for the records either.
template <typename Record>
bool readSorted(const boost::json::array& elements,
                bool (*read)(const boost::json::value&, Record&), std::vector<Record>& out) {
    out.clear();
    try {
        for (const boost::json::value& element : elements) {
            Record record;
            if (read(element, record)) out.push_back(record);
        }
    } catch (const std::exception&) {
        return false;
    }
    std::stable_sort(out.begin(), out.end(),
                     [](const Record& a, const Record& b) { return a.id < b.id; });
    return true;
}

void printServer(ReportWriter& report, const ServerRecord& server) {
    report.decimal(server.id).text(" - ").text(server.host).text(":").decimal(server.port);
    report.text(" - ").text(server.state).text("\n");
}

void printDevice(ReportWriter& report, const DeviceRecord& device) {
    report.text(" ").decimal(device.id);
    report.text("\t").hex(device.vid).text(":").hex(device.pid).text(":").hex(device.rev);
    report.text("\t").text(device.port).text("\t").text(device.name);
    report.text(" /").text(device.state);
    report.text(serialSeparator(device)).text(device.serial).text("/\n");
}

}  // namespace

void output_tree_list(const boost::json::array& servers, bool serversOnly) noexcept {
    std::vector<ServerRecord> sorted;
    if (!readSorted(servers, readServer, sorted)) return;
    ReportWriter report(stdout);
    std::vector<DeviceRecord> devices;  // one server's at a time
    for (const ServerRecord& server : sorted) {
        printServer(report, server);
        if (serversOnly || !readSorted(*server.devices, readDevice, devices)) continue;
        for (const DeviceRecord& device : devices)
            printDevice(report, device);
    }
}
