#include <optional>

#include "kqueue/HXKQueueTimer.h"
#include "kqueue/timer_index.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/support/failing_allocations.h"

namespace {

std::atomic<bool> allIdentsAreTaken{false};

// The loop is not started: what the factory does needs no I/O thread.
class TimerFailure : public testing::Test {
protected:
    [[nodiscard]] std::vector<std::string> errorsOfCreationWithFailing(uint64_t nth) {
        const size_t before = log->errors().size();
        std::optional<FailingAllocations> failing(nth);
        const auto timer = loop->createTimer(5, false);
        failing->end();
        happened = failing->happened();
        failing.reset();
        created = timer != nullptr;
        auto errors = log->errors();
        errors.erase(errors.begin(), errors.begin() + static_cast<std::ptrdiff_t>(before));
        return errors;
    }

    std::optional<LogRecorder> log{LogLevel::Error};
    std::shared_ptr<HXKQueue> loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
    bool happened = false;
    bool created = false;
};

TEST_F(TimerFailure, WithoutMemoryForItsNumberThereIsNone) {
    EXPECT_EQ(errorsOfCreationWithFailing(1),
              (std::vector<std::string>{"error cannot allocate number for timer",
                                        "error cannot initialize timer object"}));
    EXPECT_FALSE(created);
}

TEST_F(TimerFailure, WithoutMemoryForAnythingElseThereIsNoneAndTheIdentStaysFree) {
    const std::vector<std::string> expected = {"error cannot allocate timer",
                                               "error cannot initialize timer object"};
    uint64_t nth = 2;
    while (errorsOfCreationWithFailing(nth) == expected) {
        EXPECT_FALSE(created);
        ++nth;
    }
    EXPECT_GT(nth, 4U);  // the timer, its place in the list, its entry in the index
    // The one whose registration with the loop failed was created all the same.
    const int32_t ident = created ? 1 : 0;
    log.reset();
    log.emplace(LogLevel::Debug);
    const auto timer = loop->createTimer(5, false);
    EXPECT_TRUE(
        log->has("debug " + tagOf(timer.get()) + ": timer #" + std::to_string(ident) + " created"));
}

TEST_F(TimerFailure, WithoutAFreeIdentThereIsNoneAndOneLineSaysSo) {
    allIdentsAreTaken = true;
    EXPECT_EQ(loop->createTimer(5, false), nullptr);
    allIdentsAreTaken = false;
    EXPECT_EQ(log->errors(), std::vector<std::string>{"error cannot initialize timer object"});
    EXPECT_NE(loop->createTimer(5, false), nullptr);
}

TEST_F(TimerFailure, BlockThatCannotBeKeptLeavesTheTimerAsItWas) {
    const auto timer = loop->createTimer(5, false);
    {
        HXKQueueEventBlock block = [](auto&&...) { return true; };
        const FailingAllocations failing(1);
        loop->startObject(timer, std::move(block));
    }
    EXPECT_EQ(log->errors(), std::vector<std::string>{"error " + tagOf(timer.get()) +
                                                      ": cannot keep event block"});
}

}  // namespace

// The names are the linker's: of hxkqueue::TimerIndex::lowestFreeIdent() const.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
std::optional<int32_t> realLowestFreeIdent(const hxkqueue::TimerIndex* index) asm(
    "__real__ZNK8hxkqueue10TimerIndex15lowestFreeIdentEv");
std::optional<int32_t> wrappedLowestFreeIdent(const hxkqueue::TimerIndex* index) asm(
    "__wrap__ZNK8hxkqueue10TimerIndex15lowestFreeIdentEv");

std::optional<int32_t> wrappedLowestFreeIdent(const hxkqueue::TimerIndex* index) {
    if (allIdentsAreTaken) return std::nullopt;
    return realLowestFreeIdent(index);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
