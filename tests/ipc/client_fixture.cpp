#include "tests/ipc/client_fixture.h"

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <chrono>
#include <stdexcept>

void CallbackLog::add(std::string line) {
    const std::lock_guard guard(lock);
    entries.push_back(std::move(line));
    added.notify_all();
}

std::vector<std::string> CallbackLog::waitFor(size_t count) {
    std::unique_lock guard(lock);
    added.wait_for(guard, std::chrono::minutes(1), [&] { return entries.size() >= count; });
    return entries;
}

std::vector<std::string> CallbackLog::lines() {
    return waitFor(0);
}

ClientTest::ClientTest() : client(HXTarnIPCClient::initWithKQueue(loop, daemon.path())) {
    if (!client) throw std::runtime_error("no client");
}

void ClientTest::installCallbacks() {
    const bool installed = client->setOnConnected([this] {
        log.add("connected");
    }) && client->setOnData([this](int32_t code, const boost::json::object& reply) {
        log.add("data " + std::to_string(code) + " " + boost::json::serialize(reply));
    }) && client->setOnError([this, weak = std::weak_ptr(client)] {
        const std::string words = err.take();
        if (const auto failed = weak.lock()) failed->stop();
        log.add("error " + words);
    });
    if (!installed) throw std::runtime_error("no callbacks");
}

RunningClientTest::RunningClientTest() {
    loop->start();
    installCallbacks();
    client->start();
    peer.emplace(daemon.accept());
}

void RunningClientTest::reconnect() {
    client->stop();
    static_cast<void>(peer->receiveToEnd());
    client = HXTarnIPCClient::initWithKQueue(loop, daemon.path());
    if (!client) throw std::runtime_error("no client");
    installCallbacks();
    client->start();
    peer.emplace(daemon.accept());
}

RunningClientTest::~RunningClientTest() {
    client->stop();
    loop->stop();
}

// A server-list request after everything else tells where everything else ends.
std::string RunningClientTest::received() {
    client->requestServerList();
    const std::string last = frame(0, "");
    std::string bytes;
    for (std::string next = peer->receiveFrame(); next != last; next = peer->receiveFrame()) {
        if (next.empty()) return bytes + "(end of stream)";
        bytes += next;
    }
    return bytes;
}
