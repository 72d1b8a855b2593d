// A room where every line that a client sends goes to all others.
//
//     chat unix PATH
//     chat tcp ADDRESS PORT
//
// A client that sends too long a line, or that reads too slowly, is dropped.

#include <algorithm>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "examples/server.h"
#include "kqueue/HXKQueueStreamSocket.h"

namespace {

constexpr size_t kLongestLine = 1000;
constexpr uint64_t kMostPending = 1 << 20;  // of what a client has not read yet
constexpr size_t kMostMembers = 100;        // each line is written so often

using Stream = std::shared_ptr<HXKQueueStreamSocket>;

// What a terminal would take for more than text becomes a question mark.
std::string plain(std::string_view line) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    std::string text(line);
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    return text;
}

// Everything happens on the loop's I/O thread, so nothing is locked. Outlives the loop's sources.
class Room {
public:
    bool enter(const std::shared_ptr<HXKQueue>& running, int sock) noexcept;

private:
    void onEvent(const Stream& stream, std::string_view received, uint64_t* dropSize,
                 int32_t code) noexcept;
    void hear(const Stream& stream, std::string_view line);
    void tellOthers(const Stream& stream, const std::string& line);
    void leave(const Stream& stream, const char* how) noexcept;
    void dropSlow() noexcept;

    std::weak_ptr<HXKQueue> loop;
    std::map<Stream, std::string> members;  // with their names
    uint64_t arrivals = 0;
};

bool Room::enter(const std::shared_ptr<HXKQueue>& running, int sock) noexcept {
    if (members.size() == kMostMembers) return false;
    loop = running;
    const Stream stream = running->createStreamSocket(sock, true);
    if (!stream) return false;
    try {
        const auto member = members.emplace(stream, "guest" + std::to_string(++arrivals)).first;
        tellOthers(stream, member->second + " joins");
        running->startObject(stream, [this](const auto& source, const char* bytes, uint64_t size,
                                            uint64_t* dropSize, int32_t code) {
            onEvent(std::static_pointer_cast<HXKQueueStreamSocket>(source), {bytes, size}, dropSize,
                    code);
            return true;
        });
    } catch (const std::exception&) {
        leave(stream, "leaves");
    }
    dropSlow();
    return true;
}

// A line without an end is kept by the stream, to come again with what follows. One that was asked
// to stop may report once more.
void Room::onEvent(const Stream& stream, std::string_view received, uint64_t* dropSize,
                   int32_t code) noexcept {
    const bool ended = code == HXKQueueEventTerminated;
    if ((code != HXKQueueEventData && !ended) || !members.contains(stream)) return;
    try {
        std::string_view rest = received;
        for (size_t length = 0; (length = rest.find('\n')) <= kLongestLine;) {
            hear(stream, rest.substr(0, length));
            rest.remove_prefix(length + 1);
        }
        *dropSize = received.size() - rest.size();
        if (rest.size() > kLongestLine) {
            leave(stream, "is dropped: too long a line");
        } else if (ended) {
            hear(stream, rest);
            leave(stream, "leaves");
        }
    } catch (const std::exception&) {
        leave(stream, "leaves");
    }
    dropSlow();
}

void Room::hear(const Stream& stream, std::string_view line) {
    const std::string text = plain(line);
    if (!text.empty()) tellOthers(stream, members[stream] + ": " + text);
}

void Room::tellOthers(const Stream& stream, const std::string& line) {
    const std::string whole = line + '\n';
    const auto running = loop.lock();
    for (const auto& [other, name] : members)
        if (running && other != stream) running->write(other, whole.data(), whole.size());
}

void Room::leave(const Stream& stream, const char* how) noexcept {
    if (const auto running = loop.lock()) running->stopObject(stream);
    const auto member = members.extract(stream);
    try {
        if (member) tellOthers(member.key(), member.mapped() + ' ' + how);
    } catch (const std::exception&) {
        return;  // without memory nobody can be told
    }
}

void Room::dropSlow() noexcept {
    const auto isSlow = [](const auto& m) { return m.first->pendingBytes() > kMostPending; };
    for (;;) {
        const auto slow = std::find_if(members.begin(), members.end(), isSlow);
        if (slow == members.end()) return;
        leave(Stream(slow->first), "is dropped: reads too slowly");
    }
}

}  // namespace

int main(int argc, char** argv) {
    Room room;
    return runServer(argc, argv,
                     [&room](const auto& loop, int sock) { return room.enter(loop, sock); });
}
