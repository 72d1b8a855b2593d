#include "tests/scripts/script_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "tests/support/descriptors.h"

namespace fs = std::filesystem;

namespace {

constexpr int kPatienceMs = 60'000;

// Those that a script could take for its own, and the pipe, which is none of them.
constexpr int kLowDescriptors = 10;

int duplicateToInherit(int fd) {
    const int inherited = fcntl(fd, F_DUPFD, kLowDescriptors);
    close(fd);
    return inherited;
}

}  // namespace

void ScriptTest::SetUp() {
    ControlPathTest::SetUp();
    if (IsSkipped()) return;
    for (int fd = STDERR_FILENO + 1; fd < kLowDescriptors; ++fd)
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    const auto [readEnd, writeEnd] = makePipe();
    ASSERT_NE(readEnd, -1);
    gone = readEnd;
    started = duplicateToInherit(writeEnd);
    ASSERT_NE(started, -1);

    std::string name = fs::temp_directory_path() / "scriptXXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
    home = directory / "home";
    for (const char* part : {"home", "bin", "temporary"})
        fs::create_directory(directory / part);
    setenv("HOME", home.c_str(), 1);
    setenv("TMPDIR", (directory / "temporary").c_str(), 1);
    setenv("PATH", ((directory / "bin").string() + ':' + getenv("PATH")).c_str(), 1);
    setenv("TERM", "xterm", 1);
    unsetenv("NO_COLOR");
}

void ScriptTest::TearDown() {
    if (!directory.empty()) fs::remove_all(directory);
    ControlPathTest::TearDown();
}

Words ScriptTest::script(const std::string& name, const Words& arguments) {
    Words words{SOURCE_DIR "/scripts/" + name, "--with", BUILD_DIR};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

void ScriptTest::makeProgram(const std::string& name, const std::string& text) const {
    const fs::path program = directory / "bin" / name;
    std::ofstream(program) << "#!/bin/sh\n" << text << '\n';
    fs::permissions(program, fs::perms::owner_all);
}

bool ScriptTest::allAreGone(int patienceMs) {
    if (started != -1) close(started);
    started = -1;
    struct pollfd waiting = {.fd = gone, .events = POLLIN, .revents = 0};
    return poll(&waiting, 1, patienceMs) == 1;
}

void ScriptTest::expectNothingIsLeft() {
    EXPECT_TRUE(allAreGone(kPatienceMs)) << "a process is left";
    for (const auto& entry : fs::directory_iterator(directory / "temporary")) {
        const std::string name = entry.path().filename();
        if (!name.starts_with("fish.")) ADD_FAILURE() << name << " is left";
    }
    EXPECT_FALSE(fs::exists(kControlPath));
}
