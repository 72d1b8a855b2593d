// How many descriptors a benchmark may have.
#pragma once

#include <cstddef>

// As many as the system lets this user have, from now on: the number. The programs that are started
// inherit it. A failure ends the benchmark.
size_t allowManyDescriptors();
