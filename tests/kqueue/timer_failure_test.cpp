#include <list>
#include <new>
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

// A registration with the kernel would have it fire once more.
TEST_F(TimerFailure, BlockThatCannotBeKeptLeavesTheTimerAsItWas) {
    EventRecorder events;
    EventRecorder lost;
    EventRecorder others;
    loop->start();
    const auto timer = loop->createTimer(1, true);
    loop->startObject(timer, events.block());
    ASSERT_TRUE(events.waitFor(HXKQueueEventData, 1));
    {
        HXKQueueEventBlock block = lost.block();
        const FailingAllocations failing(1);
        loop->startObject(timer, std::move(block));
    }
    EXPECT_EQ(log->errors(), std::vector<std::string>{"error " + tagOf(timer.get()) +
                                                      ": cannot keep event block"});
    loop->startObject(loop->createTimer(2, false), others.block());
    ASSERT_TRUE(others.waitFor(HXKQueueEventData, 10));
    EXPECT_EQ(events.count(HXKQueueEventData), 1U);
    EXPECT_TRUE(lost.all().empty());
    loop->stop();
}

TEST(TimerIndexFailure, TimerThatCannotBeEnteredIsNotThere) {
    const auto timer = HXKQueueTimer::initWithIdent(0, 1, false, {}, nullptr);
    std::list<int32_t> idents = {0};
    std::list<std::shared_ptr<HXKQueueTimer>> objects = {timer};
    const hxkqueue::TimerIndex::Place place = {.ident = idents.begin(), .object = objects.begin()};
    for (uint64_t nth = 1;; ++nth) {
        hxkqueue::TimerIndex index;
        FailingAllocations failing(nth);
        try {
            index.enter(place);
        } catch (const std::bad_alloc&) {
            failing.end();
            EXPECT_EQ(index.lowestFreeIdent(), 0);
            EXPECT_FALSE(index.isTaken(0));
            EXPECT_FALSE(index.leave(timer.get()));
            continue;
        }
        EXPECT_FALSE(failing.happened());
        EXPECT_GT(nth, 2U);  // the entry, the identifier
        return;
    }
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
