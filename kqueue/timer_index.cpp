#include "kqueue/timer_index.h"

#include <utility>

namespace hxkqueue {

std::optional<int32_t> TimerIndex::lowestFreeIdent() const noexcept {
    if (!freed.empty()) return *freed.begin();
    if (firstUnused == end) return std::nullopt;
    return firstUnused;
}

bool TimerIndex::isTaken(int32_t ident) const noexcept {
    return ident >= 0 && ident < firstUnused && !freed.contains(ident);
}

void TimerIndex::enter(const Place& place) {
    Entry& entry = entries[place.object->get()];
    try {
        entry = {.place = place, .ident = takeLowestFree()};
    } catch (...) {
        entries.erase(place.object->get());
        throw;
    }
}

std::optional<TimerIndex::Place> TimerIndex::leave(const HXKQueueEventProtocol* object) noexcept {
    auto entry = entries.extract(object);
    if (entry.empty()) return std::nullopt;
    freed.insert(std::move(entry.mapped().ident));
    return entry.mapped().place;
}

TimerIndex::IdentNode TimerIndex::takeLowestFree() {
    if (freed.empty()) {
        freed.insert(firstUnused);
        ++firstUnused;
    }
    return freed.extract(freed.begin());
}

}  // namespace hxkqueue
