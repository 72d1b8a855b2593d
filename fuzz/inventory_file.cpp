// The inventory that a person writes: it is refused with a reason, or is sound, and then what the
// daemon lists is an inventory too, of the same servers and devices.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "fuzz/support/inventory_rules.h"
#include "fuzz/support/oracle.h"
#include "ipc/json.h"
#include "sim/inventory_file.h"

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>

namespace {

// An inventory has no "status".
std::string withoutStatus(const std::string& list) {
    boost::json::value reply = *readJson(list, {});
    reply.get_object().erase("status");
    return boost::json::serialize(reply);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string error = "of an earlier file";
    std::optional<Inventory> inventory =
        parseInventory({reinterpret_cast<const char*>(data), size}, error);
    require(inventory.has_value() == error.empty(), "what is refused is refused with a reason");
    if (!inventory) return 0;
    requireSound(*inventory);
    const std::string list = listOf(*inventory);
    std::optional<Inventory> again = parseInventory(withoutStatus(list), error);
    require(again.has_value(), "what is listed is an inventory, but: " + error);
    requireEqual(listOf(*again), list, "the list of what was listed");
    return 0;
}
