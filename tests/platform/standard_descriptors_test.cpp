#include "platform/standard_descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "tests/support/captured_run.h"

namespace {

// The status of a child that does so.
template <typename Body>
int statusOf(Body body) {
    return runInChild([&] { std::_Exit(body() ? 0 : 1); }).status;
}

TEST(StandardDescriptors, ThatAreClosedFailAsBeforeAndAreNotGivenToOthers) {
    for (int closed = 0; closed < 8; ++closed)
        EXPECT_EQ(statusOf([closed] {
                      for (int number = 0; number <= 2; ++number)
                          if ((closed & 1 << number) != 0) close(number);
                      if (!occupyStandardDescriptors()) return false;
                      char byte = 0;
                      const auto failed = [](ssize_t result) {
                          return result == -1 && errno == EBADF;
                      };
                      return open("/", O_RDONLY) > 2 &&
                             failed(read(0, &byte, 1)) == ((closed & 1) != 0) &&
                             failed(write(1, &byte, 1)) == ((closed & 2) != 0) &&
                             failed(write(2, &byte, 1)) == ((closed & 4) != 0);
                  }),
                  0)
            << closed;
}

TEST(StandardDescriptors, ThatAreOpenStayWhatTheyAre) {
    const Outcome outcome = runInChild([] {
        if (!occupyStandardDescriptors()) std::_Exit(1);
        std::fputs("out", stdout);
        std::fputs("err", stderr);
    });
    EXPECT_EQ(outcome, (Outcome{.status = 0, .out = "out", .err = "err"}));
}

TEST(StandardDescriptors, CannotBeOccupiedWhereNoFileMayBeOpened) {
    EXPECT_EQ(statusOf([] {
                  close(0);
                  const struct rlimit none = {.rlim_cur = 0, .rlim_max = 0};
                  return setrlimit(RLIMIT_NOFILE, &none) == 0 && !occupyStandardDescriptors() &&
                         errno == EMFILE;
              }),
              0);
}

}  // namespace
