// Filters that there is no memory for.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "tests/platform/epoll_calls.h"
#include "tests/platform/kernel_queue.h"
#include "tests/support/failing_allocations.h"

namespace {

constexpr struct timespec kAtOnce = {};

// How long memory has to be missing before that is told.
constexpr std::chrono::milliseconds kVain{500};

// As many additions as can wait without more memory.
constexpr size_t kRoom = 128;

class WhileSet {
public:
    explicit WhileSet(std::atomic<bool>& flag_) : flag(flag_) { flag = true; }
    WhileSet(const WhileSet&) = delete;
    WhileSet& operator=(const WhileSet&) = delete;
    ~WhileSet() { flag = false; }

private:
    std::atomic<bool>& flag;
};

class Memory : public KernelQueueTest {
protected:
    // A call with one change, or without, and no memory for anything. The number of records.
    int call(const struct kevent& change, const struct timespec* timeout = &kAtOnce) {
        const FailingAllocations all(1, FailingAllocations::Extent::FromThereOn);
        return kevent(queue, &change, 1, &record, 1, timeout);
    }

    // A call that waits so long without memory.
    int waitInVain(time_t seconds) {
        const FailingAllocations all(1, FailingAllocations::Extent::FromThereOn);
        const struct timespec timeout = {.tv_sec = seconds, .tv_nsec = 0};
        return kevent(queue, nullptr, 0, &record, 1, &timeout);
    }

