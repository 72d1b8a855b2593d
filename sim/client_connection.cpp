#include "sim/client_connection.h"

#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "ipc/frame.h"
#include "kqueue/HXKQueueStreamSocket.h"

bool ClientConnection::serve(const std::shared_ptr<HXKQueue>& loop,
                             std::shared_ptr<ServerLife> servers, const ReplyManner& manner,
                             int sock) noexcept {
    try {
        const auto replies = std::make_shared<ReplySender>(loop, manner);
        HXKQueueEventBlock block =
            [client = std::make_shared<ClientConnection>(std::move(servers), replies)](
                const auto& /*source*/, const char* bytes, uint64_t size, uint64_t* dropSize,
                int32_t code) {
                client->onEvent({bytes, size}, dropSize, code);
                return true;
            };
        const auto stream = loop->createStreamSocket(sock, true);
        if (!stream) return false;
        replies->attach(stream);
        loop->startObject(stream, std::move(block));
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

ClientConnection::ClientConnection(std::shared_ptr<ServerLife> sharedServers,
                                   std::shared_ptr<ReplySender> ownSender)
    : servers(std::move(sharedServers)), replies(std::move(ownSender)) {}

void ClientConnection::onEvent(std::string_view received, uint64_t* dropSize,
                               int32_t code) noexcept {
    if (code == HXKQueueEventTerminated) return onEnd();
    if (code != HXKQueueEventData || ended) return;
    try {
        if (const std::optional<uint64_t> consumed = answerAll(received))
            *dropSize = *consumed;
        else
            end();
    } catch (const std::exception&) {
        end();
    }
}

// The number of bytes that whole frames took up, or none when a frame was malformed. Nothing that
// follows the last reply is looked at.
std::optional<uint64_t> ClientConnection::answerAll(std::string_view received) {
    std::string_view rest = received;
    while (rest.size() >= kFrameHeaderSize) {
        if (replies->isClosing()) return received.size();
        const FrameHeader header = readFrameHeader(rest.data());
        if (header.length > kMaxPayloadLength) return std::nullopt;
        const size_t frameSize = kFrameHeaderSize + header.length;
        if (rest.size() < frameSize) break;
        const std::string_view payload = rest.substr(kFrameHeaderSize, header.length);
        if (!answerOne(header.command, payload)) return std::nullopt;
        rest.remove_prefix(frameSize);
    }
    return received.size() - rest.size();
}

bool ClientConnection::answerOne(int32_t command, std::string_view payload) {
    const std::optional<std::string> reply = servers->answer(command, payload);
    if (reply) replies->send(command, *reply);
    return reply.has_value();
}

// The first end may be that of the client's sending only. One that is told although nothing is read
// any more is that of the replies.
void ClientConnection::onEnd() noexcept {
    if (std::exchange(ended, true))
        replies->close();
    else
        replies->closeOnceSent();
}

void ClientConnection::end() noexcept {
    ended = true;
    replies->close();
}
