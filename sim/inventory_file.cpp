#include "sim/inventory_file.h"

#include <algorithm>
#include <array>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parser.hpp>
#include <boost/json/value.hpp>
#include <boost/system/error_code.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <set>
#include <span>
#include <utility>

namespace {

namespace json = boost::json;

constexpr uint16_t kDefaultPort = 33000;

constexpr std::array<std::string_view, 2> kDeviceStateWords{"plugged", "unplugged"};
constexpr size_t kPlugged = 0;
constexpr size_t kUnplugged = 1;

std::string quoted(std::string_view text) {
    return '"' + std::string(text) + '"';
}

// As in `"a", "b" or "c"`.
std::string alternatives(std::span<const std::string_view> words) {
    std::string list = quoted(words.front());
    for (size_t i = 1; i < words.size(); ++i)
        list += (i + 1 < words.size() ? ", " : " or ") + quoted(words[i]);
    return list;
}

// Reads the members of one object. The first thing that is wrong is kept in error, behind the
// place where it stands; everything after it is read as well, to no effect.
class Members {
public:
    Members(const json::value& value, std::string placeOfValue, std::string& firstError)
        : place(std::move(placeOfValue)), error(firstError), object(value.if_object()) {
        if (object == nullptr) fail("must be an object");
    }

    void allowOnly(std::initializer_list<std::string_view> keys) {
        if (object == nullptr) return;
        for (const auto& member : *object)
            if (std::find(keys.begin(), keys.end(), std::string_view(member.key())) == keys.end())
                fail("unknown key " + quoted(member.key()));
    }

    template <typename Integer>
    Integer integer(std::string_view key, std::optional<Integer> otherwise = std::nullopt) {
        const json::value* value = member(key, !otherwise);
        if (value == nullptr) return otherwise.value_or(0);
        boost::system::error_code outOfRange;
        const auto number = value->is_number() ? value->to_number<Integer>(outOfRange) : Integer{};
        if (!value->is_number() || outOfRange)
            fail(quoted(key) + " must be an integer from 0 to " +
                 std::to_string(std::numeric_limits<Integer>::max()));
        return number;
    }

    std::string text(std::string_view key,
                     std::optional<std::string_view> otherwise = std::nullopt) {
        const json::value* value = member(key, !otherwise);
        if (value == nullptr) return std::string(otherwise.value_or(""));
        if (value->is_string()) return std::string(value->get_string());
        fail(quoted(key) + " must be a string");
        return "";
    }

    // Which of the words stands at key. Absent: the one at otherwise.
    size_t choice(std::string_view key, std::span<const std::string_view> words, size_t otherwise) {
        const std::string word = text(key, words[otherwise]);
        const auto found = std::find(words.begin(), words.end(), word);
        if (found != words.end()) return static_cast<size_t>(found - words.begin());
        fail(quoted(key) + " must be " + alternatives(words));
        return otherwise;
    }

    // Calls element with each element of the array at key and the place where it stands.
    template <typename Element>
    void each(std::string_view key, bool required, Element element) {
        const json::value* value = member(key, required);
        if (value == nullptr) return;
        if (!value->is_array()) fail(quoted(key) + " must be an array");
        if (!value->is_array()) return;
        size_t index = 0;
        for (const json::value& item : value->get_array())
            element(item, (place.empty() ? "" : place + '.') + std::string(key) + '[' +
                              std::to_string(index++) + ']');
    }

    void fail(const std::string& what) {
        if (error.empty()) error = (place.empty() ? "" : place + ": ") + what;
    }

private:
    const json::value* member(std::string_view key, bool required) {
        if (object == nullptr) return nullptr;
        const json::value* value = object->if_contains(key);
        if (value == nullptr && required) fail(quoted(key) + " is missing");
        return value;
    }

