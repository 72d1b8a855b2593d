// hxusbvctl as a process: run on its own, or against a scripted peer.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/captured_run.h"

using Words = std::vector<std::string>;

// For a shell: runs what follows without variables, but for one that an emulator finds libraries
// by.
inline constexpr const char* kWithoutVariables =
    "exec env -i ${QEMU_LD_PREFIX:+\"QEMU_LD_PREFIX=$QEMU_LD_PREFIX\"} ";

// words are the arguments after the program's name.
[[nodiscard]] Outcome runUtility(const Words& words);
[[nodiscard]] RunningProgram startUtility(const Words& words);

// As a command of a shell, which first makes the surroundings: in it "$@" is the utility with its
// words.
[[nodiscard]] RunningProgram startUtilityByShell(const std::string& command, const Words& words);

// The utility's end when a scripted peer takes its request and then sends these bytes.
[[nodiscard]] Outcome runUtilityAgainst(std::string_view reply, const Words& words);

// The usage text, with the program's name in it.
[[nodiscard]] std::string usageText();

// Of a utility that has finished. Where this process has had more than so many bytes in use when it
// started it, nothing can be said, as in a run of many tests after a large one; under a sanitizer,
// which keeps books in as much memory again, and under an emulator, which counts itself, neither.
void expectPeakOfAtMost(size_t bytes, const RunningProgram& utility);

// What a person sees of a run that ended so.
[[nodiscard]] Outcome silentSuccess();
[[nodiscard]] Outcome printed(const std::string& out);
[[nodiscard]] Outcome failedWith(int status, const std::string& err);

void PrintTo(const Outcome& outcome, std::ostream* out);  // the name that GoogleTest looks for
