#include "tests/kqueue/loop_fixture.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kqueue/HXKQueueStreamSocket.h"
#include "tests/support/address_length.h"

LogRecorder::LogRecorder(LogLevel least) {
    constexpr size_t kLinesAtHand = 1'000;
    recorded.reserve(kLinesAtHand);
    logSetLevel(least);
    logSetSink([this](LogLevel level, const std::string& /*subsystem*/, const std::string& category,
                      const char* message) {
        if (category != "kqueue") return;
        const std::lock_guard guard(lock);
        Line line = {.level = level, .message = {}};
        std::snprintf(line.message.data(), line.message.size(), "%s", message);
        try {
            recorded.push_back(line);
        } catch (const std::bad_alloc&) {
            return;  // what is said so often was recorded before
        }
        changed.notify_all();
    });
}

LogRecorder::~LogRecorder() {
    logSetSink(nullptr);
    logSetLevel(LogLevel::Error);
}

std::vector<std::string> LogRecorder::lines() const {
    const std::lock_guard guard(lock);
    std::vector<std::string> all;
    all.reserve(recorded.size());
    for (const Line& line : recorded)
        all.push_back(line.text());
    return all;
}

std::vector<std::string> LogRecorder::errors() const {
    std::vector<std::string> errors = lines();
    std::erase_if(errors, [](const std::string& line) { return !line.starts_with("error "); });
    return errors;
}

bool LogRecorder::has(const std::string& line) const {
    const std::vector<std::string> all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
}

size_t LogRecorder::count() const {
    const std::lock_guard guard(lock);
    return recorded.size();
}

bool LogRecorder::hasAny(bool (*matches)(std::string_view message)) const {
    const std::lock_guard guard(lock);
    return std::any_of(recorded.begin(), recorded.end(),
                       [&](const Line& line) { return matches(line.message.data()); });
}

bool LogRecorder::waitFor(const std::string& line) {
    std::unique_lock guard(lock);
    return changed.wait_for(guard, std::chrono::seconds(20), [&] {
        return std::any_of(recorded.begin(), recorded.end(),
                           [&](const Line& each) { return each.text() == line; });
    });
}

std::string LogRecorder::Line::text() const {
    return (level == LogLevel::Error ? "error " : "debug ") + std::string(message.data());
}

std::string tagOf(const void* object) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "<%p>", object);
    return text.data();
}

size_t openDescriptors() {
    size_t count = 0;
    DIR* directory = opendir("/dev/fd");
    while (readdir(directory))
        ++count;
    closedir(directory);
    return count;
}

int nextDescriptor() {
    const int number = open("/", O_RDONLY | O_CLOEXEC);
    close(number);
    return number;
}

TemporaryDirectory::TemporaryDirectory() : path("/tmp/hxkqueue-XXXXXX") {
    EXPECT_NE(mkdtemp(path.data()), nullptr);
}

TemporaryDirectory::~TemporaryDirectory() {
    DIR* directory = opendir(path.c_str());
    while (const struct dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.') unlinkat(dirfd(directory), entry->d_name, 0);
    closedir(directory);
    rmdir(path.c_str());
}

struct sockaddr_storage loopback(sa_family_t family, uint16_t port) {
    struct sockaddr_storage address = {};
    address.ss_family = family;
    if (family == AF_INET6) {
        auto* inet6 = reinterpret_cast<struct sockaddr_in6*>(&address);
        inet6->sin6_addr = in6addr_loopback;
        inet6->sin6_port = htons(port);
        setAddressLength(address, sizeof *inet6);
    } else {
        auto* inet = reinterpret_cast<struct sockaddr_in*>(&address);
        inet->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        inet->sin_port = htons(port);
        setAddressLength(address, sizeof *inet);
    }
    return address;
}

const struct sockaddr* asSockaddr(const struct sockaddr_storage& address) {
    return reinterpret_cast<const struct sockaddr*>(&address);
}

LoopTest::LoopTest() : loop(HXKQueue::initWithSubsystem(kSubsystem)) {
    loop->start();
}

LoopTest::~LoopTest() {
    stopLoop();
}

void LoopTest::stopLoop() {
    if (loop) loop->stop();
    loop = nullptr;
}

// A source that is stopped is stopped at the start of an iteration.
void LoopTest::settle() {
    for (int i = 0; i < 2; ++i) {
        const auto stream = makeStream();
        loop->stopObject(stream.source);
        while (fcntl(stream.sock, F_GETFD) != -1)
            sched_yield();  // until the stop has closed it
        close(stream.peer);
    }
}

LoopTest::Stream LoopTest::makeStream(bool closeOnStop) {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    return {loop->createStreamSocket(ends[0], closeOnStop), ends[0], ends[1]};
}
