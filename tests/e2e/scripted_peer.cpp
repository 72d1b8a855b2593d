#include "tests/e2e/scripted_peer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>
#include <string_view>

#include "tests/e2e/control_path.h"
#include "tests/support/descriptors.h"

namespace {

constexpr int kPatienceMs = 60'000;

}  // namespace

ScriptedPeer::ScriptedPeer(int backlog) : listener(makeSocket(AF_UNIX, SOCK_STREAM)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string_view(kControlPath).copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(kControlPath);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, backlog) != 0) {
        close(listener);
        throw std::runtime_error("the scripted peer cannot listen");
    }
}

ScriptedPeer::~ScriptedPeer() {
    close(listener);
}

bool ScriptedPeer::isAwaited() const {
    return isAwaitedWithin(0);
}

UnixStream ScriptedPeer::accept() const {
    if (!isAwaitedWithin(kPatienceMs)) throw std::runtime_error("nobody connects");
    return UnixStream(acceptFrom(listener));
}

bool ScriptedPeer::isAwaitedWithin(int ms) const {
    pollfd waiting{.fd = listener, .events = POLLIN, .revents = 0};
    return poll(&waiting, 1, ms) == 1;
}
