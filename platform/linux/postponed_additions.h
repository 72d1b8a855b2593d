// Additions of filters that there was no memory for, until there is. Internal to platform/linux.
//
// Threads    one at a time.
#pragma once

#include <sys/event.h>
#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <vector>

namespace epollqueue {

class PostponedAdditions {
public:
    struct Addition {
        struct kevent change;
        int attempts;  // so far, all in vain
    };

    // Throws std::bad_alloc. Nothing else here needs memory.
    PostponedAdditions();

    // False when it cannot be kept: there are too many, or its descriptor is closed.
    bool put(const Addition& addition) noexcept;

    // The one that has waited longest, which is no longer here then. None if its number has come to
    // mean another open file. REQUIRES: size() > 0.
    std::optional<Addition> take() noexcept;

    // Forgets the one of the same filter. Whether there was one.
    bool cancel(const struct kevent& change) noexcept;

    [[nodiscard]] size_t size() const noexcept { return waiting.size(); }

private:
    // With what its number meant when it was put here.
    struct Waiting {
        Addition addition;
        dev_t device;
        ino_t inode;
    };

    std::vector<Waiting> waiting;  // has its room from the start
};

}  // namespace epollqueue
