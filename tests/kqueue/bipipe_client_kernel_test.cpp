#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <future>
#include <thread>

#include "kqueue/HXKQueueBipipeClient.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/kqueue/scripted_kernel.h"

namespace {

using Change = ScriptedKernel::Change;
constexpr int kArm = EV_ADD | EV_ENABLE;

class BipipeAndKernel : public LoopTest {
protected:
    BipipeAndKernel() {
        kernel.reset();
        EXPECT_EQ(pipe(in.data()), 0);
        EXPECT_EQ(pipe2(out.data(), O_NONBLOCK), 0);
        EXPECT_EQ(fcntl(out[1], F_SETFL, 0), 0);
        bipipe = loop->createBipipeClient(std::array{in[0], out[1]}.data(), false);
    }
    ~BipipeAndKernel() override {
        stopLoop();
        for (const int end : {in[0], in[1], out[0], out[1]})
            close(end);
    }

    void start() {
        loop->startObject(bipipe, events.block());
        kernel.settle();
        kernel.reset();
    }

    void report(int filter, int64_t data, int flags = 0) {
        struct kevent record;
        EV_SET(&record, filter == EVFILT_READ ? in[0] : out[1], static_cast<int16_t>(filter), flags,
               0, data, static_cast<void*>(bipipe.get()));
        kernel.deliver({record});
        kernel.settle();
    }

    [[nodiscard]] Change readChange(int flags) const {
        return {static_cast<uint64_t>(in[0]), EVFILT_READ, flags};
    }
    [[nodiscard]] Change writeChange(int flags) const {
        return {static_cast<uint64_t>(out[1]), EVFILT_WRITE, flags};
    }

    [[nodiscard]] std::string arrived() const {
        std::array<char, 64> bytes{};
        const ssize_t size = read(out[0], bytes.data(), bytes.size());
        return {bytes.data(), size > 0 ? static_cast<size_t>(size) : 0};
    }

    ScriptedKernel& kernel = ScriptedKernel::instance();
    EventRecorder events;
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    std::shared_ptr<HXKQueueBipipeClient> bipipe;
};

TEST_F(BipipeAndKernel, SaysConnectedBeforeItRegistersForReading) {
    loop->startObject(bipipe, events.block([this](const RecordedEvent& event, auto*) {
        loop->write(event.source, "x", 1);
        return true;
    }));
    kernel.settle();
    EXPECT_EQ(kernel.changes(), (std::vector<Change>{writeChange(kArm), readChange(kArm)}));
    const struct kevent record = kernel.lastChange();
    EXPECT_EQ(record.fflags, 0U);
    EXPECT_EQ(record.data, 0);
    EXPECT_EQ(record.udata, bipipe.get());
}

TEST_F(BipipeAndKernel, ArmingRegistersForReadingOnly) {
    loop->startObject(bipipe, events.block());
    kernel.settle();
    EXPECT_EQ(kernel.changes(), std::vector<Change>{readChange(kArm)});
}

TEST_F(BipipeAndKernel, ArmingAgainSaysConnectedAgain) {
    start();
    loop->startObject(bipipe, events.block());
    EXPECT_EQ(events.codes(), (std::vector<int32_t>(2, HXKQueueEventConnected)));
}

TEST_F(BipipeAndKernel, WriteOfNothingSubmitsNothing) {
    start();
    loop->write(bipipe, "x", 0);
    kernel.settle();
    EXPECT_TRUE(kernel.changes().empty());
}

TEST_F(BipipeAndKernel, EveryWriteArmsTheFilter) {
    start();
    loop->write(bipipe, "a", 1);
    loop->write(bipipe, "b", 1);
    kernel.settle();
    EXPECT_EQ(kernel.changes(), (std::vector<Change>(2, writeChange(kArm))));
    EXPECT_EQ(bipipe->pendingBytes(), 2U);
}

TEST_F(BipipeAndKernel, WritesNoMoreThanTheRoomAndRemovesTheFilterWithTheLastByte) {
    start();
    loop->write(bipipe, "0123456789", 10);
    kernel.settle();
    kernel.reset();
    report(EVFILT_WRITE, 4);
    EXPECT_EQ(arrived(), "0123");
    EXPECT_EQ(bipipe->pendingBytes(), 6U);
    EXPECT_TRUE(kernel.changes().empty());
    report(EVFILT_WRITE, 100);
    EXPECT_EQ(arrived(), "456789");
    EXPECT_EQ(bipipe->pendingBytes(), 0U);
    EXPECT_EQ(kernel.changes(), std::vector<Change>{writeChange(EV_DELETE)});
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 0U);
}

