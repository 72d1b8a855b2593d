// The least that a loop can cost which waits no longer than 5 ms at a time: a thread that does
// nothing but that wait, on an epoll instance without descriptors.
#pragma once

// Of a processor, over so many seconds. Runs in a process of its own.
[[nodiscard]] double processorShareOfBareWait(double seconds);
