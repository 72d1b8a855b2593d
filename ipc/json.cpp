#include "ipc/json.h"

#include <boost/json/src.hpp>

#include <utility>

#include "ipc/json_reader.h"

namespace {

namespace json = boost::json;

// A double outside the range of the integer type that it is cast to is undefined behaviour.
uint64_t integerPart(double number) noexcept {
    if (number >= 0 && number < 0x1p64) return static_cast<uint64_t>(number);
    if (number < 0 && number >= -0x1p63) return static_cast<uint64_t>(static_cast<int64_t>(number));
    return 0;
}

uint64_t lowOrderBits(const json::value& value) noexcept {
    switch (value.kind()) {
        case json::kind::bool_:
            return value.get_bool() ? 1 : 0;
        case json::kind::int64:
            return static_cast<uint64_t>(value.get_int64());
        case json::kind::uint64:
            return value.get_uint64();
        case json::kind::double_:
            return integerPart(value.get_double());
        default:
            return 0;
    }
}

}  // namespace

std::optional<json::value> readJson(std::string_view text, json::storage_ptr storage) noexcept {
    JsonReader reader;
    reader.begin(std::move(storage));
    reader.add(text);
    return reader.finish();
}

const json::string* stringMember(const json::object& object, std::string_view key) noexcept {
    const json::value* member = object.if_contains(key);
    return member ? member->if_string() : nullptr;
}

const json::array* arrayMember(const json::object& object, std::string_view key) noexcept {
    const json::value* member = object.if_contains(key);
    return member ? member->if_array() : nullptr;
}

const json::value* numberMember(const json::object& object, std::string_view key) noexcept {
    const json::value* member = object.if_contains(key);
    return member && isNumber(*member) ? member : nullptr;
}

bool isNumber(const json::value& value) noexcept {
    return value.is_number() || value.is_bool();
}

uint32_t toUnsigned32(const json::value& value) noexcept {
    return static_cast<uint32_t>(lowOrderBits(value));
}

uint16_t toUnsigned16(const json::value& value) noexcept {
    return static_cast<uint16_t>(lowOrderBits(value));
}

// The writer passes every byte from 0x80 on through, and the reader checks them.
bool isUtf8(std::string_view text) {
    boost::system::error_code error;
    json::parse(json::serialize(json::string_view(text.data(), text.size())), error);
    return !error;
}
