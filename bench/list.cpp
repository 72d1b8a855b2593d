// What does a list cost, from the start of the utility to its end?
//
//     list [--rounds N] [CASE]
//
// Each round runs every client once, in each case whose name contains CASE, against a daemon in
// little that has the same reply for all. Before anything is measured, all clients must print the
// same. The clients that take seconds for a large reply take part in fewer rounds. Figures are
// medians over the rounds; ratios are taken within a round.
//
// Wants a /var/run of its own, which scripts/bench gives it.

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "bench/support/command_line.h"
#include "bench/support/figures.h"
#include "bench/support/measured_run.h"
#include "bench/support/program.h"
#include "bench/support/reply_server.h"
#include "ipc/HXTarnIPCClient.h"
#include "ipc/frame.h"

namespace {

// By their places in kClients.
enum { kFloor = 0, kUtility = 1 };

struct Client {
    const char* name;
    std::vector<std::string> command;  // the report follows
    bool takesThePath;
    bool isSlow;
};

const Client kClients[] = {
    {"floor", {FLOOR_CLIENT}, true, false},
    {"hxusbvctl", {UTILITY}, false, false},
    {"python", {"python3", LIST_CLIENTS "/list.py"}, true, true},
    {"socat+jq", {LIST_CLIENTS "/socat_jq.sh"}, true, true},
};
constexpr size_t kClientCount = std::size(kClients);

struct Case {
    const char* name;
    const char* report;
    size_t payloadSize;
    int rounds;
    int slowRounds;
};

constexpr size_t kSmall = 2048;
constexpr size_t kMiddle = 1 << 20;
constexpr size_t kLargest = kMaxPayloadLength;

constexpr Case kCases[] = {
    {"srv-2k", "srv", kSmall, 41, 11},   {"dev-2k", "dev", kSmall, 41, 11},
    {"srv-1m", "srv", kMiddle, 21, 5},   {"dev-1m", "dev", kMiddle, 21, 5},
    {"srv-100m", "srv", kLargest, 7, 1}, {"dev-100m", "dev", kLargest, 7, 1},
};

struct Options {
    int rounds = 0;  // as the case says
    std::string only;
};

struct Series {
    std::vector<double> wall;
    std::vector<double> user;
    std::vector<double> system;
    std::vector<double> peak;
    std::vector<double> faults;
    std::vector<double> ofFloor;    // wall, of the floor's in the same round
    std::vector<double> ofUtility;  // wall, of the utility's
};

std::vector<std::string> commandOf(const Client& client, const char* report) {
    std::vector<std::string> command = client.command;
    command.emplace_back(report);
    if (client.takesThePath) command.emplace_back(kDaemonSocketPath);
    return command;
}

void add(const RunFigures& run, Series& to) {
    to.wall.push_back(run.wall);
    to.user.push_back(run.user);
    to.system.push_back(run.system);
    to.peak.push_back(run.peak);
    to.faults.push_back(run.faults);
}

class Bench {
public:
    Bench(const Case& what, int rounds_)
        : measured(what),
          rounds(rounds_ > 0 ? rounds_ : what.rounds),
          slowRounds(rounds_ > 0 ? rounds_ : what.slowRounds),
          server(kDaemonSocketPath, what.payloadSize),
          series(kClientCount) {}

    void run() {
        for (int round = 0; round < rounds; ++round)
            measureRound(round < slowRounds);
    }

    void print() const {
        std::printf("\n%s: %zu bytes, %zu servers, %zu devices\n", measured.name,
                    measured.payloadSize, server.servers(), server.devices());
        std::printf("%-10s %7s %10s %9s %13s %9s %9s %9s %9s %9s\n", "client", "rounds", "wall ms",
                    "of floor", "of hxusbvctl", "user ms", "sys ms", "peak MiB", "of reply",
                    "faults");
        for (size_t i = 0; i < kClientCount; ++i) {
            const Series& of = series[i];
            std::printf(
                "%-10s %7zu %10.2f %9.2f %13.2f %9.2f %9.2f %9.1f %9.2f %9.0f\n", kClients[i].name,
                of.wall.size(), median(of.wall) * 1e3, median(of.ofFloor), median(of.ofUtility),
                median(of.user) * 1e3, median(of.system) * 1e3, median(of.peak) / (1 << 20),
                median(of.peak) / static_cast<double>(measured.payloadSize), median(of.faults));
        }
        std::fflush(stdout);
    }

private:
    // What each client has printed must be what the floor's has.
    void measureRound(bool withSlow) {
        const Output expected;
        for (size_t i = 0; i < kClientCount; ++i) {
            if (kClients[i].isSlow && !withSlow) continue;
            const Output own;
            const Output& output = i == kFloor ? expected : own;
            add(runMeasured(commandOf(kClients[i], measured.report), output, 0), series[i]);
            if (i == kFloor) requireAllLines(output);
            if (!(output == expected)) differs(kClients[i]);
        }
        const double floor = series[kFloor].wall.back();
        const double utility = series[kUtility].wall.back();
        for (size_t i = 0; i < kClientCount; ++i) {
            if (kClients[i].isSlow && !withSlow) continue;
            series[i].ofFloor.push_back(series[i].wall.back() / floor);
            series[i].ofUtility.push_back(series[i].wall.back() / utility);
        }
    }

    void requireAllLines(const Output& output) const {
        const bool withServers = std::string_view(measured.report) == "srv";
        if (output.lines() == server.devices() + (withServers ? server.servers() : 0)) return;
        std::fprintf(stderr, "list: %s: lines are missing\n", measured.name);
        std::exit(1);
    }

    [[noreturn]] void differs(const Client& client) const {
        std::fprintf(stderr, "list: %s: %s prints something else\n", measured.name, client.name);
        std::exit(1);
    }

    const Case& measured;
    const int rounds;
    const int slowRounds;
    const ReplyServer server;
    std::vector<Series> series;  // as kClients
};

Options readOptions(int argc, char** argv) {
    Options options;
    options.only =
        readCommandLine("list", argc, argv, {{"--rounds", &options.rounds}}, namesOf(kCases));
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    for (const Case& each : kCases) {
        if (std::string_view(each.name).find(options.only) == std::string_view::npos) continue;
        Bench bench(each, options.rounds);
        bench.run();
        bench.print();
    }
}
