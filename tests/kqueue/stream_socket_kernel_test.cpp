#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTCPClient.h"
#include "tests/kqueue/full_listener.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/kqueue/scripted_kernel.h"

namespace {

using Change = ScriptedKernel::Change;
constexpr int kArm = EV_ADD | EV_ENABLE;

class StreamSocketAndKernel : public LoopTest {
protected:
    StreamSocketAndKernel() {
        kernel.reset();
        stream = makeStream();
        fcntl(stream.peer, F_SETFL, O_NONBLOCK);
    }
    ~StreamSocketAndKernel() override {
        stopLoop();
        close(stream.peer);
    }

    void start() {
        loop->startObject(stream.source, events.block());
        kernel.settle();
        kernel.reset();
    }

    [[nodiscard]] struct kevent recordOf(int filter, int64_t data, int flags = 0) const {
        struct kevent record;
        EV_SET(&record, stream.sock, static_cast<int16_t>(filter), flags, 0, data,
               static_cast<void*>(stream.source.get()));
        return record;
    }

    void report(int filter, int64_t data, int flags = 0) {
        kernel.deliver({recordOf(filter, data, flags)});
        kernel.settle();
    }

    // What the block sees of "abcd" when a write fails between the two halves. The stop that the
    // end brings is too late for the second, whose record comes with the same wait.
    std::string readAroundAFailedWrite(bool keepsAtEnd) {
        loop->startObject(stream.source, events.block([=, this](const auto& event, uint64_t* drop) {
            const bool ended = event.code == HXKQueueEventTerminated;
            if (ended) loop->stopObject(event.source);
            if (drop && (!ended || keepsAtEnd)) *drop = 0;
            return true;
        }));
        EXPECT_EQ(::write(stream.peer, "abcd", 4), 4);
        EXPECT_EQ(shutdown(stream.sock, SHUT_WR), 0);
        loop->write(stream.source, "x", 1);
        kernel.deliver(
            {recordOf(EVFILT_READ, 2), recordOf(EVFILT_WRITE, 100), recordOf(EVFILT_READ, 2)});
        kernel.settle();
        EXPECT_EQ(events.codes(),
                  (std::vector<int32_t>{HXKQueueEventConnected, HXKQueueEventData,
                                        HXKQueueEventTerminated, HXKQueueEventData}));
        return events.last().bytes;
    }

    [[nodiscard]] Change change(int filter, int flags) const {
        return {static_cast<uint64_t>(stream.sock), filter, flags};
    }

    [[nodiscard]] std::string arrived() const {
        std::array<char, 64> bytes{};
        const ssize_t size = read(stream.peer, bytes.data(), bytes.size());
        return {bytes.data(), size > 0 ? static_cast<size_t>(size) : 0};
    }

    ScriptedKernel& kernel = ScriptedKernel::instance();
    EventRecorder events;
    Stream stream;
};

TEST_F(StreamSocketAndKernel, ConnectedOneRegistersForReadingAfterItsBlockHasRun) {
    loop->startObject(stream.source, events.block([this](const RecordedEvent& event, auto*) {
        loop->write(event.source, "x", 1);
        return true;
    }));
    kernel.settle();
    EXPECT_EQ(kernel.changes(),
              (std::vector<Change>{change(EVFILT_WRITE, kArm), change(EVFILT_READ, kArm)}));
    const struct kevent record = kernel.lastChange();
    EXPECT_EQ(record.fflags, 0U);
    EXPECT_EQ(record.data, 0);
    EXPECT_EQ(record.udata, stream.source.get());
}

TEST_F(StreamSocketAndKernel, WriteOfNothingSubmitsNothing) {
    start();
    loop->write(stream.source, "x", 0);
    kernel.settle();
    EXPECT_TRUE(kernel.changes().empty());
}

TEST_F(StreamSocketAndKernel, EveryWriteArmsTheFilter) {
    start();
    loop->write(stream.source, "a", 1);
    loop->write(stream.source, "b", 1);
    kernel.settle();
    EXPECT_EQ(kernel.changes(), (std::vector<Change>(2, change(EVFILT_WRITE, kArm))));
}

TEST_F(StreamSocketAndKernel, WritesNoMoreThanTheRoomAndRemovesTheFilterWithTheLastByte) {
    start();
    loop->write(stream.source, "0123456789", 10);
    kernel.settle();
    kernel.reset();
    report(EVFILT_WRITE, 4);
    EXPECT_EQ(arrived(), "0123");
    EXPECT_TRUE(kernel.changes().empty());
    report(EVFILT_WRITE, 100);
    EXPECT_EQ(arrived(), "456789");
    EXPECT_EQ(kernel.changes(), (std::vector<Change>{change(EVFILT_WRITE, EV_DELETE)}));
}

TEST_F(StreamSocketAndKernel, RoomOfNothingWritesNothingAndKeepsTheFilter) {
    start();
    loop->write(stream.source, "x", 1);
    kernel.settle();
    kernel.reset();
    report(EVFILT_WRITE, 0);
    report(EVFILT_WRITE, -1);
    EXPECT_EQ(arrived(), "");
    EXPECT_TRUE(kernel.changes().empty());
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 0U);
}

