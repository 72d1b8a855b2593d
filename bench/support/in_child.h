// Work in a process of its own: what one measurement leaves behind does not reach the next.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <type_traits>

#include "bench/support/program.h"

// What work returns. The calling process has one thread; should the child fail, it ends too.
template <typename Work>
[[nodiscard]] auto inChild(Work work) {
    using Result = decltype(work());
    static_assert(std::is_trivially_copyable_v<Result>);
    int ends[2];
    if (pipe(ends) == -1) fail("pipe");
    const pid_t child = fork();
    if (child == -1) fail("fork");
    if (child == 0) {
        const Result result = work();
        _exit(write(ends[1], &result, sizeof result) == sizeof result ? 0 : 1);
    }
    close(ends[1]);
    Result result;
    const bool received = read(ends[0], &result, sizeof result) == sizeof result;
    close(ends[0]);
    int status = 0;
    if (waitpid(child, &status, 0) != child || !received || status != 0)
        failCheck("a measurement has failed");
    return result;
}