    void expectEnd(const Descriptor& descriptor, int filter) const {
        EXPECT_EQ(record.ident, static_cast<uint64_t>(descriptor));
        EXPECT_EQ(record.filter, filter);
        EXPECT_EQ(record.flags, EV_EOF);
        EXPECT_EQ(record.fflags, static_cast<uint32_t>(ENOMEM));
        EXPECT_EQ(record.data, 0);
        EXPECT_EQ(record.udata, &record);
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
    const struct kevent ready = waitForOne();
    EXPECT_EQ(ready.ident, static_cast<uint64_t>(pair.ours));
    EXPECT_EQ(ready.filter, GetParam());
    EXPECT_EQ(ready.udata, &record);
    EXPECT_GT(ready.data, 2);
    EXPECT_EQ(look().size(), 1U);
}

TEST_P(MemoryFor, FilterThatThereIsNoneForAfterHalfASecondIsSaidToHaveEnded) {
    const Pair pair = unixPair();
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(call(makeChange(pair.ours, GetParam(), EV_ADD, &record)), 0);
    ASSERT_EQ(waitInVain(20), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, kVain);
    expectEnd(pair.ours, GetParam());
}

// A stream that has bytes to write looks at nothing but the room for them.
TEST_P(MemoryFor, FilterThatWasSaidToHaveEndedIsThereOnceThereIsSome) {
    const Pair pair = unixPair();
    send(pair.peer, "abc");
    ASSERT_EQ(call(makeChange(pair.ours, GetParam(), EV_ADD, &record)), 0);
    ASSERT_EQ(waitInVain(20), 1);
    EXPECT_GT(waitForOne().data, 2);
}

TEST_F(Memory, AdditionAgainDoesNotPutThatOff) {
    const Pair pair = unixPair();
    const struct kevent addition = makeChange(pair.ours, EVFILT_READ, EV_ADD, &record);
    const auto start = std::chrono::steady_clock::now();
    while (call(addition) == 0 && std::chrono::steady_clock::now() - start < 20 * kVain)
        continue;
    expectEnd(pair.ours, EVFILT_READ);
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
    ASSERT_EQ(waitInVain(1), 0);
    const Descriptor client = connectTo(port);
    EXPECT_EQ(waitForOne().ident, static_cast<uint64_t>(listener));
}

TEST_F(Memory, WaitGoesOnTrying) {
    const Pair pair = unixPair();
    send(pair.peer, "abc");
    const struct kevent addition = makeChange(pair.ours, EVFILT_READ, EV_ADD);
    const FailingAllocations first(1);
    ASSERT_EQ(kevent(queue, &addition, 1, &record, 1, nullptr), 1);
    EXPECT_EQ(record.data, 3);
}

TEST_F(Memory, FilterThatWaitsCanBeEnabledAndIsStillThereThen) {
    const Pair pair = unixPair();
    send(pair.peer, "abc");
    ASSERT_EQ(call(makeChange(pair.ours, EVFILT_READ, EV_ADD)), 0);
    FailingAllocations all(1, FailingAllocations::Extent::FromThereOn);
    const struct kevent enabling = makeChange(pair.ours, EVFILT_READ, EV_ENABLE);
    EXPECT_EQ(kevent(queue, &enabling, 1, nullptr, 0, &kAtOnce), 0);
    const struct kevent nonsense = makeChange(pair.ours, EVFILT_READ, 0x0800);
    EXPECT_EQ(kevent(queue, &nonsense, 1, nullptr, 0, &kAtOnce), -1);
    EXPECT_EQ(errno, EINVAL);
    all.end();
    EXPECT_EQ(waitForOne().data, 3);
}

TEST_F(Memory, FilterIsRemovedAlsoWhenTheKernelHasNoneToTellWhatItsDescriptorIs) {
    const Pair pair = unixPair();
    add(pair.ours, EVFILT_READ);
    {
        const WhileSet unknown(isStatusUnknown);
        EXPECT_EQ(change(static_cast<uint64_t>(pair.ours), EVFILT_READ, EV_DELETE), 0);
    }
    send(pair.peer, "abc");
    EXPECT_TRUE(look().empty());
}

TEST_F(Memory, FilterOfADescriptorThatTheKernelHasNoneToTellOfIsThereOnceItCan) {
    const Pair pair = unixPair();
    send(pair.peer, "abc");
    {
        const WhileSet unknown(isStatusUnknown);
        add(pair.ours, EVFILT_READ);
        EXPECT_TRUE(look().empty());
    }
    EXPECT_EQ(waitForOne().data, 3);
}

TEST_F(Memory, AdditionForANumberThatMeansAnotherDescriptorMeanwhileIsForThatOne) {
    Pair pair = unixPair();
    const Pair other = unixPair();
    send(other.peer, "abc");
    ASSERT_EQ(call(makeChange(pair.ours, EVFILT_READ, EV_ADD)), 0);
    {
        const WhileSet unknown(isStatusUnknown);
        ASSERT_NE(dup2(other.ours, pair.ours), -1);
        add(pair.ours, EVFILT_READ);
    }
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

// The second allocation that adding a filter takes is one of those for what waits need.
TEST_F(Memory, SecondFilterNeedsNoneWhicheverAllocationForTheFirstHasFailed) {
    for (uint64_t nth = 1; nth <= 8; ++nth) {
        const Descriptor fresh(kqueue());
        const Pair pair = unixPair();
        struct kevent addition = makeChange(pair.ours, EVFILT_READ, EV_ADD);
        {
            const FailingAllocations one(nth);
            ASSERT_EQ(kevent(fresh, &addition, 1, nullptr, 0, &kAtOnce), 0) << nth;
        }
        ASSERT_EQ(kevent(fresh, nullptr, 0, nullptr, 0, &kAtOnce), 0) << nth;
        addition = makeChange(pair.ours, EVFILT_WRITE, EV_ADD);
        const FailingAllocations all(1, FailingAllocations::Extent::FromThereOn);
        ASSERT_EQ(kevent(fresh, &addition, 1, &record, 1, &kAtOnce), 1) << nth;
        EXPECT_GT(record.data, 0) << nth;
    }
}

TEST_F(Memory, MoreFiltersThanCanBeKeptEndAtOnce) {
    std::vector<Pair> pairs(kRoom + 72);
    size_t ended = 0;
    for (Pair& pair : pairs) {
        pair = unixPair();
        const struct kevent change = makeChange(pair.ours, EVFILT_READ, EV_ADD);
        const FailingAllocations all(1, FailingAllocations::Extent::FromThereOn);
        const int count = kevent(queue, &change, 1, nullptr, 0, &kAtOnce);
        if (count == -1) ++ended;
    }
    EXPECT_EQ(ended, pairs.size() - kRoom);
    for (const Pair& pair : pairs)
        send(pair.peer, "x");
    EXPECT_EQ(look(pairs.size()).size(), kRoom);
}

}  // namespace
