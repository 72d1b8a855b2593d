#include "sim/options.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string_view>
#include <utility>

namespace {

constexpr uint32_t kLongestMs = 3'600'000;
constexpr const char* kDefaultEventsMs = "2000";

constexpr size_t kColumnOfEffects = 22;

constexpr const char* kUsageAboveTheTable =
    "Usage: hxusbvd-sim [--socket PATH] [--inventory FILE] [--latency MS]\n"
    "                   [--events[=MS] [--seed N]] [--misbehave HOW [--delay MS]]\n"
    "Simulates the daemon that hxusbvctl talks to, until it is sent SIGINT or SIGTERM.\n"
    "  --socket PATH     listen on PATH instead of /var/run/hxusbvctl.sock\n"
    "  --inventory FILE  start with the servers and devices that the JSON FILE describes\n"
    "  --latency MS      connect and disconnect servers in MS milliseconds (300), at once with 0;\n"
    "                    hosts unreachable.example and *.unreachable.example fail to connect\n"
    "  --events[=MS]     have a device of a connected server go or come back every MS\n"
    "                    milliseconds (2000)\n"
    "  --seed N          choose those devices by the random numbers of seed N (1)\n"
    "  --misbehave HOW   reply wrong on every connection; HOW is one of these:\n";

constexpr const char* kUsageBelowTheTable =
    "  --delay MS        have delay (1000) and bytes (5) wait MS milliseconds\n"
    "  --help            print this help\n";

// What the arguments say, one by one.
struct Reading {
    Options options;
    std::optional<uint32_t> seed;
    std::optional<uint32_t> delayMs;
};

// Each returns what is wrong with the value, or nothing.

template <uint32_t lowest, uint32_t highest, typename Number>
std::string readNumber(std::string_view value, Number& number) {
    uint32_t read = 0;
    const char* end = value.data() + value.size();
    const auto [stop, failure] = std::from_chars(value.data(), end, read);
    if (failure != std::errc() || stop != end || read < lowest || read > highest)
        return "must be a number from " + std::to_string(lowest) + " to " +
               std::to_string(highest) + ", not \"" + std::string(value) + '"';
    number = read;
    return "";
}

std::string readManner(std::string_view value, ReplyManner& manner) {
    if (const ReplyManner* found = findMisbehaviour(value)) {
        manner = *found;
        return "";
    }
    std::string words;
    for (const ReplyManner& each : misbehaviours())
        words += (words.empty() ? "" : ", ") + std::string(each.word);
    return "must be one of " + words + ", not \"" + std::string(value) + '"';
}

std::string readText(std::string_view value, std::string& text) {
    text = value;
    return "";
}

struct OptionForm {
    std::string_view name;
    const char* otherwise;  // the value of an option that is given without one; null: it needs one
    std::string (*read)(Reading& reading, std::string_view value);
};

const OptionForm kForms[] = {
    {"--socket", nullptr,
     [](Reading& reading, std::string_view value) {
         return readText(value, reading.options.socketPath);
     }},
    {"--inventory", nullptr,
     [](Reading& reading, std::string_view value) {
         return readText(value, reading.options.inventoryFile.emplace());
     }},
    {"--latency", nullptr,
     [](Reading& reading, std::string_view value) {
         return readNumber<0, kLongestMs>(value, reading.options.behaviour.latencyMs);
     }},
    {"--events", kDefaultEventsMs,
     [](Reading& reading, std::string_view value) {
         return readNumber<1, kLongestMs>(value, reading.options.behaviour.eventsMs);
     }},
    {"--seed", nullptr,
     [](Reading& reading, std::string_view value) {
         return readNumber<0, std::numeric_limits<uint32_t>::max()>(value, reading.seed);
     }},
    {"--misbehave", nullptr,
     [](Reading& reading, std::string_view value) {
         return readManner(value, reading.options.behaviour.manner);
     }},
    {"--delay", nullptr,
     [](Reading& reading, std::string_view value) {
         return readNumber<0, kLongestMs>(value, reading.delayMs);
     }},
};

const OptionForm* findForm(std::string_view name) {
    const auto* found = std::find_if(std::begin(kForms), std::end(kForms),
                                     [name](const OptionForm& form) { return form.name == name; });
    return found == std::end(kForms) ? nullptr : found;
}

using Arguments = std::span<const char* const>;

// Reads the first argument, and its value if that is the next one. Returns what is behind them.
Arguments readArgument(Arguments arguments, Reading& reading, std::string& error) {
    const std::string argument = arguments.front();
    Arguments rest = arguments.subspan(1);
    if (argument == "--help") {
        reading.options.help = true;
        return rest;
    }
    const size_t equals = argument.find('=');
    const OptionForm* form = findForm(std::string_view(argument).substr(0, equals));
    std::string value;
    if (form == nullptr) {
        error = "unknown argument: " + argument;
        return rest;
    }
    if (equals != std::string::npos) {
        value = argument.substr(equals + 1);
    } else if (form->otherwise != nullptr) {
        value = form->otherwise;
    } else if (!rest.empty()) {
        value = rest.front();
        rest = rest.subspan(1);
    } else {
        error = argument + " needs a value";
        return rest;
    }
    const std::string wrong = form->read(reading, value);
    if (!wrong.empty()) error = std::string(form->name) + ' ' + wrong;
    return rest;
}

// What some of the arguments mean for others.
std::optional<Options> combine(Reading& reading, std::string& error) {
    Behaviour& behaviour = reading.options.behaviour;
    if (reading.seed && !behaviour.eventsMs) {
        error = "--seed is of no use without --events";
        return std::nullopt;
    }
    if (reading.delayMs && behaviour.manner.pace == Pace::AtOnce) {
        error = "--delay is of no use without --misbehave delay or bytes";
        return std::nullopt;
    }
    behaviour.seed = reading.seed.value_or(behaviour.seed);
    behaviour.manner.delayMs = reading.delayMs.value_or(behaviour.manner.delayMs);
    return std::move(reading.options);
}

}  // namespace

std::string usage() {
    std::string text = kUsageAboveTheTable;
    for (const ReplyManner& each : misbehaviours()) {
        std::string line = "      " + std::string(each.word);
        line.resize(kColumnOfEffects, ' ');
        text += line + std::string(each.effect) + '\n';
    }
    return text + kUsageBelowTheTable;
}

std::optional<Options> parseOptions(std::span<const char* const> arguments, std::string& error) {
    Reading reading;
    error.clear();
    for (auto rest = arguments; !rest.empty() && error.empty();)
        rest = readArgument(rest, reading, error);
    return error.empty() ? combine(reading, error) : std::nullopt;
}
