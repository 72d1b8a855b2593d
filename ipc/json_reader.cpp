#include "ipc/json_reader.h"

#include <exception>
#include <utility>

#include "ipc/json.h"

namespace {

boost::json::parse_options options() noexcept {
    boost::json::parse_options options;
    options.max_depth = kMaxJsonDepth;
    return options;
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
