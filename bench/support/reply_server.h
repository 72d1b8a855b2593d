// A daemon in little: answers every request with the same list reply, in a process of its own.
//
// A process, because the peak memory of a program counts that of the process which starts it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

class ReplyServer {
public:
    // Listens on the path, where nothing lies yet. A failure ends the benchmark.
    ReplyServer(std::string path, size_t payloadSize);
    ReplyServer(const ReplyServer&) = delete;
    ReplyServer& operator=(const ReplyServer&) = delete;
    ~ReplyServer();

    [[nodiscard]] size_t servers() const { return counts.servers; }
    [[nodiscard]] size_t devices() const { return counts.devices; }

private:
    struct Counts {
        uint64_t servers;
        uint64_t devices;
    };

    std::string path;
    pid_t child = -1;
    Counts counts{};
};
