// What holds for every inventory of the simulated daemon, and what it lists.
#pragma once

#include <string>

#include "sim/inventory.h"

void requireSound(const Inventory& inventory);

// The reply to a list request.
[[nodiscard]] std::string listOf(Inventory& inventory);
