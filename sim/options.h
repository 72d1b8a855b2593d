// The command line of hxusbvd-sim.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "ipc/HXTarnIPCClient.h"
#include "sim/behaviour.h"

struct Options {
    std::string socketPath = kDaemonSocketPath;
    std::optional<std::string> inventoryFile;  // none: the built-in inventory
    Behaviour behaviour;
    bool help = false;
};

[[nodiscard]] std::string usage();

// arguments is without the program's name. None when they are wrong; error then says why. An
// option that is given twice counts as given last.
[[nodiscard]] std::optional<Options> parseOptions(std::span<const char* const> arguments,
                                                  std::string& error);
