// The command line: arguments are a command that keeps its promises, or a usage text and the status
// for it, and which of both is what a plain reading of them gives.
//
// The bytes are the arguments, each with its NUL but the last.

#include <libgen.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/command_line.h"
#include "fuzz/support/captured_output.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/process_end.h"
#include "tests/cli/usage_text.h"

namespace {

using Words = std::vector<std::string>;

Words split(std::string_view bytes) {
    Words words;
    while (!bytes.empty()) {
        const std::string_view word = bytes.substr(0, bytes.find('\0'));
        words.emplace_back(word);
        bytes.remove_prefix(std::min(word.size() + 1, bytes.size()));
    }
    return words;
}

// As the process gets them: each in memory of its own, where the sanitizer sees a step beyond.
class Arguments {
public:
    explicit Arguments(const Words& words) {
        for (const std::string& word : words)
            pointers.push_back(strdup(word.c_str()));
        pointers.push_back(nullptr);
    }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;
    ~Arguments() {
        for (char* word : pointers)
            std::free(word);
    }

    [[nodiscard]] int count() const { return static_cast<int>(pointers.size() - 1); }
    [[nodiscard]] char** data() { return pointers.data(); }
    [[nodiscard]] bool contain(const char* text) const {
        return std::any_of(pointers.begin(), pointers.end() - 1, [text](const char* word) {
            return text >= word && text <= word + std::strlen(word);
        });
    }

private:
    std::vector<char*> pointers;
};

std::string nameOf(const Words& words) {
    if (words.empty()) return "";
    std::string path = words[0];
    const std::string name = basename(path.data());
    return name.size() < 1024 ? name : "";
}

// The options of a noun and a verb, in getopt's notation; none where there is no such command.
std::optional<std::string> optionsOf(const std::string& noun, const std::string& verb) {
    if (noun == "srv" && verb == "list") return "D";
    if (noun == "srv" && verb == "add") return "p:";
    if (noun == "srv" && (verb == "remove" || verb == "disconnect" || verb == "reconnect"))
        return "p:h:i:";
    if (noun == "dev" && verb == "list") return "nNp";
    if (noun == "dev" && verb == "plug") return "p:h:i:1";
    if (noun == "dev" && verb == "unplug") return "p:h:i:";
    return std::nullopt;
}

// What the arguments behind the verb are.
struct Options {
    std::vector<std::pair<char, std::string>> given;
    Words operands;

    [[nodiscard]] bool has(char name) const { return last(name) != nullptr; }
    [[nodiscard]] const std::string* last(char name) const {
        const auto found = std::find_if(given.rbegin(), given.rend(),
                                        [name](const auto& each) { return each.first == name; });
        return found == given.rend() ? nullptr : &found->second;
    }
};

// None where getopt finds something wrong.
std::optional<Options> readOptions(const std::string& known, const Words& words) {
    Options options;
    size_t i = 3;
    for (; i < words.size() && words[i].size() > 1 && words[i][0] == '-'; ++i) {
        if (words[i] == "--") {
            ++i;
            break;
        }
        for (size_t k = 1; k < words[i].size(); ++k) {
            const char name = words[i][k];
            const size_t place = known.find(name);
            if (name == ':' || place == std::string::npos) return std::nullopt;
            std::string value;
            if (known.substr(place + 1, 1) == ":") {
                value = words[i].substr(k + 1);
                if (value.empty() && ++i == words.size()) return std::nullopt;
                if (value.empty()) value = words[i];
                options.given.emplace_back(name, value);
                break;
            }
            options.given.emplace_back(name, value);
        }
    }
    options.operands.assign(words.begin() + static_cast<ptrdiff_t>(std::min(i, words.size())),
                            words.end());
    return options;
}

size_t digitsAt(const std::string& text, size_t place) {
    size_t end = place;
    while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])) != 0)
        ++end;
    return end - place;
}

// As strtoul takes it: white space, a sign, digits.
bool isNumber(const std::string& text) {
    size_t begin = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
    if (begin < text.size() && (text[begin] == '+' || text[begin] == '-')) ++begin;
    const size_t digits = digitsAt(text, begin);
    return digits > 0 && begin + digits == text.size();
}

// The number, where no narrowing has a part in it.
std::optional<uint32_t> plainNumber(const std::string& text) {
    if (text.empty() || text.size() > 9 || digitsAt(text, 0) != text.size()) return std::nullopt;
    return static_cast<uint32_t>(std::stoul(text));
}

enum class DeviceName { None, Bare, WithServer };

DeviceName formOf(const std::string& operand) {
    const size_t first = digitsAt(operand, 0);
    if (first == 0) return DeviceName::None;
    if (first == operand.size()) return DeviceName::Bare;
    const size_t second = digitsAt(operand, first + 1);
    const bool ends = operand[first] == ':' && second > 0 && first + 1 + second == operand.size();
    return ends ? DeviceName::WithServer : DeviceName::None;
}

// Whether the arguments are a command.
bool isCommand(const Words& words) {
    if (words.size() < 2) return false;
    const std::string verb = words.size() > 2 ? words[2] : "list";
    const std::optional<std::string> known = optionsOf(words[1], verb);
    if (!known) return false;
    const std::optional<Options> options = readOptions(*known, words);
    if (!options) return false;
    for (const auto& [name, value] : options->given)
        if (name == 'i' && !isNumber(value)) return false;
    if (verb == "list") return true;
    if (verb == "add") return !options->operands.empty();
    if (words[1] == "srv") return options->has('i') || options->has('h');
    if (options->operands.empty()) return false;
    const DeviceName form = formOf(options->operands[0]);
    const bool byId = options->has('i') || form == DeviceName::WithServer;
    return form != DeviceName::None && byId != options->has('h');
}

