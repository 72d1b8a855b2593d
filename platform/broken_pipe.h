// Writing to a peer that has gone away: an error (EPIPE), never the signal that ends the process.
// Linux raises SIGPIPE on the thread that writes (write(2)), and a ThreadObject has it blocked.
// macOS raises it for the whole process, unless the open file was told not to.
#pragma once

// For a descriptor that ThreadObjects write to, and for a listening socket, as accepted ones
// inherit it. macOS: F_SETNOSIGPIPE, which holds for all who share the open file, and is refused
// for a socket that is shut in both directions already. Needs no open descriptor. Any thread.
void preventBrokenPipeSignal(int fd) noexcept;
