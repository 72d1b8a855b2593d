// Files' modes are no matter to the superuser, whom the tests may be run by.
//
// linux   the user stays the same; programs that this process becomes have no capabilities.
// darwin  the superuser becomes the user nobody.
#pragma once

// From here on the programs that this process becomes (execve) are bound by files' modes. False
// when the system refuses that.
[[nodiscard]] bool becomeOrdinaryUser();
