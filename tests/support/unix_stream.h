// One end of a connected Unix-domain stream, for tests: blocking, in plain calls.
//
// Whatever does not happen within a minute throws std::runtime_error, so that a test fails rather
// than hangs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The bytes of a frame, put together here so that the tests do not trust the code under test.
[[nodiscard]] std::string frame(int32_t command, std::string_view payload);

// The eight bytes that announce a payload of the given length.
[[nodiscard]] std::string frameHeader(int32_t command, uint32_t length);

// Sends the bytes, which must not be empty, and with them the descriptor. False when the other end
// is gone.
[[nodiscard]] bool sendDescriptor(int sock, std::string_view bytes, int descriptor);

class UnixStream {
public:
    [[nodiscard]] static UnixStream connectTo(const std::string& path);

    // Takes over a connected descriptor.
    explicit UnixStream(int connectedSocket);
    ~UnixStream();
    UnixStream(UnixStream&& other) noexcept;
    UnixStream(const UnixStream&) = delete;
    UnixStream& operator=(const UnixStream&) = delete;

    // False when the other end is gone.
    [[nodiscard]] bool send(std::string_view bytes) const;

    // False when the other end is gone, or the system sends no such bytes. The last byte goes out
    // of band.
    [[nodiscard]] bool sendUrgently(std::string_view bytes) const;

    // As the function of that name.
    [[nodiscard]] bool sendDescriptor(std::string_view bytes, int descriptor) const;

    // Returns once the other end has read all that was sent, or has closed; at once where the
    // system cannot tell (outgoing_bytes.h), so that what is sent next may be read together with
    // it.
    void waitUntilTaken() const;

    // Exactly size bytes, fewer only when the stream ends before.
    [[nodiscard]] std::string receive(size_t size) const;

    // One whole frame, header included; less only when the stream ends before.
    [[nodiscard]] std::string receiveFrame() const;

    [[nodiscard]] std::string receiveToEnd() const;

    // Whether nothing is there to be read, not even the end.
    [[nodiscard]] bool isSilent() const;

    void closeSending() const;
    void closeReceiving() const;
    void close();

private:
    int sock;
};
