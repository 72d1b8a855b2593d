// Where the server of a test listens.
#pragma once

#include <sys/socket.h>

#include <memory>

#include "kqueue/HXKQueue.h"
#include "tests/kqueue/loop_fixture.h"

class Endpoint {
public:
    Endpoint() = default;
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;
    virtual ~Endpoint() = default;

    [[nodiscard]] virtual std::shared_ptr<HXKQueueEventProtocol> listenOn(HXKQueue& loop) const = 0;
    // Connected or connecting.
    [[nodiscard]] virtual std::shared_ptr<HXKQueueEventProtocol> connectOn(
        HXKQueue& loop) const = 0;

    struct sockaddr_storage address = {};
};

class UnixEndpoint final : public Endpoint {
public:
    UnixEndpoint();
    [[nodiscard]] std::shared_ptr<HXKQueueEventProtocol> listenOn(HXKQueue& loop) const override;
    [[nodiscard]] std::shared_ptr<HXKQueueEventProtocol> connectOn(HXKQueue& loop) const override;

private:
    TemporaryDirectory directory;
    std::string path = directory.file("socket");
};

// Another socket keeps the port, without listening, until the end.
class TcpEndpoint final : public Endpoint {
public:
    TcpEndpoint();
    ~TcpEndpoint() override;
    [[nodiscard]] std::shared_ptr<HXKQueueEventProtocol> listenOn(HXKQueue& loop) const override;
    [[nodiscard]] std::shared_ptr<HXKQueueEventProtocol> connectOn(HXKQueue& loop) const override;

private:
    const int holder;
};
