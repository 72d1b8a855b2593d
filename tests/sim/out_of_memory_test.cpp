// What becomes of timers that there is no memory for.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <new>

#include "sim/daemon.h"
#include "sim/reply_sender.h"
#include "sim/server_life.h"
#include "tests/support/failing_allocations.h"

namespace {

constexpr uint32_t kForeverMs = 3'600'000;

std::shared_ptr<Inventory> oneConnectingServer() {
    return std::make_shared<Inventory>(std::vector<Server>{
        {.id = 1, .host = "box", .port = 1, .state = ServerState::Connecting, .devices = {}}});
}

class WithoutMemory : public testing::Test {
protected:
    void SetUp() override {
        loop = HXKQueue::initWithSubsystem("test");
        ASSERT_TRUE(loop);
        loop->start();
    }
    void TearDown() override { loop->stop(); }

    std::shared_ptr<HXKQueue> loop;
};

// The block and the timer take at least one allocation each.
TEST_F(WithoutMemory, StepThatThereIsNoTimerForIsCompletedAtOnce) {
    for (uint64_t nth = 1; nth <= 2; ++nth) {
        const auto inventory = oneConnectingServer();
        const auto life = std::make_shared<ServerLife>(inventory, kForeverMs);
        const FailingAllocations failing(nth);
        life->start(loop);
        EXPECT_TRUE(failing.happened());
        EXPECT_EQ(inventory->servers()[0].state, ServerState::Connected) << nth;
    }
    const auto inventory = oneConnectingServer();
    const auto life = std::make_shared<ServerLife>(inventory, kForeverMs);
    life->start(loop);
    EXPECT_EQ(inventory->servers()[0].state, ServerState::Connecting);
}

// Each allocation of the request fails in turn, those of its reply after it has begun a step.
TEST(WithoutLoop, StepGoesOnThoughItsRequestGetsNoReply) {
    bool happened = true;
    size_t unanswered = 0;
    for (uint64_t nth = 1; happened; ++nth) {
        const auto inventory = std::make_shared<Inventory>(std::vector<Server>{});
        const auto life = std::make_shared<ServerLife>(inventory, kForeverMs);
        FailingAllocations failing(nth);
        try {
            static_cast<void>(life->answer(1, R"({"host":"new","port":5})"));
        } catch (const std::bad_alloc&) {
            if (!inventory->servers().empty()) ++unanswered;
        }
        failing.end();
        happened = failing.happened();
        for (const Server& server : inventory->servers())
            EXPECT_EQ(server.state, ServerState::Connected) << nth;
    }
    EXPECT_GT(unanswered, 0U);
}

TEST(WithoutLoop, StepIsCompletedAtOnce) {
    const auto inventory = oneConnectingServer();
    const auto life = std::make_shared<ServerLife>(inventory, kForeverMs);
    life->start({});
    EXPECT_EQ(inventory->servers()[0].state, ServerState::Connected);
}

// The frame, the block and the timer take at least one allocation each.
TEST_F(WithoutMemory, LateReplyThatCannotBeKeptOrTimedThrows) {
    for (uint64_t nth = 1; nth <= 3; ++nth) {
        std::array<int, 2> ends{};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        const auto stream = loop->createStreamSocket(ends[0], true);
        const auto sender = std::make_shared<ReplySender>(loop, *findMisbehaviour("delay"));
        sender->attach(stream);
        {
            const FailingAllocations failing(nth);
            EXPECT_THROW(sender->send(0, "{}"), std::bad_alloc) << nth;
        }
        sender->close();
        close(ends[1]);
    }
}

TEST(Daemon, TellsWhenItCannotHaveTheTimerOfItsEvents) {
    std::string name = std::filesystem::temp_directory_path() / "simXXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    Behaviour behaviour;
    behaviour.eventsMs = kForeverMs;
    std::string error;
    bool happened = true;
    for (uint64_t nth = 1; happened && error != "cannot make a timer"; ++nth) {
        error.clear();
        std::unique_ptr<Daemon> daemon;
        FailingAllocations failing(nth);
        try {
            daemon = Daemon::start(name + "/sock", Inventory({}), behaviour, error);
        } catch (const std::bad_alloc&) {
        }
        failing.end();
        happened = failing.happened();
    }
    EXPECT_EQ(error, "cannot make a timer");
    EXPECT_FALSE(std::filesystem::exists(name + "/sock"));
    std::filesystem::remove_all(name);
}

}  // namespace
