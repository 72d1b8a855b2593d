#include "tests/e2e/linux/rest.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

namespace {

// Reads a thread's state, and how often it has begun to wait. False if it has ended.
bool readThread(const std::filesystem::path& directory, bool& sleeps, unsigned long& waits) {
    constexpr std::string_view kWaits = "voluntary_ctxt_switches:";
    std::ifstream status(directory / "status");
    bool found = false;
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("State:")) sleeps = line.find("S (sleeping)") != std::string::npos;
        if (!line.starts_with(kWaits)) continue;
        waits = std::stoul(line.substr(kWaits.size()));
        found = true;
    }
    return found;
}

Activity activityOf(int pid) {
    const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
    Activity activity;
    std::error_code error;
    for (std::filesystem::directory_iterator each(tasks, error), end; !error && each != end;
         each.increment(error)) {
        bool sleeps = false;
        unsigned long waits = 0;
        if (!readThread(*each, sleeps, waits)) continue;
        ++activity.threads;
        if (each->path().filename() == std::to_string(pid)) {
            activity.mainSleeps = sleeps;
            activity.mainWaits = waits;
        } else {
            activity.othersWaits += waits;
        }
    }
    return activity;
}

// Tells when nothing more will come of the utility by itself: its main thread has slept on, while
// the loop's has waited so often that it has seen all that there is, or has ended.

}  // namespace

Rest::Rest(int pid_) : pid(pid_), last(activityOf(pid)) {}

void Rest::begin() {
    last = activityOf(pid);
    looks = 0;
}

bool Rest::isReached() {
    constexpr int kLooks = 20;
    constexpr unsigned long kWaits = 20;
    const Activity now = activityOf(pid);
    const bool isSame = now.mainSleeps && last.mainSleeps && now.mainWaits == last.mainWaits &&
                        now.threads == last.threads;
    if (!isSame) {
        last = now;
        looks = 0;
        return false;
    }
    return ++looks >= kLooks && (now.threads == 1 || now.othersWaits >= last.othersWaits + kWaits);
}
