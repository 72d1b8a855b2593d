// The two reports, from a reply that is decoded already to lines that nobody reads.

#include <benchmark/benchmark.h>

#include <boost/json/array.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstdio>
#include <string_view>

#include "bench/support/list_reply.h"
#include "cli/device_list.h"
#include "cli/tree_list.h"
#include "ipc/frame.h"
#include "ipc/json.h"

namespace {

// Standard output, as far as C streams go, in the course of its life.
class NowhereToPrint {
public:
    NowhereToPrint() { stdout = nowhere; }
    NowhereToPrint(const NowhereToPrint&) = delete;
    NowhereToPrint& operator=(const NowhereToPrint&) = delete;
    ~NowhereToPrint() {
        stdout = before;
        std::fclose(nowhere);
    }

private:
    std::FILE* const before = stdout;
    std::FILE* const nowhere = std::fopen("/dev/null", "w");
};

template <typename Report>
void print(benchmark::State& state, Report report) {
    const ListReply reply = makeListReply(static_cast<size_t>(state.range(0)));
    boost::json::monotonic_resource arena;
    const auto value = readJson(std::string_view(reply.frame).substr(kFrameHeaderSize), &arena);
    const boost::json::array* servers =
        value && value->is_object() ? arrayMember(value->get_object(), "servers") : nullptr;
    if (!servers || servers->size() != reply.servers) {
        state.SkipWithError("the reply cannot be read");
        return;
    }
    {
        const NowhereToPrint nowhere;
        while (state.KeepRunning())
            report(*servers);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(reply.devices));
}

void tree(benchmark::State& state) {
    print(state, [](const auto& servers) { output_tree_list(servers, false); });
}
BENCHMARK(tree)->Name("reports/srv_list")->Arg(2 << 10)->Arg(1 << 20);

void devices(benchmark::State& state) {
    print(state, [](const auto& servers) { output_device_list(servers, false, true, false); });
}
BENCHMARK(devices)->Name("reports/dev_list")->Arg(2 << 10)->Arg(1 << 20);

void devicesByName(benchmark::State& state) {
    print(state, [](const auto& servers) { output_device_list(servers, true, true, false); });
}
BENCHMARK(devicesByName)->Name("reports/dev_list_by_name")->Arg(2 << 10)->Arg(1 << 20);

}  // namespace
