#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "tests/platform/epoll_calls.h"
#include "tests/platform/kernel_queue.h"

namespace {

using Closing = KernelQueueTest;

// The stray of a duplicate is shaken off by making a new epoll instance, which takes a descriptor.
TEST_F(Closing, DuplicateThatLivesReachesNobodyWithoutADescriptorToSpare) {
    Pair gone = unixPair();
    Pair kept = unixPair();
    int tag = 0;
    add(gone.ours, EVFILT_READ);
    add(kept.ours, EVFILT_READ, &tag);
    const Descriptor duplicate(dup(gone.ours));
    gone.ours.reset();
    send(gone.peer, "x");
    failingQueueCreations = 3;
    for (int i = 0; i < 10 && failingQueueCreations > 1; ++i)
        EXPECT_TRUE(look().empty());
    ASSERT_EQ(failingQueueCreations, 1);
    send(kept.peer, "abc");
    const struct kevent record = waitForOne();
    EXPECT_EQ(record.udata, &tag);
    EXPECT_EQ(record.data, 3);
    EXPECT_EQ(failingQueueCreations, 0);
    EXPECT_EQ(waitForOne().udata, &tag);
    EXPECT_EQ(receive(kept.ours, 3), "abc");
    EXPECT_TRUE(wait(8, 20).empty());
}

// Whatever the number means by then, the next queue's making sets its memory free.
TEST_F(Closing, QueueWhoseNumberHasBecomeAnotherFileIsForgotten) {
    const int number = ::kqueue();
    ASSERT_EQ(close(number), 0);
    const Descriptor file(dup2(STDERR_FILENO, number));
    const Descriptor next(::kqueue());
    struct kevent record;
    const struct timespec atOnce = {};
    EXPECT_EQ(kevent(number, nullptr, 0, &record, 1, &atOnce), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Closing, FifoOpenedAgainUnderTheNumberHasNoneOfTheOldFilters) {
    std::string path = testing::TempDir() + "fifo-XXXXXX";
    ASSERT_NE(mkdtemp(path.data()), nullptr);
    const std::string fifo = path + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const Descriptor keptOpen(open(fifo.c_str(), O_RDWR));
    Descriptor reader(open(fifo.c_str(), O_RDWR));
    const int number = reader;
    add(number, EVFILT_READ);
    reader.reset();
    reader = Descriptor(open(fifo.c_str(), O_RDWR));
    ASSERT_EQ(reader, number);
    EXPECT_EQ(change(static_cast<uint64_t>(number), EVFILT_READ, EV_DELETE), ENOENT);
    unlink(fifo.c_str());
    rmdir(path.c_str());
}

// What <sys/event.h> says of a busy socket's number: the duplicate's bytes are taken for those of
// the new descriptor, but not for long, and never by a filter of the new one's.
TEST_F(Closing, DuplicateOfABusySocketIsShakenOffAfterFewRecords) {
    Pair old = unixPair();
    add(old.ours, EVFILT_READ);
    send(old.peer, "x");
    EXPECT_EQ(waitForOne().data, 1);
    const Descriptor duplicate(dup(old.ours));
    Pair next = unixPair();
    send(next.peer, "unread");
    const int number = old.ours;
    old.ours.reset();
    ASSERT_EQ(dup2(next.ours, number), number);
    old.ours = Descriptor(number);
    int records = 0;
    while (records < 1000 && !look().empty())
        ++records;
    EXPECT_LT(records, 32);
    EXPECT_TRUE(wait(8, 20).empty());
    EXPECT_EQ(change(static_cast<uint64_t>(number), EVFILT_READ, EV_DELETE), ENOENT);
}

TEST_F(Closing, WriteFilterAddedRightAfterARecordToADescriptorThatIsGoneFails) {
    Pair pair = unixPair();
    int tag = 0;
    add(pair.ours, EVFILT_READ, &tag);
    send(pair.peer, "x");
    EXPECT_EQ(waitForOne().data, 1);
    const struct kevent arming = makeChange(pair.ours, EVFILT_WRITE, EV_ADD, &tag);
    pair.ours.reset();
    const struct timespec atOnce = {};
    struct kevent record = {};
    ASSERT_EQ(kevent(queue, &arming, 1, &record, 1, &atOnce), 1);
    EXPECT_EQ(record.flags, EV_ADD | EV_ERROR);
    EXPECT_EQ(record.data, EBADF);
    EXPECT_EQ(record.filter, EVFILT_WRITE);
    EXPECT_EQ(record.udata, &tag);
    EXPECT_TRUE(look().empty());
}

}  // namespace
