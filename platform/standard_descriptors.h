// The numbers 0, 1 and 2, which the whole program reads from and writes to. A program may be
// started with any of them closed; the next descriptor that is opened, a connection perhaps, would
// then be given that number, and whatever is printed.
#pragma once

// Has each of the three that is closed stand for a file in which what the program does there fails
// with EBADF, as it did while the number was closed. False, with errno set, when there is no such
// file to be had. REQUIRES: no other thread opens or closes descriptors meanwhile.
[[nodiscard]] bool occupyStandardDescriptors() noexcept;
