#include "sim/daemon.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <new>
#include <utility>

#include "kqueue/HXKQueueAcceptedConnection.h"
#include "kqueue/HXKQueueTimer.h"
#include "kqueue/HXKQueueUnixServer.h"
#include "platform/socket_address.h"
#include "sim/client_connection.h"
#include "sim/device_traffic.h"
#include "sim/server_life.h"

namespace {

constexpr uint16_t kEverybody = 0666;
constexpr const char* kSubsystem = "org.hxusbvctl.sim.usb.virt.ctl";

// What a connect to the path runs into: 0 when somebody takes the connection. It does not wait
// for a daemon whose backlog is full: Linux tells that by EAGAIN, macOS does not tell it from a
// file that nobody listens on.
int connectError(const sockaddr_un& address) {
    const int probe = socket(AF_UNIX, SOCK_STREAM, 0);
    if (probe == -1) return errno;
    const bool connected =
        fcntl(probe, F_SETFL, O_NONBLOCK) == 0 &&
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int failure = connected ? 0 : errno;
    close(probe);
    return failure;
}

// Whether the path is free, or holds a socket file that nobody listens on.
bool mayTake(const std::string& path, std::string& error) {
    sockaddr_un address;
    if (!makeUnixAddress(path.c_str(), address)) {
        error = "the socket path must be 1 to " + std::to_string(kMaxUnixPath) + " bytes long";
        return false;
    }
    struct stat file {};
    if (lstat(path.c_str(), &file) == -1) {
        if (errno == ENOENT) return true;
        error = "cannot look at " + path + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISSOCK(file.st_mode)) {
        error = path + " exists and is no socket";
        return false;
    }
    const int failure = connectError(address);
    if (failure == ECONNREFUSED || failure == ENOENT) return true;
    error = failure == 0 || failure == EAGAIN ? "a daemon is already listening on " + path
                                              : "cannot tell whether a daemon is listening on " +
                                                    path + ": " + std::strerror(failure);
    return false;
}

std::string reasonNotToListen(const std::string& path) {
    std::filesystem::path directory = std::filesystem::path(path).parent_path();
    if (directory.empty()) directory = ".";
    if (access(directory.c_str(), W_OK | X_OK) == 0) return "";
    return ": " + directory.string() + ": " + std::strerror(errno);
}

}  // namespace

std::unique_ptr<Daemon> Daemon::start(const std::string& path, Inventory inventory,
                                      const Behaviour& behaviour, std::string& error) {
    if (!mayTake(path, error)) return nullptr;
    auto daemon = std::make_unique<Daemon>(Private(), path, std::move(inventory), behaviour);
    return daemon->listen(error) ? std::move(daemon) : nullptr;
}

Daemon::Daemon(Private /*unused*/, std::string socketPath, Inventory initialInventory,
               const Behaviour& wantedBehaviour)
    : path(std::move(socketPath)),
      behaviour(wantedBehaviour),
      inventory(std::make_shared<Inventory>(std::move(initialInventory))) {}

Daemon::~Daemon() {
    stop();
}

void Daemon::stop() {
    if (!loop) return;
    loop->stop();
    loop = nullptr;
    if (isSocketFileOurs()) unlink(path.c_str());
}

bool Daemon::listen(std::string& error) {
    const auto servers = std::make_shared<ServerLife>(inventory, behaviour.latencyMs);
    loop = HXKQueue::initWithSubsystem(kSubsystem);
    if (!loop) {
        error = "cannot make an event loop";
        return false;
    }
    servers->start(loop);
    const bool trafficStarted = startDeviceTraffic();
    loop->start();  // also before a failure: a loop that never ran cannot be stopped
    if (!trafficStarted) {
        error = "cannot make a timer";
        return false;
    }
    const auto server = loop->createUnixServer(path.c_str(), kEverybody);
    if (!server) {
        error = "cannot listen on " + path + reasonNotToListen(path);
        return false;
    }
    struct stat file {};
    if (lstat(path.c_str(), &file) == 0) {
        socketDevice = file.st_dev;
        socketInode = file.st_ino;
    }
    loop->startObject(server, [weakLoop = std::weak_ptr(loop), servers, manner = behaviour.manner](
                                  const auto& /*source*/, const char* bytes, uint64_t /*size*/,
                                  uint64_t* /*dropSize*/, int32_t /*code*/) {
        const auto* accepted = reinterpret_cast<const HXKQueueAcceptedConnection*>(bytes);
        const auto running = weakLoop.lock();
        return running && ClientConnection::serve(running, servers, manner, accepted->sock);
    });
    return true;
}

bool Daemon::startDeviceTraffic() noexcept {
    if (!behaviour.eventsMs) return true;
    try {
        HXKQueueEventBlock block = [shared = inventory, traffic = std::make_shared<DeviceTraffic>(
                                                            behaviour.seed)](auto&&...) {
            traffic->happen(*shared);
            return true;
        };
        const auto timer = loop->createTimer(*behaviour.eventsMs, false);
        if (timer) loop->startObject(timer, std::move(block));
        return timer != nullptr;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool Daemon::isSocketFileOurs() const {
    struct stat file {};
    return lstat(path.c_str(), &file) == 0 && file.st_dev == socketDevice &&
           file.st_ino == socketInode;
}
