#include "sim/server_life.h"

#include <new>
#include <utility>

#include "kqueue/HXKQueueTimer.h"
#include "sim/request_handler.h"

ServerLife::ServerLife(std::shared_ptr<Inventory> shared, uint32_t latency)
    : inventory(std::move(shared)), latencyMs(latency) {}

void ServerLife::start(std::weak_ptr<HXKQueue> loopOfTimers) noexcept {
    loop = std::move(loopOfTimers);
    follow();
}

std::optional<std::string> ServerLife::answer(int32_t command, std::string_view payload) {
    try {
        std::optional<std::string> reply = answerRequest(*inventory, command, payload);
        follow();
        return reply;
    } catch (...) {
        follow();  // what the request has begun goes on, though nobody is told
        throw;
    }
}

void ServerLife::follow() noexcept {
    while (const std::optional<Inventory::Step> step = inventory->takeBegunStep())
        if (!completeLater(*step)) inventory->advance(*step);
}

bool ServerLife::completeLater(const Inventory::Step& step) noexcept {
    const auto running = loop.lock();
    if (latencyMs == 0 || !running) return false;
    try {
        HXKQueueEventBlock block = [life = weak_from_this(), step](const auto& timer, auto...) {
            const auto living = life.lock();
            if (!living) return true;
            if (const auto current = living->loop.lock()) current->stopObject(timer);
            living->inventory->advance(step);
            living->follow();
            return true;
        };
        const auto timer = running->createTimer(latencyMs, true);
        if (timer) running->startObject(timer, std::move(block));
        return timer != nullptr;
    } catch (const std::bad_alloc&) {
        return false;
    }
}
