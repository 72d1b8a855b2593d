// Ends of the utility that more than one test expects.
#pragma once

#include "tests/e2e/utility.h"

// The command `srv add` with the reply {"status":"ok","id":7}.
inline const Outcome kAdded = printed("The server is added with Id: 7.\n");

inline const Outcome kNoLoop = failedWith(12, "cannot initialize kqueue\n");
inline const Outcome kCannotConnect = failedWith(12, "cannot connect to the daemon\n");
inline const Outcome kTerminated = failedWith(5, "connection terminated\n");
inline const Outcome kInvalidProtocol = failedWith(5, "invalid protocol\n");
inline const Outcome kCannotParse = failedWith(5, "cannot parse protocol");
inline const Outcome kWrongTopLevel =
    failedWith(5, "cannot parse JSON, got wrong top-level object");
