// System calls of this executable that fail on demand, or are counted. The process has one set.
#pragma once

#include <atomic>

struct FailingCalls {
    // The error numbers that the next call fails with; 0: it goes to the system.
    std::atomic<int> getFlags{0};     // fcntl, F_GETFL
    std::atomic<int> setFlags{0};     // fcntl, F_SETFL
    std::atomic<int> setBlocking{0};  // fcntl, F_SETFL without O_NONBLOCK
    std::atomic<int> setOption{0};    // setsockopt
    std::atomic<int> changeMode{0};   // chmod
    std::atomic<int> socket{0};
    std::atomic<int> listen{0};
    std::atomic<int> accept{0};
    std::atomic<int> peerCredentials{0};  // getsockopt, SO_PEERCRED
    std::atomic<int> createQueue{0};      // epoll_create1
    std::atomic<int> createThread{0};     // pthread_create

    // The closes of one descriptor number.
    std::atomic<int> watched{-1};
    std::atomic<int> closesOfWatched{0};
};

extern FailingCalls failingCalls;
