// The utility's client without the daemon: to decode and to encode with. A failure ends the
// benchmark.
#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "ipc/HXTarnIPCClient.h"

// Connected to a socket of which nobody reads. Its loop is gone already, so requests are made into
// frames, which then go nowhere.
[[nodiscard]] std::shared_ptr<HXTarnIPCClient> makeClientWithoutDaemon();

// Requires that a client which makes the request, in a process of its own, sends this and nothing
// else. The calling process has one thread.
void requireSent(const std::function<void(HXTarnIPCClient&)>& request, std::string_view frame);
