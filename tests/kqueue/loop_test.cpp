#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <future>
#include <thread>

#include "kqueue/HXKQueueStreamSocket.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/support/captured_run.h"

namespace {

using Loop = LoopTest;
using namespace std::chrono_literals;

TEST_F(Loop, LogsItsStart) {
    EXPECT_TRUE(log.waitFor("debug kqueue is initialized"));
    EXPECT_TRUE(log.waitFor("debug kqueue io thread is started"));
    EXPECT_TRUE(log.waitFor("debug io thread started"));
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(Loop, SourceThatIsEnabledWhileTheThreadWaitsReceivesEvents) {
    settle();
    EventRecorder events;
    Stream stream = makeStream();
    loop->startObject(stream.source, events.block());
    ASSERT_EQ(::write(stream.peer, "abc", 3), 3);
    ASSERT_TRUE(events.waitFor(HXKQueueEventData));
    EXPECT_EQ(events.last().bytes, "abc");
    EXPECT_EQ(events.last().source, stream.source);
    stopLoop();
    close(stream.peer);
}

TEST_F(Loop, StoppedSourceIsStoppedOnTheIOThreadReleasedAndItsBlockDropped) {
    EventRecorder events;
    Stream stream = makeStream();
    const auto owner = std::make_shared<int>(1);
    const std::string line = "debug " + tagOf(stream.source.get()) + ": stop";
    loop->startObject(stream.source, [owner](auto&&...) { return true; });
    EXPECT_EQ(owner.use_count(), 2);
    const std::weak_ptr<HXKQueueEventProtocol> source = stream.source;
    loop->stopObject(stream.source);
    stream.source = nullptr;
    ASSERT_TRUE(log.waitFor(line));
    char byte = 0;
    EXPECT_EQ(read(stream.peer, &byte, 1), 0);
    settle();
    EXPECT_TRUE(source.expired());
    EXPECT_EQ(owner.use_count(), 1);
    close(stream.peer);
}

TEST_F(Loop, StoppingASourceTwiceOrOneThatIsNotRegisteredHasNoEffect) {
    Stream stream = makeStream();
    const std::string line = "debug " + tagOf(stream.source.get()) + ": stop";
    loop->stopObject(stream.source);
    loop->stopObject(stream.source);
    ASSERT_TRUE(log.waitFor(line));
    loop->stopObject(stream.source);
    loop->stopObject(nullptr);
    settle();
    const auto lines = log.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 1);
    close(stream.peer);
}

TEST_F(Loop, LateWriteCannotArmAStoppedSourceAgain) {
    EventRecorder events;
    Stream stream = makeStream(false);
    loop->startObject(stream.source, events.block());
    ASSERT_TRUE(events.waitFor(HXKQueueEventConnected));
    loop->stopObject(stream.source);
    EXPECT_TRUE(loop->write(stream.source, "late", 4));
    settle();
    EXPECT_TRUE(loop->write(stream.source, "later", 5));
    settle();
    fcntl(stream.peer, F_SETFL, O_NONBLOCK);
    char byte = 0;
    EXPECT_EQ(read(stream.peer, &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(stream.peer);
    close(stream.sock);
}

TEST_F(Loop, BlockMayStopItsOwnSource) {
    EventRecorder events;
    Stream stream = makeStream();
    loop->startObject(stream.source, events.block([this](const RecordedEvent& event, auto*) {
        if (event.code == HXKQueueEventData) loop->stopObject(event.source);
        return true;
    }));
    ASSERT_EQ(::write(stream.peer, "x", 1), 1);
    ASSERT_TRUE(log.waitFor("debug " + tagOf(stream.source.get()) + ": stop"));
    char byte = 0;
    EXPECT_EQ(read(stream.peer, &byte, 1), 0);
    close(stream.peer);
}

TEST_F(Loop, BlockMayWaitForAnotherThreadThatUsesTheLoop) {
    EventRecorder events;
    Stream stream = makeStream();
    std::atomic<bool> wasHeldUp{false};
    std::future<void> other;
    loop->startObject(stream.source, events.block([&](const RecordedEvent& event, auto*) {
        if (event.code != HXKQueueEventData) return true;
        other = std::async(std::launch::async, [&] {
            loop->write(stream.source, "x", 1);
            loop->stopObject(stream.source);
        });
        wasHeldUp = other.wait_for(5s) != std::future_status::ready;
        return true;
    }));
    ASSERT_EQ(::write(stream.peer, "x", 1), 1);
    ASSERT_TRUE(log.waitFor("debug " + tagOf(stream.source.get()) + ": stop"));
    EXPECT_FALSE(wasHeldUp);
    close(stream.peer);
}

TEST_F(Loop, StopTakesAboutASecondStopsEverySourceAndClosesTheQueue) {
    EventRecorder events;
    std::array<Stream, 20> streams;
    for (Stream& stream : streams) {
        stream = makeStream();
        loop->startObject(stream.source, events.block());
    }
    const size_t descriptors = openDescriptors();
    loop->stopObject(streams[0].source);
    const auto start = std::chrono::steady_clock::now();
    loop->stop();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, 900ms);
    for (const Stream& stream : streams) {
        EXPECT_TRUE(log.has("debug " + tagOf(stream.source.get()) + ": stop"));
        char byte = 0;
        EXPECT_EQ(read(stream.peer, &byte, 1), 0);
        close(stream.peer);
    }
    // Each stream's two ends and the queue.
    EXPECT_EQ(openDescriptors(), descriptors - 2 * streams.size() - 1);
    loop = nullptr;
}

TEST_F(Loop, BlockDroppedByStopMayAskForOtherSourcesToStop) {
    EventRecorder events;
    std::array<Stream, 8> streams;
    for (Stream& stream : streams)
        stream = makeStream();
    for (const Stream& stream : streams) {
        const std::shared_ptr<void> stopsAll(nullptr, [this, &streams](void*) {
            for (const Stream& other : streams)
                loop->stopObject(other.source);
        });
        loop->startObject(stream.source, [stopsAll](auto&&...) { return true; });
    }
    loop->stop();
    for (const Stream& stream : streams) {
        EXPECT_TRUE(log.has("debug " + tagOf(stream.source.get()) + ": stop"));
        close(stream.peer);
    }
    loop = nullptr;
}

// Waits, as it goes, for another thread's write, which needs the loop's lock.
struct WaitsForAWrite {
    ~WaitsForAWrite() {
        written = std::async(std::launch::async, [this] { loop.write(source, "x", 1); });
        wasHeldUp = written.wait_for(std::chrono::seconds(5)) != std::future_status::ready;
    }

    HXKQueue& loop;
    std::shared_ptr<HXKQueueStreamSocket> source;
    std::atomic<bool>& wasHeldUp;
    std::future<void>& written;
};

TEST_F(Loop, WhatABlockHoldsMayWaitForAnotherThreadThatUsesTheLoopAsItGoes) {
    std::array<std::future<void>, 2> writes;
    std::array<std::atomic<bool>, 2> wereHeldUp{};
    const Stream other = makeStream();
    loop->startObject(other.source, [](auto&&...) { return true; });
    const std::array<Stream, 2> streams = {makeStream(), makeStream()};
    for (size_t i = 0; i < streams.size(); ++i) {
        const std::shared_ptr<WaitsForAWrite> held(
            new WaitsForAWrite{*loop, other.source, wereHeldUp[i], writes[i]});
        loop->startObject(streams[i].source, [held](auto&&...) { return true; });
    }
    loop->stopObject(streams[0].source);
    char byte = 0;
    EXPECT_EQ(recv(other.peer, &byte, 1, 0), 1);
    loop->stop();  // lets the other one's block go
    EXPECT_FALSE(wereHeldUp[0]);
    EXPECT_FALSE(wereHeldUp[1]);
    loop = nullptr;
    for (const int peer : {other.peer, streams[0].peer, streams[1].peer})
        close(peer);
}

TEST(LoopThatWasNeverStarted, NeverComesBackFromStop) {
    const Outcome outcome = runInChild([] {
        const auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
        alarm(3);  // ends the process, as the only way out
        loop->stop();
    });
    EXPECT_EQ(outcome.status, 128 + SIGALRM);
}

TEST(LoopThatWasNeverStarted, GoesWhenItIsDropped) {
    std::weak_ptr<HXKQueue> watch;
    {
        const auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
        watch = loop;
    }
    EXPECT_TRUE(watch.expired());
}

TEST(LoopThatIsDropped, LeavesItsQueueOpen) {
    const int kq = nextDescriptor();
    HXKQueue::initWithSubsystem("org.example.usb.virt.ctl").reset();
    EXPECT_EQ(close(kq), 0);
}

TEST(LoopThatIsDropped, IsKeptByItsThread) {
    LogRecorder log;
    std::weak_ptr<HXKQueue> watch;
    {
        const auto loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
        watch = loop;
        loop->start();
        ASSERT_TRUE(log.waitFor("debug io thread started"));
    }
    const auto loop = watch.lock();
    ASSERT_NE(loop, nullptr);
    loop->stop();
}

TEST_F(Loop, SurvivesRequestsFromManyThreads) {
    std::atomic<int> received{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                Stream stream = makeStream();
                EventRecorder events;
                loop->startObject(stream.source, events.block());
                loop->write(stream.source, "ping", 4);
                char bytes[4];
                ASSERT_EQ(recv(stream.peer, bytes, 4, MSG_WAITALL), 4);
                ASSERT_EQ(::write(stream.peer, "pong", 4), 4);
                ASSERT_TRUE(events.waitForBytes(4));
                received += events.allBytes() == "pong" ? 1 : 0;
                loop->stopObject(stream.source);
                ASSERT_EQ(recv(stream.peer, bytes, 4, 0), 0);
                close(stream.peer);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(received, 200);
}

}  // namespace
