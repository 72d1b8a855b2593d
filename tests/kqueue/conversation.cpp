#include "tests/kqueue/conversation.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "kqueue/HXKQueueAcceptedConnection.h"
#include "kqueue/HXKQueueBipipeClient.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTCPClient.h"
#include "kqueue/HXKQueueTCPServer.h"
#include "kqueue/HXKQueueTimer.h"
#include "kqueue/HXKQueueUnixClient.h"
#include "kqueue/HXKQueueUnixServer.h"

namespace {

// More than a write takes at once, and in several pieces, so that one that is missing shows.
constexpr size_t kPiece = 8'000;
constexpr size_t kStreamTotal = 5 * kPiece;
constexpr size_t kPipeTotal = 2 * kPiece;

// Repeats after so many bytes that no piece looks like another.
constexpr size_t kPeriod = 251;

const std::array<char, kStreamTotal>& whatIsSaid() {
    static const std::array<char, kStreamTotal> bytes = [] {
        std::array<char, kStreamTotal> made{};
        for (size_t i = 0; i < made.size(); ++i)
            made[i] = static_cast<char>(i % kPeriod);
        return made;
    }();
    return bytes;
}

// A server that cannot register for lack of memory asks again, and says so, for ever.
constexpr size_t kVeryMany = 100;

// What the loop says when an owner will hear nothing more.
bool isSilence(std::string_view message) {
    constexpr std::array<std::string_view, 5> kLines = {
        "cannot keep event block", "cannot submit change", "cannot initialize event list",
        "cannot initialize active list", "copying active list error"};
    return std::any_of(kLines.begin(), kLines.end(), [&](std::string_view each) {
        return message.find(each) != std::string_view::npos;
    });
}

}  // namespace

Conversation::Conversation(Owners owners_) : owners(owners_) {
    static_cast<void>(whatIsSaid());
    EXPECT_EQ(pipe(pipeEnds.data()), 0);
    for (Talk& talk : talks)
        talk.conversation = this;
}

Conversation::~Conversation() {
    for (const int end : pipeEnds)
        if (end != -1) close(end);
}

bool Conversation::hold(const Place& place, LogRecorder& log) {
    begin(place);
    if (!loop) {
        for (Talk& talk : talks)
            talk.end = End::NoSource;
        return true;
    }
    loop->start();
    const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    bool isOver = false;
    while (!isOver && std::chrono::steady_clock::now() < patience) {
        std::unique_lock guard(lock);
        isOver = ended.wait_for(guard, std::chrono::milliseconds(10),
                                [this] { return isOverUnlocked(); });
        guard.unlock();
        isOver = isOver || log.hasAny(isSilence) || log.count() > kVeryMany;
    }
    loop->stop();
    for (Talk& talk : talks)
        talk.source = nullptr;
    return isOver;
}

bool Conversation::isAllDone() const {
    return std::all_of(talks.begin(), talks.end(),
                       [](const Talk& talk) { return talk.end == End::Done; });
}

bool Conversation::isFaithful() const {
    return std::all_of(talks.begin(), talks.end(),
                       [](const Talk& talk) { return talk.isFaithful; });
}

void Conversation::begin(const Place& place) {
    loop = HXKQueue::initWithSubsystem("org.example.usb.virt.ctl");
    if (!loop) return;
    if (const auto server = loop->createUnixServer(place.path(), 0600)) {
        loop->startObject(server, echoing());
        beginTalk(UnixClient, loop->createUnixClient(place.path()), kStreamTotal);
    } else {
        finish(talks[UnixClient], End::NoSource);
    }
    if (const auto server = loop->createTCPServer(place.address())) {
        loop->startObject(server, echoing());
        beginTalk(TcpClient, loop->createTCPClient(place.address()), kStreamTotal);
    } else {
        finish(talks[TcpClient], End::NoSource);
    }
    beginPipe();
    beginTalk(Timer, loop->createTimer(1, true), 0);
}

void Conversation::beginPipe() {
    const auto source = loop->createBipipeClient(pipeEnds.data(), true);
    if (source) pipeEnds = {-1, -1};
    beginTalk(Pipe, source, kPipeTotal);
}

void Conversation::beginTalk(Part part, const std::shared_ptr<HXKQueueEventProtocol>& source,
                             size_t total) {
    Talk& talk = talks[part];
    talk.total = total;
    if (!source) return finish(talk, End::NoSource);
    talk.source = source;
    loop->startObject(source, talking(&talk));
}

// Nothing is allocated for what captures no more than a pointer.
HXKQueueEventBlock Conversation::talking(Talk* talk) {
    return [talk](const auto& /*source*/, const char* bytes, uint64_t size, uint64_t* /*dropSize*/,
                  int32_t code) {
        talk->conversation->onTalk(*talk, bytes, size, code);
        return true;
    };
}

HXKQueueEventBlock Conversation::echoing() {
    return [this](const auto& /*source*/, const char* bytes, auto&&...) {
        return serve(reinterpret_cast<const HXKQueueAcceptedConnection*>(bytes)->sock);
    };
}

bool Conversation::serve(int sock) {
    const auto stream = loop->createStreamSocket(sock, true);
    if (!stream) return false;
    loop->startObject(stream, [this](const auto& source, const char* bytes, uint64_t size,
                                     uint64_t* /*dropSize*/, int32_t code) {
        if (code == HXKQueueEventData) loop->write(source, bytes, size);
        if (code == HXKQueueEventTerminated && owners == Owners::StopWhatEnds)
            loop->stopObject(source);
        return true;
    });
    return true;
}

void Conversation::onTalk(Talk& talk, const char* bytes, uint64_t size, int32_t code) {
    if (code == HXKQueueEventConnected) {
        for (size_t said = 0; said < talk.total; said += kPiece)
            loop->write(talk.source, whatIsSaid().data() + said, kPiece);
        return;
    }
    if (code == HXKQueueEventData) {
        const bool fits = size <= talk.total - talk.returned;
        talk.isFaithful = talk.isFaithful && fits &&
                          std::equal(bytes, bytes + size, whatIsSaid().data() + talk.returned);
        if (fits) talk.returned += size;
        if (talk.returned == talk.total) finish(talk, End::Done);
        return;
    }
    if (owners == Owners::StopWhatEnds) finish(talk, End::Terminated);
}

void Conversation::finish(Talk& talk, End end) {
    {
        const std::lock_guard guard(lock);
        if (talk.end == End::None) talk.end = end;
    }
    ended.notify_all();
    if (talk.source) loop->stopObject(talk.source);
}

bool Conversation::isOverUnlocked() const {
    return std::all_of(talks.begin(), talks.end(),
                       [](const Talk& talk) { return talk.end != End::None; });
}
