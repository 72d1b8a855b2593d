// The states of a server, and the words that the daemon has for them.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

enum class ServerState { Connecting, Connected, Disconnecting, Disconnected, Failed };

// In the order of the states.
inline constexpr std::array<std::string_view, 5> kServerStateWords{
    "connecting", "connected", "disconnecting", "disconnected", "failed"};

[[nodiscard]] constexpr std::string_view wordOf(ServerState state) {
    return kServerStateWords[static_cast<size_t>(state)];
}

// Whether a server leaves the state by itself, when some time has passed.
[[nodiscard]] constexpr bool isPassing(ServerState state) {
    return state == ServerState::Connecting || state == ServerState::Disconnecting;
}
