#include "ipc/request.h"

#include <cstdio>
#include <exception>

#include "ipc/json.h"

namespace {

constexpr size_t kMostKeys = 5;

constexpr const char* kNoDictionary = "cannot allocate dictionary for request";
constexpr const char* kNoObject = "cannot allocate object for request";
constexpr const char* kNoObjects = "cannot allocate objects for request";

// A step answers false or throws.
template <typename Step>
bool attempt(const char* failure, Step step) noexcept {
    try {
        if (step()) return true;
    } catch (const std::exception&) {  // bad_alloc, or length_error for an absurd text
    }
    std::fputs(failure, stderr);
    return false;
}

}  // namespace

bool Request::create() noexcept {
    return attempt(kNoDictionary, [this] {
        object.reserve(kMostKeys);
        return true;
    });
}

bool Request::create(std::string_view action) noexcept {
    isPlug = action == "plug";
    return create() &&
           attempt(kNoDictionary, [&] { return object.emplace("action", action).second; });
}

bool Request::addHost(const char* host, uint16_t port) noexcept {
    return attempt(kNoObject, [&] {
        return host != nullptr && isUtf8(host) && object.emplace("host", host).second &&
               object.emplace("port", port).second;
    });
}

bool Request::addId(const char* key, uint32_t id) noexcept {
    return attempt(kNoObjects, [&] { return object.emplace(key, id).second; });
}

bool Request::addOnce(bool once) noexcept {
    return !isPlug || attempt(kNoObjects, [&] { return object.emplace("once", once).second; });
}