TEST_F(BipipeAndKernel, WriteRecordWithAnEmptyQueueIsTerminatedAndRemovesTheFilter) {
    start();
    report(EVFILT_WRITE, 100);
    EXPECT_EQ(events.last().code, HXKQueueEventTerminated);
    EXPECT_EQ(kernel.changes(), std::vector<Change>{writeChange(EV_DELETE)});
}

TEST_F(BipipeAndKernel, WriteRecordWithoutRoomIsTerminatedAndKeepsTheQueue) {
    start();
    loop->write(bipipe, "x", 1);
    kernel.settle();
    kernel.reset();
    report(EVFILT_WRITE, 0);
    EXPECT_EQ(events.last().code, HXKQueueEventTerminated);
    EXPECT_EQ(bipipe->pendingBytes(), 1U);
    EXPECT_TRUE(kernel.changes().empty());
}

TEST_F(BipipeAndKernel, FailedWriteIsTerminatedEachTimeAndKeepsTheQueue) {
    start();
    close(out[0]);
    loop->write(bipipe, "x", 1);
    kernel.settle();
    kernel.reset();
    report(EVFILT_WRITE, 100, EV_EOF);
    report(EVFILT_WRITE, 100, EV_EOF);
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 2U);
    EXPECT_EQ(bipipe->pendingBytes(), 1U);
    EXPECT_TRUE(kernel.changes().empty());
}

// While the I/O thread removes the filter of an empty queue, another thread writes. It has to
// wait, or the removal would come last and leave its bytes in the queue.
TEST_F(BipipeAndKernel, WriteThatMeetsTheRemovalOfTheFilterArmsItAfterwards) {
    start();
    std::thread late;
    kernel.beforeNextRemoval([&] {
        std::promise<void> written;
        auto done = written.get_future();
        late = std::thread([this, written = std::move(written)]() mutable {
            loop->write(bipipe, "late", 4);
            written.set_value();
        });
        static_cast<void>(done.wait_for(std::chrono::milliseconds(200)));
    });
    loop->write(bipipe, "first", 5);
    report(EVFILT_WRITE, 100);
    late.join();
    kernel.settle();
    EXPECT_EQ(arrived(), "first");
    EXPECT_EQ(kernel.changes().back(), writeChange(kArm));
}

// Before the filter is armed for new bytes, the I/O thread could send them at a record that was
// under way. It has to wait, or the arming would come last and find the queue empty.
TEST_F(BipipeAndKernel, ArmingComesBeforeTheRemovalThatItsOwnBytesLeadTo) {
    start();
    std::promise<void> removed;
    auto removal = removed.get_future();
    kernel.beforeNextRemoval([&] { removed.set_value(); });
    kernel.beforeNextAddition([&] {
        struct kevent record;
        EV_SET(&record, out[1], EVFILT_WRITE, 0, 0, 100, static_cast<void*>(bipipe.get()));
        kernel.deliver({record});
        static_cast<void>(removal.wait_for(std::chrono::milliseconds(200)));
    });
    loop->write(bipipe, "bytes", 5);
    kernel.settle();
    EXPECT_EQ(arrived(), "bytes");
    EXPECT_EQ(kernel.changes(), (std::vector<Change>{writeChange(kArm), writeChange(EV_DELETE)}));
}

