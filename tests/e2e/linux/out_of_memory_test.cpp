// Every allocation that the utility makes fails once, alone or with all that come after it. It ends
// with a status of its own and the words that go with it, unless it is the loop's thread that has
// ended: then it waits.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <thread>

#include "tests/e2e/control_path.h"
#include "tests/e2e/scripted_peer.h"
#include "tests/e2e/utility.h"

namespace {

using Milliseconds = std::chrono::milliseconds;

struct Case {
    Words words;
    std::string reply;
    Outcome whole;
    std::vector<Outcome> lacking;  // what else it may end with
};

const std::string kTerminated = "connection terminated\n";

// What every command may end with.
const std::vector<Outcome> kFailures = {
    failedWith(12, "cannot initialize kqueue\n"),
    failedWith(12, "cannot connect to the daemon\n"),
    failedWith(5, "cannot connect\n"),
    failedWith(5, "cannot parse protocol"),
    failedWith(5, kTerminated),
    failedWith(5, "cannot allocate dictionary for request" + kTerminated),
    failedWith(5, "cannot allocate object for request" + kTerminated),
    failedWith(5, "cannot allocate objects for request" + kTerminated),
    failedWith(5, "cannot convert dictionary to JSON" + kTerminated),
};

class OutOfMemory : public ControlPathTest {
protected:
    void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "left out: a sanitizer has a malloc of its own";
#endif
        ControlPathTest::SetUp();
    }

    struct Run {
        std::optional<Outcome> outcome;  // none: the loop's thread has ended
        bool happened = false;
    };

    // patience is what a daemon has for a client that says nothing.
    static Run run(const Case& each, unsigned long nth, bool all, Milliseconds patience) {
        const std::string told = std::string(kControlPath) + ".told";
        Words words{"/usr/bin/env", "LD_PRELOAD=" FAILING_MALLOC,
                    "FAILING_MALLOC=" + std::to_string(nth), "FAILING_MALLOC_TOLD=" + told};
        if (all) words.emplace_back("FAILING_MALLOC_ALL=1");
        words.emplace_back(UTILITY_PROGRAM);
        words.insert(words.end(), each.words.begin(), each.words.end());
        const ScriptedPeer peer;
        RunningProgram utility(words);
        std::thread daemon([&] { answer(peer, each.reply, patience); });
        const bool isEnded = waitForEnd(utility);
        UnixStream::connectTo(kControlPath).close();  // for a daemon that nobody has come to
        Run run;
        if (!isEnded) utility.signal(SIGKILL);
        const Outcome outcome = utility.finish();
        if (isEnded) run.outcome = outcome;
        daemon.join();
        run.happened = std::filesystem::remove(told);
        return run;
    }

    // Has each allocation fail in its turn.
    static void sweep(const Case& each, bool all) {
        constexpr Milliseconds kShort(30);
        constexpr Milliseconds kLong(5'000);
        size_t waiting = 0;
        unsigned long nth = 1;
        for (;; ++nth) {
            Run run = OutOfMemory::run(each, nth, all, kShort);
            // Perhaps the daemon was short of patience. How many allocations there are is also up
            // to what the two threads do first.
            if (!run.happened && run.outcome != each.whole)
                run = OutOfMemory::run(each, nth, all, kLong);
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
        // any may be the thread's.
        if (!all) {
            EXPECT_LT(waiting, nth / 4);
        }
        std::printf("%lu allocations failed, %zu of them the thread's\n", nth - 1, waiting);
    }

private:
    static void answer(const ScriptedPeer& peer, const std::string& reply, Milliseconds patience) {
        const UnixStream connection = peer.accept();
        const auto end = std::chrono::steady_clock::now() + patience;
        while (connection.isSilent()) {
            if (std::chrono::steady_clock::now() > end) return;
            std::this_thread::sleep_for(Milliseconds(1));
        }
        if (connection.receiveFrame().size() >= 8 && connection.send(reply))
            static_cast<void>(connection.receiveToEnd());
    }

    // False when only the main thread is left, and stays. It has made the other one before it
    // waits.
    static bool waitForEnd(const RunningProgram& utility) {
        int samplesAlone = 0;
        while (utility.isRunning()) {
            samplesAlone = isParkedAlone(utility.pid()) ? samplesAlone + 1 : 0;
            if (samplesAlone == 20) return false;
            std::this_thread::sleep_for(Milliseconds(1));
        }
        return true;
    }

    static bool isParkedAlone(int pid) {
        const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
        std::error_code error;
        std::filesystem::directory_iterator each(tasks, error);
        const auto count = error ? 0 : std::distance(each, std::filesystem::directory_iterator());
        if (count != 1) return false;
        return isSleeping("/proc/" + std::to_string(pid) + "/stat");
    }

    // The third word: the second is the program's name in brackets.
    static bool isSleeping(const std::string& path) {
        std::FILE* file = std::fopen(path.c_str(), "re");
        if (!file) return false;
        char state = 0;
        const int found = std::fscanf(file, "%*d %*s %c", &state);
        std::fclose(file);
        return found == 1 && state == 'S';
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
                      .whole = printed("The server is added with Id: 7.\n"),
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
