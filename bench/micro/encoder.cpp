// The request encoder: from the request's values to its frame, which nobody takes.

#include <benchmark/benchmark.h>

#include <string>
#include <string_view>

#include "bench/support/client_without_daemon.h"

namespace {

// The code and the length are small enough for a byte each.
std::string frameOf(char code, std::string_view payload) {
    std::string frame{code, 0, 0, 0, static_cast<char>(payload.size()), 0, 0, 0};
    return frame += payload;
}

template <typename Request>
void encode(benchmark::State& state, Request request, char code, std::string_view payload) {
    requireSent(request, frameOf(code, payload));
    const auto client = makeClientWithoutDaemon();
    while (state.KeepRunning())
        request(*client);
    state.SetItemsProcessed(state.iterations());
}

void listServers(benchmark::State& state) {
    encode(
        state, [](HXTarnIPCClient& client) { client.requestServerList(); }, 0, "");
}
BENCHMARK(listServers)->Name("encoder/list_servers");

void addServer(benchmark::State& state) {
    encode(
        state, [](HXTarnIPCClient& client) { client.requestAddServer("attic.example", 40000); }, 1,
        R"({"host":"attic.example","port":40000})");
}
BENCHMARK(addServer)->Name("encoder/add_server");

void plugDevice(benchmark::State& state) {
    encode(
        state, [](HXTarnIPCClient& client) { client.requestDeviceAction("plug", 3, 7, false); }, 3,
        R"({"action":"plug","server-id":3,"device-id":7,"once":false})");
}
BENCHMARK(plugDevice)->Name("encoder/plug_device");

}  // namespace
