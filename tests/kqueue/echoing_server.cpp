#include "tests/kqueue/echoing_server.h"

#include "kqueue/HXKQueueAcceptedConnection.h"
#include "kqueue/HXKQueueStreamSocket.h"

HXKQueueEventBlock echoing(HXKQueue& loop, BlockTokens& tokens) {
    return [&loop, token = tokens.issue()](const auto& source, const char* bytes, uint64_t size,
                                           auto* /*dropSize*/, int32_t code) {
        if (code == HXKQueueEventData) loop.write(source, bytes, size);
        if (code == HXKQueueEventTerminated) loop.stopObject(source);
        return true;
    };
}

HXKQueueEventBlock echoingServer(HXKQueue& loop, BlockTokens& tokens) {
    return [&loop, &tokens](const auto& /*server*/, const char* bytes, auto /*size*/,
                            auto* /*dropSize*/, int32_t /*code*/) {
        const auto* accepted = reinterpret_cast<const HXKQueueAcceptedConnection*>(bytes);
        loop.startObject(loop.createStreamSocket(accepted->sock, true), echoing(loop, tokens));
        return true;
    };
}
