// Inventories as JSON, in the shape of the daemon's list reply:
//
//     {"servers": [
//         {"id": 3, "host": "box", "port": 33000, "state": "connected", "devices": [
//             {"id": 7, "name": "Mouse", "vid": 1133, "pid": 49271, "rev": 0, "port": "1-1",
//              "serial": "", "state": "plugged"}]}]}
//
// May be left out: a server's "port" (33000), "state" ("connected") and "devices" (none); a
// device's "rev" (0), "serial" (empty), "state" ("unplugged") and "addr" (which is not looked at).
// A server's "state" is any that a list can show. Keys that are not known are errors, so that a
// slip of the pen shows.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sim/inventory.h"

// None when text is no inventory; error then says what is wrong and where, as in
// `servers[1].devices[0]: "vid" must be an integer from 0 to 65535`. Throws std::bad_alloc.
[[nodiscard]] std::optional<Inventory> parseInventory(std::string_view text, std::string& error);

// The same of a file, which error then names.
[[nodiscard]] std::optional<Inventory> readInventoryFile(const std::string& path,
                                                         std::string& error);
