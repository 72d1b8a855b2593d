// What a client of lists costs at least: the reply is received into one buffer that is large enough
// from the beginning, the fastest parser that is known reads it once, what is to be printed is
// assembled in one buffer, and that is written.
//
//     floor_list_client srv|dev PATH

#include <simdjson.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench/support/program.h"
#include "ipc/frame.h"
#include "platform/socket_address.h"

namespace {

namespace ondemand = simdjson::ondemand;

struct Device {
    uint32_t server;
    uint32_t id;
    uint16_t vid;
    uint16_t pid;
    uint16_t rev;
    std::string_view name;
    std::string_view port;
    std::string_view serial;
    std::string_view state;
};

struct Server {
    uint32_t id;
    uint16_t port;
    std::string_view host;
    std::string_view state;
    size_t firstDevice;
    size_t endOfDevices;
};

struct Reply {
    std::vector<Server> servers;
    std::vector<Device> devices;
};

int connectTo(const char* path) {
    sockaddr_un address;
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    if (sock == -1 || !makeUnixAddress(path, address) ||
        connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
        fail("connect");
    return sock;
}

void receive(int sock, char* into, size_t size) {
    while (size > 0) {
        const ssize_t count = recv(sock, into, size, MSG_WAITALL);
        if (count == -1) fail("recv");
        if (count == 0) failCheck("the reply is cut short");
        into += count;
        size -= static_cast<size_t>(count);
    }
}

Device readDevice(uint32_t server, ondemand::object from) {
    Device device{};
    device.server = server;
    device.id = static_cast<uint32_t>(uint64_t{from["id"]});
    device.name = from["name"];
    device.vid = static_cast<uint16_t>(uint64_t{from["vid"]});
    device.pid = static_cast<uint16_t>(uint64_t{from["pid"]});
    device.rev = static_cast<uint16_t>(uint64_t{from["rev"]});
    device.port = from["port"];
    device.serial = from["serial"];
    device.state = from["state"];
    return device;
}

void readServer(ondemand::object from, Reply& into) {
    Server server{};
    server.id = static_cast<uint32_t>(uint64_t{from["id"]});
    server.host = from["host"];
    server.port = static_cast<uint16_t>(uint64_t{from["port"]});
    server.state = from["state"];
    server.firstDevice = into.devices.size();
    for (ondemand::object device : from["devices"])
        into.devices.push_back(readDevice(server.id, device));
    server.endOfDevices = into.devices.size();
    into.servers.push_back(server);
}

Reply readReply(ondemand::document& from) {
    Reply reply;
    if (std::string_view(from["status"]) != "ok") failCheck("the reply is no list");
    for (ondemand::object server : from["servers"])
        readServer(server, reply);
    return reply;
}

// There is room for whatever is put into it.
class Text {
public:
    explicit Text(size_t room)
        : begin(std::make_unique_for_overwrite<char[]>(room)), end(begin.get()) {}

    Text& add(std::string_view bytes) {
        std::memcpy(end, bytes.data(), bytes.size());
        end += bytes.size();
        return *this;
    }

    Text& decimal(uint32_t number) {
        end = std::to_chars(end, end + 10, number).ptr;
        return *this;
    }

    Text& hex(uint16_t number) {
        constexpr const char* kDigits = "0123456789abcdef";
        for (int shift = 12; shift >= 0; shift -= 4)
            *end++ = kDigits[number >> shift & 0xf];
        return *this;
    }

    void writeOut() const {
        for (const char* from = begin.get(); from < end;) {
            const ssize_t count = write(STDOUT_FILENO, from, static_cast<size_t>(end - from));
            if (count <= 0) fail("write");
            from += count;
        }
    }

private:
    std::unique_ptr<char[]> begin;
    char* end;
};

void printDevices(std::vector<Device>& devices, Text& text) {
    std::sort(devices.begin(), devices.end(), [](const Device& a, const Device& b) {
        return a.server != b.server ? a.server < b.server : a.id < b.id;
    });
    for (const Device& device : devices) {
        text.decimal(device.server).add(":").decimal(device.id).add(" - ");
        text.hex(device.vid).add(":").hex(device.pid).add(":").hex(device.rev).add(" - ");
        text.add(device.name).add(", ").add(device.port);
        text.add(device.serial.empty() ? "" : ", ").add(device.serial);
        text.add(", ").add(device.state).add("\n");
    }
}

void printServers(Reply& reply, Text& text) {
    std::sort(reply.servers.begin(), reply.servers.end(),
              [](const Server& a, const Server& b) { return a.id < b.id; });
    for (const Server& server : reply.servers) {
        text.decimal(server.id).add(" - ").add(server.host).add(":").decimal(server.port);
        text.add(" - ").add(server.state).add("\n");
        const auto begin = reply.devices.begin() + static_cast<std::ptrdiff_t>(server.firstDevice);
        const auto end = reply.devices.begin() + static_cast<std::ptrdiff_t>(server.endOfDevices);
        std::sort(begin, end, [](const Device& a, const Device& b) { return a.id < b.id; });
        for (auto device = begin; device != end; ++device) {
            text.add(" ").decimal(device->id).add("\t");
            text.hex(device->vid).add(":").hex(device->pid).add(":").hex(device->rev).add("\t");
            text.add(device->port).add("\t").add(device->name).add(" /").add(device->state);
            text.add(device->serial.empty() ? "" : ", ").add(device->serial).add("/\n");
        }
    }
}

void printReport(std::string_view report, const char* path) {
    const int sock = connectTo(path);
    char header[kFrameHeaderSize] = {};
    if (write(sock, header, sizeof header) != sizeof header) fail("write");
    receive(sock, header, sizeof header);
    const size_t size = readFrameHeader(header).length;
    const size_t room = size + simdjson::SIMDJSON_PADDING;
    const auto payload = std::make_unique_for_overwrite<char[]>(room);
    receive(sock, payload.get(), size);
    ondemand::parser parser;
    ondemand::document document = parser.iterate(payload.get(), size, room);
    Reply reply = readReply(document);
    Text text(room);  // a line is shorter than the record that it shows
    if (report == "srv")
        printServers(reply, text);
    else
        printDevices(reply.devices, text);
    text.writeOut();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    try {
        printReport(argv[1], argv[2]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "floor: %s\n", error.what());
        return 1;
    }
}
