// What does the loop itself cost, beside libuv's?
//
//     loop [--rounds N] [CASE]
//
// The cases, of which those run whose name contains CASE:
//
//     hand-over  what another thread asks for: the time until the loop's thread has done it, and
//                messages a second
//     sources    creating, arming and stopping as many streams as there may be descriptors, and
//                100,000 that share descriptors
//     timers     the same with 1,000 and 100,000 timers
//     idle       the processor's time of a loop without events, beside that of others which wake
//                as often, and a connection's memory
//
// Each round measures each loop once, in a process of its own. Figures are medians over the rounds;
// ratios are taken within a round.

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "bench/loop/bare_wait.h"
#include "bench/loop/measuring.h"
#include "bench/loop/subject.h"
#include "bench/support/command_line.h"
#include "bench/support/descriptor_limit.h"
#include "bench/support/figures.h"
#include "bench/support/in_child.h"

namespace {

constexpr size_t kFew = 1'000;
constexpr size_t kMany = 100'000;

// Long enough to arm the timers on a machine that is busy with other work, too.
constexpr unsigned kPeriodOfFewMs = 200;
constexpr unsigned kPeriodOfManyMs = 2'000;

// A thousand sources take so little time that they are measured so many times in a round.
constexpr int kTimesOfFew = 5;

constexpr size_t kHandOvers = 200;
constexpr size_t kHandedMessages = 300'000;
constexpr size_t kIdleConnections = 5'000;
constexpr double kIdleSeconds = 2;

// For what is open besides the sources.
constexpr size_t kOtherDescriptors = 64;

constexpr const Subject* kSubjects[] = {&kHxkqueue, &kLibuv};

// Of both loops, one entry a round.
struct Series {
    std::vector<double> ours;
    std::vector<double> peers;
    std::vector<double> ratio;

    void add(double our, double peer) {
        ours.push_back(our);
        peers.push_back(peer);
        ratio.push_back(our / peer);
    }
};

void printHeading(const char* what) {
    std::printf("%-34s %12s %12s %9s\n", what, kHxkqueue.name, kLibuv.name, "of libuv");
}

void print(const std::string& what, const Series& series, double unit) {
    std::printf("%-34s %12.2f %12.2f %9.2f\n", what.c_str(), median(series.ours) / unit,
                median(series.peers) / unit, median(series.ratio));
}

void measureHandOver(int rounds) {
    struct Kind {
        const char* name;
        Latency HandOver::*of;
        Series middle = {};
        Series slow = {};
        Series longest = {};
    };
    Kind kinds[] = {{.name = "start", .of = &HandOver::start},
                    {.name = "write", .of = &HandOver::write},
                    {.name = "stop", .of = &HandOver::stop}};
    Series rate;
    for (int round = 0; round < rounds; ++round) {
        HandOver figures[2];
        double seconds[2];
        for (size_t i = 0; i < 2; ++i) {
            figures[i] = inChild([i] { return kSubjects[i]->handOver(kHandOvers); });
            seconds[i] = inChild([i] { return kSubjects[i]->writes(kHandedMessages); });
        }
        for (Kind& kind : kinds) {
            const Latency& our = figures[0].*kind.of;
            const Latency& peer = figures[1].*kind.of;
            kind.middle.add(our.middle, peer.middle);
            kind.slow.add(our.slow, peer.slow);
            kind.longest.add(our.longest, peer.longest);
        }
        rate.add(kHandedMessages / seconds[0], kHandedMessages / seconds[1]);
    }
    std::printf("\nhand-over: %zu of each kind, at random times\n", kHandOvers);
    printHeading("until it is done, us");
    for (const Kind& kind : kinds) {
        print(std::string(kind.name) + ", median", kind.middle, 1e-6);
        print(std::string(kind.name) + ", 99 %", kind.slow, 1e-6);
        print(std::string(kind.name) + ", longest", kind.longest, 1e-6);
    }
    print("thousand messages a second", rate, 1e3);
}

// The phases, and those that the owner asks for together.
struct Phase {
    const char* name;
    double (*of)(const PhaseCosts& costs);
};
constexpr Phase kPhases[] = {
    {"create", [](const PhaseCosts& costs) { return costs.create; }},
    {"arm", [](const PhaseCosts& costs) { return costs.arm; }},
    {"deliver", [](const PhaseCosts& costs) { return costs.deliver; }},
    {"stop", [](const PhaseCosts& costs) { return costs.stop; }},
    {"create, arm and stop",
     [](const PhaseCosts& costs) { return costs.create + costs.arm + costs.stop; }},
};
constexpr size_t kPhaseCount = std::size(kPhases);

// What one source costs, phase by phase, in the rounds so far.
class PhaseSeries {
public:
    explicit PhaseSeries(size_t count_) : count(static_cast<double>(count_)) {}

