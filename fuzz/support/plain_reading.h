// What a stream of replies says, read from its description as a whole: what the client's decoder is
// compared with.
#pragma once

#include <boost/json/value.hpp>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct PlainReading {
    std::vector<std::pair<int32_t, boost::json::value>> replies;  // up to the first error
    uint64_t size = 0;                                            // of their frames
    std::string words;  // that tell of the error, if there is one
};

[[nodiscard]] PlainReading readPlainly(std::string_view stream);

// For a message.
[[nodiscard]] std::string print(const PlainReading& reading);
