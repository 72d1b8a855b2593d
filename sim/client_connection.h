// One client of the simulated daemon: cuts what it sends into requests and answers them in order.
//
// A frame that is too long, or whose payload is no JSON object, ends the connection; a length of 0
// is for lists only. So does a lack of memory to read one. Replies not sent by then are lost. A
// client that ends its sending gets all that it asked for, but for what is being delayed on
// purpose.
//
// Threads    the loop's I/O thread, which also is the only one to touch the inventory.
// Ownership  the source's event block owns the connection, and the source's stop drops the block.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "kqueue/HXKQueue.h"
#include "sim/reply_manner.h"
#include "sim/reply_sender.h"
#include "sim/server_life.h"

class ClientConnection {
public:
    // Takes over sock, a connected stream socket, and serves it on the loop. False when there is
    // no memory for it; sock is then left to the caller. Never throws.
    [[nodiscard]] static bool serve(const std::shared_ptr<HXKQueue>& loop,
                                    std::shared_ptr<ServerLife> servers, const ReplyManner& manner,
                                    int sock) noexcept;

    ClientConnection(std::shared_ptr<ServerLife> sharedServers,
                     std::shared_ptr<ReplySender> ownSender);

private:
    void onEvent(std::string_view received, uint64_t* dropSize, int32_t code) noexcept;
    [[nodiscard]] std::optional<uint64_t> answerAll(std::string_view received);
    [[nodiscard]] bool answerOne(int32_t command, std::string_view payload);
    void onEnd() noexcept;
    void end() noexcept;

    std::shared_ptr<ServerLife> servers;
    std::shared_ptr<ReplySender> replies;
    bool ended = false;
};