    void add(const PhaseCosts& costs) {
        for (size_t i = 0; i < kPhaseCount; ++i)
            of[i].push_back(kPhases[i].of(costs) / count);
    }

    [[nodiscard]] std::vector<double> ratiosTo(const PhaseSeries& other, size_t phase) const {
        std::vector<double> ratios;
        for (size_t i = 0; i < of[phase].size(); ++i)
            ratios.push_back(of[phase][i] / other.of[phase][i]);
        return ratios;
    }

    const double count;
    std::vector<double> of[kPhaseCount];
};

void printPhaseHeading() {
    std::printf("%-22s", "ns of processor each");
    for (const Phase& phase : kPhases)
        std::printf(" %*s", std::string_view(phase.name).size() > 8 ? 21 : 8, phase.name);
    std::printf("\n");
}

void printPhases(const std::string& label, const std::vector<double> (&values)[kPhaseCount],
                 double unit, int digits) {
    std::printf("%-22s", label.c_str());
    for (size_t i = 0; i < kPhaseCount; ++i)
        std::printf(" %*.*f", std::string_view(kPhases[i].name).size() > 8 ? 21 : 8, digits,
                    median(values[i]) / unit);
    std::printf("\n");
}

void printCosts(const std::string& label, const PhaseSeries& series) {
    printPhases(label + ", " + std::to_string(static_cast<size_t>(series.count)), series.of, 1e-9,
                0);
}

void printRatios(const std::string& label, const PhaseSeries& of, const PhaseSeries& to) {
    std::vector<double> ratios[kPhaseCount];
    for (size_t i = 0; i < kPhaseCount; ++i)
        ratios[i] = of.ratiosTo(to, i);
    printPhases(label, ratios, 1, 2);
}

// The mean of several measurements.
template <typename Measure>
PhaseCosts repeated(int times, Measure measure) {
    PhaseCosts sum;
    for (int i = 0; i < times; ++i) {
        const PhaseCosts costs = inChild(measure);
        sum.create += costs.create / times;
        sum.arm += costs.arm / times;
        sum.deliver += costs.deliver / times;
        sum.stop += costs.stop / times;
    }
    return sum;
}

// Few and many of each loop's.
struct Growth {
    explicit Growth(size_t many_)
        : few{PhaseSeries(kFew), PhaseSeries(kFew)}, many{PhaseSeries(many_), PhaseSeries(many_)} {}

    void print() const {
        printPhaseHeading();
        for (size_t i = 0; i < 2; ++i) {
            printCosts(kSubjects[i]->name, few[i]);
            printCosts(kSubjects[i]->name, many[i]);
            printRatios("  many to few", many[i], few[i]);
        }
        printRatios("of libuv, few", few[0], few[1]);
        printRatios("of libuv, many", many[0], many[1]);
    }

