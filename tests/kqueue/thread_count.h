// How many threads this process has, as Linux shows it. One that is at its end is still there for a
// moment, also when it has been joined.
#pragma once

#include <dirent.h>

#include <chrono>
#include <cstddef>
#include <thread>

[[nodiscard]] inline size_t threadCount() {
    size_t count = 0;
    DIR* directory = opendir("/proc/self/task");
    while (const struct dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.') ++count;
    closedir(directory);
    return count;
}

// Returns once no more than count are left; false after a minute.
[[nodiscard]] inline bool waitForThreads(size_t count) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (threadCount() > count) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}
