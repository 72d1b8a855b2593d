// Tells when sources' blocks are gone: a block that has captured a token holds it until its source
// has been stopped, for a stop is what drops a block.
//
//     BlockTokens tokens;
//     loop->startObject(source, [token = tokens.issue()](auto&&...) { return true; });
//     loop->stopObject(source);
//     ASSERT_TRUE(tokens.waitUntilHeld(0));  // the stop has taken effect
//
// Threads    any.
// Ownership  tokens may outlive it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>

class BlockTokens {
public:
    // Whoever copies it holds the same token.
    [[nodiscard]] std::shared_ptr<const void> issue() {
        {
            const std::lock_guard guard(state->lock);
            ++state->held;
            if (state->held > state->mostHeld) state->mostHeld = state->held;
            ++state->issued;
        }
        state->changed.notify_all();
        return {nullptr, [state = state](const void* /*null*/) {
                    const std::lock_guard guard(state->lock);
                    --state->held;
                    state->changed.notify_all();
                }};
    }

    // Waits until no more than count tokens are held; false after a minute.
    [[nodiscard]] bool waitUntilHeld(size_t count) const {
        std::unique_lock guard(state->lock);
        return state->changed.wait_for(guard, std::chrono::minutes(1),
                                       [&] { return state->held <= count; });
    }

    // Waits until as many have been issued in all; false after a minute.
    [[nodiscard]] bool waitUntilIssued(size_t count) const {
        std::unique_lock guard(state->lock);
        return state->changed.wait_for(guard, std::chrono::minutes(1),
                                       [&] { return state->issued >= count; });
    }

    [[nodiscard]] size_t held() const {
        const std::lock_guard guard(state->lock);
        return state->held;
    }

    // The most that were held at one time.
    [[nodiscard]] size_t mostHeld() const {
        const std::lock_guard guard(state->lock);
        return state->mostHeld;
    }

    [[nodiscard]] size_t issued() const {
        const std::lock_guard guard(state->lock);
        return state->issued;
    }

private:
    struct State {
        std::mutex lock;  // a leaf: tokens are given back with the loop's lock held
        std::condition_variable changed;
        size_t held = 0;      // guarded by lock
        size_t mostHeld = 0;  // guarded by lock
        size_t issued = 0;    // guarded by lock
    };

    const std::shared_ptr<State> state = std::make_shared<State>();
};
