#include "tests/e2e/private_run.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace {

// The steps, in order; also the exit status of the child that tries them.
enum Step { kAllTaken = 0, kUnshare, kMapUser, kMakeMountsPrivate, kMountRun };

const char* nameOf(int step) {
    switch (step) {
        case kUnshare:
            return "unshare";
        case kMapUser:
            return "mapping the user";
        case kMakeMountsPrivate:
            return "making the mounts private";
        case kMountRun:
            return "mounting over /var/run";
        default:
            return "trying";
    }
}

bool writeFile(const char* path, const std::string& text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd == -1) return false;
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return written;
}

// A mount namespace needs the right to mount: root's, or that of a user namespace of one's own.
Step enterNamespaces() {
    if (unshare(CLONE_NEWNS) == 0) return kAllTaken;
    const std::string user = "0 " + std::to_string(geteuid()) + " 1";
    const std::string group = "0 " + std::to_string(getegid()) + " 1";
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return kUnshare;
    const bool mapped = writeFile("/proc/self/setgroups", "deny") &&
                        writeFile("/proc/self/uid_map", user) &&
                        writeFile("/proc/self/gid_map", group);
    return mapped ? kAllTaken : kMapUser;
}

Step enter() {
    if (const Step failed = enterNamespaces(); failed != kAllTaken) return failed;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return kMakeMountsPrivate;
    char* directory = realpath("/var/run", nullptr);
    const bool mounted = directory != nullptr &&
                         mount("tmpfs", directory, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") == 0;
    std::free(directory);
    return mounted ? kAllTaken : kMountRun;
}

// Tried by a child first: a namespace that was entered in vain cannot be left. Not by fork(3),
// after which the thread sanitizer gives the child a second thread, and with one there is no user
// namespace to be had.
int stepThatFailsInAChild() {
    const auto child =
        static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, 0));
    if (child == 0) _exit(enter());
    int status = 0;
    if (child == -1 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

}  // namespace

bool enterPrivateRun(std::string& why) {
    int failed = stepThatFailsInAChild();
    if (failed == kAllTaken) failed = enter();
    why = std::string(nameOf(failed)) + " is not permitted";
    return failed == kAllTaken;
}
