// The report of `srv list`: one line per server, and under it one per device.
#pragma once

#include <boost/json/fwd.hpp>

// Prints to standard output:
//
//     1 - hub.example.org:33000 - connected
//      3<tab>046d:c31c:6402<tab>1-4<tab>Keyboard /plugged, A1B2C3/
//
// servers and each server's devices sorted by id; records with equal ids keep the order of the
// reply. serversOnly leaves the devices out. Records that cannot be read are left out, a server
// with its devices. When memory is short, prints nothing, or a server without its devices.
void output_tree_list(const boost::json::array& servers, bool serversOnly) noexcept;
