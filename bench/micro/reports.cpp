// The two reports, from a reply that is decoded already to lines that nobody reads, but for those
// of a first time, which are counted.

#include <benchmark/benchmark.h>

#include <boost/json/array.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstdio>
#include <string_view>

#include "bench/support/list_reply.h"
#include "bench/support/printed_lines.h"
#include "bench/support/program.h"
#include "cli/device_list.h"
#include "cli/tree_list.h"
#include "ipc/frame.h"
#include "ipc/json.h"

namespace {

// Standard output, as far as C streams go, in the course of its life. Takes the stream over.
class PrintingTo {
public:
    explicit PrintingTo(std::FILE* stream_) : stream(stream_) {
        if (!stream) fail("nowhere to print to");
        stdout = stream;
    }
    PrintingTo(const PrintingTo&) = delete;
    PrintingTo& operator=(const PrintingTo&) = delete;
    ~PrintingTo() {
        stdout = before;
        std::fclose(stream);
    }

private:
    std::FILE* const before = stdout;
    std::FILE* const stream;
};

template <typename Report>
size_t linesOf(const boost::json::array& servers, Report report) {
    std::FILE* const file = std::tmpfile();
    const PrintingTo printing(file);
    report(servers);
    return countLines(file);
}

template <typename Report>
void print(benchmark::State& state, Report report, bool withServers) {
    const ListReply reply = makeListReply(static_cast<size_t>(state.range(0)));
    boost::json::monotonic_resource arena;
    const auto value = readJson(std::string_view(reply.frame).substr(kFrameHeaderSize), &arena);
    const boost::json::array* servers =
        value && value->is_object() ? arrayMember(value->get_object(), "servers") : nullptr;
    if (!servers || servers->size() != reply.servers) {
        state.SkipWithError("the reply cannot be read");
        return;
    }
    if (linesOf(*servers, report) != reply.devices + (withServers ? reply.servers : 0)) {
        state.SkipWithError("not every line is printed");
        return;
    }
    {
        const PrintingTo nowhere(std::fopen("/dev/null", "w"));
        while (state.KeepRunning())
            report(*servers);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(reply.devices));
}

void tree(benchmark::State& state) {
    print(
        state, [](const auto& servers) { output_tree_list(servers, false); }, true);
}
BENCHMARK(tree)->Name("reports/srv_list")->Arg(2 << 10)->Arg(1 << 20);

void devices(benchmark::State& state) {
    print(
        state, [](const auto& servers) { output_device_list(servers, false, true, false); }, false);
}
BENCHMARK(devices)->Name("reports/dev_list")->Arg(2 << 10)->Arg(1 << 20);

void devicesByName(benchmark::State& state) {
    print(
        state, [](const auto& servers) { output_device_list(servers, true, true, false); }, false);
}
BENCHMARK(devicesByName)->Name("reports/dev_list_by_name")->Arg(2 << 10)->Arg(1 << 20);

}  // namespace
