// The floor: nothing but epoll, one read and one write a message.

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "bench/echo_servers/listener.h"

namespace {

constexpr int kEventsAtOnce = 1000;

struct Connection {
    int sock;
    std::vector<char> unsent;  // while not empty, writing is waited for and reading is not
};

class Server {
public:
    explicit Server(int listeningSocket) : listener(listeningSocket) {
        watch(EPOLL_CTL_ADD, listener, EPOLLIN, nullptr);
    }

    [[noreturn]] void run() {
        std::vector<epoll_event> events(kEventsAtOnce);
        for (;;) {
            const int count = epoll_wait(queue, events.data(), kEventsAtOnce, -1);
            for (int i = 0; i < count; ++i)
                handle(static_cast<Connection*>(events[static_cast<size_t>(i)].data.ptr));
        }
    }

private:
    void watch(int operation, int fd, uint32_t events, Connection* connection) const {
        epoll_event event{.events = events, .data = {.ptr = connection}};
        epoll_ctl(queue, operation, fd, &event);
    }

    void handle(Connection* connection) {
        if (connection == nullptr)
            accept();
        else if (!(connection->unsent.empty() ? echo(*connection) : sendRest(*connection)))
            drop(connection);
    }

    void accept() {
        const int sock = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
        if (sock != -1)
            watch(EPOLL_CTL_ADD, sock, EPOLLIN, new Connection{.sock = sock, .unsent = {}});
    }

    bool echo(Connection& connection) {
        const ssize_t count = read(connection.sock, buffer.data(), buffer.size());
        if (count <= 0) return count == -1 && errno == EAGAIN;
        const ssize_t sent = write(connection.sock, buffer.data(), static_cast<size_t>(count));
        if (sent == -1 && errno != EAGAIN) return false;
        if (sent == count) return true;
        connection.unsent.assign(buffer.data() + (sent > 0 ? sent : 0), buffer.data() + count);
        watch(EPOLL_CTL_MOD, connection.sock, EPOLLOUT, &connection);
        return true;
    }

    bool sendRest(Connection& connection) const {
        auto& unsent = connection.unsent;
        const ssize_t sent = write(connection.sock, unsent.data(), unsent.size());
        if (sent == -1) return errno == EAGAIN;
        unsent.erase(unsent.begin(), unsent.begin() + sent);
        if (unsent.empty()) watch(EPOLL_CTL_MOD, connection.sock, EPOLLIN, &connection);
        return true;
    }

    static void drop(Connection* connection) {
        close(connection->sock);
        delete connection;
    }

    const int listener;
    const int queue = epoll_create1(0);
    std::vector<char> buffer = std::vector<char>(kReadSize);
};

}  // namespace

int main(int argc, char** argv) {
    Server server(listenOn(endpointFrom(argc, argv), false));
    sayReady();
    server.run();
}
