// Where the server of a test listens.
#pragma once

#include <sys/socket.h>

#include <array>
#include <memory>
#include <ostream>

#include "kqueue/HXKQueue.h"
#include "tests/kqueue/held_port.h"
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

    // A client without a loop.
    [[nodiscard]] int connectedSocket() const;

    struct sockaddr_storage address = {};
    socklen_t length = 0;
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

class TcpEndpoint final : public Endpoint {
public:
    TcpEndpoint();
    [[nodiscard]] std::shared_ptr<HXKQueueEventProtocol> listenOn(HXKQueue& loop) const override;
    [[nodiscard]] std::shared_ptr<HXKQueueEventProtocol> connectOn(HXKQueue& loop) const override;

private:
    HeldPort port;
};

// Each of them as a parameter of tests.
struct Transport {
    const char* name;
    std::unique_ptr<Endpoint> (*makeEndpoint)();

    // How the list of tests shows it.
    friend void PrintTo(const Transport& transport, std::ostream* out) { *out << transport.name; }
};

template <typename Kind>
std::unique_ptr<Endpoint> makeEndpoint() {
    return std::make_unique<Kind>();
}

inline constexpr std::array kTransports{Transport{"Unix", makeEndpoint<UnixEndpoint>},
                                        Transport{"Tcp", makeEndpoint<TcpEndpoint>}};
