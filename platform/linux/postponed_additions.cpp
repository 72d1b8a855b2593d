#include "platform/linux/postponed_additions.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "platform/linux/descriptor_table.h"

namespace epollqueue {

namespace {

constexpr size_t kRoom = 128;

auto isOfTheFilterOf(const struct kevent& change) {
    return [&change](const PostponedAdditions::Addition& addition) {
        return addition.change.ident == change.ident && addition.change.filter == change.filter;
    };
}

}  // namespace

PostponedAdditions::PostponedAdditions() {
    waiting.reserve(kRoom);
}

bool PostponedAdditions::contains(const struct kevent& change) const noexcept {
    return std::any_of(waiting.begin(), waiting.end(), isOfTheFilterOf(change));
}

bool PostponedAdditions::put(const struct kevent& change) noexcept {
    Addition addition{.change = change, .since = TimerSet::now(), .file = std::nullopt};
    if (!identify(addition)) return true;  // closed meanwhile, so there is nothing to wait for
    const auto earlier = std::find_if(waiting.begin(), waiting.end(), isOfTheFilterOf(change));
    if (earlier != waiting.end()) {
        if (earlier->file == addition.file) addition.since = earlier->since;
        *earlier = addition;
        return true;
    }
    try {
        waiting.push_back(addition);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void PostponedAdditions::cancel(const struct kevent& change) noexcept {
    std::erase_if(waiting, isOfTheFilterOf(change));
}

// What an open descriptor means may be out of the kernel's sight for a moment (ENOMEM).
bool PostponedAdditions::identify(Addition& addition) noexcept {
    struct stat status;
    if (!currentStatus(static_cast<int>(addition.change.ident), status)) return errno != EBADF;
    const auto file = std::pair(status.st_dev, status.st_ino);
    if (!addition.file) addition.file = file;
    return addition.file == file;
}

}  // namespace epollqueue
