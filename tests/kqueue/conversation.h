// A conversation of every kind of source with every other, in one loop: two servers, which echo, a
// client of each, a pipe that writes to itself, and a timer. It is held while something fails, and
// then looked at: who has ended how, and whether a byte was lost, doubled or out of place.
//
// What it does itself needs no memory and none of the calls that can be made to fail.
#pragma once

#include <sys/socket.h>

#include <array>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "kqueue/HXKQueue.h"
#include "tests/kqueue/held_port.h"
#include "tests/kqueue/loop_fixture.h"

class Conversation {
public:
    enum class End {
        None,        // it is not over
        Done,        // every byte came back; the timer has fired
        Terminated,  // or could not connect
        NoSource,    // its factory, or that of its server, has returned null
    };
    enum class Owners {
        StopWhatEnds,
        IgnoreEnds,
    };
    enum Part : size_t {
        UnixClient,
        TcpClient,
        Pipe,
        Timer,
        kParts,
    };

    // The servers' addresses, one after the other for all conversations of a test.
    class Place {
    public:
        [[nodiscard]] const char* path() const { return socketPath.c_str(); }
        [[nodiscard]] const struct sockaddr* address() const { return asSockaddr(port.address()); }

    private:
        TemporaryDirectory directory;
        std::string socketPath = directory.file("socket");
        HeldPort port;
    };

    explicit Conversation(Owners owners = Owners::StopWhatEnds);
    ~Conversation();
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;

    // Holds it to the end: until every part has ended, or the log says that an owner will
    // hear nothing more, or is full. False when none of that happens within twenty seconds. The
    // loop has stopped then.
    [[nodiscard]] bool hold(const Place& place, LogRecorder& log);

    [[nodiscard]] End end(Part part) const { return talks[part].end; }
    [[nodiscard]] bool isAllDone() const;
    // Whether every byte that has come back is the one that was sent in its place.
    [[nodiscard]] bool isFaithful() const;
    [[nodiscard]] bool hasLoop() const { return loop != nullptr; }

private:
    struct Talk {
        Conversation* conversation = nullptr;
        size_t total = 0;
        size_t returned = 0;
        bool isFaithful = true;
        End end = End::None;  // guarded by lock
        std::shared_ptr<HXKQueueEventProtocol> source;
    };

    static HXKQueueEventBlock talking(Talk* talk);
    HXKQueueEventBlock echoing();
    void begin(const Place& place);
    void beginTalk(Part part, const std::shared_ptr<HXKQueueEventProtocol>& source, size_t total);
    void beginPipe();
    bool serve(int sock);
    void onTalk(Talk& talk, const char* bytes, uint64_t size, int32_t code);
    void finish(Talk& talk, End end);
    [[nodiscard]] bool isOverUnlocked() const;

    const Owners owners;
    std::mutex lock;
    std::condition_variable ended;
    std::array<Talk, kParts> talks;
    std::array<int, 2> pipeEnds{-1, -1};
    std::shared_ptr<HXKQueue> loop;
};
