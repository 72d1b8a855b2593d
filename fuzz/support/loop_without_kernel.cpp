#include "fuzz/support/loop_without_kernel.h"

#include <utility>

#include "fuzz/support/oracle.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueUnixClient.h"
#include "kqueue/timer_index.h"
#include "platform/park.h"
#include "platform/thread.h"

LoopLog& loopLog() {
    static LoopLog log;
    return log;
}

std::shared_ptr<HXKQueue> loopWithoutKernel() {
    return HXKQueue::initWithSubsystem(nullptr);
}

std::shared_ptr<HXKQueue> HXKQueue::initWithSubsystem(const char* /*subsystem*/) {
    return std::make_shared<HXKQueue>(Private());
}

HXKQueue::HXKQueue(Private /*unused*/) noexcept : logger(logCreate("org.example", "kqueue")) {}

HXKQueue::~HXKQueue() = default;

void HXKQueue::start() {}

std::shared_ptr<HXKQueueUnixClient> HXKQueue::createUnixClient(const char* /*path*/) {
    return HXKQueueUnixClient::initWithParent(weak_from_this(), logger);
}

std::shared_ptr<HXKQueueStreamSocket> HXKQueue::createStreamSocket(int sock, bool closeOnStop) {
    return HXKQueueStreamSocket::initWithSocket(sock, closeOnStop, weak_from_this(), logger);
}

std::shared_ptr<HXKQueueTimer> HXKQueue::createTimer(uint64_t /*ms*/, bool /*oneShot*/) {
    refute("nothing here takes time");
}

// A source that is connected says so at once.
void HXKQueue::startObject(const std::shared_ptr<HXKQueueEventProtocol>& object,
                           HXKQueueEventBlock onEvent) {
    loopLog().source = object;
    loopLog().block = std::move(onEvent);
    loopLog().block(object, nullptr, 0, nullptr, HXKQueueEventConnected);
}

bool HXKQueue::write(const std::shared_ptr<HXKQueueEventProtocol>& object, const char* buffer,
                     uint64_t size) {
    if (object) loopLog().written.append(buffer, size);
    return true;
}

void HXKQueue::stopObject(const std::shared_ptr<HXKQueueEventProtocol>& /*object*/) {
    loopLog().stopped = true;
}

void HXKQueue::submitChange(const struct kevent* /*change*/) {
    refute("no source is armed");
}

void HXKQueue::dropUnlocked(std::shared_ptr<const HXKQueueEventBlock> block) noexcept {
    block.reset();
}

void parkMainThread() {
    if (const auto happens = std::exchange(loopLog().whileParked, nullptr)) happens();
}
