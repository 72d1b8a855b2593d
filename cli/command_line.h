// The command line: which command it is, and with which options and operands.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

enum class CommandKind : int32_t {
    ServerList = 0,    // srv, srv list
    ServerAdd = 1,     // srv add
    ServerAction = 2,  // srv remove, srv disconnect, srv reconnect
    DeviceList = 3,    // dev, dev list
    DeviceAction = 4,  // dev plug, dev unplug
};

// What is not given has the value that stands here.
struct ParsedCommand {
    CommandKind kind = CommandKind::ServerList;
    std::shared_ptr<const std::string> action;  // the word for the daemon; null in the other kinds
    const char* host = nullptr;                 // one of the arguments, neither copied nor checked
    int32_t port = 33000;                       // its low 16 bits are the TCP port
    uint32_t serverId = 0;
    bool serverIdGiven = false;  // the server is then named by serverId, whatever host is
    uint32_t deviceId = 0;
    bool once = false;
    bool sortByName = false;
    bool ascending = true;
    bool pluggedOnly = false;
    bool showDevices = true;
};

// Reads the arguments, as main gets them, and checks them. Returns only for a command that can be
// carried out. Otherwise the process ends here: with the usage text for -h and --help, else with a
// line that says what is wrong, in most cases the usage text too, and the status for it.
//
// Uses getopt's state and sets `programName`. Once per process, before there are other threads.
[[nodiscard]] ParsedCommand parseCommandLine(int argc, char* argv[]);
