// hxusbvd-sim: the simulated daemon as a program.

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/standard_descriptors.h"
#include "sim/built_in_inventory.h"
#include "sim/daemon.h"
#include "sim/inventory_file.h"
#include "sim/options.h"

namespace {

constexpr int kFailed = 1;
constexpr int kBadUsage = 2;

int fail(const std::string& why, int status) {
    std::fprintf(stderr, "hxusbvd-sim: %s\n", why.c_str());
    return status;
}

// Blocked on every thread, so that they wait for whoever asks for them.
sigset_t blockEndingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// Each client takes a descriptor. macOS refuses a limit beyond OPEN_MAX, which is this
// (setrlimit(2)).
void allowManyClients() {
    constexpr rlim_t kOpenMax = 10'240;
    struct rlimit limit {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) == 0) return;
    limit.rlim_cur = std::min(kOpenMax, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
}

void waitForAny(const sigset_t& signals) {
    int received = 0;
    while (sigwait(&signals, &received) != 0) {
    }
}

int serve(const Options& options) {
    std::string error;
    std::optional<Inventory> inventory = options.inventoryFile
                                             ? readInventoryFile(*options.inventoryFile, error)
                                             : builtInInventory();
    if (!inventory) return fail(error, kFailed);
    const sigset_t signals = blockEndingSignals();
    allowManyClients();
    const std::unique_ptr<Daemon> daemon =
        Daemon::start(options.socketPath, std::move(*inventory), options.behaviour, error);
    if (!daemon) return fail(error, kFailed);
    std::printf("hxusbvd-sim: listening on %s\n", options.socketPath.c_str());
    std::fflush(stdout);
    waitForAny(signals);
    daemon->stop();
    return 0;
}

int run(std::span<const char* const> arguments) {
    if (!occupyStandardDescriptors()) return fail("cannot open /dev/null", kFailed);
    std::string error;
    const std::optional<Options> options = parseOptions(arguments, error);
    if (!options) {
        const int status = fail(error, kBadUsage);
        std::fputs(usage().c_str(), stderr);
        return status;
    }
    if (!options->help) return serve(*options);
    std::fputs(usage().c_str(), stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::span<const char* const> words(argv, static_cast<size_t>(argc));
    try {
        return run(words.empty() ? words : words.subspan(1));
    } catch (const std::exception& error) {
        return fail(error.what(), kFailed);
    }
}