TEST_F(StreamSocketAndKernel, WriteRecordWithAnEmptyQueueOnlyRemovesTheFilter) {
    start();
    report(EVFILT_WRITE, 100);
    EXPECT_EQ(kernel.changes(), (std::vector<Change>{change(EVFILT_WRITE, EV_DELETE)}));
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 0U);
}

// While the I/O thread removes the filter of an empty queue, another thread writes. It has to
// wait: should its bytes and its arming go in between, the removal would come last and leave the
// bytes in the queue. (A write that does not wait is done within the time that it is given here.)
TEST_F(StreamSocketAndKernel, WriteThatMeetsTheRemovalOfTheFilterArmsItAfterwards) {
    start();
    std::thread late;
    kernel.beforeNextRemoval([&] {
        std::promise<void> written;
        auto done = written.get_future();
        late = std::thread([this, written = std::move(written)]() mutable {
            loop->write(stream.source, "late", 4);
            written.set_value();
        });
        static_cast<void>(done.wait_for(std::chrono::milliseconds(200)));
    });
    loop->write(stream.source, "first", 5);
    report(EVFILT_WRITE, 100);
    late.join();
    kernel.settle();
    EXPECT_EQ(arrived(), "first");
    EXPECT_EQ(kernel.changes().back(), change(EVFILT_WRITE, kArm));
}

TEST_F(StreamSocketAndKernel, FailedWriteIsTerminatedAndKeepsTheQueue) {
    start();
    ASSERT_EQ(shutdown(stream.sock, SHUT_WR), 0);
    loop->write(stream.source, "x", 1);
    kernel.settle();
    kernel.reset();
    report(EVFILT_WRITE, 100);
    report(EVFILT_WRITE, 100);
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 2U);
    EXPECT_TRUE(kernel.changes().empty());
}

TEST_F(StreamSocketAndKernel, BytesReadAfterAFailedWriteComeWithoutThoseThatTheEndTook) {
    EXPECT_EQ(readAroundAFailedWrite(false), "cd");
}

TEST_F(StreamSocketAndKernel, BytesReadAfterAFailedWriteComeBehindThoseKeptAtTheEnd) {
    EXPECT_EQ(readAroundAFailedWrite(true), "abcd");
}

TEST_F(StreamSocketAndKernel, ReadRecordOfNothingIsTerminatedAndLeavesTheBufferAlone) {
    loop->startObject(stream.source, events.block([](const RecordedEvent&, uint64_t* drop) {
        if (drop) *drop = 0;
        return true;
    }));
    ASSERT_EQ(::write(stream.peer, "kept", 4), 4);
    report(EVFILT_READ, 4);
    EXPECT_EQ(events.last().code, HXKQueueEventData);
    report(EVFILT_READ, 0);
    EXPECT_EQ(events.last().code, HXKQueueEventTerminated);
    EXPECT_EQ(events.last().bytes, "kept");
    report(EVFILT_READ, 0);
    EXPECT_EQ(events.last().bytes, "kept");
}

TEST_F(StreamSocketAndKernel, FailedReadIsTerminatedAndLeavesTheBufferAlone) {
    start();
    fcntl(stream.sock, F_SETFL, O_NONBLOCK);  // so that a read without bytes fails
    report(EVFILT_READ, 10);
    EXPECT_EQ(events.last().code, HXKQueueEventTerminated);
    EXPECT_EQ(events.last().bytes, "");
}

