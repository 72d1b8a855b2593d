// The request encoder: from the request's values to its frame, which nobody takes.

#include <benchmark/benchmark.h>

#include "bench/support/client_without_daemon.h"

namespace {

template <typename Request>
void encode(benchmark::State& state, Request request) {
    const auto client = makeClientWithoutDaemon();
    while (state.KeepRunning())
        request(*client);
    state.SetItemsProcessed(state.iterations());
}

void listServers(benchmark::State& state) {
    encode(state, [](HXTarnIPCClient& client) { client.requestServerList(); });
}
BENCHMARK(listServers)->Name("encoder/list_servers");

void addServer(benchmark::State& state) {
    encode(state, [](HXTarnIPCClient& client) { client.requestAddServer("attic.example", 40000); });
}
BENCHMARK(addServer)->Name("encoder/add_server");

void plugDevice(benchmark::State& state) {
    encode(state, [](HXTarnIPCClient& client) { client.requestDeviceAction("plug", 3, 7, false); });
}
BENCHMARK(plugDevice)->Name("encoder/plug_device");

}  // namespace
