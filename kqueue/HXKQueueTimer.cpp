#include "kqueue/HXKQueueTimer.h"

#include <new>
#include <utility>

#include "kqueue/HXKQueue.h"

std::shared_ptr<HXKQueueTimer> HXKQueueTimer::initWithIdent(
    int32_t ident, int32_t millisec, bool oneShot, std::weak_ptr<HXKQueue> parent,
    std::shared_ptr<const LogHandle> logger) {
    try {
        return std::make_shared<HXKQueueTimer>(Private(), ident, millisec, oneShot,
                                               std::move(parent), std::move(logger));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

HXKQueueTimer::HXKQueueTimer(Private /*unused*/, int32_t ident_, int32_t millisec, bool oneShot_,
                             std::weak_ptr<HXKQueue> parent_,
                             std::shared_ptr<const LogHandle> logger_) noexcept
    : parent(std::move(parent_)),
      logger(std::move(logger_)),
      ident(ident_),
      ms(millisec),
      oneShot(oneShot_) {}

void HXKQueueTimer::enableOnData(HXKQueueEventBlock block) {
    try {
        eventBlock.store(std::move(block));
    } catch (const std::bad_alloc&) {
        logger->error("<%p>: cannot keep event block", static_cast<void*>(this));
        return;
    }
    submit(ms, oneShot ? EV_ADD | EV_ENABLE | EV_ONESHOT : EV_ADD | EV_ENABLE);
}

void HXKQueueTimer::kevent(const struct kevent* record) {
    if (record->filter != EVFILT_TIMER) return;
    eventBlock.call(shared_from_this(), nullptr, 0, nullptr, HXKQueueEventData);
}

void HXKQueueTimer::stop() {
    logger->debug("<%p>: stop timer #%d", static_cast<void*>(this), ident);
    submit(0, EV_DELETE);
    eventBlock.clear(parent);
}

// NOTE_BACKGROUND lets the kernel put the expiry together with others.
void HXKQueueTimer::initEvent(struct kevent* event, int32_t data, uint16_t flags) {
    EV_SET(event, ident, EVFILT_TIMER, flags, NOTE_BACKGROUND, data, this);
}

void HXKQueueTimer::submit(int32_t data, uint16_t flags) {
    struct kevent change;
    initEvent(&change, data, flags);
    if (const auto loop = parent.lock()) loop->submitChange(&change);
}
