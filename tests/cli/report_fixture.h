// Both reports, from a reply's text to what they print.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// servers is the text of the reply's array.
[[nodiscard]] std::string deviceList(std::string_view servers, bool sortByName = false,
                                     bool ascending = true, bool pluggedOnly = false);
[[nodiscard]] std::string treeList(std::string_view servers, bool serversOnly = false);

// The text of a device record: sound, with the members of changes in place of its own. A change to
// nothing leaves the member out.
struct Change {
    std::string key;
    std::string value;
};
[[nodiscard]] std::string device(const std::vector<Change>& changes = {});

// The text of a server record, likewise, whose devices are the given texts.
[[nodiscard]] std::string server(const std::vector<std::string>& devices = {},
                                 const std::vector<Change>& changes = {});

// The text of an array.
[[nodiscard]] std::string array(const std::vector<std::string>& elements);
