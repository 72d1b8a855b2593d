#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "tests/support/captured_run.h"
#include "tests/support/unix_stream.h"

namespace {

TEST(Guide, AllItsCodeIsBuilt) {
    std::ifstream guide(GUIDE);
    int fences = 0;
    for (std::string line; std::getline(guide, line);)
        if (line == "```cpp") ++fences;
    EXPECT_EQ(fences, BUILT_SNIPPETS);
}

TEST(Guide, FirstLinesTick) {
    const Outcome outcome = runProgram({FIRST_LINES_PROGRAM});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    ASSERT_TRUE(outcome.out.starts_with("tick\n"));
    for (size_t at = 0; at < outcome.out.size(); at += 5)
        EXPECT_EQ(outcome.out.substr(at, 5), "tick\n");
}

// A directory of the test's own, empty again and gone at the end.
std::string makeDirectory() {
    std::string path = std::filesystem::temp_directory_path() / "hxkqueue-guide-XXXXXX";
    if (!mkdtemp(path.data())) throw std::runtime_error("cannot make a directory");
    return path;
}

// As soon as the server listens.
UnixStream connectTo(const RunningProgram& server, const std::string& path) {
    for (;;) {
        try {
            return UnixStream::connectTo(path);
        } catch (const std::runtime_error&) {
            if (!server.isRunning()) throw;
            sched_yield();
        }
    }
}

TEST(Guide, ServerEchoesUntilItIsToldToEnd) {
    const std::string directory = makeDirectory();
    const std::string path = directory + "/socket";
    RunningProgram server({SERVER_PROGRAM, path});
    {
        const UnixStream client = connectTo(server, path);
        ASSERT_TRUE(client.send("hello"));
        EXPECT_EQ(client.receive(5), "hello");
    }
    server.signal(SIGTERM);
    const Outcome outcome = server.finish();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(rmdir(directory.c_str()), 0);  // the server has removed its socket file
}

}  // namespace
