// Which processor a thread runs on.
#pragma once

#include <cstddef>

// Keeps the calling thread, and what it starts from here on, to one of the processors that the
// program had when it began: the first is 0, and after the last comes the first again.
void keepToProcessor(size_t number);
