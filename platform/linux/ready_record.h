// What the record of a ready filter says: how many bytes, and whether that was the end. Internal to
// platform/linux.
//
// Threads    one at a time.
#pragma once

#include <sys/event.h>

#include "platform/linux/descriptor_table.h"

namespace epollqueue {

// Fill in data, and EV_EOF with fflags, by what was seen of the filter. False when there is nothing
// to tell, neither bytes nor an end. REQUIRES: the filter is there, and the number still means the
// open file that was registered.
[[nodiscard]] bool fillReadRecord(Descriptor& descriptor, struct kevent& record) noexcept;
[[nodiscard]] bool fillWriteRecord(Descriptor& descriptor, struct kevent& record) noexcept;

}  // namespace epollqueue
