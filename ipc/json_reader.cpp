#include "ipc/json_reader.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "ipc/json.h"

namespace {

boost::json::parse_options options() noexcept {
    boost::json::parse_options options;
    options.max_depth = kMaxJsonDepth;
    return options;
}

// How many bytes of UTF-8 begin with this one; 1 also for what begins nothing.
size_t lengthOfCharacter(unsigned char first) noexcept {
    if (first < 0xc0) return 1;
    if (first < 0xe0) return 2;
    return first < 0xf0 ? 3 : 4;
}

// How many of the last bytes begin a character whose end is not there.
size_t begunCharacter(std::string_view text) noexcept {
    for (size_t back = 1; back <= std::min<size_t>(text.size(), 3); ++back)
        if (lengthOfCharacter(static_cast<unsigned char>(text[text.size() - back])) > back)
            return back;
    return 0;
}

// How many of the last bytes begin an escape, of six bytes, whose end is not there.
size_t begunEscape(std::string_view text) noexcept {
    const std::string_view last = text.substr(text.size() - std::min<size_t>(text.size(), 5));
    const size_t place = last.rfind("\\u");
    return place == std::string_view::npos ? 0 : last.size() - place;
}

}  // namespace

JsonReader::JsonReader() noexcept : parser({}, options()) {}

void JsonReader::begin(boost::json::storage_ptr storage) noexcept {
    parser.reset(std::move(storage));
    failed = false;
}

void JsonReader::add(std::string_view piece) noexcept {
    if (failed) return;
    try {
        boost::system::error_code error;
        parser.write(piece.data(), piece.size(), error);
        failed = error.failed();
    } catch (const std::exception&) {  // bad_alloc, or length_error for a container too large
        failed = true;
    }
}

std::optional<boost::json::value> JsonReader::finish() noexcept {
    if (failed) return std::nullopt;
    try {
        boost::system::error_code error;
        parser.finish(error);
        if (error) return std::nullopt;
        boost::json::value value = parser.release();
        if (!value.is_structured()) return std::nullopt;
        return value;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

size_t wholeCharacters(std::string_view text) noexcept {
    return text.size() - std::max(begunCharacter(text), begunEscape(text));
}
