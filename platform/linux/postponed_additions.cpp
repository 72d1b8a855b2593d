#include "platform/linux/postponed_additions.h"

#include <sys/stat.h>

#include "platform/linux/descriptor_table.h"

namespace epollqueue {

namespace {

constexpr size_t kMost = 128;

bool statusOf(const struct kevent& change, struct stat& status) noexcept {
    return currentStatus(static_cast<int>(change.ident), status);
}

}  // namespace

PostponedAdditions::PostponedAdditions() {
    waiting.reserve(kMost);
}

bool PostponedAdditions::put(const Addition& addition) noexcept {
    struct stat status;
    if (waiting.size() == kMost || !statusOf(addition.change, status)) return false;
    waiting.push_back({.addition = addition, .device = status.st_dev, .inode = status.st_ino});
    return true;
}

std::optional<PostponedAdditions::Addition> PostponedAdditions::take() noexcept {
    const Waiting first = waiting.front();
    waiting.erase(waiting.begin());
    struct stat status;
    const bool isStillMeant = statusOf(first.addition.change, status) &&
                              status.st_dev == first.device && status.st_ino == first.inode;
    return isStillMeant ? std::optional(first.addition) : std::nullopt;
}

bool PostponedAdditions::cancel(const struct kevent& change) noexcept {
    return std::erase_if(waiting, [&](const Waiting& each) {
               return each.addition.change.ident == change.ident &&
                      each.addition.change.filter == change.filter;
           }) != 0;
}

}  // namespace epollqueue
