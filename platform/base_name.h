// The last component of a path, as basename(3) defines it: trailing slashes do not count, "/" is
// its own last component, and the last component of an empty path is ".".
#pragma once

#include <cstddef>

inline constexpr size_t kBaseNameSize = 1024;

// Writes the component and a NUL to out; a component of kBaseNameSize bytes or more leaves out
// untouched. Re-entrant.
void baseName(const char* path, char (&out)[kBaseNameSize]) noexcept;
