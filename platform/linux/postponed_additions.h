// Additions of filters that there was no memory for, kept until there is. Internal to
// platform/linux.
//
// Threads    one at a time.
// Units      times are nanoseconds on TimerSet's clock.
#pragma once

#include <sys/event.h>
#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "platform/linux/timer_set.h"

namespace epollqueue {

class PostponedAdditions {
public:
    using Nanoseconds = TimerSet::Nanoseconds;

    struct Addition {
        struct kevent change;
        Nanoseconds since;  // when memory was first missing, or that was last told
        // The open file that its number meant then, by device and inode, if that could be told.
        std::optional<std::pair<dev_t, ino_t>> file;
    };

    // Makes room for 128. Throws std::bad_alloc.
    PostponedAdditions();

    [[nodiscard]] bool isEmpty() const noexcept { return waiting.empty(); }
    [[nodiscard]] bool contains(const struct kevent& change) const noexcept;

    // In place of an earlier one of the same filter, whose time goes on for the same file. False
    // when there is no room and no memory for more of it.
    [[nodiscard]] bool put(const struct kevent& change) noexcept;

    void cancel(const struct kevent& change) noexcept;

    // Hands each, from the first put to the last, to isSettled(Addition&), and forgets those
    // that it answers true for; and those whose number has been closed, or means another open file.
    template <typename IsSettled>
    void retry(IsSettled isSettled) noexcept {
        auto kept = waiting.begin();
        for (Addition& addition : waiting)
            if (identify(addition) && !isSettled(addition)) *kept++ = addition;
        waiting.erase(kept, waiting.end());
    }

private:
    // Fills in the file, if it was not known and can be told. False when the number is closed, or
    // means another one.
    [[nodiscard]] static bool identify(Addition& addition) noexcept;

    std::vector<Addition> waiting;
};

}  // namespace epollqueue
