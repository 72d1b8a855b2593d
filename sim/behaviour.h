// How the simulated daemon behaves, apart from what it knows: all of it is up to who starts it.
#pragma once

#include <cstdint>

struct Behaviour {
    uint32_t latencyMs = 300;  // how long a server connects and disconnects
};
