#include "tests/cli/usage_text.h"

std::string usageText(const std::string& name) {
    return "Usage:\t" + name + " srv\t\t- show list of servers and their devices\n" +  //
           "\t" + name + " srv list [-D]\t- show list of servers and their devices if -D is not " +
           "specified\n" +                                                      //
           "\t" + name + " srv add [-p TCPport] <host>\t- add server\n" +       //
           "\t" + name + " srv remove <HOST-ID>\t- remove server\n" +           //
           "\t" + name + " srv disconnect <HOST-ID>\t- disconnect server\n" +   //
           "\t" + name + " srv reconnect <HOST-ID>\t- reconnect server\n" +     //
           "\t" + name + " dev\t\t- show list of devices from all servers\n" +  //
           "\t" + name + " dev list [-n|-N|-p]\t- show sorted list of all devices by " +
           "serverId:deviceId.\n" +                  //
           "\t\t-n - sort by ascending name\n" +     //
           "\t\t-N - sort by descending name\n" +    //
           "\t\t-p - show plugged devices only\n" +  //
           "\t" + name + " dev plug [-1] <DEVICE-ID>\t- plug virtual device to the system\n" +
           "\t\t-1 - plug the device once without further replug\n" +  //
           "\t" + name + " dev unplug <DEVICE-ID>\t- unplug virtual device from the system\n" +
           "\t" + name + " -h\t\t- this help\n" +  //
           "\n"
           "HOST-ID:\n"
           "\t [-p TCPport] -h host\n"
           "\t -i serverId\n"
           "DEVICE-ID:\n"
           "\t <HOST-ID> deviceId\n"
           "\t serverId:deviceId\n";
}
