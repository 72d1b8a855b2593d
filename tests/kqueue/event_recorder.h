// An owner for event sources that writes down what it is told.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kqueue/HXKQueueEvent.h"

struct RecordedEvent {
    std::shared_ptr<HXKQueueEventProtocol> source;
    int32_t code = -1;
    std::string bytes;
    bool hadBytes = false;
    uint64_t size = 0;
    bool hadDropSize = false;
    uint64_t presetDropSize = 0;
    std::thread::id thread;
};

// Its blocks may outlive it.
class EventRecorder {
public:
    // What the block does with the bytes and answers, after the event is written down.
    using Reaction = std::function<bool(const RecordedEvent& event, uint64_t* dropSize)>;

    HXKQueueEventBlock block(Reaction reaction = nullptr);
    HXKQueueEventBlock dropping(uint64_t count);  // of every delivery that has a drop count
    HXKQueueEventBlock answering(bool answer);

    // Waits until count events of the code have come; false after twenty seconds.
    bool waitFor(int32_t code, size_t count = 1);
    // Waits until the bytes of all data events together hold size bytes, or a stream has ended.
    bool waitForBytes(size_t size);

    [[nodiscard]] std::vector<RecordedEvent> all() const;
    [[nodiscard]] std::vector<int32_t> codes() const;
    [[nodiscard]] size_t count(int32_t code) const;
    [[nodiscard]] RecordedEvent last() const;
    [[nodiscard]] std::string allBytes() const;

private:
    struct State {
        [[nodiscard]] size_t countUnlocked(int32_t code) const;

        std::mutex lock;
        std::condition_variable changed;
        std::vector<RecordedEvent> events;  // guarded by lock
    };

    bool waitUntil(const std::function<bool()>& holds) const;

    const std::shared_ptr<State> state = std::make_shared<State>();
};
