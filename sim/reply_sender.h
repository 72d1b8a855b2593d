// Sends one client its replies, in order and in a given manner.
//
// What takes its time waits in a queue: a timer fires before each piece, and the next piece is not
// sent before the kernel has taken the one before. The same timer looks for the moment to close a
// connection, when all is sent. Should the loop have no memory to start it, which the loop logs,
// what waits is never sent.
//
// Threads    the loop's I/O thread.
// Ownership  the connection keeps its sender; the sender keeps its timer, and the loop and the
//            stream weakly; the timer's block keeps the sender weakly.
#pragma once

#include <deque>
#include <memory>
#include <string_view>
#include <vector>

#include "kqueue/HXKQueue.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTimer.h"
#include "sim/reply_manner.h"

class ReplySender : public std::enable_shared_from_this<ReplySender> {
public:
    ReplySender(std::weak_ptr<HXKQueue> loopOfStream, const ReplyManner& mannerOfReplies);

    // Where the replies go. Once, before the first reply.
    void attach(const std::shared_ptr<HXKQueueStreamSocket>& target) noexcept { stream = target; }

    // Throws std::bad_alloc, and then may have sent a part.
    void send(int32_t command, std::string_view payload);

    // Whether it stops the stream, now or as soon as all is sent: no reply will follow.
    [[nodiscard]] bool isClosing() const { return closing; }

    // Reads nothing more, forgets what waits for its time, and stops the stream once the kernel has
    // taken the rest. From the stream's own block.
    void closeOnceSent() noexcept;

    // Stops the stream. What is not sent by then never will be.
    void close() noexcept;

private:
    void forgetWaiting() noexcept;
    void startTimer();
    void onTimer();
    void sendPiece();
    void write(const char* bytes, size_t size);
    [[nodiscard]] bool isAllTaken() const;

    std::weak_ptr<HXKQueue> loop;
    std::weak_ptr<HXKQueueStreamSocket> stream;
    const ReplyManner manner;
    std::deque<std::vector<char>> waiting;
    size_t sentOfFirst = 0;
    std::shared_ptr<HXKQueueTimer> timer;  // null: none is needed
    bool closing = false;
};
