#include "sim/reply_sender.h"

#include <exception>
#include <new>
#include <utility>

namespace {

// How often it is looked whether all is sent that is to be sent before the connection is closed.
constexpr uint32_t kDrainMs = 1;

}  // namespace

ReplySender::ReplySender(std::weak_ptr<HXKQueue> loopOfStream, const ReplyManner& mannerOfReplies)
    : loop(std::move(loopOfStream)), manner(mannerOfReplies) {}

void ReplySender::send(int32_t command, std::string_view payload) {
    std::vector<char> bytes = manner.shape(command, payload);
    closing = manner.closes;
    if (manner.pace == Pace::AtOnce) {
        write(bytes.data(), bytes.size());
        if (closing) startTimer();
    } else {
        waiting.push_back(std::move(bytes));
        if (waiting.size() == 1) startTimer();
    }
}

void ReplySender::closeOnceSent() noexcept {
    forgetWaiting();
    if (isAllTaken()) return close();
    closing = true;
    try {
        if (const auto target = stream.lock()) target->pauseReading();
        startTimer();
    } catch (const std::exception&) {
        close();
    }
}

void ReplySender::close() noexcept {
    closing = true;
    forgetWaiting();
    if (const auto running = loop.lock()) running->stopObject(stream.lock());
}

void ReplySender::forgetWaiting() noexcept {
    waiting.clear();
    sentOfFirst = 0;
    const auto running = loop.lock();
    if (running && timer) running->stopObject(timer);
    timer = nullptr;
}

void ReplySender::startTimer() {
    const auto running = loop.lock();
    if (!running) return;
    HXKQueueEventBlock block = [sender = weak_from_this()](auto&&...) {
        if (const auto living = sender.lock()) living->onTimer();
        return true;
    };
    if (!timer) timer = running->createTimer(closing ? kDrainMs : manner.delayMs, true);
    if (!timer) throw std::bad_alloc();
    running->startObject(timer, std::move(block));
}

void ReplySender::onTimer() {
    if (!timer) return;  // stopped while it fired
    try {
        if (isAllTaken()) sendPiece();
        if (closing && waiting.empty() && isAllTaken()) return close();
        if (closing || !waiting.empty()) startTimer();
    } catch (const std::exception&) {
        close();
    }
}

void ReplySender::sendPiece() {
    if (waiting.empty()) return;
    const std::vector<char>& first = waiting.front();
    const size_t size = manner.pace == Pace::SingleBytes ? 1 : first.size();
    write(first.data() + sentOfFirst, size);
    sentOfFirst += size;
    if (sentOfFirst < first.size()) return;
    waiting.pop_front();
    sentOfFirst = 0;
}

void ReplySender::write(const char* bytes, size_t size) {
    if (const auto running = loop.lock()) running->write(stream.lock(), bytes, size);
}

bool ReplySender::isAllTaken() const {
    const auto target = stream.lock();
    return !target || target->pendingBytes() == 0;
}
