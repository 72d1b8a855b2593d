// What the simulated daemon starts with when it is given no inventory file.
#pragma once

#include "sim/inventory.h"

// Throws std::bad_alloc.
[[nodiscard]] Inventory builtInInventory();
