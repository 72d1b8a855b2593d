// The utility's client, connected to a socket of which nobody reads: to decode and to encode with.
#pragma once

#include <memory>

#include "ipc/HXTarnIPCClient.h"

// Its loop is gone already, so requests are made into frames, which then go nowhere. A failure ends
// the benchmark.
[[nodiscard]] std::shared_ptr<HXTarnIPCClient> makeClientWithoutDaemon();