TEST_F(StreamSocketAndKernel, ReadsNoMoreThanTheCountAndKeepsZerosForWhatIsMissing) {
    start();
    ASSERT_EQ(::write(stream.peer, "abcdef", 6), 6);
    report(EVFILT_READ, 2);
    EXPECT_EQ(events.last().bytes, "ab");
    report(EVFILT_READ, 6);
    EXPECT_EQ(events.last().bytes, std::string("cdef\0\0", 6));
}

TEST_F(StreamSocketAndKernel, PausedOneRemovesItsReadFilterAndResumingAddsIt) {
    loop->startObject(stream.source, events.block([this](const RecordedEvent& event, auto*) {
        if (event.code == HXKQueueEventData) stream.source->pauseReading();
        return true;
    }));
    ASSERT_EQ(::write(stream.peer, "x", 1), 1);
    kernel.settle();
    kernel.reset();
    report(EVFILT_READ, 1);
    EXPECT_EQ(kernel.changes(), std::vector<Change>{change(EVFILT_READ, EV_DELETE)});
    stream.source->resumeReading();
    kernel.settle();
    EXPECT_EQ(kernel.changes().back(), change(EVFILT_READ, kArm));
}

TEST_F(StreamSocketAndKernel, TellsHowManyBytesTheKernelHasNotTakenYet) {
    start();
    EXPECT_EQ(stream.source->pendingBytes(), 0U);
    loop->write(stream.source, "0123456789", 10);
    EXPECT_EQ(stream.source->pendingBytes(), 10U);
    report(EVFILT_WRITE, 4);
    EXPECT_EQ(stream.source->pendingBytes(), 6U);
    report(EVFILT_WRITE, 100);
    EXPECT_EQ(stream.source->pendingBytes(), 0U);
}

TEST_F(StreamSocketAndKernel, IgnoresRecordsOfOtherFilters) {
    start();
    report(EVFILT_TIMER, 1);
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventConnected});
    EXPECT_TRUE(kernel.changes().empty());
}

TEST_F(StreamSocketAndKernel, StopOfABorrowedDescriptorRemovesBothFilters) {
    const Stream borrowed = makeStream(false);
    loop->startObject(borrowed.source, events.block());
    kernel.settle();
    kernel.reset();
    loop->stopObject(borrowed.source);
    kernel.settle();
    const auto ident = static_cast<uint64_t>(borrowed.sock);
    EXPECT_EQ(kernel.changes(), (std::vector<Change>{{ident, EVFILT_READ, EV_DELETE},
                                                     {ident, EVFILT_WRITE, EV_DELETE}}));
    close(borrowed.sock);
    close(borrowed.peer);
}

TEST_F(StreamSocketAndKernel, StopOfAnOwnedDescriptorSubmitsNothing) {
    start();
    loop->stopObject(stream.source);
    kernel.settle();
    EXPECT_TRUE(kernel.changes().empty());
}

TEST_F(StreamSocketAndKernel, ReadRecordOfLessThanNothingIsTerminatedWithoutAnError) {
    start();
    report(EVFILT_READ, -1);
    EXPECT_EQ(events.last().code, HXKQueueEventTerminated);
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(StreamSocketAndKernel, WriteRecordWithTheEndStillWritesOnceConnected) {
    start();
    loop->write(stream.source, "x", 1);
    report(EVFILT_WRITE, 100, EV_EOF);
    EXPECT_EQ(arrived(), "x");
    report(EVFILT_WRITE, 100, EV_EOF);
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventConnected});
}

TEST_F(StreamSocketAndKernel, ReadRecordWithTheEndDeliversItsBytesAsData) {
    start();
    ASSERT_EQ(::write(stream.peer, "last", 4), 4);
    report(EVFILT_READ, 4, EV_EOF);
    EXPECT_EQ(events.codes(), (std::vector<int32_t>{HXKQueueEventConnected, HXKQueueEventData}));
    EXPECT_EQ(events.last().bytes, "last");
}

TEST_F(StreamSocketAndKernel, BlockThatIsToldOfAFailedWriteMayWaitForAnotherThreadsWrite) {
    std::atomic<bool> wasHeldUp{false};
    std::future<void> other;
    loop->startObject(stream.source, events.block([&](const RecordedEvent& event, auto*) {
        if (event.code != HXKQueueEventTerminated) return true;
        other = std::async(std::launch::async, [this] { loop->write(stream.source, "y", 1); });
        wasHeldUp = other.wait_for(std::chrono::seconds(5)) != std::future_status::ready;
        return true;
    }));
    ASSERT_EQ(shutdown(stream.sock, SHUT_WR), 0);
    loop->write(stream.source, "x", 1);
    report(EVFILT_WRITE, 100);
    EXPECT_EQ(events.count(HXKQueueEventTerminated), 1U);
    EXPECT_FALSE(wasHeldUp);
}

