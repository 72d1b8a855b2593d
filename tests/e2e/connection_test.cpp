// Daemons that are not there, and daemons that go away.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/e2e/control_path.h"
#include "tests/e2e/ends.h"
#include "tests/e2e/ordinary_user.h"
#include "tests/e2e/scripted_peer.h"
#include "tests/e2e/utility.h"
#include "tests/support/descriptors.h"

namespace {

constexpr int kRuns = 200;
constexpr int kCannotTry = 111;
constexpr int kCannotRun = 127;

const Words kList{"srv", "list"};
const Words kPlug{"dev", "plug", "3:7"};

class Connection : public ControlPathTest {};

TEST_F(Connection, NoSocketFileExits12) {
    for (const Words& words :
         {kList, kPlug, {"dev"}, {"srv", "add", "box"}, {"srv", "remove", "-h", "box"}})
        EXPECT_EQ(runUtility(words), kCannotConnect) << testing::PrintToString(words);
}

TEST_F(Connection, StaleSocketFileExits12) {
    { const ScriptedPeer gone; }
    ASSERT_TRUE(std::filesystem::is_socket(kControlPath));
    EXPECT_EQ(runUtility(kList), kCannotConnect);
    EXPECT_TRUE(std::filesystem::is_socket(kControlPath));
}

TEST_F(Connection, FileThatIsNoSocketExits12) {
    std::ofstream(kControlPath) << "precious";
    EXPECT_EQ(runUtility(kList), kCannotConnect);
    std::filesystem::remove(kControlPath);
    std::filesystem::create_directory(kControlPath);
    EXPECT_EQ(runUtility(kList), kCannotConnect);
}

TEST_F(Connection, SocketOfAnotherKindExits12) {
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        std::filesystem::remove(kControlPath);
        const int sock = makeSocket(AF_UNIX, type);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::string_view(kControlPath).copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(runUtility(kList), kCannotConnect) << type;
        EXPECT_TRUE(std::filesystem::is_socket(kControlPath));
        close(sock);
    }
}

TEST_F(Connection, LinkIsFollowedToTheDaemonAndNowhereElse) {
    const std::string moved = std::string(kControlPath) + ".moved";
    {
        const ScriptedPeer peer;
        std::filesystem::rename(kControlPath, moved);
        std::filesystem::create_symlink(moved, kControlPath);
        RunningProgram utility = startUtility(kList);
        UnixStream connection = peer.accept();
        EXPECT_EQ(connection.receiveFrame().size(), 8U);
        EXPECT_TRUE(connection.send(frame(0, R"({"status":"ok","servers":[]})")));
        EXPECT_EQ(utility.finish(), silentSuccess());
    }
    std::filesystem::remove(moved);
    EXPECT_EQ(runUtility(kList), kCannotConnect);  // a link to nothing
    std::filesystem::remove(kControlPath);
    std::filesystem::create_symlink(kControlPath, kControlPath);
    EXPECT_EQ(runUtility(kList), kCannotConnect);
}

TEST_F(Connection, SocketFileThatIsReplacedMeanwhileChangesNothing) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kList);
    const UnixStream connection = peer.accept();
    EXPECT_EQ(connection.receiveFrame().size(), 8U);
    std::filesystem::remove(kControlPath);
    std::ofstream(kControlPath) << "precious";
    EXPECT_TRUE(connection.send(frame(0, R"({"status":"ok","servers":[]})")));
    EXPECT_EQ(utility.finish(), silentSuccess());
    EXPECT_EQ(std::filesystem::file_size(kControlPath), 8U);
}

TEST_F(Connection, SocketWithoutPermissionExits12) {
    const ScriptedPeer peer;
    std::filesystem::permissions(kControlPath, std::filesystem::perms::none);
    const Outcome outcome = runInChild([] {
        if (!becomeOrdinaryUser()) _exit(kCannotTry);
        execl(UTILITY_PROGRAM, UTILITY_PROGRAM, "srv", nullptr);
        _exit(kCannotRun);
    });
    if (outcome.status == kCannotTry)
        GTEST_SKIP() << "left out: the superuser may not give up his rights";
    EXPECT_EQ(outcome, kCannotConnect);
}

TEST_F(Connection, DaemonWithoutRoomForAnotherClientExits12) {
    const ScriptedPeer peer(0);
    const UnixStream waiting = UnixStream::connectTo(kControlPath);
    EXPECT_EQ(runUtility(kList), kCannotConnect);
}

TEST_F(Connection, AcceptedAndClosedAtOnceIsTerminatedEveryTime) {
    const ScriptedPeer peer;
    for (int run = 0; run < kRuns; ++run) {
        RunningProgram utility = startUtility(run % 2 == 0 ? kList : kPlug);
        peer.accept().close();
        ASSERT_EQ(utility.finish(), kTerminated) << run;
    }
}

TEST_F(Connection, ClosedWithTheRequestUnreadIsTerminatedEveryTime) {
    const ScriptedPeer peer;
    for (int run = 0; run < kRuns; ++run) {
        RunningProgram utility = startUtility(run % 2 == 0 ? kList : kPlug);
        UnixStream connection = peer.accept();
        EXPECT_EQ(connection.receive(7).size(), 7U);
        connection.close();
        ASSERT_EQ(utility.finish(), kTerminated) << run;
    }
}

TEST_F(Connection, ClosedAfterTheRequestIsTerminatedEveryTime) {
    const ScriptedPeer peer;
    for (int run = 0; run < kRuns; ++run) {
        RunningProgram utility = startUtility(run % 2 == 0 ? kList : kPlug);
        UnixStream connection = peer.accept();
        EXPECT_GE(connection.receiveFrame().size(), 8U);
        connection.close();
        ASSERT_EQ(utility.finish(), kTerminated) << run;
    }
}

TEST_F(Connection, PeerThatOnlyEndsItsSendingIsTerminated) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kList);
    const UnixStream connection = peer.accept();
    EXPECT_EQ(connection.receiveFrame().size(), 8U);
    connection.closeSending();
    EXPECT_EQ(utility.finish(), kTerminated);
}

// The accepted frames show that it goes on waiting: an end of the wait would show in the outcome.
TEST_F(Connection, UtilityWaitsForAsLongAsThePeerSaysNothingOfIts) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kPlug);
    UnixStream connection = peer.accept();
    EXPECT_EQ(connection.receiveFrame().size(), 66U);
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(connection.send(frame(2, R"({"status":"ok"})")));
        connection.waitUntilTaken();
        ASSERT_TRUE(utility.isRunning());
    }
    EXPECT_TRUE(connection.isSilent());
    connection.close();
    EXPECT_EQ(utility.finish(), kTerminated);
}

TEST_F(Connection, SignalEndsTheWait) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kList);
    const UnixStream connection = peer.accept();
    EXPECT_EQ(connection.receiveFrame().size(), 8U);
    EXPECT_TRUE(utility.isRunning());
    utility.signal(SIGTERM);
    EXPECT_EQ(utility.finish().status, 128 + SIGTERM);
    EXPECT_EQ(connection.receiveToEnd(), "");
}

}  // namespace
