#include "platform/linux/ready_record.h"

#include <sys/epoll.h>

#include <algorithm>

namespace epollqueue {

namespace {

// A read passes over a byte that was sent out of band. TCP's FIONREAD stops at it, a Unix socket's
// counts it, also after it has been passed over. Bytes that come in between are taken for such
// ones.
int64_t countReadable(Descriptor& descriptor) noexcept {
    const uint32_t seen = descriptor.read.seen;
    const bool isUnix = descriptor.kind == DescriptorKind::UnixSocket;
    if (isUnix && (seen & EPOLLPRI) != 0) descriptor.hadOutOfBand = true;
    // What is readable and cannot be counted is read byte by byte.
    const int64_t uncounted = (seen & (EPOLLIN | kEndEvents)) == EPOLLIN ? 1 : 0;
    const int64_t bytes = readableBytes(descriptor.fd, descriptor.kind).value_or(uncounted);
    const bool isDoubtful = isUnix ? descriptor.hadOutOfBand
                                   : descriptor.kind == DescriptorKind::TcpSocket && bytes == 0;
    if (!isDoubtful || (seen & EPOLLIN) == 0) return bytes;
    const int64_t peeked = peekedBytes(descriptor.fd, bytes, descriptor.error);
    if (isUnix && (seen & EPOLLPRI) == 0)
        descriptor.hadOutOfBand = peeked != readableBytes(descriptor.fd, descriptor.kind);
    return peeked;
}

void markEnded(Descriptor& descriptor, uint32_t seen, struct kevent& record) noexcept {
    if (isSocket(descriptor.kind) && (seen & EPOLLERR) != 0)
        if (const int error = takeSocketError(descriptor.fd)) descriptor.error = error;
    record.flags |= EV_EOF;
    record.fflags = static_cast<uint32_t>(descriptor.error);
}

}  // namespace

bool fillReadRecord(Descriptor& descriptor, struct kevent& record) noexcept {
    const uint32_t seen = descriptor.read.seen;
    const DescriptorKind kind = descriptor.kind;
    if (kind == DescriptorKind::TcpSocket && (seen & EPOLLHUP) != 0 &&
        isUnconnectedTcp(descriptor.fd))
        return false;
    record.data = countReadable(descriptor);
    if (kind == DescriptorKind::Terminal && record.data == 0 && isReadable(descriptor.fd)) {
        // In packet mode a master is readable for a byte that says what has happened. A terminal
        // without bytes has been given its end-of-file character, unless they have just come, or
        // it has been hung up. That counts as a byte, as on macOS: the read takes it away, and
        // finds the end.
        record.data = (seen & EPOLLPRI) != 0 ? 1 : countReadable(descriptor);
        if ((seen & kEndEvents) == 0) record.data = std::max<int64_t>(record.data, 1);
    }
    if ((seen & (EPOLLRDHUP | kEndEvents)) != 0) markEnded(descriptor, seen, record);
    return record.data > 0 || (record.flags & EV_EOF) != 0;
}

bool fillWriteRecord(Descriptor& descriptor, struct kevent& record) noexcept {
    const uint32_t seen = descriptor.write.seen;
    if (descriptor.kind == DescriptorKind::TcpSocket && (seen & EPOLLHUP) != 0 &&
        isUnconnectedTcp(descriptor.fd))
        return false;
    if ((seen & EPOLLOUT) != 0) record.data = writableBytes(descriptor.fd, descriptor.kind);
    if ((seen & kEndEvents) != 0) {
        markEnded(descriptor, seen, record);
        // Without a peer a write fails at once, however full the buffer. It has to be tried for
        // its owner to hear of that.
        const bool isAlone = (seen & EPOLLHUP) != 0 || descriptor.kind == DescriptorKind::Pipe;
        if (isAlone) record.data = std::max<int64_t>(record.data, 1);
    }
    return record.data > 0 || (record.flags & EV_EOF) != 0;
}

}  // namespace epollqueue
