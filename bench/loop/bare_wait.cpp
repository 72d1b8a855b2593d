#include "bench/loop/bare_wait.h"

#include <sys/epoll.h>

#include <thread>

#include "bench/loop/measuring.h"
#include "bench/support/program.h"

double processorShareOfBareWait(double seconds) {
    const int queue = epoll_create1(EPOLL_CLOEXEC);
    if (queue == -1) fail("epoll_create1");
    std::thread([queue] {
        epoll_event event;
        while (epoll_wait(queue, &event, 1, 5) == 0) {
            // nothing happens
        }
    }).detach();
    return restSince({}, 0, seconds).processorShare;
}
