#include "tests/e2e/control_path.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tests/e2e/private_run.h"

namespace {

// The directory itself is locked, so that no lock file is left behind. Held until the process ends.
bool waitForOtherTests() {
    const int lock = open("/var/run", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return lock != -1 && flock(lock, LOCK_EX) == 0;
}

// Empty: the machine's path may be used by this process.
std::string whyRealPathIsUnusable() {
    if (access("/var/run", W_OK) != 0)
        return std::string("/var/run is not writable: ") + std::strerror(errno);
    if (!waitForOtherTests()) return "the lock between tests cannot be taken";
    struct stat file {};
    if (lstat(kControlPath, &file) == 0) return std::string(kControlPath) + " is in use";
    return "";
}

// Empty: this process may use the path. Found out once.
const std::string& whyUnusable() {
    static const std::string reason = [] {
        std::string whyNotPrivate;
        if (enterPrivateRun(whyNotPrivate)) return std::string();
        const std::string whyNotReal = whyRealPathIsUnusable();
        if (whyNotReal.empty()) return std::string();
        return "left out, no control path to test on: no private one (" + whyNotPrivate +
               "), and not the machine's (" + whyNotReal + ")";
    }();
    return reason;
}

}  // namespace

void ControlPathTest::SetUp() {
    ours = whyUnusable().empty();
    if (!ours) GTEST_SKIP() << whyUnusable();
}

void ControlPathTest::TearDown() {
    if (ours) std::filesystem::remove_all(kControlPath);
}
