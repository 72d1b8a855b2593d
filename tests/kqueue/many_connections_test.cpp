#include "tests/kqueue/block_tokens.h"
#include "tests/kqueue/counted_allocations.h"
#include "tests/kqueue/echo_client_process.h"
#include "tests/kqueue/echoing_server.h"
#include "tests/kqueue/endpoint.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/kqueue/stress_scale.h"
#include "tests/support/descriptor_limit.h"

namespace {

// Less than a byte for each connection, so no source can hide in it. It is room for what
// the C++ library keeps for itself once it has needed it.
constexpr size_t kToleranceInBytes = 4 << 10;

class ManyConnections : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(Over, ManyConnections, testing::ValuesIn(kTransports),
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
