// A whole run against a daemon that a test scripts, from the connection to the exit status.
#include "cli/request_flow.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/captured_run.h"
#include "tests/support/unix_listener.h"
#include "tests/support/unix_stream.h"

namespace {

ParsedCommand commandOf(CommandKind kind, const char* action = nullptr) {
    ParsedCommand command;
    command.kind = kind;
    if (action) command.action = std::make_shared<const std::string>(action);
    return command;
}

// The daemon takes one request and answers it with reply, then hangs up; a request that is not
// the expected one gets no answer.
Outcome runAgainstDaemon(const ParsedCommand& command, const std::string& request,
                         const std::string& reply) {
    const UnixListener daemon;
    return runInChild([&] {
        std::thread([&] {
            const UnixStream client = daemon.accept();
            if (client.receiveFrame() != request || !client.send(reply)) return;
            client.waitUntilTaken();
        }).detach();
        runRequest(command, daemon.path());
    });
}

void expectSuccess(const ParsedCommand& command, const std::string& request) {
    const Outcome outcome = runAgainstDaemon(
        command, request, frame(request[0], "{\"status\":\"ok\",\"servers\":[],\"id\":1}"));
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(RequestFlow, TheDaemonsSocketIsWhereItIs) {
    EXPECT_STREQ(kDaemonSocketPath, "/var/run/hxusbvctl.sock");
}

TEST(RequestFlow, ListsSendTheListRequest) {
    expectSuccess(commandOf(CommandKind::ServerList), frame(0, ""));
    expectSuccess(commandOf(CommandKind::DeviceList), frame(0, ""));
}

TEST(RequestFlow, AddSendsHostAndTheLowBitsOfThePort) {
    ParsedCommand command = commandOf(CommandKind::ServerAdd);
    command.host = "box";
    expectSuccess(command, frame(1, "{\"host\":\"box\",\"port\":33000}"));
    command.port = 70000;
    expectSuccess(command, frame(1, "{\"host\":\"box\",\"port\":4464}"));
}

TEST(RequestFlow, AServerIsNamedByItsIdWheneverThereIsOne) {
    ParsedCommand command = commandOf(CommandKind::ServerAction, "reconnect");
    command.host = "box";
    expectSuccess(command, frame(2, "{\"action\":\"reconnect\",\"host\":\"box\",\"port\":33000}"));
    command.serverId = 3;
    command.serverIdGiven = true;
    expectSuccess(command, frame(2, "{\"action\":\"reconnect\",\"id\":3}"));
}

TEST(RequestFlow, ADeviceIsNamedByHostOrServer) {
    ParsedCommand command = commandOf(CommandKind::DeviceAction, "plug");
    command.deviceId = 7;
    command.host = "box";
    command.once = true;
    expectSuccess(command, frame(3,
                                 "{\"action\":\"plug\",\"host\":\"box\",\"port\":33000,"
                                 "\"device-id\":7,\"once\":true}"));
    command.serverId = 3;
    command.serverIdGiven = true;
    expectSuccess(command, frame(3,
                                 "{\"action\":\"plug\",\"server-id\":3,\"device-id\":7,"
                                 "\"once\":true}"));
    command = commandOf(CommandKind::DeviceAction, "unplug");
    command.deviceId = 7;
    command.serverIdGiven = true;
    expectSuccess(command, frame(3, "{\"action\":\"unplug\",\"server-id\":0,\"device-id\":7}"));
}

TEST(RequestFlow, RepliesToOtherRequestsAreWaitedThrough) {
    ParsedCommand command = commandOf(CommandKind::DeviceAction, "plug");
    command.serverIdGiven = true;
    const Outcome outcome = runAgainstDaemon(
        command, frame(3, "{\"action\":\"plug\",\"server-id\":0,\"device-id\":0,\"once\":false}"),
        frame(2, "{\"status\":\"ok\"}") + frame(0, "{}") + frame(3, "{\"status\":\"already\"}"));
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "The device has been already plugged.\n");
    EXPECT_EQ(outcome.status, 37);
}

TEST(RequestFlow, WithoutTheAwaitedReplyTheEndOfTheConnectionEndsWith5) {
    const Outcome outcome =
        runAgainstDaemon(commandOf(CommandKind::ServerList), frame(0, ""), frame(2, "{}"));
    EXPECT_EQ(outcome.err, "connection terminated\n");
    EXPECT_EQ(outcome.status, 5);
}

TEST(RequestFlow, ADaemonThatClosesWithoutReplyEndsWith5) {
    const Outcome outcome = runAgainstDaemon(commandOf(CommandKind::ServerList), frame(0, ""), "");
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "connection terminated\n");
    EXPECT_EQ(outcome.status, 5);
}

TEST(RequestFlow, BytesThatAreNoReplyEndWith5AndTheClientsWords) {
    const auto answered = [](const std::string& reply) {
        return runAgainstDaemon(commandOf(CommandKind::ServerList), frame(0, ""), reply);
    };
    for (const auto& [reply, words] : std::vector<std::pair<std::string, std::string>>{
             {frameHeader(0, 0), "invalid protocol\n"},
             {frame(0, "nonsense"), "cannot parse protocol"},
             {frame(0, "[]"), "cannot parse JSON, got wrong top-level object"}}) {
        const Outcome outcome = answered(reply);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, words);
        EXPECT_EQ(outcome.status, 5);
    }
}

TEST(RequestFlow, ARequestThatCannotBeBuiltWaitsForTheEndOfTheConnection) {
    ParsedCommand command = commandOf(CommandKind::ServerAdd);
    command.host = "\xff";
    const UnixListener daemon;
    const Outcome outcome = runInChild([&] {
        std::thread([&] { daemon.accept().closeSending(); }).detach();
        runRequest(command, daemon.path());
    });
    EXPECT_EQ(outcome.err, "cannot allocate object for requestconnection terminated\n");
    EXPECT_EQ(outcome.status, 5);
}

TEST(RequestFlow, WithoutADaemonEndsWith12) {
    for (const char* path : {"/nonexistent/socket", "/", ""}) {
        const Outcome outcome =
            runInChild([&] { runRequest(commandOf(CommandKind::ServerList), path); });
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, "cannot connect to the daemon\n");
        EXPECT_EQ(outcome.status, 12);
    }
}

TEST(RequestFlow, ADaemonThatNoLongerListensEndsWith12) {
    UnixListener daemon;
    daemon.close();
    const Outcome outcome =
        runInChild([&] { runRequest(commandOf(CommandKind::DeviceList), daemon.path()); });
    EXPECT_EQ(outcome.err, "cannot connect to the daemon\n");
    EXPECT_EQ(outcome.status, 12);
}

TEST(RequestFlow, AConnectedCallbackWithoutItsClientDoesNothing) {
    const Outcome outcome = runInChild([] {
        for (const CommandKind kind :
             {CommandKind::ServerList, CommandKind::ServerAdd, CommandKind::ServerAction,
              CommandKind::DeviceList, CommandKind::DeviceAction})
            connectedCallback(commandOf(kind, "plug"), {})();
    });
    EXPECT_EQ(outcome.out + outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

}  // namespace
