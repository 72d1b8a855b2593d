// What each reply leads to: the words, the report, and the status with which the process ends.
#include <gtest/gtest.h>

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstdio>

#include "cli/request_flow.h"
#include "ipc/json.h"
#include "tests/support/captured_run.h"

namespace {

ParsedCommand commandOf(CommandKind kind, const char* action = nullptr) {
    ParsedCommand command;
    command.kind = kind;
    if (action) command.action = std::make_shared<const std::string>(action);
    return command;
}

Outcome answer(const ParsedCommand& command, int32_t code, std::string_view reply) {
    return runInChild([&] {
        const auto value = readJson(reply, {});
        dataCallback(command)(code, value->as_object());
        std::fputs("waiting", stdout);
    });
}

void expectOutcome(const Outcome& outcome, const std::string& out, const std::string& err,
                   int status) {
    EXPECT_EQ(outcome.out, out);
    EXPECT_EQ(outcome.err, err);
    EXPECT_EQ(outcome.status, status);
}

void expectInternalError(const ParsedCommand& command, int32_t code, std::string_view reply) {
    SCOPED_TRACE(reply);
    expectOutcome(answer(command, code, reply), "", "Internal error.\n", 5);
}

void expectWaiting(const ParsedCommand& command, int32_t code) {
    SCOPED_TRACE(code);
    expectOutcome(answer(command, code, "{\"status\":\"ok\",\"servers\":[],\"id\":1}"), "waiting",
                  "", 0);
}

constexpr std::string_view kServers =
    R"({"status":"ok","servers":[{"id":2,"host":"box","port":33000,"state":"connected","devices":[)"
    R"({"id":2,"name":"a","vid":1,"pid":2,"rev":3,"port":"1-1","serial":"","state":"plugged"},)"
    R"({"id":1,"name":"b","vid":1,"pid":2,"rev":3,"port":"1-2","serial":"S","state":"free"}]}]})";

TEST(ListReply, ServersAndTheirDevicesForTheServerList) {
    expectOutcome(answer(commandOf(CommandKind::ServerList), 0, kServers),
                  "2 - box:33000 - connected\n"
                  " 1\t0001:0002:0003\t1-2\tb /free, S/\n"
                  " 2\t0001:0002:0003\t1-1\ta /plugged/\n",
                  "", 0);
}

TEST(ListReply, ServersOnlyWithoutDevices) {
    ParsedCommand command = commandOf(CommandKind::ServerList);
    command.showDevices = false;
    expectOutcome(answer(command, 0, kServers), "2 - box:33000 - connected\n", "", 0);
}

TEST(ListReply, DevicesForTheDeviceList) {
    expectOutcome(answer(commandOf(CommandKind::DeviceList), 0, kServers),
                  "2:1 - 0001:0002:0003 - b, 1-2, S, free\n"
                  "2:2 - 0001:0002:0003 - a, 1-1, plugged\n",
                  "", 0);
}

TEST(ListReply, TheDeviceListTakesItsFlags) {
    ParsedCommand command = commandOf(CommandKind::DeviceList);
    command.sortByName = true;
    expectOutcome(answer(command, 0, kServers),
                  "2:2 - 0001:0002:0003 - a, 1-1, plugged\n"
                  "2:1 - 0001:0002:0003 - b, 1-2, S, free\n",
                  "", 0);
    command.ascending = false;
    expectOutcome(answer(command, 0, kServers),
                  "2:1 - 0001:0002:0003 - b, 1-2, S, free\n"
                  "2:2 - 0001:0002:0003 - a, 1-1, plugged\n",
                  "", 0);
    command.pluggedOnly = true;
    expectOutcome(answer(command, 0, kServers), "2:2 - 0001:0002:0003 - a, 1-1, plugged\n", "", 0);
}

TEST(ListReply, NoServersIsSuccess) {
    for (const CommandKind kind : {CommandKind::ServerList, CommandKind::DeviceList})
        expectOutcome(answer(commandOf(kind), 0, R"({"status":"ok","servers":[]})"), "", "", 0);
}

TEST(ListReply, EverythingElseIsAnInternalError) {
    for (const CommandKind kind : {CommandKind::ServerList, CommandKind::DeviceList})
        for (const char* reply :
             {R"({})", R"({"servers":[]})", R"({"status":"ok"})", R"({"status":"ok","servers":{}})",
              R"({"status":"ok","servers":null})", R"({"status":"OK","servers":[]})",
              R"({"status":"already","servers":[]})", R"({"status":"notfound","servers":[]})",
              R"({"status":1,"servers":[]})", R"({"status":null,"servers":[]})",
              R"({"status":"ok ","servers":[]})", R"({"status":"ok\u0000","servers":[]})",
              R"({"Status":"ok","servers":[]})"})
            expectInternalError(commandOf(kind), 0, reply);
}

TEST(ListReply, OtherCodesAreWaitedThrough) {
    for (const int32_t code : {1, 2, 3, 4, -1, 256})
        expectWaiting(commandOf(CommandKind::ServerList), code);
    expectWaiting(commandOf(CommandKind::DeviceList), 3);
}

TEST(ServerAddReply, TellsTheNewId) {
    const ParsedCommand command = commandOf(CommandKind::ServerAdd);
    const auto added = [&](const char* reply) { return answer(command, 1, reply); };
    expectOutcome(added(R"({"status":"ok","id":7})"), "The server is added with Id: 7.\n", "", 0);
    expectOutcome(added(R"({"status":"ok","id":4294967295})"),
                  "The server is added with Id: 4294967295.\n", "", 0);
    expectOutcome(added(R"({"status":"ok","id":4294967299})"), "The server is added with Id: 3.\n",
                  "", 0);
    expectOutcome(added(R"({"id":true,"status":"ok"})"), "The server is added with Id: 1.\n", "",
                  0);
    expectOutcome(added(R"({"status":"ok","id":2.9})"), "The server is added with Id: 2.\n", "", 0);
}

TEST(ServerAddReply, AlreadyEndsWith37) {
    const ParsedCommand command = commandOf(CommandKind::ServerAdd);
    for (const char* reply : {R"({"status":"already"})", R"({"status":"already","id":7})"})
        expectOutcome(answer(command, 1, reply), "", "The server has been already added.\n", 37);
}

TEST(ServerAddReply, EverythingElseIsAnInternalError) {
    for (const char* reply :
         {R"({"status":"ok"})", R"({"status":"ok","id":"7"})", R"({"status":"ok","id":null})",
          R"({"status":"already","id":"7"})", R"({"status":"already","id":[]})", R"({"id":7})",
          R"({"status":0,"id":7})", R"({"status":"notfound"})", R"({"status":"OK","id":7})",
          R"({"status":"failed","id":7})", R"({})"})
        expectInternalError(commandOf(CommandKind::ServerAdd), 1, reply);
}

TEST(ServerAddReply, OtherCodesAreWaitedThrough) {
    for (const int32_t code : {0, 2, 3, -1})
        expectWaiting(commandOf(CommandKind::ServerAdd), code);
}

TEST(ServerActionReply, OkIsSilentSuccess) {
    for (const char* action : {"remove", "disconnect", "reconnect"})
        expectOutcome(answer(commandOf(CommandKind::ServerAction, action), 2, R"({"status":"ok"})"),
                      "", "", 0);
}

TEST(ServerActionReply, NotFoundEndsWith2) {
    expectOutcome(
        answer(commandOf(CommandKind::ServerAction, "remove"), 2, R"({"status":"notfound"})"), "",
        "The server has not been found.\n", 2);
}

TEST(ServerActionReply, EverythingElseIsAnInternalError) {
    for (const char* reply : {R"({"status":"already"})", R"({"status":"Ok"})", R"({"status":true})",
                              R"({"status":""})", R"({"other":"ok"})", R"({})"})
        expectInternalError(commandOf(CommandKind::ServerAction, "remove"), 2, reply);
}

TEST(ServerActionReply, OtherCodesAreWaitedThrough) {
    for (const int32_t code : {0, 1, 3, -1})
        expectWaiting(commandOf(CommandKind::ServerAction, "remove"), code);
}

TEST(DeviceActionReply, OkIsSilentSuccess) {
    for (const char* action : {"plug", "unplug"})
        expectOutcome(answer(commandOf(CommandKind::DeviceAction, action), 3, R"({"status":"ok"})"),
                      "", "", 0);
}

TEST(DeviceActionReply, NotFoundEndsWith2) {
    expectOutcome(
        answer(commandOf(CommandKind::DeviceAction, "plug"), 3, R"({"status":"notfound"})"), "",
        "The device has not been found.\n", 2);
}

TEST(DeviceActionReply, AlreadyEndsWith37AndNamesTheAction) {
    expectOutcome(
        answer(commandOf(CommandKind::DeviceAction, "plug"), 3, R"({"status":"already"})"), "",
        "The device has been already plugged.\n", 37);
    expectOutcome(
        answer(commandOf(CommandKind::DeviceAction, "unplug"), 3, R"({"status":"already"})"), "",
        "The device has been already unplugged.\n", 37);
}

TEST(DeviceActionReply, EverythingElseIsAnInternalError) {
    for (const char* reply : {R"({"status":"Already"})", R"({"status":"OK"})", R"({"status":3})",
                              R"({"status":["ok"]})", R"({"status":"failed"})", R"({})"})
        expectInternalError(commandOf(CommandKind::DeviceAction, "plug"), 3, reply);
}

TEST(DeviceActionReply, OtherCodesAreWaitedThrough) {
    for (const int32_t code : {0, 1, 2, 4, -1})
        expectWaiting(commandOf(CommandKind::DeviceAction, "plug"), code);
}

}  // namespace