    std::string place;
    std::string& error;
    const json::object* object;
};

Device readDevice(const json::value& value, const std::string& place, std::string& error) {
    Members members(value, place, error);
    members.allowOnly({"id", "name", "vid", "pid", "rev", "port", "serial", "state", "addr"});
    Device device;
    device.id = members.integer<uint32_t>("id");
    device.name = members.text("name");
    device.vid = members.integer<uint16_t>("vid");
    device.pid = members.integer<uint16_t>("pid");
    device.rev = members.integer<uint16_t>("rev", 0);
    device.port = members.text("port");
    device.serial = members.text("serial", "");
    device.plugged = members.choice("state", kDeviceStateWords, kUnplugged) == kPlugged;
    device.replug = device.plugged;
    return device;
}

Server readServer(const json::value& value, const std::string& place, std::string& error) {
    Members members(value, place, error);
    members.allowOnly({"id", "host", "port", "state", "devices"});
    Server server;
    server.id = members.integer<uint32_t>("id");
    server.host = members.text("host");
    server.port = members.integer<uint16_t>("port", kDefaultPort);
    server.state = static_cast<ServerState>(
        members.choice("state", kServerStateWords, static_cast<size_t>(ServerState::Connected)));
    std::set<uint32_t> ids;
    members.each("devices", false, [&](const json::value& item, const std::string& itemPlace) {
        const Device& device = server.devices.emplace_back(readDevice(item, itemPlace, error));
        if (!ids.insert(device.id).second && error.empty())
            error = itemPlace + ": the id " + std::to_string(device.id) + " is in use twice";
    });
    if (server.host.empty()) members.fail("\"host\" must not be empty");
    return server;
}

// Ids and addresses name a server, so no two may share either.
class UniqueServers {
public:
    void check(const Server& server, const std::string& place, std::string& error) {
        if (!ids.insert(server.id).second && error.empty())
            error = place + ": the id " + std::to_string(server.id) + " is in use twice";
        if (!addresses.emplace(server.host, server.port).second && error.empty())
            error = place + ": the address " + server.host + ':' + std::to_string(server.port) +
                    " is in use twice";
    }

private:
    std::set<uint32_t> ids;
    std::set<std::pair<std::string, uint16_t>> addresses;
};

std::optional<json::value> parse(std::string_view text, std::string& error) {
    json::parser parser;
    boost::system::error_code failure;
    const size_t read = parser.write(text.data(), text.size(), failure);
    if (!failure) return parser.release();
    const auto line =
        1 + std::count(text.begin(), text.begin() + static_cast<ptrdiff_t>(read), '\n');
    error = "not JSON, at line " + std::to_string(line) + ": " + failure.message();
    return std::nullopt;
}

// None when that fails; errno then says why.
std::optional<std::string> readFile(const std::string& path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                               &std::fclose);
    if (!file) return std::nullopt;
    std::string text;
    std::array<char, 65536> piece;
    while (const size_t size = std::fread(piece.data(), 1, piece.size(), file.get()))
        text.append(piece.data(), size);
    if (std::ferror(file.get()) == 0) return text;
    return std::nullopt;
}

}  // namespace

std::optional<Inventory> parseInventory(std::string_view text, std::string& error) {
    error.clear();
    const std::optional<json::value> value = parse(text, error);
    if (!value) return std::nullopt;
    Members members(*value, "", error);
    members.allowOnly({"servers"});
    std::vector<Server> servers;
    UniqueServers unique;
    members.each("servers", true, [&](const json::value& item, const std::string& place) {
        unique.check(servers.emplace_back(readServer(item, place, error)), place, error);
    });
    if (!error.empty()) return std::nullopt;
    return Inventory(std::move(servers));
}

std::optional<Inventory> readInventoryFile(const std::string& path, std::string& error) {
    const std::optional<std::string> text = readFile(path);
    if (!text) {
        error = "cannot read the inventory " + path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    std::optional<Inventory> inventory = parseInventory(*text, error);
    if (!inventory) error = "the inventory " + path + " is wrong: " + error;
    return inventory;
}
