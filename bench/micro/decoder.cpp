// The frame decoder: replies of a size, and small replies that arrive together.

#include <benchmark/benchmark.h>

#include <boost/json/object.hpp>
#include <string>
#include <utility>
#include <vector>

#include "bench/support/client_without_daemon.h"
#include "bench/support/list_reply.h"
#include "ipc/frame.h"

namespace {

void decode(benchmark::State& state, const std::string& bytes, size_t frames) {
    const auto client = makeClientWithoutDaemon();
    size_t delivered = 0;
    const bool installed = client->setOnData([&](int32_t /*code*/, const auto& reply) {
        benchmark::DoNotOptimize(reply.size());
        ++delivered;
    });
    size_t decoded = 0;
    while (state.KeepRunning()) {
        uint64_t drop = 0;
        if (!client->parseProtocolBuffer(bytes.data(), bytes.size(), &drop) || drop != bytes.size())
            break;
        ++decoded;
    }
    if (!installed || delivered != decoded * frames || decoded == 0)
        state.SkipWithError("not every frame was delivered");
    state.SetBytesProcessed(static_cast<int64_t>(decoded * bytes.size()));
    state.SetItemsProcessed(static_cast<int64_t>(delivered));
}

void listReply(benchmark::State& state) {
    const ListReply reply = makeListReply(static_cast<size_t>(state.range(0)));
    decode(state, reply.frame, 1);
    state.counters["devices"] = static_cast<double>(reply.devices);
}
BENCHMARK(listReply)->Name("decoder/list_reply")->Arg(2 << 10)->Arg(64 << 10)->Arg(1 << 20);

void smallReplies(benchmark::State& state) {
    const std::vector<char> one = makeFrame(kDeviceAction, R"({"status":"ok"})");
    std::string bytes;
    for (int64_t i = 0; i < state.range(0); ++i)
        bytes.append(one.begin(), one.end());
    decode(state, bytes, static_cast<size_t>(state.range(0)));
}
BENCHMARK(smallReplies)->Name("decoder/small_replies")->Arg(1)->Arg(100);

}  // namespace
