// Reads one JSON text after the other, each of which may come in pieces, as readJson reads one that
// is there as a whole, but for the last bit of a number with more digits than 53 bits hold, if it
// has a fraction or an exponent: that may depend on the pieces. What one text has needed serves the
// next.
//
// Threads    one at a time.
// Ownership  a value lives in storage, which outlives it and the reading of it.
// Errors     what is wrong with a piece is told at the end.
#pragma once

#include <boost/json/storage_ptr.hpp>
#include <boost/json/stream_parser.hpp>
#include <boost/json/value.hpp>
#include <cstddef>
#include <optional>
#include <string_view>

class JsonReader {
public:
    JsonReader() noexcept;

    // Before the first piece of each text.
    void begin(boost::json::storage_ptr storage) noexcept;

    // Takes the next piece, which begins where wholeCharacters has the last one end; nothing once
    // the text cannot be read any more.
    void add(std::string_view piece) noexcept;

    // After the last piece. None if the text cannot be read.
    [[nodiscard]] std::optional<boost::json::value> finish() noexcept;

private:
    boost::json::stream_parser parser;
    bool failed = false;
};

// How much of the beginning of a text may be a piece, if more follows: all but a character, or an
// escape of one, that is not there as a whole. The parser of Boost 1.81, when it goes on within one
// of those in a long string, writes up to three bytes beyond the end of a buffer of its own.
[[nodiscard]] size_t wholeCharacters(std::string_view text) noexcept;
