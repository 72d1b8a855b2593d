// Every allocation that the utility makes fails once, alone or with all that come after it. It ends
// with a status of its own and the words that go with it, unless it is the loop's thread that has
// ended: then it waits.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <thread>

#include "tests/e2e/control_path.h"
#include "tests/e2e/ends.h"
#include "tests/e2e/linux/rest.h"
#include "tests/e2e/scripted_peer.h"
#include "tests/e2e/utility.h"
#include "tests/kqueue/stress_scale.h"

namespace {

constexpr std::chrono::seconds kPatience{60};

struct Case {
    Words words;
    std::string reply;
    Outcome whole;
    std::vector<Outcome> lacking;  // what else it may end with
};

// What every command may end with.
const std::vector<Outcome> kFailures = {
    kNoLoop,
    kCannotConnect,
    failedWith(5, "cannot connect\n"),
    kCannotParse,
    kTerminated,
    failedWith(5, "cannot allocate dictionary for request" + kTerminated.err),
    failedWith(5, "cannot allocate object for request" + kTerminated.err),
    failedWith(5, "cannot allocate objects for request" + kTerminated.err),
    failedWith(5, "cannot convert dictionary to JSON" + kTerminated.err),
};

class OutOfMemory : public ControlPathTest {
protected:
    void SetUp() override {
        if (stress::kAddressSanitizer || stress::kThreadSanitizer)
            GTEST_SKIP() << "left out: a sanitizer has a malloc of its own";
        ControlPathTest::SetUp();
    }

    struct Run {
        std::optional<Outcome> outcome;  // none: the loop's thread has ended
        bool happened = false;
    };

    static Run run(const Case& each, unsigned long nth, bool all) {
        const std::string told = std::string(kControlPath) + ".told";
        Words words{"/usr/bin/env", "LD_PRELOAD=" FAILING_MALLOC,
                    "FAILING_MALLOC=" + std::to_string(nth), "FAILING_MALLOC_TOLD=" + told};
        if (all) words.emplace_back("FAILING_MALLOC_ALL=1");
        words.emplace_back(UTILITY_PROGRAM);
        words.insert(words.end(), each.words.begin(), each.words.end());
        const ScriptedPeer peer;
        RunningProgram utility(words);
        const bool isEnded = serve(peer, utility, each.reply);
        Run run;
        if (!isEnded) utility.signal(SIGKILL);
        const Outcome outcome = utility.finish();
        if (isEnded) run.outcome = outcome;
        run.happened = std::filesystem::remove(told);
        return run;
    }

    // Has each allocation fail in its turn.
    static void sweep(const Case& each, bool all) {
        size_t waiting = 0;
        unsigned long nth = 1;
        for (;; ++nth) {
            const Run run = OutOfMemory::run(each, nth, all);
            if (!run.happened) {
                EXPECT_EQ(run.outcome, each.whole);
                break;
            }
            if (!run.outcome) ++waiting;
            EXPECT_TRUE(!run.outcome || isAllowed(each, *run.outcome))
                << nth << (all ? " and all after it" : "") << ": "
                << testing::PrintToString(*run.outcome);
        }
        EXPECT_GT(nth, 20U);
        // The thread's are its events, its changes and its copy of the sources, which it makes in
        // other places among those of the main thread every time. When all that come later fail,
        // those of the main thread that fail first end the utility; the others are the thread's.
        EXPECT_LT(waiting, all ? nth / 2 : nth / 4);
        std::printf("%lu allocations failed, %zu of them the thread's\n", nth - 1, waiting);
    }

private:
    // A daemon that answers one request. A utility that has come to rest without having been
    // answered, or in spite of it, loses its connection. False when it is at rest without one: its
    // main thread alone is left, and stays.
    static bool serve(const ScriptedPeer& peer, const RunningProgram& utility,
                      const std::string& reply) {
        std::optional<UnixStream> connection;
        bool isAnswered = false;
        Rest rest(utility.pid());
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        for (; utility.isRunning(); std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
            if (!connection && peer.isAwaited()) {
                connection.emplace(peer.accept());
                rest.begin();
            }
            if (connection && !isAnswered && !connection->isSilent()) {
                isAnswered = true;
                if (connection->receiveFrame().size() >= 8)
                    static_cast<void>(connection->send(reply));
                rest.begin();
            }
            if (std::chrono::steady_clock::now() > deadline)
                throw std::runtime_error("the utility neither ends nor comes to rest");
            if (!rest.isReached()) continue;
            if (rest.isAlone()) return false;
            if (connection) connection->close();
            isAnswered = true;
            rest.begin();
        }
        return true;
    }

    static bool isAllowed(const Case& each, const Outcome& outcome) {
        const auto isIn = [&](const std::vector<Outcome>& outcomes) {
            return std::find(outcomes.begin(), outcomes.end(), outcome) != outcomes.end();
        };
        return outcome == each.whole || isIn(each.lacking) || isIn(kFailures);
    }
};

void sweepBoth(void (*sweep)(const Case&, bool), const Case& each) {
    for (const bool all : {false, true})
        sweep(each, all);
}

TEST_F(OutOfMemory, AddingAServerEndsWithAStatusAndItsWords) {
    sweepBoth(sweep, {.words = {"srv", "add", "box"},
                      .reply = frame(1, R"({"status":"ok","id":7})"),
                      .whole = kAdded,
                      .lacking = {}});
}

TEST_F(OutOfMemory, PluggingADeviceEndsWithAStatusAndItsWords) {
    sweepBoth(sweep, {.words = {"dev", "plug", "-h", "box", "7"},
                      .reply = frame(3, R"({"status":"already"})"),
                      .whole = failedWith(37, "The device has been already plugged.\n"),
                      .lacking = {failedWith(12, "Error: cannot initialize object\n")}});
}

// A report for which there is no memory is not printed, or lacks a server's devices.
TEST_F(OutOfMemory, ListingServersEndsWithAStatusAndItsWords) {
    sweepBoth(sweep,
              {.words = {"srv"},
               .reply = frame(0, R"({"status":"ok","servers":[{"id":1,"host":"a","port":2,)"
                                 R"("state":"connected","devices":[{"id":3,"name":"n","vid":1,)"
                                 R"("pid":2,"rev":3,"port":"p","serial":"","state":"s"}]}]})"),
               .whole = printed("1 - a:2 - connected\n 3\t0001:0002:0003\tp\tn /s/\n"),
               .lacking = {silentSuccess(), printed("1 - a:2 - connected\n")}});
}

}  // namespace
