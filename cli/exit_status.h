// With what status the process ends. The numbers are macOS' error numbers on every system: errno's
// own constants differ elsewhere (EALREADY is 114 on Linux).
#pragma once

enum ExitStatus : int {
    kExitSuccess = 0,
    kExitNotFound = 2,       // ENOENT: no such server or device
    kExitInternalError = 5,  // EIO: a reply that is not understood, a connection that failed
    kExitNoMemory = 12,      // ENOMEM: something could not be created, the connection included
    kExitUsage = 22,         // EINVAL: the command line is wrong
    kExitAlready = 37,       // EALREADY: added, plugged or unplugged before
};
