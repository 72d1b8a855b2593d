// List replies for benchmarks, in the size that is asked for.
#pragma once

#include <cstddef>
#include <string>

struct ListReply {
    std::string frame;  // header and payload
    size_t servers = 0;
    size_t devices = 0;
};

// The payload fills payloadSize to the byte, with a text at its end that no report shows. Servers
// and devices come in no order; their ids are unique. The same size gives the same reply.
[[nodiscard]] ListReply makeListReply(size_t payloadSize);
