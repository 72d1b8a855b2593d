// System calls of this executable that fail on demand, or are counted. The process has one set.
#pragma once

#include <atomic>
#include <cstdint>

// One kind of call.
class FailingCall {
public:
    // The nth call from now fails with error, once; 1 is the next one. With 0 they go to the
    // system.
    void fail(int error, uint64_t nth = 1) noexcept {
        made = 0;
        failing = nth;
        number = error;
    }
    FailingCall& operator=(int error) noexcept {
        fail(error);
        return *this;
    }

    // The error that is still to come; 0 for none.
    operator int() const noexcept { return number; }  // NOLINT(google-explicit-constructor)

    // For the calls. Sets errno and takes the failure back when it is its turn.
    [[nodiscard]] bool fails() noexcept;

private:
    std::atomic<int> number{0};
    std::atomic<uint64_t> failing{0};
    std::atomic<uint64_t> made{0};
};

// A write that takes half of the bytes, and is no error.
inline constexpr int kShort = -1;

struct FailingCalls {
    FailingCall getFlags;     // fcntl, F_GETFL
    FailingCall setFlags;     // fcntl, F_SETFL
    FailingCall setBlocking;  // fcntl, F_SETFL without O_NONBLOCK
    FailingCall setOption;    // setsockopt
    FailingCall getOption;    // getsockopt, all but SO_PEERCRED
    FailingCall changeMode;   // chmod
    FailingCall socket;
    FailingCall bind;
    FailingCall listen;
    FailingCall accept;
    FailingCall connect;
    FailingCall read;
    FailingCall write;
    FailingCall peek;      // recvmsg
    FailingCall shutDown;  // is done all the same, and then said to have failed
    FailingCall close;     // likewise
    FailingCall unlink;
    FailingCall status;           // fstat
    FailingCall control;          // ioctl
    FailingCall poll;             // poll, ppoll
    FailingCall wait;             // epoll_wait, epoll_pwait2
    FailingCall watch;            // epoll_ctl
    FailingCall peerCredentials;  // getsockopt, SO_PEERCRED
    FailingCall createQueue;      // epoll_create1
    FailingCall createThread;     // pthread_create

    // The closes of one descriptor number.
    std::atomic<int> watched{-1};
    std::atomic<int> closesOfWatched{0};

    // While it is set, sleep(3) lasts a millisecond: a loop's stop sleeps whole seconds.
    std::atomic<bool> sleepsAreShort{false};
};

extern FailingCalls failingCalls;
