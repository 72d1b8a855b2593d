#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>

#include "kqueue/HXKQueueStreamSocket.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/kqueue/scripted_kernel.h"

namespace {

// A source that only counts what the loop does with it.
class CountingSource final : public HXKQueueEventProtocol {
public:
    void enableOnData(HXKQueueEventBlock /*block*/) override { ++enabled; }
    void kevent(const struct kevent* record) override {
        ++records;
        lastFlags = record->flags;
    }
    void write(const char* /*bytes*/, uint64_t /*size*/) override { ++writes; }
    void stop() override { ++stops; }

    std::atomic<int> enabled{0};
    std::atomic<int> records{0};
    std::atomic<int> lastFlags{0};
    std::atomic<int> writes{0};
    std::atomic<int> stops{0};
};

class LoopAndKernel : public LoopTest {
protected:
    LoopAndKernel() { kernel.reset(); }

    static struct kevent recordFor(const void* source, uint64_t ident, int flags = 0) {
        struct kevent record;
        EV_SET(&record, ident, EVFILT_READ, flags, 0, 0, const_cast<void*>(source));
        return record;
    }

    std::shared_ptr<CountingSource> makeSource() {
        auto source = std::make_shared<CountingSource>();
        loop->addActiveObject(source);
        return source;
    }

