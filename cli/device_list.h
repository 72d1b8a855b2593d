// The report of `dev list`: one line per device, of all servers together.
#pragma once

#include <boost/json/fwd.hpp>

// Prints to standard output:
//
//     1:3 - 046d:c31c:6402 - Keyboard, 1-4, A1B2C3, plugged
//
// sorted by server id and device id, or else by name; devices that compare equal keep the order of
// the reply. ascending counts for names only. pluggedOnly keeps the devices whose state is
// "plugged". Records that cannot be read are left out. Prints nothing when memory is short.
void output_device_list(const boost::json::array& servers, bool sortByName, bool ascending,
                        bool pluggedOnly) noexcept;
