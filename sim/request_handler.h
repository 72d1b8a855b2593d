// Answers one request frame out of an inventory. No input or output happens here.
//
// Every reply is an object with "status": "ok", "already" or "notfound", and "error" for a request
// whose command code is unknown, or whose keys are missing or of the wrong type. A list comes with
// "servers", an addition with the "id" that it gave out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sim/inventory.h"

// The reply's payload. None when the payload is no JSON object; it may be empty for a list.
// Throws std::bad_alloc.
[[nodiscard]] std::optional<std::string> answerRequest(Inventory& inventory, int32_t command,
                                                       std::string_view payload);
