#include "kqueue/event_block_slot.h"

#include "kqueue/HXKQueue.h"

namespace hxkqueue {

void EventBlockSlot::clear(const std::weak_ptr<HXKQueue>& loop) noexcept {
    auto block = take();
    if (const auto running = loop.lock()) running->dropUnlocked(std::move(block));
}

}  // namespace hxkqueue
