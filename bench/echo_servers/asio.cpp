// Boost.Asio with asynchronous operations, one after the other on every connection.

#define BOOST_ASIO_DISABLE_THREADS
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/write.hpp>

#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <exception>
#include <memory>

#include "bench/echo_servers/listener.h"

namespace {

namespace asio = boost::asio;
using Socket = asio::generic::stream_protocol::socket;

class Connection : public std::enable_shared_from_this<Connection> {
public:
    explicit Connection(Socket connected) : socket(std::move(connected)) {}

    void read() {
        socket.async_read_some(
            asio::buffer(buffer),
            [self = shared_from_this()](const boost::system::error_code& error, size_t count) {
                if (!error) self->write(count);
            });
    }

private:
    void write(size_t count) {
        asio::async_write(socket, asio::buffer(buffer, count),
                          [self = shared_from_this()](const boost::system::error_code& error,
                                                      size_t /*written*/) {
                              if (!error) self->read();
                          });
    }

    Socket socket;
    std::array<char, kReadSize> buffer;
};

// Asio's acceptor wants a protocol's own socket type; accepting is not what is measured.
template <typename Acceptor>
void acceptNext(Acceptor& acceptor) {
    acceptor.async_accept([&acceptor](const boost::system::error_code& error, auto socket) {
        if (!error) std::make_shared<Connection>(Socket(std::move(socket)))->read();
        acceptNext(acceptor);
    });
}

}  // namespace

int main(int argc, char** argv) try {
    const Endpoint endpoint = endpointFrom(argc, argv);
    asio::io_context context(1);
    const asio::generic::stream_protocol protocol(endpoint.isUnix ? AF_UNIX : AF_INET, 0);
    using Acceptor = asio::basic_socket_acceptor<asio::generic::stream_protocol>;
    Acceptor acceptor(context, protocol, listenOn(endpoint, false));
    acceptNext(acceptor);
    sayReady();
    context.run();
} catch (const std::exception& error) {
    std::fprintf(stderr, "asio: %s\n", error.what());
    return 1;
}
