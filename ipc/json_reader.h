// Reads one JSON text that comes in pieces, as readJson reads one that is there as a whole.
//
// Threads    one at a time.
// Ownership  the value lives in storage, which outlives the reader.
// Errors     what is wrong with a piece is told at the end.
#pragma once

#include <boost/json/storage_ptr.hpp>
#include <boost/json/stream_parser.hpp>
#include <boost/json/value.hpp>
#include <optional>
#include <string_view>

class JsonReader {
public:
    explicit JsonReader(boost::json::storage_ptr storage) noexcept;

    // Takes the next piece; nothing once the text cannot be read any more.
    void add(std::string_view piece) noexcept;

    // After the last piece, once. None if the text cannot be read.
    [[nodiscard]] std::optional<boost::json::value> finish() noexcept;

private:
    boost::json::stream_parser parser;
    bool failed = false;
};
