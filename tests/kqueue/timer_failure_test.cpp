#include <list>
#include <new>
#include <optional>
#include <set>

#include "kqueue/HXKQueueTimer.h"
#include "kqueue/timer_index.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/support/failing_allocations.h"

namespace {

using Extent = FailingAllocations::Extent;

std::atomic<bool> allIdentsAreTaken{false};

// The loop is not started: what the factory does needs no I/O thread.
class TimerFailure : public testing::Test {
protected:
    // What is logged when that allocation of a creation fails, alone or with all that come after.
    [[nodiscard]] std::vector<std::string> errorsOfCreationWithFailing(uint64_t nth,
                                                                       Extent extent) {
        const size_t before = log->errors().size();
        FailingAllocations failing(nth, extent);
        const auto timer = loop->createTimer(5, false);
        failing.end();
        EXPECT_EQ(timer == nullptr, failing.happened()) << nth;
        auto errors = log->errors();
        errors.erase(errors.begin(), errors.begin() + static_cast<std::ptrdiff_t>(before));
        return errors;
    }

    std::optional<LogRecorder> log{LogLevel::Error};
    std::shared_ptr<HXKQueue> loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
};

// Its number, the timer, its place in the list, its entry in the index, its registration. What was
// allocated for an identifier that stayed free is not allocated again, so the number varies.
TEST_F(TimerFailure, WithoutMemoryForAnyPartOfItThereIsNoneAndTheIdentStaysFree) {
    std::set<std::string> said;
    for (const Extent extent : {Extent::OnlyThatOne, Extent::FromThereOn}) {
        uint64_t nth = 1;
        for (;; ++nth) {
            const auto errors = errorsOfCreationWithFailing(nth, extent);
            if (errors.empty()) break;
            ASSERT_EQ(errors.size(), 2U) << nth;
            EXPECT_EQ(errors[1], "error cannot initialize timer object");
            said.insert(errors[0].substr(errors[0].find("cannot")));
        }
        EXPECT_GT(nth, 5U);
    }
    EXPECT_EQ(said, (std::set<std::string>{"cannot allocate number for timer",
                                           "cannot allocate timer", "cannot be added"}));
    log.reset();
    log.emplace(LogLevel::Debug);
    const auto timer = loop->createTimer(5, false);
    EXPECT_TRUE(log->has("debug " + tagOf(timer.get()) + ": timer #2 created"));
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
