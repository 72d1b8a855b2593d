// What the utility is started in: the descriptors, limits and signals that it inherits.

#include <gtest/gtest.h>

#include <csignal>

#include "tests/e2e/control_path.h"
#include "tests/e2e/ends.h"
#include "tests/e2e/scripted_peer.h"
#include "tests/e2e/utility.h"

namespace {

const Words kList{"srv", "list"};
const std::string kListRequest(8, '\0');
const std::string kListReply = frame(
    0, R"({"status":"ok","servers":[{"id":1,"host":"h","port":2,"state":"s","devices":[]}]})");
const std::string kReport = "1 - h:2 - s\n";

// A list reply with so many devices, and its report.
struct List {
    std::string reply;
    std::string report;
};

List listOf(size_t devices) {
    std::string records;
    List list{.reply = "", .report = kReport};
    for (size_t id = 1; id <= devices; ++id) {
        const std::string number = std::to_string(id);
        records += (id > 1 ? "," : "") +
                   (R"({"id":)" + number + R"(,"name":"n","vid":1,"pid":2,"rev":3,"port":"1-1",)") +
                   R"("serial":"","state":"s"})";
        list.report += " " + number + "\t0001:0002:0003\t1-1\tn /s/\n";
    }
    list.reply = frame(
        0, R"({"status":"ok","servers":[{"id":1,"host":"h","port":2,"state":"s","devices":[)" +
               records + "]}]}");
    return list;
}

// A list reply whose servers are as deep as that.
std::string nestedList(size_t depth) {
    return frame(0, R"({"status":"ok","servers":)" + std::string(depth - 1, '[') +
                        std::string(depth - 1, ']') + "}");
}

// What a person sees of a run, and what the daemon has been sent.
struct Exchange {
    Outcome outcome;
    std::string sent;
};

class Environment : public ControlPathTest {
protected:
    // The peer answers the request with reply.
    static Exchange exchange(const std::string& command, const std::string& reply,
                             const Words& words = kList) {
        const ScriptedPeer peer;
        RunningProgram utility = startUtilityByShell(command, words);
        const UnixStream connection = peer.accept();
        const std::string request = connection.receiveFrame();
        EXPECT_TRUE(connection.send(reply));
        const Outcome outcome = utility.finish();
        return {.outcome = outcome, .sent = request + connection.receiveToEnd()};
    }
};

// The eight ways to begin without some of the three.
struct Closed {
    const char* redirections;
    bool out;
    bool err;
};

const std::vector<Closed> kClosed{
    {.redirections = "", .out = false, .err = false},
    {.redirections = "0<&-", .out = false, .err = false},
    {.redirections = "1>&-", .out = true, .err = false},
    {.redirections = "2>&-", .out = false, .err = true},
    {.redirections = "0<&- 1>&-", .out = true, .err = false},
    {.redirections = "0<&- 2>&-", .out = false, .err = true},
    {.redirections = "1>&- 2>&-", .out = true, .err = true},
    {.redirections = "0<&- 1>&- 2>&-", .out = true, .err = true},
};

TEST_F(Environment, WithoutStandardDescriptorsReportsAndMessagesGoNowhereElse) {
    for (const Closed& closed : kClosed) {
        const std::string command = std::string("exec \"$@\" ") + closed.redirections;
        const auto [listed, request] = exchange(command, kListReply);
        EXPECT_EQ(request, kListRequest) << command;
        EXPECT_EQ(listed, printed(closed.out ? "" : kReport)) << command;

        const auto [failed, failedRequest] = exchange(command, frame(0, "x"));
        EXPECT_EQ(failedRequest, kListRequest) << command;
        EXPECT_EQ(failed, failedWith(5, closed.err ? "" : "cannot parse protocol")) << command;
    }
}

TEST_F(Environment, WithoutStandardDescriptorsStatusesAreTheSame) {
    for (const Closed& closed : kClosed) {
        const std::string command = std::string("exec \"$@\" ") + closed.redirections;
        EXPECT_EQ(startUtilityByShell(command, kList).finish(),
                  failedWith(12, closed.err ? "" : "cannot connect to the daemon\n"))
            << command;
        EXPECT_EQ(startUtilityByShell(command, {"dev", "plug", "7"}).finish(),
                  failedWith(22, closed.err ? "" : "Error: server is not specified.\n"))
            << command;
        EXPECT_EQ(startUtilityByShell(command, {"-h"}).finish(),
                  printed(closed.out ? "" : usageText()))
            << command;
    }
}

TEST_F(Environment, OutputThatTakesNothingChangesNoStatus) {
    const std::string command = "exec \"$@\" >/dev/full 2>/dev/full";
    for (const std::string& reply : {kListReply, listOf(5'000).reply})
        EXPECT_EQ(exchange(command, reply).outcome, silentSuccess());
    EXPECT_EQ(exchange(command, frame(0, "x")).outcome, failedWith(5, ""));
    EXPECT_EQ(startUtilityByShell(command, {"-h"}).finish(), silentSuccess());
    EXPECT_EQ(startUtilityByShell(command, {"-x"}).finish(), failedWith(22, ""));
    EXPECT_EQ(startUtilityByShell(command, kList).finish(), failedWith(12, ""));
}

TEST_F(Environment, OutputWhoseReaderIsGoneChangesNoStatus) {
    const std::string command =
        "{ \"$@\"; echo status $? >&3; } 3>&2 2>&1 | { exec <&-; echo the reader is gone; }";
    for (const std::string& reply : {kListReply, listOf(5'000).reply, frame(0, "x")}) {
        const ScriptedPeer peer;
        RunningProgram utility = startUtilityByShell(command, kList);
        const UnixStream connection = peer.accept();
        EXPECT_TRUE(utility.waitForOutput("the reader is gone\n"));
        EXPECT_TRUE(connection.send(reply));
        EXPECT_EQ(utility.finish().err, reply.size() > 9 ? "status 0\n" : "status 5\n");
    }
}

// What the main thread prints, whose signals are as the program was started with.
TEST_F(Environment, WordsToAReaderWhoIsGoneEndInTheSystemsSignal) {
    const std::string command =
        "{ until ! (echo) 2>/dev/null; do :; done; \"$@\"; echo status $? >&3; } 3>&2 2>&1 | true";
    for (const Words& words : {Words{"-h"}, {"-x"}, {"dev", "plug", "7"}, kList})
        EXPECT_EQ(startUtilityByShell(command, words).finish().err, "status 141\n")
            << testing::PrintToString(words);
}

// With less it depends on the size of the variables whether the system starts a program at all.
TEST_F(Environment, TinyStackLimitChangesNothing) {
    const std::string command = "ulimit -s 64 && exec \"$@\"";
    const List list = listOf(5'000);
    EXPECT_EQ(exchange(command, list.reply).outcome, printed(list.report));
    EXPECT_EQ(exchange(command, nestedList(512)).outcome, silentSuccess());
    EXPECT_EQ(exchange(command, nestedList(513)).outcome, kCannotParse);
}

TEST_F(Environment, FileCreationMaskThatAllowsNothingChangesNothing) {
    EXPECT_EQ(exchange("umask 777 && exec \"$@\"", kListReply).outcome, printed(kReport));
}

TEST_F(Environment, NeitherVariablesNorADirectoryAreNeeded) {
    const std::string command =
        "directory=$(mktemp -d) && cd \"$directory\" && rmdir \"$directory\" && " +
        std::string(kWithoutVariables) + "\"$@\"";
    EXPECT_EQ(exchange(command, kListReply).outcome, printed(kReport));
}

TEST_F(Environment, SignalsThatEndNothingChangeNothing) {
    const std::string report = listOf(3).report;
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kList);
    const UnixStream connection = peer.accept();
    EXPECT_EQ(connection.receiveFrame(), kListRequest);
    for (const char byte : listOf(3).reply) {
        for (const int number : {SIGSTOP, SIGCONT, SIGURG, SIGCHLD, SIGWINCH})
            utility.signal(number);
        EXPECT_TRUE(connection.send({&byte, 1}));
        for (const int number : {SIGWINCH, SIGSTOP, SIGCONT})
            utility.signal(number);
    }
    EXPECT_EQ(utility.finish(), printed(report));
}

TEST_F(Environment, IgnoredSignalsStayIgnored) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtilityByShell("trap '' HUP INT TERM PIPE && exec \"$@\"", kList);
    const UnixStream connection = peer.accept();
    EXPECT_EQ(connection.receiveFrame(), kListRequest);
    for (const int number : {SIGHUP, SIGINT, SIGTERM, SIGPIPE})
        utility.signal(number);
    EXPECT_TRUE(connection.send(kListReply));
    EXPECT_EQ(utility.finish(), printed(kReport));
}

}  // namespace