TEST_F(BipipeAndKernel, ReadRecordOfNothingIsTerminatedAndLeavesTheBufferAlone) {
    loop->startObject(bipipe, events.dropping(0));
    ASSERT_EQ(::write(in[1], "kept", 4), 4);
    report(EVFILT_READ, 4);
    EXPECT_EQ(events.last().code, HXKQueueEventData);
    report(EVFILT_READ, 0, EV_EOF);
    EXPECT_EQ(events.last().code, HXKQueueEventTerminated);
    EXPECT_EQ(events.last().bytes, "kept");
    report(EVFILT_READ, -1);
    EXPECT_EQ(events.last().code, HXKQueueEventTerminated);
    EXPECT_EQ(events.last().bytes, "kept");
}

TEST_F(BipipeAndKernel, FailedReadIsTerminatedAndLeavesTheBufferAlone) {
    start();
    fcntl(in[0], F_SETFL, O_NONBLOCK);  // so that a read without bytes fails
    report(EVFILT_READ, 10);
    EXPECT_EQ(events.last().code, HXKQueueEventTerminated);
    EXPECT_EQ(events.last().bytes, "");
}

TEST_F(BipipeAndKernel, ReadsNoMoreThanTheCountAndKeepsZerosForWhatIsMissing) {
    start();
    ASSERT_EQ(::write(in[1], "abcdef", 6), 6);
    report(EVFILT_READ, 2);
    EXPECT_EQ(events.last().bytes, "ab");
    report(EVFILT_READ, 6);
    EXPECT_EQ(events.last().bytes, std::string("cdef\0\0", 6));
}

TEST_F(BipipeAndKernel, IgnoresRecordsOfOtherFilters) {
    start();
    report(EVFILT_TIMER, 1);
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventConnected});
    EXPECT_TRUE(kernel.changes().empty());
}

TEST_F(BipipeAndKernel, StopOfBorrowedDescriptorsRemovesBothFilters) {
    start();
    loop->stopObject(bipipe);
    kernel.settle();
    EXPECT_EQ(kernel.changes(),
              (std::vector<Change>{readChange(EV_DELETE), writeChange(EV_DELETE)}));
}

TEST_F(BipipeAndKernel, StopOfOwnedDescriptorsSubmitsNothing) {
    const std::array<int, 2> owned = {dup(in[0]), dup(out[1])};
    const auto source = loop->createBipipeClient(owned.data(), true);
    loop->startObject(source, events.block());
    kernel.settle();
    kernel.reset();
    loop->stopObject(source);
    kernel.settle();
    EXPECT_TRUE(kernel.changes().empty());
    EXPECT_EQ(fcntl(owned[0], F_GETFD), -1);
    EXPECT_EQ(fcntl(owned[1], F_GETFD), -1);
}

TEST_F(BipipeAndKernel, PausedOneRemovesItsReadFilterAndResumingAddsIt) {
    loop->startObject(bipipe, events.block([this](const RecordedEvent& event, auto*) {
        if (event.code == HXKQueueEventData) bipipe->pauseReading();
        return true;
    }));
    ASSERT_EQ(::write(in[1], "x", 1), 1);
    kernel.settle();
    kernel.reset();
    report(EVFILT_READ, 1);
    EXPECT_EQ(kernel.changes(), std::vector<Change>{readChange(EV_DELETE)});
    bipipe->resumeReading();
    kernel.settle();
    EXPECT_EQ(kernel.changes().back(), readChange(kArm));
}

TEST_F(BipipeAndKernel, RecordOfADescriptorThatIsNotTheFiltersIsIgnored) {
    start();
    ASSERT_EQ(write(in[1], "abc", 3), 3);
    auto* const source = static_cast<void*>(bipipe.get());
    struct kevent reading;
    struct kevent writing;
    EV_SET(&reading, out[1], EVFILT_READ, 0, 0, 3, source);
    EV_SET(&writing, in[0], EVFILT_WRITE, 0, 0, 3, source);
    kernel.deliver({reading, writing});
    kernel.settle();
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventConnected});
    EXPECT_TRUE(kernel.changes().empty());
}

}  // namespace
