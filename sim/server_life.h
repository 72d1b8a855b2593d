// What happens to servers in time: completes every step that an inventory begins, some time after
// it has begun.
//
// Each step has a timer of its own. It outlives a step that is no longer wanted, because its server
// was removed or takes another course; the inventory then ignores the step.
//
// Threads    start: before the loop runs. answer: the loop's I/O thread.
// Ownership  the timers' blocks keep the life weakly, and the life its loop.
// Errors     a step whose timer cannot be made is completed at once. One whose timer the loop has
//            no memory to start, which the loop logs, is not completed.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kqueue/HXKQueue.h"
#include "sim/inventory.h"

class ServerLife : public std::enable_shared_from_this<ServerLife> {
public:
    // With a latency of 0 every step is completed at once.
    ServerLife(std::shared_ptr<Inventory> shared, uint32_t latencyMs);

    // Goes on with what the inventory has begun by itself. Once.
    void start(std::weak_ptr<HXKQueue> loopOfTimers) noexcept;

    // Answers a request, as answerRequest does, and goes on with what it has begun.
    [[nodiscard]] std::optional<std::string> answer(int32_t command, std::string_view payload);

private:
    void follow() noexcept;
    [[nodiscard]] bool completeLater(const Inventory::Step& step) noexcept;

    std::shared_ptr<Inventory> inventory;
    const uint32_t latencyMs;
    std::weak_ptr<HXKQueue> loop;
};