TEST_F(StreamSocketAndKernel, RecordOfAnotherDescriptorIsIgnored) {
    start();
    ASSERT_EQ(write(stream.peer, "abc", 3), 3);
    loop->write(stream.source, "xyz", 3);
    kernel.settle();
    kernel.reset();
    for (const int filter : {EVFILT_READ, EVFILT_WRITE}) {
        struct kevent record;
        EV_SET(&record, stream.peer, static_cast<int16_t>(filter), 0, 0, 3,
               static_cast<void*>(stream.source.get()));
        kernel.deliver({record});
        kernel.settle();
    }
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventConnected});
    EXPECT_EQ(arrived(), "");
    EXPECT_TRUE(kernel.changes().empty());
}

// A client whose connect stays pending.
class PendingConnectAndKernel : public LoopTest {
protected:
    PendingConnectAndKernel() {
        kernel.reset();
        client = loop->createTCPClient(asSockaddr(listener.address()));
        loop->startObject(client, events.block());
        kernel.settle();
        sock = static_cast<int>(kernel.changes().at(0).ident);
    }
    ~PendingConnectAndKernel() override { stopLoop(); }

    void report(int filter, int flags, int64_t data) {
        struct kevent record;
        EV_SET(&record, sock, static_cast<int16_t>(filter), flags, 0, data,
               static_cast<void*>(client.get()));
        kernel.reset();
        kernel.deliver({record});
        kernel.settle();
    }

    [[nodiscard]] std::vector<std::pair<int, int>> changes() const {
        std::vector<std::pair<int, int>> all;
        for (const Change& change : kernel.changes())
            all.emplace_back(change.filter, change.flags);
        return all;
    }

    ScriptedKernel& kernel = ScriptedKernel::instance();
    const FullListener listener;
    EventRecorder events;
    std::shared_ptr<HXKQueueTCPClient> client;
    int sock = -1;  // the client's
};

TEST_F(PendingConnectAndKernel, RegistersForWritingAndReadingAndSaysNothingYet) {
    EXPECT_EQ(changes(),
              (std::vector<std::pair<int, int>>{{EVFILT_WRITE, kArm}, {EVFILT_READ, kArm}}));
    EXPECT_TRUE(events.all().empty());
}

TEST_F(PendingConnectAndKernel, ReadRecordIsIgnored) {
    report(EVFILT_READ, EV_EOF, 0);
    EXPECT_TRUE(events.all().empty());
    EXPECT_TRUE(changes().empty());
}

TEST_F(PendingConnectAndKernel, WriteRecordMeansConnectedAndTheNextOneRemovesTheFilter) {
    report(EVFILT_WRITE, 0, 100);
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventConnected});
    EXPECT_TRUE(changes().empty());
    report(EVFILT_WRITE, 0, 100);
    EXPECT_EQ(changes(), (std::vector<std::pair<int, int>>{{EVFILT_WRITE, EV_DELETE}}));
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventConnected});
}

TEST_F(PendingConnectAndKernel, WriteRecordWithTheEndMeansCannotConnectAndChangesNothing) {
    report(EVFILT_WRITE, EV_EOF, 100);
    EXPECT_EQ(events.codes(), std::vector<int32_t>{HXKQueueEventCannotConnect});
    EXPECT_TRUE(changes().empty());
    report(EVFILT_WRITE, EV_EOF, 100);
    EXPECT_EQ(events.codes(), (std::vector<int32_t>(2, HXKQueueEventCannotConnect)));
}

TEST_F(PendingConnectAndKernel, BlockThatIsToldOfTheConnectionFindsItConnected) {
    EventRecorder second;
    loop->startObject(client, events.block([&](const RecordedEvent& event, auto*) {
        loop->startObject(event.source, second.block());
        return true;
    }));
    kernel.settle();
    report(EVFILT_WRITE, 0, 100);
    EXPECT_EQ(second.codes(), std::vector<int32_t>{HXKQueueEventConnected});
}

TEST_F(PendingConnectAndKernel, LeavesTheSocketInBlockingMode) {
    EXPECT_EQ(fcntl(sock, F_GETFL) & O_NONBLOCK, 0);
}

}  // namespace
