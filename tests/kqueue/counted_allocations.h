// How much memory the program holds. A suite that links `counted_allocations` gets a global
// operator new of its own, which counts; malloc is not touched.
#pragma once

#include <cstddef>

// What operator new has handed out and operator delete has not had back, in bytes as malloc rounds
// them. Any thread.
[[nodiscard]] size_t bytesInUse() noexcept;

// Without the bookkeeping of a kernel queue that is closed, which is freed with the next queue.
[[nodiscard]] size_t bytesInUseWithoutClosedQueues();
