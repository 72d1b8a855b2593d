// How the simulated daemon behaves, apart from what it knows: all of it is up to who starts it.
#pragma once

#include <cstdint>
#include <optional>

#include "sim/reply_manner.h"

struct Behaviour {
    uint32_t latencyMs = 300;          // how long a server connects and disconnects
    std::optional<uint32_t> eventsMs;  // how often a device comes or goes; none: never
    uint32_t seed = 1;                 // which one
    ReplyManner manner = properManner();
};
