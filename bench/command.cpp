// What does one command cost, and where does its time go?
//
//     command [--rounds N]
//
// Each round runs every program once, with the daemon idle: an empty C++ program, a C client that
// does the least for a list, and the utility, which also ends on purpose at two stages before: at a
// command line that it refuses, and where it finds no daemon. So the differences between the lines
// are what loading, the loop with its thread, and the request with its reply take. Figures are
// medians over the rounds, one in a hundred is slower than p99; ratios and differences are taken
// within a round.
//
// Wants a /var/run of its own, which scripts/bench gives it.

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "bench/support/command_line.h"
#include "bench/support/figures.h"
#include "bench/support/measured_run.h"
#include "bench/support/program.h"
#include "ipc/HXTarnIPCClient.h"

namespace {

struct Subject {
    const char* name;
    std::vector<std::string> command;
    int status;
    bool isWithDaemon;
};

// By its place in kSubjects.
constexpr size_t kMinimal = 1;

const Subject kSubjects[] = {
    {"empty C++ program", {EMPTY_PROGRAM}, 0, true},
    {"minimal C client", {MINIMAL_CLIENT, kDaemonSocketPath}, 0, true},
    {"refused command", {UTILITY, "nonsense"}, 22, true},
    {"no daemon", {UTILITY, "srv"}, 12, false},
    {"srv", {UTILITY, "srv"}, 0, true},
};
constexpr size_t kSubjectCount = std::size(kSubjects);

struct Series {
    std::vector<double> wall;
    std::vector<double> processor;
    std::vector<double> ofMinimal;      // wall, of the minimal client's in the same round
    std::vector<double> beyondMinimal;  // wall, less the minimal client's
};

// Takes the daemon's socket out of the way for as long as it lives.
class HiddenDaemon {
public:
    HiddenDaemon() {
        if (std::rename(kDaemonSocketPath, kElsewhere) != 0) fail("rename");
    }
    HiddenDaemon(const HiddenDaemon&) = delete;
    HiddenDaemon& operator=(const HiddenDaemon&) = delete;
    ~HiddenDaemon() {
        if (std::rename(kElsewhere, kDaemonSocketPath) != 0) fail("rename");
    }

private:
    static constexpr const char* kElsewhere = "/var/run/hxusbvctl.hidden";
};

RunFigures runOnce(const Subject& subject, const Output& output) {
    if (subject.isWithDaemon) return runMeasured(subject.command, output, subject.status);
    const HiddenDaemon hidden;
    return runMeasured(subject.command, output, subject.status);
}

class Bench {
public:
    explicit Bench(int rounds_) : rounds(rounds_), series(kSubjectCount) {
        for (const Subject& subject : kSubjects) {
            static_cast<void>(runOnce(subject, expected.emplace_back()));
            if (!hasPrinted(subject, expected.back())) differs(subject);
        }
    }

    void run() {
        for (int round = 0; round < rounds; ++round)
            measureRound();
    }

    void print() const {
        std::printf("%-18s %9s %9s %11s %13s %9s\n", "program", "wall ms", "p99 ms", "of minimal",
                    "beyond it ms", "CPU ms");
        for (size_t i = 0; i < kSubjectCount; ++i) {
            const Series& of = series[i];
            std::printf("%-18s %9.2f %9.2f %11.2f %13.2f %9.2f\n", kSubjects[i].name,
                        median(of.wall) * 1e3, percentile(of.wall, 0.99) * 1e3,
                        median(of.ofMinimal), median(of.beyondMinimal) * 1e3,
                        median(of.processor) * 1e3);
        }
    }

private:
    void measureRound() {
        for (size_t i = 0; i < kSubjectCount; ++i) {
            const Output output;
            const RunFigures figures = runOnce(kSubjects[i], output);
            if (!(output == expected[i])) differs(kSubjects[i]);
            series[i].wall.push_back(figures.wall);
            series[i].processor.push_back(figures.user + figures.system);
        }
        const double minimal = series[kMinimal].wall.back();
        for (Series& of : series) {
            of.ofMinimal.push_back(of.wall.back() / minimal);
            of.beyondMinimal.push_back(of.wall.back() - minimal);
        }
    }

    // The empty program alone has nothing to say.
    static bool hasPrinted(const Subject& subject, const Output& output) {
        return (&subject == kSubjects) == (output.size() == 0);
    }

    [[noreturn]] static void differs(const Subject& subject) {
        std::fprintf(stderr, "command: %s: prints something else\n", subject.name);
        std::exit(1);
    }

    const int rounds;
    std::deque<Output> expected;  // as kSubjects
    std::vector<Series> series;   // as kSubjects
};

}  // namespace

int main(int argc, char** argv) {
    int rounds = 500;
    static_cast<void>(readCommandLine("command", argc, argv, {{"--rounds", &rounds}}, {}));
    const Program daemon({DAEMON});
    Bench bench(rounds);
    bench.run();
    bench.print();
}
