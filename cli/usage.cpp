#include "cli/usage.h"

#include <cstdio>
#include <cstdlib>

#include "cli/exit_status.h"

char programName[kBaseNameSize];

namespace {

constexpr char kUsage[] =
    "Usage:\t%s srv\t\t- show list of servers and their devices\n"
    "\t%s srv list [-D]\t- show list of servers and their devices if -D is not specified\n"
    "\t%s srv add [-p TCPport] <host>\t- add server\n"
    "\t%s srv remove <HOST-ID>\t- remove server\n"
    "\t%s srv disconnect <HOST-ID>\t- disconnect server\n"
    "\t%s srv reconnect <HOST-ID>\t- reconnect server\n"
    "\t%s dev\t\t- show list of devices from all servers\n"
    "\t%s dev list [-n|-N|-p]\t- show sorted list of all devices by serverId:deviceId.\n"
    "\t\t-n - sort by ascending name\n"
    "\t\t-N - sort by descending name\n"
    "\t\t-p - show plugged devices only\n"
    "\t%s dev plug [-1] <DEVICE-ID>\t- plug virtual device to the system\n"
    "\t\t-1 - plug the device once without further replug\n"
    "\t%s dev unplug <DEVICE-ID>\t- unplug virtual device from the system\n"
    "\t%s -h\t\t- this help\n"
    "\n"
    "HOST-ID:\n"
    "\t [-p TCPport] -h host\n"
    "\t -i serverId\n"
    "DEVICE-ID:\n"
    "\t <HOST-ID> deviceId\n"
    "\t serverId:deviceId\n";

}  // namespace

void usage(int status) {
    const char* name = programName;
    std::fprintf(status == kExitSuccess ? stdout : stderr, kUsage, name, name, name, name, name,
                 name, name, name, name, name, name);
    std::exit(status);
}
