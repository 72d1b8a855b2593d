#include "cli/command_line.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <span>
#include <string_view>

#include "cli/device_id.h"
#include "cli/outcome.h"
#include "cli/usage.h"
#include "platform/options.h"

namespace {

using Words = std::span<char* const>;

struct CommandForm {
    std::string_view noun, verb;
    CommandKind kind;
    const char* options;  // in getopt's notation
    const char* action;   // the word for the daemon, null if none is sent
};

constexpr CommandForm kForms[] = {
    {"srv", "list", CommandKind::ServerList, "D", nullptr},
    {"srv", "add", CommandKind::ServerAdd, "p:", nullptr},
    {"srv", "remove", CommandKind::ServerAction, "p:h:i:", "remove"},
    {"srv", "disconnect", CommandKind::ServerAction, "p:h:i:", "disconnect"},
    {"srv", "reconnect", CommandKind::ServerAction, "p:h:i:", "reconnect"},
    {"dev", "list", CommandKind::DeviceList, "nNp", nullptr},
    {"dev", "plug", CommandKind::DeviceAction, "p:h:i:1", "plug"},
    {"dev", "unplug", CommandKind::DeviceAction, "p:h:i:", "unplug"},
};

// What a noun without a verb stands for.
constexpr const char* kDefaultVerb = "list";

[[noreturn]] void failWithUsage(const char* message) {
    std::fputs(message, stderr);
    usage(kExitUsage);
}

const CommandForm* findForm(std::string_view noun, std::string_view verb) {
    for (const CommandForm& form : kForms)
        if (form.noun == noun && form.verb == verb) return &form;
    return nullptr;
}

const CommandForm& chooseForm(Words arguments) {
    if (arguments.size() < 2) failWithUsage("Error: arguments must be specified.\n");
    const std::string_view noun = arguments[1];
    if (noun == "-h" || noun == "--help") usage(kExitSuccess);
    const CommandForm* form = findForm(noun, arguments.size() < 3 ? kDefaultVerb : arguments[2]);
    if (!form) failWithUsage("Error: Invalid argument.\n");
    return *form;
}

// Null without a word and without memory: requireAction tells them apart, because the command line
// is checked first.
std::shared_ptr<const std::string> makeAction(const char* word) {
    try {
        return word ? std::make_shared<const std::string>(word) : nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// atoi, with the overflow defined.
int32_t toPort(const char* text) {
    return static_cast<int32_t>(std::strtol(text, nullptr, 10));
}

uint32_t toServerId(const char* text) {
    char* end = nullptr;
    const unsigned long id = std::strtoul(text, &end, 10);
    if (*text == '\0' || *end != '\0') usage(kExitUsage);
    return static_cast<uint32_t>(id);
}

void sortByName(ParsedCommand& command, bool ascending) {
    command.sortByName = true;
    command.ascending = ascending;
}

void applyOption(int option, ParsedCommand& command) {
    switch (option) {
        case 'D':
            command.showDevices = false;
            return;
        case 'n':
            return sortByName(command, true);
        case 'N':
            return sortByName(command, false);
        case 'p':
            if (command.kind == CommandKind::DeviceList)
                command.pluggedOnly = true;
            else
                command.port = toPort(optarg);
            return;
        case 'h':
            command.host = optarg;
            return;
        case 'i':
            command.serverId = toServerId(optarg);
            command.serverIdGiven = true;
            return;
        case '1':
            command.once = true;
            return;
        default:
            usage(kExitUsage);
    }
}

// words begins with the verb, which stands where getopt expects a program's name. What is returned
// are the operands.
Words parseOptions(const CommandForm& form, Words words, ParsedCommand& command) {
    const int count = static_cast<int>(words.size());
    int option = 0;
    while ((option = posixGetopt(count, words.data(), form.options)) != -1)
        applyOption(option, command);
    return words.subspan(static_cast<size_t>(optind));
}

void requireAction(const ParsedCommand& command) {
    if (!command.action) failWith("Error: cannot initialize object\n", kExitNoMemory);
}

void checkServerAdd(Words operands, ParsedCommand& command) {
    if (operands.empty()) failWithUsage("Error: host is missing.\n");
    command.host = operands[0];
}

// With both a host and an id the id wins; only devices insist on one of them.
void checkServerAction(const ParsedCommand& command) {
    if (!command.serverIdGiven && !command.host) failWithUsage("Error: host Id is missing.\n");
    requireAction(command);
}

void checkDeviceAction(Words operands, ParsedCommand& command) {
    if (operands.empty()) failWithUsage("Error: device Id is missing.\n");
    const int form = arg2deviceId(operands[0], command.serverId, command.deviceId);
    if (form == -1) usage(kExitUsage);
    if (form == 1) command.serverIdGiven = true;
    if (!command.host && !command.serverIdGiven)
        failWith("Error: server is not specified.\n", kExitUsage);
    if (command.host && command.serverIdGiven)
        failWith("Error: server Id and host are specified. They are mutually exclusive.\n",
                 kExitUsage);
    requireAction(command);
}

void checkOperands(Words operands, ParsedCommand& command) {
    switch (command.kind) {
        case CommandKind::ServerAdd:
            return checkServerAdd(operands, command);
        case CommandKind::ServerAction:
            return checkServerAction(command);
        case CommandKind::DeviceAction:
            return checkDeviceAction(operands, command);
        case CommandKind::ServerList:
        case CommandKind::DeviceList:
            return;
    }
}

}  // namespace

ParsedCommand parseCommandLine(int argc, char* argv[]) {
    const Words arguments(argv, argc > 0 ? static_cast<size_t>(argc) : 0);
    programName[0] = '\0';
    if (!arguments.empty()) baseName(arguments[0], programName);

    const CommandForm& form = chooseForm(arguments);
    ParsedCommand command;
    command.kind = form.kind;
    if (arguments.size() < 3) return command;
    command.action = makeAction(form.action);
    const Words operands = parseOptions(form, arguments.subspan(2), command);
    checkOperands(operands, command);
    return command;
}
