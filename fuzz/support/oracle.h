// What a fuzz target says when something is not as it should be.
#pragma once

#include <string>
#include <string_view>

// Tells what does not hold, on the real standard error, and ends the process as the fuzzer expects
// of a finding.
[[noreturn]] void refute(std::string_view what);

inline void require(bool holds, std::string_view what) {
    if (!holds) refute(what);
}

// The same for two values that print themselves, both of which are told.
template <typename Value, typename Print>
void requireEqual(const Value& actual, const Value& expected, std::string_view what, Print print) {
    if (actual == expected) return;
    refute(std::string(what) + "\nactual:   " + print(actual) + "\nexpected: " + print(expected));
}

inline void requireEqual(const std::string& actual, const std::string& expected,
                         std::string_view what) {
    requireEqual(actual, expected, what, [](const std::string& text) { return text; });
}
