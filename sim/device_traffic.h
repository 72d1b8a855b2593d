// Devices that come and go by themselves: a row of random choices, the same for the same seed.
//
// Threads    none of its own: the inventory's.
#pragma once

#include <cstdint>
#include <random>

#include "sim/inventory.h"

class DeviceTraffic {
public:
    explicit DeviceTraffic(uint32_t seed) : random(seed) {}

    // Lets one device of a connected server go, or come back: the one at the next random number,
    // modulo their count. Without one nothing happens, and no number is used up.
    void happen(Inventory& inventory);

private:
    std::mt19937 random;  // the same numbers with every standard library
};