    PhaseSeries few[2];
    PhaseSeries many[2];
};

void measureTimers(int rounds) {
    Growth growth(kMany);
    for (int round = 0; round < rounds; ++round)
        for (size_t i = 0; i < 2; ++i) {
            growth.few[i].add(
                repeated(kTimesOfFew, [i] { return kSubjects[i]->timers(kFew, kPeriodOfFewMs); }));
            growth.many[i].add(
                repeated(1, [i] { return kSubjects[i]->timers(kMany, kPeriodOfManyMs); }));
        }
    std::printf("\ntimers: deliver is one expiry each\n");
    growth.print();
}

void measureSources(int rounds) {
    const size_t available = allowManyDescriptors() - kOtherDescriptors;
    const size_t many = std::min(kMany, available) / 2 * 2;
    Growth growth(many);
    PhaseSeries sharing(kMany);
    for (int round = 0; round < rounds; ++round) {
        for (size_t i = 0; i < 2; ++i) {
            growth.few[i].add(
                repeated(kTimesOfFew, [i] { return kSubjects[i]->sources(makePairs(kFew / 2)); }));
            growth.many[i].add(
                repeated(1, [i, many] { return kSubjects[i]->sources(makePairs(many / 2)); }));
        }
        sharing.add(
            repeated(1, [many] { return kHxkqueue.sharingSources(makePairs(many / 2), kMany); }));
    }
    std::printf("\nsources: deliver is one byte each; this process may have %zu descriptors\n",
                available + kOtherDescriptors);
    growth.print();
    printCosts("sharing", sharing);
    std::printf("sharing: %zu streams on %zu descriptors, of which one each gets its byte\n", kMany,
                many);
}

struct RestSeries {
    explicit RestSeries(size_t connections_) : connections(connections_) {}

    void measure() {
        Rest figures[2];
        for (size_t i = 0; i < 2; ++i)
            figures[i] = inChild(
                [this, i] { return kSubjects[i]->rest(makePairs(connections), kIdleSeconds); });
        processor.add(figures[0].processorShare, figures[1].processorShare);
        heap.add(figures[0].heapBytes, figures[1].heapBytes);
        resident.add(figures[0].residentBytes, figures[1].residentBytes);
    }

    void print() const {
        printHeading((std::to_string(connections) + " connections").c_str());
        ::print("% of a processor", processor, 0.01);
        if (connections == 0) return;
        ::print("bytes of heap a connection", heap, 1);
        ::print("bytes of memory a connection", resident, 1);
    }

    size_t connections;
    Series processor;
    Series heap;
    Series resident;
};

void measureIdle(int rounds) {
    RestSeries none(0);
    RestSeries many(std::min(kIdleConnections, (allowManyDescriptors() - kOtherDescriptors) / 2));
    Series ofBareWait;
    Series ofTickingLibuv;
    for (int round = 0; round < rounds; ++round) {
        none.measure();
        ofBareWait.add(none.processor.ours.back(),
                       inChild([] { return processorShareOfBareWait(kIdleSeconds); }));
        ofTickingLibuv.add(none.processor.ours.back(),
                           inChild([] { return processorShareOfTickingLibuv(kIdleSeconds); }));
        many.measure();
    }
    std::printf("\nidle: for %.0f s; a connection has had a message echoed\n", kIdleSeconds);
    none.print();
    const auto printShare = [](const char* whose, const Series& of) {
        std::printf("%s: %.2f %% of a processor; the loop's to that: %.2f\n", whose,
                    median(of.peers) * 100, median(of.ratio));
    };
    printShare("libuv with a timer of 5 ms", ofTickingLibuv);
    printShare("a bare wait of 5 ms, again and again", ofBareWait);
    many.print();
}

struct Case {
    const char* name;
    void (*measure)(int rounds);
};
constexpr Case kCases[] = {
    {"hand-over", measureHandOver},
    {"sources", measureSources},
    {"timers", measureTimers},
    {"idle", measureIdle},
};

}  // namespace

int main(int argc, char** argv) {
    int rounds = 5;
    const std::string_view only =
        readCommandLine("loop", argc, argv, {{"--rounds", &rounds}}, namesOf(kCases));
    for (const Case& each : kCases) {
        if (std::string_view(each.name).find(only) == std::string_view::npos) continue;
        each.measure(rounds);
        std::fflush(stdout);
    }
}