    ScriptedKernel& kernel = ScriptedKernel::instance();
};

TEST_F(LoopAndKernel, RecordGoesToTheSourceInItsUserData) {
    const auto first = makeSource();
    const auto second = makeSource();
    kernel.deliver(
        {recordFor(first.get(), 1), recordFor(second.get(), 2), recordFor(second.get(), 3)});
    kernel.settle();
    EXPECT_EQ(first->records, 1);
    EXPECT_EQ(second->records, 2);
}

TEST_F(LoopAndKernel, RecordOfNobodyIsDroppedSilently) {
    const auto source = makeSource();
    int nobody = 0;
    kernel.deliver({recordFor(&nobody, 1), recordFor(nullptr, 2), recordFor(source.get(), 3)});
    kernel.settle();
    EXPECT_EQ(source->records, 1);
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(LoopAndKernel, RecordOfARemovalNeverReachesASource) {
    const auto source = makeSource();
    kernel.deliver({recordFor(source.get(), 1, EV_DELETE | EV_ERROR)});
    kernel.settle();
    EXPECT_EQ(source->records, 0);
}

TEST_F(LoopAndKernel, RecordOfAnotherErrorIsRoutedLikeAnyOther) {
    const auto source = makeSource();
    kernel.deliver({recordFor(source.get(), 1, EV_ADD | EV_ERROR)});
    kernel.settle();
    EXPECT_EQ(source->records, 1);
    EXPECT_EQ(source->lastFlags, EV_ADD | EV_ERROR);
}

TEST_F(LoopAndKernel, RecordOfAStoppedSourceIsDropped) {
    const auto source = makeSource();
    loop->stopObject(source);
    kernel.settle();
    EXPECT_EQ(source->stops, 1);
    kernel.deliver({recordFor(source.get(), 1)});
    kernel.settle();
    EXPECT_EQ(source->records, 0);
}

TEST_F(LoopAndKernel, ChangesGoToTheKernelInTheOrderOfTheirSubmission) {
    const auto source = makeSource();
    for (uint64_t i = 0; i < 250; ++i) {
        const struct kevent change = recordFor(source.get(), i, EV_ADD | EV_ENABLE);
        loop->submitChange(&change);
    }
    kernel.settle();
    const auto changes = kernel.changes();
    ASSERT_EQ(changes.size(), 250U);
    for (uint64_t i = 0; i < 250; ++i)
        EXPECT_EQ(changes[i], (ScriptedKernel::Change{i, EVFILT_READ, EV_ADD | EV_ENABLE}));
}

TEST_F(LoopAndKernel, OfASourceThatIsNotRegisteredOnlyRemovalsAreTaken) {
    CountingSource stranger;
    const struct kevent addition = recordFor(&stranger, 1, EV_ADD | EV_ENABLE);
    const struct kevent removal = recordFor(&stranger, 2, EV_DELETE);
    loop->submitChange(&addition);
    loop->submitChange(&removal);
    kernel.settle();
    EXPECT_EQ(kernel.changes(), (std::vector<ScriptedKernel::Change>{{2, EVFILT_READ, EV_DELETE}}));
}

TEST_F(LoopAndKernel, OfAStoppedSourceOnlyRemovalsAreTaken) {
    const auto source = makeSource();
    loop->stopObject(source);
    const struct kevent addition = recordFor(source.get(), 1, EV_ADD | EV_ENABLE);
    const struct kevent removal = recordFor(source.get(), 2, EV_DELETE);
    loop->submitChange(&addition);
    loop->submitChange(&removal);
    kernel.settle();
    EXPECT_EQ(kernel.changes(), (std::vector<ScriptedKernel::Change>{{2, EVFILT_READ, EV_DELETE}}));
}

// Its descriptor may be closed, and the number somebody else's, when the kernel sees the change.
TEST_F(LoopAndKernel, WhatASourceHadQueuedBeforeItsStopIsTakenNoMoreThanWhatComesAfter) {
    const auto source = makeSource();
    const auto other = makeSource();
    kernel.settle();
    kernel.duringNextCall([&] {
        for (uint64_t ident = 1; ident <= 3; ++ident) {
            const bool isOthers = ident == 2;
            const struct kevent change = recordFor(isOthers ? other.get() : source.get(), ident,
                                                   ident == 3 ? EV_DELETE : EV_ADD | EV_ENABLE);
            loop->submitChange(&change);
        }
        loop->stopObject(source);
    });
    kernel.settle();
    kernel.settle();
    EXPECT_EQ(source->stops, 1);
    EXPECT_EQ(kernel.changes(),
              (std::vector<ScriptedKernel::Change>{{2, EVFILT_READ, EV_ADD | EV_ENABLE},
                                                   {3, EVFILT_READ, EV_DELETE}}));
}

TEST_F(LoopAndKernel, FailingCallLosesItsChangesAndTheLoopGoesOn) {
    const auto source = makeSource();
    kernel.settle();
    kernel.failNextCall();
    while (kernel.failedCalls() == 0)
        kernel.settle();
    kernel.deliver({recordFor(source.get(), 1)});
    kernel.settle();
    EXPECT_EQ(source->records, 1);
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(LoopAndKernel, ChangesOfAFailingCallAreNotSubmittedAgain) {
    const auto source = makeSource();
    for (int tries = 0; tries < 100; ++tries) {
        kernel.reset();
        kernel.failNextCall();
        const struct kevent change = recordFor(source.get(), 1, EV_ADD | EV_ENABLE);
        loop->submitChange(&change);
        kernel.settle();
        if (kernel.changes().empty()) break;  // the failing call was the one that had it
    }
    kernel.settle();
    EXPECT_TRUE(kernel.changes().empty());
    EXPECT_EQ(kernel.failedCalls(), 1U);
}

TEST_F(LoopAndKernel, ForwardsStartAndWriteToAnySource) {
    const auto source = std::make_shared<CountingSource>();
    loop->startObject(source, nullptr);
    EXPECT_TRUE(loop->write(source, "x", 1));
    EXPECT_EQ(source->enabled, 1);
    EXPECT_EQ(source->writes, 1);
}

TEST_F(LoopAndKernel, RecordOfASourceThatIsStoppedAfterSomeIterationsIsDropped) {
    const auto source = makeSource();
    kernel.deliver({recordFor(source.get(), 1)});
    kernel.settle();
    EXPECT_EQ(source->records, 1);
    loop->stopObject(source);
    kernel.settle();
    EXPECT_EQ(source->stops, 1);
    kernel.deliver({recordFor(source.get(), 2)});
    kernel.settle();
    EXPECT_EQ(source->records, 1);
}

// The call after the stop is made to fail: it has to be the one that had the removals.
TEST_F(LoopAndKernel, RemovalsOfAStopGoOutWithTheNextCall) {
    const Stream borrowed = makeStream(false);
    kernel.settle();
    kernel.beforeNextRemoval([this] { kernel.failNextCall(); });
    loop->stopObject(borrowed.source);
    kernel.settle();
    EXPECT_EQ(kernel.failedCalls(), 1U);
    EXPECT_TRUE(kernel.changes().empty());
    close(borrowed.sock);
    close(borrowed.peer);
}

TEST_F(LoopAndKernel, WriteToNothingIsTrueToo) {
    EXPECT_TRUE(loop->write(nullptr, "x", 1));
}

TEST_F(LoopAndKernel, EveryCallHasRoomForThousandRecordsAndWaitsFiveMilliseconds) {
    kernel.settle();
    EXPECT_EQ(kernel.lastRoom(), 1000);
    EXPECT_EQ(kernel.lastTimeout().tv_sec, 0);
    EXPECT_EQ(kernel.lastTimeout().tv_nsec, 5'000'000);
}

TEST_F(LoopAndKernel, RequestsAreTakenWhileTheThreadWaits) {
    const auto source = makeSource();
    std::atomic<bool> wasHeldUp{false};
    std::future<void> other;
    kernel.duringNextCall([&] {
        other = std::async(std::launch::async, [&] {
            const struct kevent change = recordFor(source.get(), 1, EV_ADD | EV_ENABLE);
            loop->submitChange(&change);
            loop->stopObject(source);
        });
        wasHeldUp = other.wait_for(std::chrono::seconds(5)) != std::future_status::ready;
    });
    kernel.settle();
    EXPECT_FALSE(wasHeldUp);
    EXPECT_EQ(source->stops, 1);
}

}  // namespace
