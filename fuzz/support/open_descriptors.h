// Descriptors of many kinds to try an event queue on, and what the system says of them when it is
// asked without one. None of them blocks.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <map>
#include <string_view>

enum class DescriptorKind { UnixStream, UnixDatagram, Tcp, Pipe, File, Null, Listener };

inline constexpr int kDescriptorKinds = 7;

[[nodiscard]] constexpr bool isAlwaysReady(DescriptorKind kind) {
    return kind == DescriptorKind::File || kind == DescriptorKind::Null;
}

[[nodiscard]] constexpr bool isStreamSocket(DescriptorKind kind) {
    return kind == DescriptorKind::UnixStream || kind == DescriptorKind::Tcp;
}

struct OpenDescriptor {
    DescriptorKind kind;
    dev_t device;
    ino_t inode;
};

// Takes the numbers that it needs for itself, before any other is taken. Once.
void prepareDescriptors();

// Of a descriptor at one moment.
struct DescriptorStatus {
    short polled = 0;
    int bytes = 0;  // to be read

    bool operator==(const DescriptorStatus&) const = default;
    [[nodiscard]] bool has(short events) const { return (polled & events) != 0; }
};

// Whether a read filter has ended, or a write filter.
[[nodiscard]] bool hasEnded(DescriptorKind kind, const DescriptorStatus& status, int16_t filter);

// Whether it has to have a record.
[[nodiscard]] bool isReady(DescriptorKind kind, const DescriptorStatus& status, int16_t filter);

// Of a socket to which bytes have been sent out of band only the bytes up to so many are counted.
inline constexpr int kMostPeeked = 1 << 18;

// All that are open, by number. What is left goes with it.
class OpenDescriptors {
public:
    using Statuses = std::map<int, DescriptorStatus>;

    OpenDescriptors() = default;
    OpenDescriptors(const OpenDescriptors&) = delete;
    OpenDescriptors& operator=(const OpenDescriptors&) = delete;
    ~OpenDescriptors();

    // Two that are connected, or one of a kind that is alone. Sockets may get small buffers.
    void openPair(DescriptorKind kind, bool small);
    void duplicate(int fd);
    void close(int fd);

    // Steps made at random: what the system says of them is no matter.
    void read(int fd, size_t size);
    void write(int fd, std::string_view bytes);
    void fill(int fd, std::string_view piece);
    void sendOutOfBand(int fd);
    void shutDown(int fd, int how);
    void moveTo(int fd, off_t position);

    [[nodiscard]] const OpenDescriptor* find(int fd) const;
    [[nodiscard]] const std::map<int, OpenDescriptor>& all() const { return open; }

    // Whether another number means the same file, or the other end of the same pipe.
    [[nodiscard]] bool hasRelative(int fd) const;

    [[nodiscard]] Statuses statuses() const;
    [[nodiscard]] bool hadOutOfBand() const { return outOfBand; }

private:
    void add(int fd, DescriptorKind kind, bool small);
    void openTcpPair(bool small);
    [[nodiscard]] int readableBytes(int fd, DescriptorKind kind, short polled) const;

    std::map<int, OpenDescriptor> open;
    bool outOfBand = false;  // bytes have been sent so
};
