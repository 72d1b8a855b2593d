#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "tests/platform/kernel_queue.h"

namespace {

class Closing : public KernelQueueTest {
protected:
    int oldTag = 0;
    int newTag = 0;

    // Closes fd and makes its number mean what made does.
    static void reuse(Descriptor& fd, Descriptor made) {
        const int number = fd;
        fd.reset();
        if (made != number) {
            ASSERT_EQ(dup2(made, number), number);
        }
        fd = Descriptor(number);
    }
};

TEST_F(Closing, RemovesTheFilters) {
    Pair pair = unixPair();
    const int number = pair.ours;
    add(number, EVFILT_READ);
    add(number, EVFILT_WRITE);
    send(pair.peer, "x");
    pair.ours.reset();
    EXPECT_TRUE(look().empty());
    const Pair other = unixPair();
    ASSERT_EQ(other.ours, number);
    EXPECT_EQ(change(static_cast<uint64_t>(number), EVFILT_READ, EV_DELETE), ENOENT);
    EXPECT_EQ(change(static_cast<uint64_t>(number), EVFILT_WRITE, EV_DELETE), ENOENT);
}

TEST_F(Closing, RemovalAfterwardsHarmsNoOtherFilter) {
    Pair closed = unixPair();
    Pair kept = unixPair();
    add(closed.ours, EVFILT_READ);
    add(kept.ours, EVFILT_READ, &newTag);
    const auto number = static_cast<uint64_t>(closed.ours);
    closed.ours.reset();
    for (int i = 0; i < 3; ++i)
        EXPECT_NE(change(number, EVFILT_READ, EV_DELETE), 0);
    Pair next = unixPair();
    ASSERT_EQ(static_cast<uint64_t>(next.ours), number);
    add(next.ours, EVFILT_READ, &oldTag);
    send(kept.peer, "k");
    EXPECT_EQ(waitForOne().udata, &newTag);
    EXPECT_EQ(receive(kept.ours, 1), "k");
    send(next.peer, "n");
    EXPECT_EQ(waitForOne().udata, &oldTag);
}

TEST_F(Closing, NextOwnerOfTheNumberSeesNothingOfTheOldFilters) {
    Pair old = unixPair();
    add(old.ours, EVFILT_READ, &oldTag);
    add(old.ours, EVFILT_WRITE, &oldTag);
    Pair next = unixPair();
    send(next.peer, "for the new one");
    reuse(old.ours, std::move(next.ours));
    EXPECT_TRUE(look().empty());
    add(old.ours, EVFILT_READ, &newTag);
    const struct kevent record = waitForOne();
    EXPECT_EQ(record.filter, EVFILT_READ);
    EXPECT_EQ(record.udata, &newTag);
    EXPECT_EQ(record.data, 15);
}

TEST_F(Closing, WriteFilterOfTheNextOwnerDoesNotRevealTheOldReadFilter) {
    Pair old = unixPair();
    add(old.ours, EVFILT_READ, &oldTag);
    Pair next = unixPair();
    send(next.peer, "x");
    reuse(old.ours, std::move(next.ours));
    add(old.ours, EVFILT_WRITE, &oldTag);
    EXPECT_EQ(waitForOne().filter, EVFILT_WRITE);
}

TEST_F(Closing, RemovesTheFiltersWhileADuplicateLives) {
    Pair pair = unixPair();
    add(pair.ours, EVFILT_READ, &oldTag);
    const Descriptor duplicate(dup(pair.ours));
    pair.ours.reset();
    send(pair.peer, "x");
    EXPECT_TRUE(wait(8, 20).empty());
    EXPECT_TRUE(look().empty());
}

TEST_F(Closing, DuplicateThatLivesDoesNotFireForTheNextOwnerOfTheNumber) {
    Pair old = unixPair();
    add(old.ours, EVFILT_READ, &oldTag);
    const Descriptor duplicate(dup(old.ours));
    Pair next = unixPair();
    send(next.peer, "unread");
    reuse(old.ours, std::move(next.ours));
    send(old.peer, "for the duplicate");
    EXPECT_TRUE(wait(8, 20).empty());

    add(old.ours, EVFILT_READ, &newTag);
    const struct kevent record = waitForOne();
    EXPECT_EQ(record.udata, &newTag);
    EXPECT_EQ(record.data, 6);
}

TEST_F(Closing, StraysOfADuplicateDoNotDisturbOtherFilters) {
    Pair gone = unixPair();
    Pair kept = unixPair();
    add(gone.ours, EVFILT_READ, &oldTag);
    add(kept.ours, EVFILT_READ, &newTag);
    const Descriptor duplicate(dup(gone.ours));
    gone.ours.reset();
    send(gone.peer, "x");
    send(kept.peer, "abc");
    EXPECT_EQ(waitForOne().udata, &newTag);
    EXPECT_EQ(receive(kept.ours, 3), "abc");
    EXPECT_TRUE(wait(8, 20).empty());
    send(kept.peer, "d");
    EXPECT_EQ(waitForOne().udata, &newTag);
}

TEST_F(Closing, DuplicateMadeBackIntoTheNumberCanBeRegisteredAgain) {
    Pair pair = unixPair();
    const int number = pair.ours;
    add(number, EVFILT_READ, &oldTag);
    const Descriptor duplicate(dup(number));
    pair.ours.reset();
    EXPECT_EQ(change(static_cast<uint64_t>(number), EVFILT_READ, EV_ADD), EBADF);
    ASSERT_EQ(dup2(duplicate, number), number);
    pair.ours = Descriptor(number);
    add(number, EVFILT_READ, &newTag);
    send(pair.peer, "x");
    EXPECT_EQ(waitForOne().udata, &newTag);
}

TEST_F(Closing, NumberReusedThousandTimesGoesToItsOwner) {
    std::array<int, 16> tags{};
    Descriptor keptNumber = unixPair().ours;
    for (size_t i = 0; i < 1000; ++i) {
        Pair pair = unixPair();
        int* tag = &tags[i % tags.size()];
        add(pair.ours, EVFILT_READ, tag);
        if (i % 3 == 0) add(pair.ours, EVFILT_WRITE, tag);
        if (i % 3 == 0) remove(pair.ours, EVFILT_WRITE);
        send(pair.peer, std::string(i % 7 + 1, 'x'));
        const struct kevent record = waitForOne();
        ASSERT_EQ(record.udata, tag);
        ASSERT_EQ(record.data, static_cast<int64_t>(i % 7 + 1));
    }
}

TEST_F(Closing, EndOfADuplicateIsNotTakenForTheEndOfTheNextOwnerOfTheNumber) {
    Pair old = unixPair();
    add(old.ours, EVFILT_READ, &oldTag);
    const Descriptor duplicate(dup(old.ours));
    Pair next = unixPair();
    reuse(old.ours, std::move(next.ours));
    add(old.ours, EVFILT_READ, &newTag);
    old.peer.reset();
    EXPECT_TRUE(wait(8, 20).empty());
    send(next.peer, "x");
    const struct kevent record = waitForOne();
    EXPECT_EQ(record.udata, &newTag);
    EXPECT_EQ(record.flags & EV_EOF, 0);
}

TEST_F(Closing, ThatAChangeHasRunIntoRemovesTheFiltersForGood) {
    Pair pair = unixPair();
    const int number = pair.ours;
    add(number, EVFILT_READ, &oldTag);
    const Descriptor duplicate(dup(number));
    pair.ours.reset();
    EXPECT_EQ(change(static_cast<uint64_t>(number), EVFILT_WRITE, EV_ADD), EBADF);
    ASSERT_EQ(dup2(duplicate, number), number);
    pair.ours = Descriptor(number);
    send(pair.peer, "x");
    EXPECT_TRUE(wait(8, 20).empty());
    EXPECT_EQ(change(static_cast<uint64_t>(number), EVFILT_READ, EV_DELETE), ENOENT);
}

TEST_F(Closing, NextOwnerThatAddsAWriteFilterRightAfterARecordDoesNotRevealTheOldReadFilter) {
    Pair old = unixPair();
    add(old.ours, EVFILT_READ, &oldTag);
    send(old.peer, "x");
    Pair next = unixPair();
    send(next.peer, "x");
    const int number = old.ours;
    EXPECT_EQ(waitForOne().udata, &oldTag);
    reuse(old.ours, std::move(next.ours));
    add(number, EVFILT_WRITE, &newTag);
    const struct kevent record = waitForOne();
    EXPECT_EQ(record.filter, EVFILT_WRITE);
    EXPECT_EQ(record.udata, &newTag);
    EXPECT_EQ(change(static_cast<uint64_t>(number), EVFILT_READ, EV_DELETE), ENOENT);
}

// The room is for one, so that the other's readiness is left for the next call.
TEST_F(Closing, NextOwnerOfANumberWhoseReadinessWasLeftOverSeesNothingOfIt) {
    std::array<Pair, 2> pairs = {unixPair(), unixPair()};
    for (Pair& pair : pairs) {
        add(pair.ours, EVFILT_READ, &oldTag);
        send(pair.peer, "x");
        EXPECT_EQ(waitForOne().data, 1);
        EXPECT_EQ(receive(pair.ours, 1), "x");
    }
    for (Pair& pair : pairs)
        send(pair.peer, "x");
    const Records first = look(1);
    ASSERT_EQ(first.size(), 1U);
    const bool isSecond = first.front().ident == static_cast<uint64_t>(int{pairs[1].ours});
    Pair next = unixPair();
    send(next.peer, "for the new one");
    reuse(pairs[isSecond ? 0 : 1].ours, std::move(next.ours));
    EXPECT_EQ(waitForOne().ident, first.front().ident);
}

// As one does who connects again when the connection has ended.
TEST_F(Closing, SocketThatTakesTheNumberRightAfterItsPredecessorsEndGetsItsOwnRecords) {
    Pair old = unixPair();
    add(old.ours, EVFILT_READ, &oldTag);
    old.peer.reset();
    EXPECT_NE(waitForOne().flags & EV_EOF, 0);
    Pair next = unixPair();
    send(next.peer, "abc");
    const int number = old.ours;
    reuse(old.ours, std::move(next.ours));
    const Records changes = {makeChange(number, EVFILT_WRITE, EV_ADD, &oldTag),
                             makeChange(number, EVFILT_READ, EV_ADD, &oldTag)};
    const struct timespec atOnce = {};
    Records records(8);
    ASSERT_EQ(kevent(queue, changes.data(), 2, records.data(), 8, &atOnce), 2);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(records[i].flags & (EV_ERROR | EV_EOF), 0);
        EXPECT_GT(records[i].data, 0);
    }
    EXPECT_NE(records[0].filter, records[1].filter);
}

}  // namespace
