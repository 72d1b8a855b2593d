// The operand that names a device: "deviceId" or "serverId:deviceId", in decimal.
#pragma once

#include <cstdint>

// 0 for a bare device id, which leaves serverIdOut untouched; 1 for both ids; -1 for anything
// else, which leaves both untouched. Each number must begin with a digit. A number beyond 32 bits
// keeps its low 32 bits; one beyond unsigned long counts as the greatest unsigned long.
[[nodiscard]] int arg2deviceId(const char* text, uint32_t& serverIdOut, uint32_t& deviceIdOut);
