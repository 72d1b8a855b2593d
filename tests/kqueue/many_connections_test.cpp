#include <netinet/in.h>
#include <sys/un.h>
#include <unistd.h>

#include <ostream>

#include "kqueue/HXKQueueAcceptedConnection.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTCPServer.h"
#include "kqueue/HXKQueueUnixServer.h"
#include "tests/kqueue/block_tokens.h"
#include "tests/kqueue/counted_allocations.h"
#include "tests/kqueue/echo_client_process.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/kqueue/stress_scale.h"
#include "tests/support/descriptor_limit.h"

namespace {

// Less than a byte for each connection, so no source can hide in it. It is room for what
// the C++ library keeps for itself once it has needed it.
constexpr size_t kToleranceInBytes = 4 << 10;

// The bookkeeping of a kernel queue that is closed is freed with the next queue.
size_t bytesInUseWithoutClosedQueues() {
    close(::kqueue());
    close(::kqueue());
    return bytesInUse();
}

// Where the server of a test listens.
class Endpoint {
public:
    virtual ~Endpoint() = default;
    [[nodiscard]] virtual std::shared_ptr<HXKQueueEventProtocol> listenOn(HXKQueue& loop) const = 0;
    struct sockaddr_storage address = {};
};

class UnixEndpoint final : public Endpoint {
public:
    UnixEndpoint() {
        auto* unixAddress = reinterpret_cast<struct sockaddr_un*>(&address);
        unixAddress->sun_family = AF_UNIX;
        path.copy(unixAddress->sun_path, sizeof unixAddress->sun_path - 1);
    }

    [[nodiscard]] std::shared_ptr<HXKQueueEventProtocol> listenOn(HXKQueue& loop) const override {
        return loop.createUnixServer(path.c_str(), 0600);
    }

private:
    TemporaryDirectory directory;
    std::string path = directory.file("socket");
};

// Another socket keeps the port, without listening, until the end.
class TcpEndpoint final : public Endpoint {
public:
    TcpEndpoint() : holder(socket(AF_INET, SOCK_STREAM, 0)) {
        const int on = 1;
        setsockopt(holder, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
        setsockopt(holder, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        address = loopback(AF_INET, 0);
        EXPECT_EQ(bind(holder, asSockaddr(address), sizeof(struct sockaddr_in)), 0);
        socklen_t length = sizeof address;
        getsockname(holder, reinterpret_cast<struct sockaddr*>(&address), &length);
    }
    TcpEndpoint(const TcpEndpoint&) = delete;
    TcpEndpoint& operator=(const TcpEndpoint&) = delete;
    ~TcpEndpoint() override { close(holder); }

    [[nodiscard]] std::shared_ptr<HXKQueueEventProtocol> listenOn(HXKQueue& loop) const override {
        return loop.createTCPServer(asSockaddr(address));
    }

private:
    const int holder;
};

template <typename Kind>
std::unique_ptr<Endpoint> make() {
    return std::make_unique<Kind>();
}

struct Transport {
    const char* name;
    std::unique_ptr<Endpoint> (*makeEndpoint)();

    // How the list of tests shows it.
    friend void PrintTo(const Transport& transport, std::ostream* out) { *out << transport.name; }
};

void echo(HXKQueue& loop, const std::shared_ptr<HXKQueueEventProtocol>& source, const char* bytes,
          uint64_t size, int32_t code) {
    if (code == HXKQueueEventData) loop.write(source, bytes, size);
    if (code == HXKQueueEventTerminated) loop.stopObject(source);
}

HXKQueueEventBlock echoingServer(HXKQueue& loop, BlockTokens& tokens) {
    return [&loop, &tokens](const auto& /*server*/, const char* bytes, auto /*size*/,
                            auto* /*dropSize*/, int32_t /*code*/) {
        const auto* accepted = reinterpret_cast<const HXKQueueAcceptedConnection*>(bytes);
        loop.startObject(
            loop.createStreamSocket(accepted->sock, true),
            [&loop, token = tokens.issue()](const auto& source, const char* received, uint64_t size,
                                            auto* /*dropSize*/, int32_t code) {
                echo(loop, source, received, size, code);
                return true;
            });
        return true;
    };
}

class ManyConnections : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(Over, ManyConnections,
                         testing::Values(Transport{"Unix", make<UnixEndpoint>},
                                         Transport{"Tcp", make<TcpEndpoint>}),
                         [](const auto& instance) { return instance.param.name; });

// Server and clients are processes of their own, each with one end of every connection.
TEST_P(ManyConnections, ToOneLoopHaveEveryByteEchoedAndLeaveNeitherMemoryNorDescriptors) {
    const EchoClientPlan plan = {
        .connections = stress::kConnections, .messages = stress::kMessages, .seed = 20};
    // Those that have left may be stopped after those that take their place have come.
    const std::string lacking = raiseDescriptorLimit(plan.connections + 1'000);
    if (!lacking.empty()) GTEST_SKIP() << lacking;

    const std::unique_ptr<Endpoint> endpoint = GetParam().makeEndpoint();
    const EchoClientProcess client(endpoint->address, plan);
    const LogRecorder log(LogLevel::Error);
    BlockTokens tokens;
    EchoClientReport report;
    const size_t descriptorsBefore = openDescriptors();
    const size_t bytesBefore = bytesInUseWithoutClosedQueues();
    {
        const auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
        loop->start();
        const auto server = endpoint->listenOn(*loop);
        ASSERT_NE(server, nullptr);
        loop->startObject(server, echoingServer(*loop, tokens));
        client.start();

        report = client.report();
        EXPECT_STREQ(report.failure.data(), "");
        EXPECT_TRUE(tokens.waitUntilHeld(0)) << "not every end of a connection was heard of";
        loop->stop();

        EXPECT_EQ(report.openAtOnce, plan.connections);
        EXPECT_GE(tokens.mostHeld(), plan.connections);
        EXPECT_EQ(tokens.issued(), report.connects);
        EXPECT_EQ(report.connects, 2 * plan.connections);
        EXPECT_GE(report.messages, plan.connections * plan.messages);
        EXPECT_EQ(report.smallest, 1U);
        EXPECT_EQ(report.largest, EchoClientProcess::kLargest);
    }
    EXPECT_EQ(log.errors(), std::vector<std::string>());
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    const size_t bytesAfter = bytesInUseWithoutClosedQueues();
    EXPECT_LE(bytesAfter, bytesBefore + kToleranceInBytes);
    RecordProperty("messages", std::to_string(report.messages));
    RecordProperty("bytes", std::to_string(report.bytes));
    RecordProperty("bytesBefore", std::to_string(bytesBefore));
    RecordProperty("bytesAfter", std::to_string(bytesAfter));
}

}  // namespace
