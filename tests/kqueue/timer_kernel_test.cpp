#include "kqueue/HXKQueueTimer.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/kqueue/scripted_kernel.h"

namespace {

using Change = ScriptedKernel::Change;
constexpr int kArm = EV_ADD | EV_ENABLE;

class TimerAndKernel : public LoopTest {
protected:
    TimerAndKernel() { kernel.reset(); }

    void report(const std::shared_ptr<HXKQueueTimer>& timer, int filter, int64_t data,
                int flags = 0) {
        struct kevent record;
        EV_SET(&record, 0, static_cast<int16_t>(filter), flags, 0, data,
               static_cast<void*>(timer.get()));
        kernel.deliver({record});
        kernel.settle();
    }

    ScriptedKernel& kernel = ScriptedKernel::instance();
    EventRecorder events;
};

TEST_F(TimerAndKernel, CreationSubmitsNothing) {
    const auto timer = loop->createTimer(5, false);
    kernel.settle();
    EXPECT_TRUE(kernel.changes().empty());
}

TEST_F(TimerAndKernel, PeriodicOneRegistersItsPeriodInTheBackground) {
    const auto first = loop->createTimer(1, false);
    const auto timer = loop->createTimer(5, false);
    loop->startObject(timer, events.block());
    kernel.settle();
    EXPECT_EQ(kernel.changes(), (std::vector<Change>{{1, EVFILT_TIMER, kArm}}));
    const struct kevent record = kernel.lastChange();
    EXPECT_EQ(record.fflags, uint32_t{NOTE_BACKGROUND});
    EXPECT_EQ(record.data, 5);
    EXPECT_EQ(record.udata, timer.get());
}

TEST_F(TimerAndKernel, OneShotSaysSoToTheKernel) {
    loop->startObject(loop->createTimer(5, true), events.block());
    kernel.settle();
    EXPECT_EQ(kernel.changes(), (std::vector<Change>{{0, EVFILT_TIMER, kArm | EV_ONESHOT}}));
}

TEST_F(TimerAndKernel, ArmingAgainSubmitsTheSameRegistration) {
    const auto timer = loop->createTimer(5, false);
    loop->startObject(timer, events.block());
    loop->startObject(timer, events.block());
    kernel.settle();
    EXPECT_EQ(kernel.changes(), (std::vector<Change>(2, {0, EVFILT_TIMER, kArm})));
}

TEST_F(TimerAndKernel, OfAPeriodTheLow32BitsCountAsASignedNumber) {
    loop->startObject(loop->createTimer((uint64_t{1} << 32) + 5, false), events.block());
    kernel.settle();
    EXPECT_EQ(kernel.lastChange().data, 5);
    loop->startObject(loop->createTimer(uint64_t{1} << 31, false), events.block());
    kernel.settle();
    EXPECT_EQ(kernel.lastChange().data, -2'147'483'648);
}

TEST_F(TimerAndKernel, EachRecordIsOneEventWhateverItsCount) {
    const auto timer = loop->createTimer(5, false);
    loop->startObject(timer, events.block());
    report(timer, EVFILT_TIMER, 1);
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventData});
    report(timer, EVFILT_TIMER, 1000);
    EXPECT_EQ(events.codes(), (std::vector<int32_t>(2, HXKQueueEventData)));
}

TEST_F(TimerAndKernel, RefusedRegistrationLooksLikeAnExpiry) {
    const auto timer = loop->createTimer(5, false);
    loop->startObject(timer, events.block());
    report(timer, EVFILT_TIMER, 34, kArm | EV_ERROR);
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventData});
}

TEST_F(TimerAndKernel, IgnoresRecordsOfOtherFilters) {
    const auto timer = loop->createTimer(5, false);
    loop->startObject(timer, events.block());
    report(timer, EVFILT_READ, 1);
    report(timer, EVFILT_WRITE, 1, EV_EOF);
    EXPECT_TRUE(events.all().empty());
}

TEST_F(TimerAndKernel, StopRemovesTheFilter) {
    const auto timer = loop->createTimer(5, false);
    loop->startObject(timer, events.block());
    kernel.settle();
    kernel.reset();
    loop->stopObject(timer);
    kernel.settle();
    EXPECT_EQ(kernel.changes(), (std::vector<Change>{{0, EVFILT_TIMER, EV_DELETE}}));
    const struct kevent record = kernel.lastChange();
    EXPECT_EQ(record.fflags, uint32_t{NOTE_BACKGROUND});
    EXPECT_EQ(record.data, 0);
    EXPECT_EQ(record.udata, timer.get());
}

// The next timer's registration of an identifier goes out after the removal of the last one's.
TEST_F(TimerAndKernel, ReusedIdentIsRemovedBeforeItIsRegisteredAgain) {
    const auto first = loop->createTimer(5, false);
    loop->startObject(first, events.block());
    kernel.settle();
    kernel.reset();
    loop->stopObject(first);
    ASSERT_TRUE(log.waitFor("debug " + tagOf(first.get()) + ": stop timer #0"));
    loop->startObject(loop->createTimer(7, false), events.block());
    kernel.settle();
    EXPECT_EQ(kernel.changes(),
              (std::vector<Change>{{0, EVFILT_TIMER, EV_DELETE}, {0, EVFILT_TIMER, kArm}}));
}

}  // namespace
