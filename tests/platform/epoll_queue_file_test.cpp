#include <fcntl.h>
#include <sched.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "tests/platform/kernel_queue.h"

namespace {

class FileFilter : public KernelQueueTest {
protected:
    Descriptor file = emptyFile();
};

TEST_F(FileFilter, CountsTheBytesFromThePositionToTheEnd) {
    send(file, "0123456789");
    ASSERT_EQ(lseek(file, 3, SEEK_SET), 3);
    add(file, EVFILT_READ);
    EXPECT_EQ(waitForOne().data, 7);
    EXPECT_EQ(receive(file, 5), "34567");
    EXPECT_EQ(waitForOne().data, 2);
}

TEST_F(FileFilter, CountsNoMoreThanOneReadTakes) {
    const off_t size = off_t{3} << 30;
    ASSERT_EQ(ftruncate(file, size), 0);  // sparse
    add(file, EVFILT_READ);
    const off_t count = waitForOne().data;
    EXPECT_EQ(count, 0x7ffff000);
    ASSERT_EQ(lseek(file, count, SEEK_SET), count);
    EXPECT_EQ(waitForOne().data, size - count);
}

TEST_F(FileFilter, IsSilentAtTheEndAndWakesWhenTheFileGrows) {
    add(file, EVFILT_READ);
    EXPECT_TRUE(wait(8, 10).empty());
    ASSERT_EQ(pwrite(file, "grown", 5, 0), 5);
    EXPECT_EQ(waitForOne().data, 5);
}

TEST_F(FileFilter, IsAlwaysReadyForWriting) {
    add(file, EVFILT_WRITE);
    EXPECT_GT(waitForOne().data, 1'000'000'000);
    send(file, "x");
    EXPECT_GT(waitForOne().data, 1'000'000'000);
    remove(file, EVFILT_WRITE);
    EXPECT_TRUE(look().empty());
}

TEST_F(FileFilter, OfTheNullDeviceHasEndedAndTakesEverything) {
    const Descriptor null(open("/dev/null", O_RDWR));
    add(null, EVFILT_READ);
    const struct kevent record = waitForOne();
    EXPECT_NE(record.flags & EV_EOF, 0);
    EXPECT_EQ(record.data, 0);
    remove(null, EVFILT_READ);
    add(null, EVFILT_WRITE);
    EXPECT_GT(waitForOne().data, 1'000'000'000);
}

TEST_F(FileFilter, OfTheZeroDeviceNeverEndsAndTakesEverything) {
    const Descriptor zero(open("/dev/zero", O_RDWR));
    add(zero, EVFILT_READ);
    add(zero, EVFILT_WRITE);
    for (int i = 0; i < 2; ++i)
        for (const struct kevent& record : wait()) {
            EXPECT_EQ(record.flags & EV_EOF, 0);
            EXPECT_GE(record.data, record.filter == EVFILT_READ ? 1 : 1'000'000'000);
        }
    EXPECT_EQ(look().size(), 2U);
    remove(zero, EVFILT_READ);
    remove(zero, EVFILT_WRITE);
    EXPECT_TRUE(look().empty());
}

TEST_F(FileFilter, OfADeviceThatIsFullHasRoomAndTheWriteFails) {
    const Descriptor full(open("/dev/full", O_RDWR));
    add(full, EVFILT_WRITE);
    const struct kevent record = waitForOne();
    EXPECT_GT(record.data, 0);
    EXPECT_EQ(record.flags & EV_EOF, 0);
    EXPECT_EQ(write(full, "x", 1), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_GT(waitForOne().data, 0);
}

TEST_F(FileFilter, IsSilentBelowItsPositionAndWakesBeyondIt) {
    send(file, "0123456789");
    add(file, EVFILT_READ);
    ASSERT_EQ(lseek(file, 4, SEEK_SET), 4);
    EXPECT_EQ(waitForOne().data, 6);
    ASSERT_EQ(ftruncate(file, 2), 0);
    EXPECT_TRUE(wait(8, 10).empty());
    ASSERT_EQ(ftruncate(file, 4), 0);
    EXPECT_TRUE(wait(8, 10).empty());
    ASSERT_EQ(ftruncate(file, 7), 0);
    EXPECT_EQ(waitForOne().data, 3);
    EXPECT_EQ(receive(file, 8).size(), 3U);
    EXPECT_TRUE(look().empty());
}

TEST_F(FileFilter, OpenedForAppendingIsAlwaysReadyForWriting) {
    ASSERT_EQ(fcntl(file, F_SETFL, O_APPEND), 0);
    add(file, EVFILT_READ);
    add(file, EVFILT_WRITE);
    for (int i = 0; i < 3; ++i) {
        const struct kevent record = waitForOne();
        EXPECT_EQ(record.filter, EVFILT_WRITE);
        EXPECT_GT(record.data, 1'000'000'000);
        send(file, "x");  // which leaves the position at the end
    }
}

TEST_F(FileFilter, OfADirectoryIsRefused) {
    const Descriptor directory(open("/", O_RDONLY | O_DIRECTORY));
    EXPECT_EQ(change(static_cast<uint64_t>(directory), EVFILT_READ, EV_ADD), EINVAL);
    EXPECT_EQ(change(static_cast<uint64_t>(directory), EVFILT_READ, EV_DELETE), ENOENT);
}

TEST_F(FileFilter, OfUnknownKindOrFlagIsRefused) {
    const Pair pair = unixPair();
    const auto ident = static_cast<uint64_t>(pair.ours);
    constexpr int kUnknownFilter = -3;
    constexpr int kClear = 0x20;
    EXPECT_EQ(change(ident, kUnknownFilter, EV_ADD), EINVAL);
    EXPECT_EQ(change(ident, EVFILT_READ, EV_ADD | kClear), EINVAL);
}

TEST_F(FileFilter, RemovedOrClosedIsNoLongerLookedAt) {
    send(file, "0123");
    ASSERT_EQ(lseek(file, 0, SEEK_SET), 0);
    add(file, EVFILT_READ);
    EXPECT_EQ(waitForOne().data, 4);
    const int number = file;
    file.reset();
    EXPECT_TRUE(look().empty());
    file = emptyFile();
    ASSERT_EQ(file, number);
    send(file, "0123");
    ASSERT_EQ(lseek(file, 0, SEEK_SET), 0);
    EXPECT_TRUE(look().empty());
    EXPECT_EQ(change(static_cast<uint64_t>(number), EVFILT_READ, EV_DELETE), ENOENT);
}

// Whether the thread is waiting for something: its state follows its name, which is in parentheses.
bool sleeps(pid_t thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(stat, line);
    return line.find(") S ") != std::string::npos;
}

TEST_F(FileFilter, ThatGrowsDuringAWaitEndsIt) {
    add(file, EVFILT_READ);
    std::atomic<bool> isWaiting{false};
    std::thread writer([this, &isWaiting, waiting = gettid()] {
        while (!isWaiting || !sleeps(waiting))
            sched_yield();
        ASSERT_EQ(pwrite(file, "grown", 5, 0), 5);
    });
    isWaiting = true;
    EXPECT_EQ(waitForOne().data, 5);
    writer.join();
}

}  // namespace
