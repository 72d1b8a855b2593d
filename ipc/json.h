// JSON as both ends of the connection read it.
#pragma once

#include <boost/json/fwd.hpp>
#include <boost/json/storage_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

// How deep arrays and objects may nest.
inline constexpr size_t kMaxJsonDepth = 512;

// Reads one text whose top level is an array or an object. None for anything else: a bare scalar,
// bytes that are not UTF-8, trailing text, nesting beyond kMaxJsonDepth, a lack of memory. The
// value lives in storage.
[[nodiscard]] std::optional<boost::json::value> readJson(std::string_view text,
                                                         boost::json::storage_ptr storage) noexcept;

// The member of that name if it is there and of that type, else null.
[[nodiscard]] const boost::json::string* stringMember(const boost::json::object& object,
                                                      std::string_view key) noexcept;
[[nodiscard]] const boost::json::array* arrayMember(const boost::json::object& object,
                                                    std::string_view key) noexcept;
[[nodiscard]] const boost::json::value* numberMember(const boost::json::object& object,
                                                     std::string_view key) noexcept;

// True for numbers, and for true and false, which count as 1 and 0.
[[nodiscard]] bool isNumber(const boost::json::value& value) noexcept;

// Narrows a number by keeping its low-order bits, a fraction toward zero first. A number outside
// the range of 64-bit integers, signed and unsigned, narrows to 0. REQUIRES: isNumber(value).
[[nodiscard]] uint32_t toUnsigned32(const boost::json::value& value) noexcept;
[[nodiscard]] uint16_t toUnsigned16(const boost::json::value& value) noexcept;

// Whether text is well-formed UTF-8. Throws std::bad_alloc.
[[nodiscard]] bool isUtf8(std::string_view text);
