#include "sim/options.h"

#include <string_view>

const char* const kUsage =
    "Usage: hxusbvd-sim [--socket PATH] [--inventory FILE]\n"
    "Simulates the daemon that hxusbvctl talks to, until it is sent SIGINT or SIGTERM.\n"
    "  --socket PATH     listen on PATH instead of /var/run/hxusbvctl.sock\n"
    "  --inventory FILE  start with the servers and devices that the JSON FILE describes\n"
    "  --help            print this help\n";

namespace {

// Where the value of the option goes, or null when there is no such option.
std::string* valueOf(std::string_view option, Options& options) {
    if (option == "--socket") return &options.socketPath;
    if (option == "--inventory") return &options.inventoryFile.emplace();
    return nullptr;
}

}  // namespace

std::optional<Options> parseOptions(std::span<const char* const> arguments, std::string& error) {
    Options options;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        if (argument == "--help") {
            options.help = true;
            continue;
        }
        const size_t equals = argument.find('=');
        std::string* value = valueOf(argument.substr(0, equals), options);
        if (value == nullptr) {
            error = "unknown argument: " + std::string(argument);
            return std::nullopt;
        }
        if (equals != std::string_view::npos) {
            *value = argument.substr(equals + 1);
        } else if (i + 1 < arguments.size()) {
            *value = arguments[++i];
        } else {
            error = std::string(argument) + " needs a value";
            return std::nullopt;
        }
    }
    return options;
}
