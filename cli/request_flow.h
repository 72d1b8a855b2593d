// One request, from the connection to the end of the process.
//
// The process ends inside a callback of the client: the reply, or the failure of the connection,
// decides with which status. There is no timeout.
#pragma once

#include <memory>

#include "cli/command_line.h"
#include "ipc/HXTarnIPCClient.h"

// What sends the command's request once the connection is up. Throws std::bad_alloc.
[[nodiscard]] HXTarnIPCClient::OnConnected connectedCallback(
    const ParsedCommand& command, const std::weak_ptr<HXTarnIPCClient>& client);

// What prints the outcome that a reply tells and ends the process. Returns for a reply that
// answers another request. Throws std::bad_alloc.
[[nodiscard]] HXTarnIPCClient::OnData dataCallback(const ParsedCommand& command);

// Carries the command out at the daemon that listens on socketPath. Ends the process; returns 0,
// after cleaning up, if the main thread should ever be woken.
int runRequest(ParsedCommand command, const char* socketPath = kDaemonSocketPath);
