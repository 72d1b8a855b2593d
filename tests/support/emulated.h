// Whether an emulator runs the test and all that it starts, several times as slow as a processor
// would. Tests whose time depends on how much they do then do less of it.
#pragma once

inline constexpr bool kEmulated = TESTS_ARE_EMULATED;
