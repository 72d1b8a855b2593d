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
    FileFilter() : path(testing::TempDir() + "file-XXXXXX"), file(mkstemp(path.data())) {
        unlink(path.c_str());
    }

    std::string path;
    Descriptor file;
};

TEST_F(FileFilter, CountsTheBytesFromThePositionToTheEnd) {
    send(file, "0123456789");
    ASSERT_EQ(lseek(file, 3, SEEK_SET), 3);
    add(file, EVFILT_READ);
    EXPECT_EQ(waitForOne().data, 7);
    EXPECT_EQ(receive(file, 5), "34567");
    EXPECT_EQ(waitForOne().data, 2);
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
    std::string other = testing::TempDir() + "file-XXXXXX";
    file = Descriptor(mkstemp(other.data()));
    unlink(other.c_str());
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