void requireNumber(const std::string* text, uint32_t number, std::string_view what) {
    if (const auto expected = text ? plainNumber(*text) : std::nullopt)
        require(number == *expected, what);
}

void checkDeviceName(const std::string& operand, const ParsedCommand& command) {
    const size_t colon = operand.find(':');
    const std::string device = operand.substr(colon + 1);
    requireNumber(&device, command.deviceId, "the device's id is the operand's");
    if (colon == std::string::npos) return;
    const std::string server = operand.substr(0, colon);
    require(command.serverIdGiven, "the operand gives the server's id");
    requireNumber(&server, command.serverId, "the server's id is the operand's");
}

void checkHost(const std::string* host, const ParsedCommand& command, const Arguments& arguments) {
    require((command.host != nullptr) == (host != nullptr), "there is a host if one is given");
    if (host == nullptr) return;
    require(arguments.contain(command.host), "the host is one of the arguments");
    requireEqual(command.host, *host, "the host");
}

// REQUIRES: isCommand(words).
void checkCommand(const ParsedCommand& command, const Words& words, const Arguments& arguments) {
    const bool isServer = words[1] == "srv";
    const std::string verb = words.size() > 2 ? words[2] : "list";
    const Options options = *readOptions(*optionsOf(words[1], verb), words);
    const bool isList = verb == "list";
    const bool isAdd = verb == "add";
    const auto kind = isList     ? isServer ? CommandKind::ServerList : CommandKind::DeviceList
                      : isAdd    ? CommandKind::ServerAdd
                      : isServer ? CommandKind::ServerAction
                                 : CommandKind::DeviceAction;
    require(command.kind == kind, "the kind is the command's");
    require((command.action == nullptr) == (isList || isAdd), "an action has a word");
    if (command.action) requireEqual(*command.action, verb, "the word for the daemon");

    require(command.showDevices == !options.has('D'), "-D leaves the devices out");
    require(command.sortByName == (options.has('n') || options.has('N')), "-n and -N sort by name");
    require(command.once == options.has('1'), "-1 plugs once");
    require(command.pluggedOnly == (isList && options.has('p')), "-p of a list");
    bool ascending = true;
    for (const auto& [name, value] : options.given)
        if (name == 'n' || name == 'N') ascending = name == 'n';
    require(command.ascending == ascending, "of -n and -N the last counts");

    if (isList || !options.has('p')) require(command.port == 33000, "the port's default");
    if (!isList) requireNumber(options.last('p'), static_cast<uint32_t>(command.port), "the port");
    checkHost(isAdd ? &options.operands.front() : options.last('h'), command, arguments);
    if (kind == CommandKind::DeviceAction) {
        checkDeviceName(options.operands.front(), command);
        require(command.serverIdGiven != (command.host != nullptr), "one way to name the server");
    } else {
        require(command.deviceId == 0, "a device's id is for actions on devices");
        require(command.serverIdGiven == options.has('i'), "-i gives the server's id");
        requireNumber(options.last('i'), command.serverId, "the server's id is that of -i");
    }
}

// What comes before the usage text, or instead of it.
bool isReason(std::string_view words, std::string_view verb, bool withUsage) {
    if (!withUsage)
        return words == "Error: server is not specified.\n" ||
               words == "Error: server Id and host are specified. They are mutually exclusive.\n";
    return words.empty() || words == "Error: arguments must be specified.\n" ||
           words == "Error: Invalid argument.\n" || words == "Error: host is missing.\n" ||
           words == "Error: host Id is missing.\n" || words == "Error: device Id is missing.\n" ||
           (words.starts_with(std::string(verb) + ": ") && words.ends_with('\n'));
}

void checkEnd(int status, const Words& words, const std::string& out, std::string err) {
    const std::string usage = usageText(nameOf(words));
    if (words.size() > 1 && (words[1] == "-h" || words[1] == "--help")) {
        require(status == 0, "help is no error");
        requireEqual(out, usage, "the help");
        return requireEqual(err, "", "the errors of the help");
    }
    require(status == 22, "the status is that of a wrong command line");
    requireEqual(out, "", "the output of a wrong command line");
    const bool withUsage = err.ends_with(usage);
    if (withUsage) err.resize(err.size() - usage.size());
    if (!isReason(err, words.size() > 2 ? words[2] : "", withUsage))
        refute("a wrong command line is told in known words: " + err);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CapturedOutput out(stdout);
    static CapturedOutput err(stderr);
    const Words words = split({reinterpret_cast<const char*>(data), size});
    Arguments arguments(words);
    optind = 0;  // glibc's getopt forgets the arguments that it was in the midst of
    try {
        const ParsedCommand command = parseCommandLine(arguments.count(), arguments.data());
        requireEqual(out.take() + err.take(), "", "what a good command line prints");
        require(isCommand(words), "a wrong command line is no command");
        checkCommand(command, words, arguments);
    } catch (const ProcessEnd& end) {
        require(!isCommand(words), "a good command line is a command");
        checkEnd(end.status, words, out.take(), err.take());
    }
    return 0;
}
