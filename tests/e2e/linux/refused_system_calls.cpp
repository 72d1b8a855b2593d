#include "tests/e2e/linux/refused_system_calls.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

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

Outcome runUnder(Filter filter, const std::vector<std::string>& arguments) {
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    const sock_fprog program{.len = static_cast<unsigned short>(filter.size()),
                             .filter = filter.data()};
    return runInChild([&] {
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
            prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0)
            execv(words[0], words.data());
        _exit(127);
    });
}

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
