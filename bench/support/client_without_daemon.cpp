#include "bench/support/client_without_daemon.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench/support/program.h"
#include "kqueue/HXKQueue.h"
#include "platform/socket_address.h"

std::shared_ptr<HXTarnIPCClient> makeClientWithoutDaemon() {
    char directory[] = "/tmp/hxusbvctl-bench-XXXXXX";
    if (mkdtemp(directory) == nullptr) fail("mkdtemp");
    const std::string path = std::string(directory) + "/socket";
    sockaddr_un address;
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (listener == -1 || !makeUnixAddress(path.c_str(), address) ||
        bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 ||
        listen(listener, 1) == -1)
        fail("listen on " + path);
    const auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
    auto client = loop ? HXTarnIPCClient::initWithKQueue(loop, path.c_str()) : nullptr;
    if (!client) fail("no client");
    close(listener);
    std::filesystem::remove_all(directory);
    return client;
}
