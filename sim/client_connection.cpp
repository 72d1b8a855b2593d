#include "sim/client_connection.h"

#include <exception>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ipc/frame.h"
#include "kqueue/HXKQueueStreamSocket.h"

bool ClientConnection::serve(const std::shared_ptr<HXKQueue>& loop,
                             std::shared_ptr<ServerLife> servers, int sock) noexcept {
    try {
        HXKQueueEventBlock block =
            [client = std::make_shared<ClientConnection>(loop, std::move(servers))](
                const Source& source, const char* bytes, uint64_t size, uint64_t* dropSize,
                int32_t code) {
                client->onEvent(source, {bytes, size}, dropSize, code);
                return true;
            };
        const auto stream = loop->createStreamSocket(sock, true);
        if (stream) loop->startObject(stream, std::move(block));
        return stream != nullptr;
    } catch (const std::exception&) {
        return false;
    }
}

ClientConnection::ClientConnection(std::weak_ptr<HXKQueue> loopOfSource,
                                   std::shared_ptr<ServerLife> sharedServers)
    : loop(std::move(loopOfSource)), servers(std::move(sharedServers)) {}

void ClientConnection::onEvent(const Source& source, std::string_view received, uint64_t* dropSize,
                               int32_t code) noexcept {
    if (ended) return;
    if (code == HXKQueueEventTerminated) end(source);
    if (code != HXKQueueEventData) return;
    try {
        if (const std::optional<uint64_t> consumed = answerAll(source, received))
            *dropSize = *consumed;
        else
            end(source);
    } catch (const std::exception&) {
        end(source);
    }
}

// The number of bytes that whole frames took up, or none when a frame was malformed.
std::optional<uint64_t> ClientConnection::answerAll(const Source& source,
                                                    std::string_view received) {
    std::string_view rest = received;
    while (rest.size() >= kFrameHeaderSize) {
        const FrameHeader header = readFrameHeader(rest.data());
        if (header.length > kMaxPayloadLength) return std::nullopt;
        const size_t frameSize = kFrameHeaderSize + header.length;
        if (rest.size() < frameSize) break;
        const std::string_view payload = rest.substr(kFrameHeaderSize, header.length);
        if (!answerOne(source, header.command, payload)) return std::nullopt;
        rest.remove_prefix(frameSize);
    }
    return received.size() - rest.size();
}

bool ClientConnection::answerOne(const Source& source, int32_t command, std::string_view payload) {
    const std::optional<std::string> reply = servers->answer(command, payload);
    if (!reply) return false;
    const std::vector<char> frame = makeFrame(command, *reply);
    if (const auto running = loop.lock()) running->write(source, frame.data(), frame.size());
    return true;
}

void ClientConnection::end(const Source& source) noexcept {
    ended = true;
    if (const auto running = loop.lock()) running->stopObject(source);
}
