// Where a source keeps its owner's block. Internal to the library.
//
// An owner may hand in a new block while the I/O thread runs the old one, so each call keeps the
// block it began with alive.
//
// Threads    any. The lock is never held while a block runs.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "kqueue/HXKQueueEvent.h"

class HXKQueue;

namespace hxkqueue {

class EventBlockSlot {
public:
    // Throws std::bad_alloc; the earlier block then stays, and block is the caller's still.
    void store(HXKQueueEventBlock&& block) {
        replace(std::make_shared<const HXKQueueEventBlock>(std::move(block)));
    }

    // Leaves no block; the earlier one is the caller's, to let go where that harms nobody.
    [[nodiscard]] std::shared_ptr<const HXKQueueEventBlock> take() noexcept {
        return replace(nullptr);
    }

    // Leaves no block, in a source's stop: lets loop, if it still exists, drop the earlier one once
    // its lock is released.
    void clear(const std::weak_ptr<HXKQueue>& loop) noexcept;

    // False without a block.
    bool call(const std::shared_ptr<HXKQueueEventProtocol>& source, const char* bytes,
              uint64_t size, uint64_t* dropSize, int32_t code) const {
        const std::shared_ptr<const HXKQueueEventBlock> block = current();
        return block && *block && (*block)(source, bytes, size, dropSize, code);
    }

private:
    std::shared_ptr<const HXKQueueEventBlock> current() const {
        const std::lock_guard guard(lock);
        return installed;
    }

    // Returns the earlier block, which thus outlives the hold of the lock.
    std::shared_ptr<const HXKQueueEventBlock> replace(
        std::shared_ptr<const HXKQueueEventBlock> block) noexcept {
        const std::lock_guard guard(lock);
        installed.swap(block);
        return block;
    }

    mutable std::mutex lock;
    std::shared_ptr<const HXKQueueEventBlock> installed;  // guarded by lock
};

}  // namespace hxkqueue
