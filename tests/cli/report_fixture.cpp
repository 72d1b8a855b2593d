#include "tests/cli/report_fixture.h"

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/value.hpp>
#include <cstdio>

#include "cli/device_list.h"
#include "cli/tree_list.h"
#include "ipc/json.h"
#include "tests/support/captured_stream.h"

namespace {

std::string record(std::vector<Change> members, const std::vector<Change>& changes) {
    for (const Change& change : changes) {
        const auto old = std::find_if(members.begin(), members.end(), [&](const Change& member) {
            return member.key == change.key;
        });
        if (old == members.end())
            members.push_back(change);
        else
            *old = change;
    }
    std::string text;
    for (const Change& member : members) {
        if (member.value.empty()) continue;
        text += text.empty() ? "{\"" : ",\"";
        text += member.key + "\":" + member.value;
    }
    return text + "}";
}

}  // namespace

std::string deviceList(std::string_view servers, bool sortByName, bool ascending,
                       bool pluggedOnly) {
    const auto reply = readJson(servers, {});
    CapturedStream out(stdout);
    output_device_list(reply->as_array(), sortByName, ascending, pluggedOnly);
    return out.take();
}

std::string treeList(std::string_view servers, bool serversOnly) {
    const auto reply = readJson(servers, {});
    CapturedStream out(stdout);
    output_tree_list(reply->as_array(), serversOnly);
    return out.take();
}

std::string device(const std::vector<Change>& changes) {
    return record({{"id", "3"},
                   {"name", "\"Keyboard\""},
                   {"vid", "1133"},
                   {"pid", "49948"},
                   {"rev", "25602"},
                   {"port", "\"1-4\""},
                   {"serial", "\"A1\""},
                   {"state", "\"plugged\""}},
                  changes);
}

std::string server(const std::vector<std::string>& devices, const std::vector<Change>& changes) {
    return record({{"id", "1"},
                   {"host", "\"box\""},
                   {"port", "33000"},
                   {"state", "\"connected\""},
                   {"devices", array(devices)}},
                  changes);
}

std::string array(const std::vector<std::string>& elements) {
    std::string text = "[";
    for (const std::string& element : elements)
        text += (text.size() == 1 ? "" : ",") + element;
    return text + "]";
}
