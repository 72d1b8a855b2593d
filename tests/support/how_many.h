// How much a test does that can go on for as long as one likes: a little when it runs with all the
// others, and what the environment says when somebody runs it alone.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

[[nodiscard]] inline uint64_t howMany(const char* variable, uint64_t usually) {
    const char* given = std::getenv(variable);
    return given != nullptr ? std::stoull(given) : usually;
}
