// An HXKQueue without a kernel queue and without a thread, in place of the library's, for targets
// whose subject is the bytes and not how they come. Its sources are connected to nothing; what is
// written to them is kept, and their owners hear what the target tells them.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kqueue/HXKQueue.h"
#include "kqueue/HXKQueueEvent.h"

// What has become of the sources. The target puts it back to the beginning.
struct LoopLog {
    std::string written;
    std::shared_ptr<HXKQueueEventProtocol> source;  // that was started last
    HXKQueueEventBlock block;                       // of its owner
    bool stopped = false;                           // some source was
    std::function<void()> whileParked;              // by the main thread
};

[[nodiscard]] LoopLog& loopLog();

[[nodiscard]] std::shared_ptr<HXKQueue> loopWithoutKernel();
