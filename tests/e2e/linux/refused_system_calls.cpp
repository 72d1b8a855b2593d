#include "tests/e2e/linux/refused_system_calls.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "tests/support/unix_stream.h"

namespace {

using Filter = std::vector<sock_filter>;

constexpr uint32_t kNumber = offsetof(seccomp_data, nr);
constexpr uint32_t kFirstArgument = offsetof(seccomp_data, args);  // its low half: little-endian

sock_filter load(uint32_t offset) {
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset);
}

sock_filter skipUnlessEqual(long value, uint8_t count) {
    return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(value), 0, count);
}

sock_filter skipUnlessSet(uint32_t bits, uint8_t count) {
    return BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, bits, 0, count);
}

sock_filter refuse(int error) {
    return BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error));
}

sock_filter allow() {
    return BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
}

sock_filter ask() {
    return BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
}

// Those of execv, null at the end.
std::vector<char*> wordsOf(const std::vector<std::string>& arguments) {
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    return words;
}

sock_fprog programOf(Filter& filter) {
    return {.len = static_cast<unsigned short>(filter.size()), .filter = filter.data()};
}

Outcome runUnder(Filter filter, const std::vector<std::string>& arguments) {
    const std::vector<char*> words = wordsOf(arguments);
    const sock_fprog program = programOf(filter);
    return runInChild([&] {
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
            prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0)
            execv(words[0], words.data());
        _exit(127);
    });
}

// -1 when there is none to come.
int receiveDescriptor(int channel) {
    char nothing = 0;
    iovec bytes{.iov_base = &nothing, .iov_len = 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> space{};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = space.data();
    message.msg_controllen = space.size();
    if (recvmsg(channel, &message, MSG_CMSG_CLOEXEC) != 1) return -1;
    int fd = -1;
    if (const cmsghdr* control = CMSG_FIRSTHDR(&message))
        std::memcpy(&fd, CMSG_DATA(control), sizeof fd);
    return fd;
}

// Answers what the program's filter asks, until the program has ended.
class Supervisor {
public:
    Supervisor(const RefusedCall& call_, int listener_) : call(call_), listener(listener_) {}

    // Whether the call was refused.
    bool answerAll() {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (;;) {
            pollfd asked{.fd = listener, .events = POLLIN, .revents = 0};
            if (poll(&asked, 1, 100) == -1 && errno != EINTR) return happened;
            if ((asked.revents & POLLIN) != 0)
                answerOne();
            else if ((asked.revents & (POLLHUP | POLLERR)) != 0)
                return happened;
            else if (program != -1 && std::chrono::steady_clock::now() > end)
                kill(program, SIGKILL);
        }
    }

private:
    // A program that is killed meanwhile wants no answer.
    void answerOne() {
        seccomp_notif question{};
        if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &question) != 0) return;
        if (program == -1) program = static_cast<pid_t>(question.pid);
        const bool isRefused = refuses(question.data.nr);
        seccomp_notif_resp answer{};
        answer.id = question.id;
        if (isRefused)
            answer.error = -call.error;
        else
            answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
    }

    bool refuses(long number) {
        hasBegun = hasBegun || number == SYS_epoll_create1;
        if (!hasBegun || number != call.systemCall || ++made != call.nth) return false;
        happened = true;
        return true;
    }

    const RefusedCall call;
    const int listener;
    pid_t program = -1;
    bool hasBegun = false;
    bool happened = false;
    uint64_t made = 0;
};

}  // namespace

Outcome runRefusing(long systemCall, int error, const std::vector<std::string>& arguments) {
    return runUnder({load(kNumber), skipUnlessEqual(systemCall, 1), refuse(error), allow()},
                    arguments);
}

// The flags of clone3 are out of a filter's sight, so the C library is told to use clone instead.
Outcome runRefusingThreads(const std::vector<std::string>& arguments) {
    return runUnder({load(kNumber), skipUnlessEqual(SYS_clone3, 1), refuse(ENOSYS),
                     skipUnlessEqual(SYS_clone, 3), load(kFirstArgument),
                     skipUnlessSet(CLONE_THREAD, 1), refuse(EAGAIN), allow()},
                    arguments);
}

RefusedRun runRefusingOnce(const RefusedCall& call, const std::vector<std::string>& arguments) {
    Filter filter{load(kNumber), skipUnlessEqual(SYS_epoll_create1, 1),
                  ask(),         skipUnlessEqual(call.systemCall, 1),
                  ask(),         allow()};
    const std::vector<char*> words = wordsOf(arguments);
    const sock_fprog program = programOf(filter);
    std::array<int, 2> channel{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel.data()) != 0)
        throw std::runtime_error("no socket pair");
    RefusedRun run;
    std::thread supervisor([&] {
        const int listener = receiveDescriptor(channel[0]);
        if (listener == -1) return;
        run.happened = Supervisor(call, listener).answerAll();
        close(listener);
    });
    run.outcome = runInChild([&] {
        close(channel[0]);
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) _exit(127);
        const auto listener = static_cast<int>(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER,
                                                       SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
        if (listener == -1 || !sendDescriptor(channel[1], "!", listener)) _exit(127);
        fcntl(listener, F_SETFD, FD_CLOEXEC);
        execv(words[0], words.data());
        _exit(127);
    });
    close(channel[1]);
    supervisor.join();
    close(channel[0]);
    return run;
}
