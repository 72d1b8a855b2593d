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
    HXKQueueEventBlock block;           // of the source that was started last
    bool stopped = false;               // some source was
    std::function<void()> whileParked;  // what happens while the main thread does nothing
};

[[nodiscard]] LoopLog& loopLog();

[[nodiscard]] std::shared_ptr<HXKQueue> loopWithoutKernel();
