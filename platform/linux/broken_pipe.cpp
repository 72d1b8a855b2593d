#include "platform/broken_pipe.h"

// The thread that writes has the signal blocked.
void preventBrokenPipeSignal(int /*fd*/) noexcept {}
