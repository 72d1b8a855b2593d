// What the two listening servers have in common, as a part of each. Internal to the library.
//
// Threads    as the server's operation that calls it.
// Ownership  owns sock from the moment the server stores it.
#pragma once

#include <cstdint>
#include <memory>

#include "kqueue/HXKQueueEvent.h"
#include "kqueue/event_block_slot.h"
#include "platform/log.h"

class HXKQueue;
struct HXKQueueAcceptedConnection;

namespace hxkqueue {

class ListeningSocket {
public:
    static constexpr int kBacklog = 128;

    ListeningSocket(std::weak_ptr<HXKQueue> parent,
                    std::shared_ptr<const LogHandle> logger) noexcept;

    // Keeps the block and registers sock for reading on behalf of server.
    void enable(HXKQueueEventProtocol* server, HXKQueueEventBlock block);

    // Offers the connection to the owner, and closes it when the owner declines.
    void offer(const std::shared_ptr<HXKQueueEventProtocol>& server,
               const HXKQueueAcceptedConnection& connection) const;

    void stop(HXKQueueEventProtocol* server);

    // Shuts a connection down in both directions and closes it.
    static void hangUp(int connection) noexcept;

    std::weak_ptr<HXKQueue> parent;
    std::shared_ptr<const LogHandle> logger;
    int32_t sock = -1;
    EventBlockSlot eventBlock;

private:
    void submitReadEvent(HXKQueueEventProtocol* server, uint16_t flags) const;
};

}  // namespace hxkqueue
