// How does the library's echo server compare with those that other event loops make?
//
//     echo [--rounds N] [--milliseconds N] [CASE]
//
// Each round measures every server once, for so long, in each case whose name contains CASE.
// Figures are medians over the rounds. The server and the client keep to a processor each, or one
// connection's figures would tell whether they happened to share one. The client verifies every
// byte, and keeps one message under way on each connection.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bench/support/command_line.h"
#include "bench/support/descriptor_limit.h"
#include "bench/support/echo_load.h"
#include "bench/support/figures.h"
#include "bench/support/processors.h"
#include "bench/support/program.h"

namespace {

struct Server {
    const char* name;
    const char* program;
};

// The first two are what the others are compared with.
constexpr Server kServers[] = {
    {"epoll", EPOLL_SERVER}, {"libuv", LIBUV_SERVER},       {"libev", LIBEV_SERVER},
    {"asio", ASIO_SERVER},   {"libevent", LIBEVENT_SERVER}, {"hxkqueue", HXKQUEUE_SERVER},
};
constexpr size_t kServerCount = std::size(kServers);

struct Case {
    const char* name;
    bool isUnix;
    size_t busy;
    size_t idle;
    size_t messageSize;
};

constexpr Case kCases[] = {
    {"unix-1", true, 1, 0, 64},       {"unix-100", true, 100, 0, 64},
    {"unix-1000", true, 1000, 0, 64}, {"unix-100-16k", true, 100, 0, 16'384},
    {"tcp-100", false, 100, 0, 64},   {"unix-100-idle-5000", true, 100, 5000, 64},
};

struct Options {
    int rounds = 7;
    int milliseconds = 500;
    std::string only;
};

// What was measured of one server, one entry a round.
struct Series {
    std::vector<double> rate;       // messages a second
    std::vector<double> processor;  // seconds a message
    std::vector<double> middle;     // latency, in seconds
    std::vector<double> slow;       // latency that one of a hundred exceeds
    std::vector<double> ofLibuv;    // rate, of libuv's in the same round
    std::vector<double> ofEpoll;
    std::optional<double> systemCalls;  // a message
};

Options readOptions(int argc, char** argv) {
    Options options;
    options.only =
        readCommandLine("echo", argc, argv,
                        {{"--rounds", &options.rounds}, {"--milliseconds", &options.milliseconds}},
                        namesOf(kCases));
    return options;
}

class Bench {
public:
    // The servers' sockets go into the directory.
    Bench(const Case& what, const Options& how, const std::string& where)
        : measured(what), options(how), directory(where), series(kServerCount) {}

    void run() {
        for (int round = 0; round < options.rounds; ++round) {
            for (size_t i = 0; i < kServerCount; ++i)
                measure(kServers[i], series[i]);
            compare();
        }
        for (size_t i = 0; i < kServerCount; ++i)
            series[i].systemCalls = countSystemCalls(kServers[i]);
    }

    void print() const {
        std::printf("\n%s: %zu connections, %zu idle ones, %zu bytes\n", measured.name,
                    measured.busy, measured.idle, measured.messageSize);
        std::printf("%-10s %12s %9s %9s %14s %9s %9s %12s\n", "server", "messages/s", "of libuv",
                    "of epoll", "us of CPU each", "p50 us", "p99 us", "calls each");
        for (size_t i = 0; i < kServerCount; ++i) {
            const Series& of = series[i];
            std::printf("%-10s %12.0f %9.2f %9.2f %14.2f %9.0f %9.0f ", kServers[i].name,
                        median(of.rate), median(of.ofLibuv), median(of.ofEpoll),
                        median(of.processor) * 1e6, median(of.middle) * 1e6, median(of.slow) * 1e6);
            if (of.systemCalls)
                std::printf("%12.2f\n", *of.systemCalls);
            else
                std::printf("%12s\n", "?");
        }
        std::fflush(stdout);
    }

private:
    // Every server gets a path or a port that none has had.
    std::vector<std::string> commandOf(const Server& server) {
        ++endpoint;
        path = measured.isUnix ? directory + "/" + std::to_string(endpoint) : "";
        port = kFirstPort + endpoint;
        if (measured.isUnix) return {server.program, "unix", path};
        return {server.program, "tcp", "127.0.0.1", std::to_string(port)};
    }

    Program start(const Server& server) {
        keepToProcessor(kServersProcessor);
        return Program(commandOf(server));
    }

    void measure(const Server& server, Series& into) {
        const Program program = start(server);
        keepToProcessor(kClientsProcessor);
        EchoLoad load(path, port, measured.busy, measured.idle, measured.messageSize);
        static_cast<void>(load.run(seconds() / 10));
        const double before = program.processorSeconds();
        const EchoFigures figures = load.run(seconds());
        const double spent = program.processorSeconds() - before;
        into.rate.push_back(figures.messages / figures.seconds);
        into.processor.push_back(spent / figures.messages);
        into.middle.push_back(percentile(figures.latencies, 0.5));
        into.slow.push_back(percentile(figures.latencies, 0.99));
    }

    void compare() {
        for (Series& of : series) {
            of.ofEpoll.push_back(of.rate.back() / series[0].rate.back());
            of.ofLibuv.push_back(of.rate.back() / series[1].rate.back());
        }
    }

    [[nodiscard]] double seconds() const { return options.milliseconds / 1000.0; }

    std::optional<double> countSystemCalls(const Server& server) {
        const Program program = start(server);
        keepToProcessor(kClientsProcessor);
        EchoLoad load(path, port, measured.busy, measured.idle, measured.messageSize);
        static_cast<void>(load.run(seconds() / 10));
        const SystemCallCounter counter(program);
        const EchoFigures figures = load.run(seconds());
        const auto count = counter.count();
        if (!count) return std::nullopt;
        return static_cast<double>(*count) / figures.messages;
    }

    static constexpr int kFirstPort = 20'000;
    static constexpr size_t kServersProcessor = 0;
    static constexpr size_t kClientsProcessor = 1;
    static inline int endpoint = 0;  // those that have been handed out

    const Case& measured;
    const Options& options;
    const std::string& directory;
    std::vector<Series> series;  // as kServers
    std::string path;
    int port = 0;
};

std::string makeDirectory() {
    char name[] = "/tmp/hxkqueue-bench-XXXXXX";
    if (mkdtemp(name) == nullptr) fail("mkdtemp");
    return name;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    allowManyDescriptors();  // the idle connections take one each, here and in the servers
    const std::string directory = makeDirectory();
    for (const Case& each : kCases) {
        if (std::string_view(each.name).find(options.only) == std::string_view::npos) continue;
        Bench bench(each, options, directory);
        bench.run();
        bench.print();
    }
    std::filesystem::remove_all(directory);
}
