#include <fcntl.h>
#include <netinet/in.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "kqueue/HXKQueueTCPServer.h"
#include "kqueue/HXKQueueUnixServer.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/kqueue/scripted_kernel.h"

namespace {

using Change = ScriptedKernel::Change;

class UnixServerAndKernel : public LoopTest {
protected:
    UnixServerAndKernel() {
        kernel.reset();
        server = loop->createUnixServer(directory.file("socket").c_str(), 0600);
        loop->startObject(server, events.answering(false));
        kernel.settle();
        const auto changes = kernel.changes();
        EXPECT_EQ(changes.size(), 1U);
        if (!changes.empty()) listener = changes.front();
        EXPECT_EQ(listener.filter, EVFILT_READ);
        EXPECT_EQ(listener.flags, EV_ADD | EV_ENABLE);
        kernel.reset();
    }
    ~UnixServerAndKernel() override {
        stopLoop();
        for (const int client : clients)
            close(client);
    }

    void connectClient() {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, directory.file("socket").c_str(),
                     sizeof address.sun_path - 1);
        clients.push_back(socket(AF_UNIX, SOCK_STREAM, 0));
        ASSERT_EQ(
            connect(clients.back(), reinterpret_cast<struct sockaddr*>(&address), sizeof address),
            0);
    }

    void report(int filter, int64_t data, int flags = 0) {
        struct kevent record;
        EV_SET(&record, listener.ident, static_cast<int16_t>(filter), flags, 0, data,
               static_cast<void*>(server.get()));
        kernel.deliver({record});
        kernel.settle();
    }

    ScriptedKernel& kernel = ScriptedKernel::instance();
    TemporaryDirectory directory;
    EventRecorder events;
    std::shared_ptr<HXKQueueUnixServer> server;
    Change listener{};
    std::vector<int> clients;
};

TEST_F(UnixServerAndKernel, OneRecordIsOneConnectionWhateverElseItSays) {
    for (int i = 0; i < 4; ++i)
        connectClient();
    report(EVFILT_READ, 4);
    EXPECT_EQ(events.count(HXKQueueEventData), 1U);
    report(EVFILT_READ, 0);
    EXPECT_EQ(events.count(HXKQueueEventData), 2U);
    report(EVFILT_READ, 1, EV_EOF);
    report(EVFILT_READ, 1, EV_ERROR);
    EXPECT_EQ(events.count(HXKQueueEventData), 4U);
}

TEST_F(UnixServerAndKernel, RecordOfAnotherFilterIsIgnored) {
    connectClient();
    report(EVFILT_WRITE, 1);
    report(EVFILT_TIMER, 1);
    EXPECT_TRUE(events.all().empty());
}

TEST_F(UnixServerAndKernel, StopRemovesTheFilterWhileTheDescriptorIsOpen) {
    std::atomic<bool> wasOpen{false};
    kernel.beforeNextRemoval(
        [&] { wasOpen = fcntl(static_cast<int>(listener.ident), F_GETFD) != -1; });
    loop->stopObject(server);
    kernel.settle();
    EXPECT_EQ(kernel.changes(), (std::vector<Change>{{listener.ident, EVFILT_READ, EV_DELETE}}));
    EXPECT_TRUE(wasOpen);
    EXPECT_EQ(fcntl(static_cast<int>(listener.ident), F_GETFD), -1);
}

TEST_F(UnixServerAndKernel, StopDropsTheBlock) {
    const auto owner = std::make_shared<int>(1);
    loop->startObject(server, [owner](auto&&...) { return true; });
    EXPECT_EQ(owner.use_count(), 2);
    loop->stopObject(server);
    kernel.settle();
    EXPECT_EQ(owner.use_count(), 1);
}

class TcpServerAndKernel : public LoopTest {
protected:
    TcpServerAndKernel() {
        kernel.reset();
        server = loop->createTCPServer(asSockaddr(loopback(AF_INET, 0)));
        loop->startObject(server, events.answering(false));
        kernel.settle();
        listener = static_cast<int>(kernel.changes().at(0).ident);
    }
    ~TcpServerAndKernel() override {
        stopLoop();
        for (const int client : clients)
            close(client);
    }

    void connectClient() {
        struct sockaddr_storage address = {};
        socklen_t length = sizeof address;
        getsockname(listener, reinterpret_cast<struct sockaddr*>(&address), &length);
        clients.push_back(socket(AF_INET, SOCK_STREAM, 0));
        ASSERT_EQ(connect(clients.back(), asSockaddr(address), length), 0);
    }

    void report(int filter, int64_t data, int flags = 0) {
        struct kevent record;
        EV_SET(&record, listener, static_cast<int16_t>(filter), flags, 0, data,
               static_cast<void*>(server.get()));
        kernel.deliver({record});
        kernel.settle();
    }

    ScriptedKernel& kernel = ScriptedKernel::instance();
    EventRecorder events;
    std::shared_ptr<HXKQueueTCPServer> server;
    int listener = -1;
    std::vector<int> clients;
};

TEST_F(TcpServerAndKernel, OneRecordIsOneConnectionWhateverElseItSays) {
    for (int i = 0; i < 4; ++i)
        connectClient();
    report(EVFILT_WRITE, 1);
    EXPECT_TRUE(events.all().empty());
    report(EVFILT_READ, 4);
    EXPECT_EQ(events.count(HXKQueueEventData), 1U);
    report(EVFILT_READ, 0);
    EXPECT_EQ(events.count(HXKQueueEventData), 2U);
    report(EVFILT_READ, 1, EV_EOF);
    report(EVFILT_READ, 1, EV_ERROR);
    EXPECT_EQ(events.count(HXKQueueEventData), 4U);
}

}  // namespace
