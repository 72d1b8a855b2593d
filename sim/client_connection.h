// One client of the simulated daemon: cuts what it sends into requests and answers them in order.
//
// A frame that is too long, or whose payload is no JSON object, ends the connection; a length of 0
// is for lists only. So does a lack of memory to read one. Replies not sent by then are lost.
//
// Threads    the loop's I/O thread, which also is the only one to touch the inventory.
// Ownership  the source's event block owns the connection, and the source's stop drops the block.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "kqueue/HXKQueue.h"
#include "sim/server_life.h"

class ClientConnection {
public:
    // Takes over sock, a connected stream socket, and serves it on the loop. False when there is
    // no memory for it; sock is then left to the caller. Never throws.
    [[nodiscard]] static bool serve(const std::shared_ptr<HXKQueue>& loop,
                                    std::shared_ptr<ServerLife> servers, int sock) noexcept;

    ClientConnection(std::weak_ptr<HXKQueue> loopOfSource,
                     std::shared_ptr<ServerLife> sharedServers);

private:
    using Source = std::shared_ptr<HXKQueueEventProtocol>;

    void onEvent(const Source& source, std::string_view received, uint64_t* dropSize,
                 int32_t code) noexcept;
    [[nodiscard]] std::optional<uint64_t> answerAll(const Source& source,
                                                    std::string_view received);
    [[nodiscard]] bool answerOne(const Source& source, int32_t command, std::string_view payload);
    void end(const Source& source) noexcept;

    std::weak_ptr<HXKQueue> loop;
    std::shared_ptr<ServerLife> servers;
    bool ended = false;
};
