#include "tests/kqueue/event_recorder.h"

#include <algorithm>
#include <chrono>

HXKQueueEventBlock EventRecorder::block(Reaction reaction) {
    return [state = state, reaction = std::move(reaction)](
               const std::shared_ptr<HXKQueueEventProtocol>& source, const char* bytes,
               uint64_t size, uint64_t* dropSize, int32_t code) {
        RecordedEvent event;
        event.source = source;
        event.code = code;
        event.hadBytes = bytes != nullptr;
        if (bytes) event.bytes.assign(bytes, size);
        event.size = size;
        event.hadDropSize = dropSize != nullptr;
        event.presetDropSize = dropSize ? *dropSize : 0;
        event.thread = std::this_thread::get_id();
        {
            const std::lock_guard guard(state->lock);
            state->events.push_back(event);
        }
        const bool answer = !reaction || reaction(event, dropSize);
        state->changed.notify_all();
        return answer;
    };
}

HXKQueueEventBlock EventRecorder::dropping(uint64_t count) {
    return block([count](const RecordedEvent& /*event*/, uint64_t* dropSize) {
        if (dropSize) *dropSize = count;
        return true;
    });
}

HXKQueueEventBlock EventRecorder::answering(bool answer) {
    return block(
        [answer](const RecordedEvent& /*event*/, uint64_t* /*dropSize*/) { return answer; });
}

bool EventRecorder::waitUntil(const std::function<bool()>& holds) const {
    std::unique_lock guard(state->lock);
    return state->changed.wait_for(guard, std::chrono::seconds(20), holds);
}

bool EventRecorder::waitFor(int32_t code, size_t count) {
    return waitUntil([&] { return state->countUnlocked(code) >= count; });
}

bool EventRecorder::waitForBytes(size_t size) {
    return waitUntil([&] {
        size_t total = 0;
        for (const RecordedEvent& event : state->events)
            if (event.code == HXKQueueEventData) total += event.bytes.size();
        return total >= size || state->countUnlocked(HXKQueueEventTerminated) > 0;
    });
}

std::vector<RecordedEvent> EventRecorder::all() const {
    const std::lock_guard guard(state->lock);
    return state->events;
}

std::vector<int32_t> EventRecorder::codes() const {
    std::vector<int32_t> codes;
    for (const RecordedEvent& event : all())
        codes.push_back(event.code);
    return codes;
}

size_t EventRecorder::count(int32_t code) const {
    const std::lock_guard guard(state->lock);
    return state->countUnlocked(code);
}

RecordedEvent EventRecorder::last() const {
    const std::lock_guard guard(state->lock);
    return state->events.empty() ? RecordedEvent() : state->events.back();
}

std::string EventRecorder::allBytes() const {
    std::string bytes;
    for (const RecordedEvent& event : all())
        if (event.code == HXKQueueEventData) bytes += event.bytes;
    return bytes;
}

size_t EventRecorder::State::countUnlocked(int32_t code) const {
    return static_cast<size_t>(
        std::count_if(events.begin(), events.end(),
                      [&](const RecordedEvent& event) { return event.code == code; }));
}
