// Filters that there is no memory for.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "tests/platform/kernel_queue.h"
#include "tests/support/failing_allocations.h"

namespace {

constexpr struct timespec kAtOnce = {};

// As many calls as it takes until memory is held to be missing for good.
constexpr int kVain = 20;

class Memory : public KernelQueueTest {
protected:
    // A call with one change, or without, and no memory for anything. The number of records.
    int call(const struct kevent& change, const struct timespec* timeout = &kAtOnce) {
        const FailingAllocations all(1, FailingAllocations::Extent::FromThereOn);
        return kevent(queue, &change, 1, &record, 1, timeout);
    }

    int callAgain() {
        const FailingAllocations all(1, FailingAllocations::Extent::FromThereOn);
        return kevent(queue, nullptr, 0, &record, 1, &kAtOnce);
    }

    struct kevent record = {};
};

class MemoryFor : public Memory, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(, MemoryFor, testing::Values(EVFILT_READ, EVFILT_WRITE),
                         [](const auto& filter) {
                             return filter.param == EVFILT_READ ? "Reading" : "Writing";
                         });

TEST_P(MemoryFor, FilterIsThereOnceThereIsSome) {
    const Pair pair = unixPair();
    send(pair.peer, "abc");
    ASSERT_EQ(call(makeChange(pair.ours, GetParam(), EV_ADD, &record)), 0);
    ASSERT_EQ(callAgain(), 0);
    const struct kevent ready = waitForOne();
    EXPECT_EQ(ready.ident, static_cast<uint64_t>(pair.ours));
    EXPECT_EQ(ready.filter, GetParam());
    EXPECT_EQ(ready.udata, &record);
    EXPECT_GT(ready.data, 2);
    EXPECT_EQ(look().size(), 1U);
}

TEST_P(MemoryFor, FilterThatThereIsNoneForAtLastEndsWithoutBytes) {
    const Pair pair = unixPair();
    send(pair.peer, "abc");
    ASSERT_EQ(call(makeChange(pair.ours, GetParam(), EV_ADD, &record)), 0);
    for (int i = 1; i < kVain; ++i)
        ASSERT_EQ(callAgain(), 0) << i;
    ASSERT_EQ(callAgain(), 1);
    EXPECT_EQ(record.ident, static_cast<uint64_t>(pair.ours));
    EXPECT_EQ(record.filter, GetParam());
    EXPECT_EQ(record.flags, EV_EOF);
    EXPECT_EQ(record.fflags, static_cast<uint32_t>(ENOMEM));
    EXPECT_EQ(record.data, 0);
    EXPECT_EQ(record.udata, &record);
    EXPECT_TRUE(look().empty());
}

TEST_F(Memory, FilterThatIsRemovedMeanwhileIsGone) {
    const Pair pair = unixPair();
    send(pair.peer, "abc");
    ASSERT_EQ(call(makeChange(pair.ours, EVFILT_READ, EV_ADD)), 0);
    EXPECT_EQ(change(static_cast<uint64_t>(pair.ours), EVFILT_READ, EV_DELETE), 0);
    EXPECT_TRUE(look().empty());
    EXPECT_EQ(change(static_cast<uint64_t>(pair.ours), EVFILT_READ, EV_DELETE), ENOENT);
}

TEST_F(Memory, LaterAdditionOfTheSameFilterCounts) {
    const Pair pair = unixPair();
    send(pair.peer, "abc");
    int first = 0;
    int second = 0;
    ASSERT_EQ(call(makeChange(pair.ours, EVFILT_READ, EV_ADD, &first)), 0);
    ASSERT_EQ(call(makeChange(pair.ours, EVFILT_READ, EV_ADD | EV_ONESHOT, &second)), 0);
    EXPECT_EQ(waitForOne().udata, &second);
    EXPECT_TRUE(look().empty());
}

TEST_F(Memory, NumberThatMeansAnotherDescriptorMeanwhileHasNoFilter) {
    Pair pair = unixPair();
    ASSERT_EQ(call(makeChange(pair.ours, EVFILT_READ, EV_ADD)), 0);
    const Pair other = unixPair();
    send(other.peer, "abc");
    ASSERT_NE(dup2(other.ours, pair.ours), -1);
    EXPECT_TRUE(look().empty());
    EXPECT_EQ(change(static_cast<uint64_t>(pair.ours), EVFILT_READ, EV_DELETE), ENOENT);
}

TEST_F(Memory, FilterOfAClosedDescriptorIsForgotten) {
    Pair pair = unixPair();
    ASSERT_EQ(call(makeChange(pair.ours, EVFILT_READ, EV_ADD)), 0);
    pair.ours.reset();
    EXPECT_TRUE(look().empty());
}

// What accepts a connection would wait for one.
TEST_F(Memory, FilterOfAListeningSocketWaitsAsLongAsItTakes) {
    uint16_t port = 0;
    const Descriptor listener = tcpListener(port);
    ASSERT_EQ(call(makeChange(listener, EVFILT_READ, EV_ADD)), 0);
    for (int i = 0; i < 2 * kVain; ++i)
        ASSERT_EQ(callAgain(), 0) << i;
    const Descriptor client = connectTo(port);
    EXPECT_EQ(waitForOne().ident, static_cast<uint64_t>(listener));
}

TEST_F(Memory, WaitWithoutAnEndFailsSoonSoThatTheFilterIsTriedAgain) {
    const Pair pair = unixPair();
    ASSERT_EQ(call(makeChange(pair.ours, EVFILT_READ, EV_ADD), nullptr), -1);
    EXPECT_EQ(errno, ENOMEM);
    send(pair.peer, "abc");
    EXPECT_EQ(waitForOne().data, 3);
}

TEST_F(Memory, SecondFilterOfADescriptorNeedsNone) {
    const Pair pair = unixPair();
    add(pair.ours, EVFILT_READ);
    ASSERT_EQ(call(makeChange(pair.ours, EVFILT_WRITE, EV_ADD)), 1);
    EXPECT_EQ(record.filter, EVFILT_WRITE);
    EXPECT_EQ(record.flags & EV_ERROR, 0);
    EXPECT_GT(record.data, 0);
}

TEST_F(Memory, MoreFiltersThanCanBeKeptEndAtOnce) {
    std::vector<Pair> pairs(200);
    size_t ended = 0;
    for (Pair& pair : pairs) {
        pair = unixPair();
        const struct kevent change = makeChange(pair.ours, EVFILT_READ, EV_ADD);
        const FailingAllocations all(1, FailingAllocations::Extent::FromThereOn);
        const int count = kevent(queue, &change, 1, nullptr, 0, &kAtOnce);
        if (count == -1) ++ended;
    }
    EXPECT_EQ(ended, pairs.size() - 128);
    for (const Pair& pair : pairs)
        send(pair.peer, "x");
    EXPECT_EQ(look(pairs.size()).size(), 128U);
}

}  // namespace
