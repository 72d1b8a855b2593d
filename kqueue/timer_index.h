// Answers for the loop's registry of timers, two lists side by side, what a walk along them
// would, in logarithmic time. Internal to the library.
//
// Threads    the caller holds `timersLock`.
// Ownership  of nothing but itself; an entry is to be removed before what it points to.
#pragma once

#include <cstdint>
#include <limits>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>

#include "kqueue/HXKQueueTimer.h"

namespace hxkqueue {

class TimerIndex {
public:
    // Where a timer stands in either list.
    struct Place {
        std::list<int32_t>::iterator ident;
        std::list<std::shared_ptr<HXKQueueTimer>>::iterator object;
    };

    // Identifiers run from 0 up to, and without, this one.
    static constexpr int32_t kIdentEnd = std::numeric_limits<int32_t>::max();

    // identEnd stands in for kIdentEnd where a test cannot wait for that.
    explicit TimerIndex(int32_t identEnd = kIdentEnd) noexcept : end(identEnd) {}

    // None when all are taken.
    [[nodiscard]] std::optional<int32_t> lowestFreeIdent() const noexcept;

    [[nodiscard]] bool isTaken(int32_t ident) const noexcept;

    // Takes the identifier for the timer. REQUIRES: it is the lowest free one. Throws
    // std::bad_alloc; nothing has changed then.
    void enter(const Place& place);

    // Frees the timer's identifier, and tells where the timer stands. None for a source that is
    // not an entered timer.
    [[nodiscard]] std::optional<Place> leave(const HXKQueueEventProtocol* object) noexcept;

private:
    // The node goes from freed to the timer that takes the identifier and back, so that nothing
    // is allocated when a timer leaves.
    using IdentNode = std::set<int32_t>::node_type;
    struct Entry {
        Place place;
        IdentNode ident;
    };

    [[nodiscard]] IdentNode takeLowestFree();

    const int32_t end;
    int32_t firstUnused = 0;  // neither it nor any above has been taken yet
    std::set<int32_t> freed;  // below firstUnused, taken once and free again
    std::unordered_map<const HXKQueueEventProtocol*, Entry> entries;
};

}  // namespace hxkqueue
