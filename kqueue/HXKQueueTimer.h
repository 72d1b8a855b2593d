// A timer as an event source: raises HXKQueueEventData, without bytes, whenever its period has
// passed, or once. Made by HXKQueue::createTimer.
//
// Threads    enableOnData: any. kevent: the I/O thread. stop: the I/O thread, or the thread that
//            stops the loop; never while kevent runs.
// Units      ms is a period in milliseconds, signed 32 bit. With 0 and less the timer fires once,
//            at once, and then stays silent.
// Ownership  the loop keeps the timer until its stop has run; a loop that is itself stopped keeps
//            it as long as it lives. The timer keeps the loop weakly.
// Errors     a registration that the kernel refuses arrives as an ordinary expiry. Expiries that
//            the kernel folds into one record raise one event. A block that there is no memory to
//            keep is logged, and the timer stays as it was.
#pragma once

#include <cstdint>
#include <memory>

#include "kqueue/HXKQueueEvent.h"
#include "kqueue/event_block_slot.h"
#include "platform/log.h"

class HXKQueue;

class HXKQueueTimer final : public HXKQueueEventProtocol {
    struct Private {
        explicit Private() = default;
    };

public:
    // Null when memory is short. ident names the timer to the kernel.
    [[nodiscard]] static std::shared_ptr<HXKQueueTimer> initWithIdent(
        int32_t ident, int32_t millisec, bool oneShot, std::weak_ptr<HXKQueue> parent,
        std::shared_ptr<const LogHandle> logger);

    HXKQueueTimer(Private /*only initWithIdent makes one*/, int32_t ident, int32_t millisec,
                  bool oneShot, std::weak_ptr<HXKQueue> parent,
                  std::shared_ptr<const LogHandle> logger) noexcept;

    // Arms the timer. Of one that is armed already, or has fired, the period starts afresh when
    // the I/O thread takes the change up.
    void enableOnData(HXKQueueEventBlock block) override;
    void kevent(const struct kevent* record) override;

    // Timers never send.
    void write(const char* /*bytes*/, uint64_t /*size*/) override {}

    // Removes the filter. The identifier is the loop's to give back.
    void stop() override;

private:
    void initEvent(struct kevent* event, int32_t data, uint16_t flags);
    void submit(int32_t data, uint16_t flags);

    std::weak_ptr<HXKQueue> parent;
    std::shared_ptr<const LogHandle> logger;
    const int32_t ident;
    const int32_t ms;
    const bool oneShot;
    hxkqueue::EventBlockSlot eventBlock;
};
