#include "cli/request_flow.h"

#include <boost/json/object.hpp>
#include <boost/json/string.hpp>
#include <boost/json/value.hpp>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>

#include "cli/device_list.h"
#include "cli/outcome.h"
#include "cli/tree_list.h"
#include "ipc/frame.h"
#include "ipc/json.h"
#include "kqueue/HXKQueue.h"
#include "platform/park.h"
#include "platform/standard_descriptors.h"

namespace {

using boost::json::object;
using OnConnected = HXTarnIPCClient::OnConnected;
using OnData = HXTarnIPCClient::OnData;
using Client = std::weak_ptr<HXTarnIPCClient>;

constexpr const char* kSubsystem = "org.hxusbvctl.usb.virt.ctl";
constexpr const char* kServer = "The server";
constexpr const char* kDevice = "The device";

[[noreturn]] void internalError() {
    printStatusAndExit(kExitInternalError, nullptr, nullptr);
}

// A reply without a status is not understood.
std::string_view requireStatus(const object& reply) {
    const boost::json::string* status = stringMember(reply, "status");
    if (!status) internalError();
    return {status->data(), status->size()};
}

OnData listCallback(const ParsedCommand& command) {
    return [kind = command.kind, sortByName = command.sortByName, ascending = command.ascending,
            pluggedOnly = command.pluggedOnly,
            showDevices = command.showDevices](int32_t code, const object& reply) {
        if (code != kListServers) return;
        const boost::json::array* servers = arrayMember(reply, "servers");
        if (requireStatus(reply) != "ok" || !servers) internalError();
        if (kind == CommandKind::DeviceList)
            output_device_list(*servers, sortByName, ascending, pluggedOnly);
        else
            output_tree_list(*servers, !showDevices);
        std::exit(kExitSuccess);
    };
}

// An id that is no number spoils every reply, whatever its status.
void onServerAddReply(int32_t code, const object& reply) {
    if (code != kAddServer) return;
    const std::string_view status = requireStatus(reply);
    const boost::json::value* id = reply.if_contains("id");
    if (id && !isNumber(*id)) internalError();
    if (status == "already") printStatusAndExit(kExitAlready, kServer, "added");
    if (status != "ok" || !id) internalError();
    std::printf("The server is added with Id: %u.\n", toUnsigned32(*id));
    std::exit(kExitSuccess);
}

// "already" is no answer to an action on a server.
void onServerActionReply(int32_t code, const object& reply) {
    if (code != kServerAction) return;
    const std::string_view status = requireStatus(reply);
    if (status == "notfound") printStatusAndExit(kExitNotFound, kServer, nullptr);
    if (status != "ok") internalError();
    std::exit(kExitSuccess);
}

// The longest participle is "unplugged".
[[noreturn]] void alreadyDone(const std::string& action) {
    char verb[16];
    std::snprintf(verb, sizeof verb, "%sged", action.c_str());
    printStatusAndExit(kExitAlready, kDevice, verb);
}

OnData deviceActionCallback(const ParsedCommand& command) {
    return [action = command.action](int32_t code, const object& reply) {
        if (code != kDeviceAction) return;
        const std::string_view status = requireStatus(reply);
        if (status == "notfound") printStatusAndExit(kExitNotFound, kDevice, nullptr);
        if (status == "already") alreadyDone(*action);
        if (status != "ok") internalError();
        std::exit(kExitSuccess);
    };
}

OnConnected requestList(const Client& client) {
    return [client] {
        if (const auto daemon = client.lock()) daemon->requestServerList();
    };
}

OnConnected requestAdd(const ParsedCommand& command, const Client& client) {
    return [client, host = command.host, port = static_cast<uint16_t>(command.port)] {
        if (const auto daemon = client.lock()) daemon->requestAddServer(host, port);
    };
}

OnConnected requestServer(const ParsedCommand& command, const Client& client) {
    return [client, action = command.action, host = command.host, serverId = command.serverId,
            port = static_cast<uint16_t>(command.port), serverIdGiven = command.serverIdGiven] {
        const auto daemon = client.lock();
        if (!daemon) return;
        if (serverIdGiven)
            daemon->requestServerAction(*action, serverId);
        else
            daemon->requestServerAction(*action, host, port);
    };
}

OnConnected requestDevice(const ParsedCommand& command, const Client& client) {
    return [client, action = command.action, host = command.host, serverId = command.serverId,
            deviceId = command.deviceId, port = static_cast<uint16_t>(command.port),
            serverIdGiven = command.serverIdGiven, once = command.once] {
        const auto daemon = client.lock();
        if (!daemon) return;
        if (serverIdGiven)
            daemon->requestDeviceAction(*action, serverId, deviceId, once);
        else
            daemon->requestDeviceAction(*action, host, port, deviceId, once);
    };
}

// The client has told on standard error what has happened.
void onConnectionFailure() {
    std::exit(kExitInternalError);
}

// False when memory is short.
bool installCallbacks(HXTarnIPCClient& client, const ParsedCommand& command) {
    try {
        return client.setOnError(onConnectionFailure) &&
               client.setOnConnected(connectedCallback(command, client.weak_from_this())) &&
               client.setOnData(dataCallback(command));
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace

OnConnected connectedCallback(const ParsedCommand& command, const Client& client) {
    switch (command.kind) {
        case CommandKind::ServerAdd:
            return requestAdd(command, client);
        case CommandKind::ServerAction:
            return requestServer(command, client);
        case CommandKind::DeviceAction:
            return requestDevice(command, client);
        case CommandKind::ServerList:
        case CommandKind::DeviceList:
            break;
    }
    return requestList(client);
}

OnData dataCallback(const ParsedCommand& command) {
    switch (command.kind) {
        case CommandKind::ServerAdd:
            return onServerAddReply;
        case CommandKind::ServerAction:
            return onServerActionReply;
        case CommandKind::DeviceAction:
            return deviceActionCallback(command);
        case CommandKind::ServerList:
        case CommandKind::DeviceList:
            break;
    }
    return listCallback(command);
}

// The callbacks are in place before start, which may run the connected callback at once. Neither
// the kernel queue nor the connection may be given a number that reports and messages are written
// to.
int runRequest(ParsedCommand command, const char* socketPath) {
    auto loop = occupyStandardDescriptors() ? HXKQueue::initWithSubsystem(kSubsystem) : nullptr;
    if (!loop) failWith("cannot initialize kqueue\n", kExitNoMemory);
    loop->start();
    auto client = HXTarnIPCClient::initWithKQueue(loop, socketPath);
    if (!client || !installCallbacks(*client, command))
        failWith("cannot connect to the daemon\n", kExitNoMemory);
    client->start();
    parkMainThread();
    client->stop();
    command.action.reset();
    client.reset();
    loop.reset();
    return kExitSuccess;
}
