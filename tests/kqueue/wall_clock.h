// A wall clock that is set back by an hour each time that somebody looks at it. A suite that links
// it has the C library's functions for the time of day replaced; the monotonic clock is as it was.
#pragma once

#include <cstddef>

// How often the calling thread, or any other thread, has looked at the wall clock.
[[nodiscard]] size_t looksAtTheWallClock() noexcept;
