// Descriptors that the programs that a test runs do not inherit.
//
// linux   closed on exec from the start.
// darwin  marked right after they are made, so a program that another thread starts at that moment
//         inherits them. The tests start their programs from one thread.
#pragma once

#include <array>

// As pipe(2), socket(2) and accept(2). A failure is -1; of a pipe both ends are.
[[nodiscard]] std::array<int, 2> makePipe();
[[nodiscard]] int makeSocket(int family, int type);
[[nodiscard]] int acceptFrom(int listener);
