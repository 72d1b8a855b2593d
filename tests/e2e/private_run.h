// A /var/run of this process and its children alone: a file system in memory, mounted over the
// real directory in a mount namespace of their own, so that nothing they do there reaches the
// machine.
#pragma once

#include <string>

// Enters it. REQUIRES: no other thread runs. On false the process is as before, and why tells the
// step that was refused.
[[nodiscard]] bool enterPrivateRun(std::string& why);
