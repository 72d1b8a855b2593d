// The simulated daemon's end of a connection: however requests are cut, they are answered one by
// one, each in words that are known, as far as the first that is no request, and the inventory
// stays sound.

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/inventory_rules.h"
#include "fuzz/support/loop_without_kernel.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/plain_reading.h"
#include "fuzz/support/reply_stream.h"
#include "ipc/frame.h"
#include "ipc/json.h"
#include "sim/built_in_inventory.h"
#include "sim/client_connection.h"
#include "sim/server_life.h"

namespace {

// What is to come of a stream of requests.
struct Answers {
    std::string bytes;
    bool ends = false;
};

void requireKnownWords(const std::string& reply) {
    const auto value = readJson(reply, {});
    require(value && value->is_object(), "a reply is a JSON object");
    const boost::json::string* status = stringMember(value->get_object(), "status");
    require(status != nullptr && (*status == "ok" || *status == "already" ||
                                  *status == "notfound" || *status == "error"),
            "a reply has a status that is known");
}

// Each request by itself, of a stream that is there as a whole.
Answers answerPlainly(std::string_view stream, ServerLife& servers) {
    Answers answers;
    while (stream.size() >= kFrameHeaderSize) {
        const FrameHeader header = readFrameHeader(stream.data());
        answers.ends = header.length > kMaxPayloadLength;
        if (answers.ends || stream.size() - kFrameHeaderSize < header.length) break;
        const auto reply =
            servers.answer(header.command, stream.substr(kFrameHeaderSize, header.length));
        answers.ends = !reply;
        if (answers.ends) break;
        requireKnownWords(*reply);
        const std::vector<char> frame = makeFrame(header.command, *reply);
        answers.bytes.append(frame.begin(), frame.end());
        stream.remove_prefix(kFrameHeaderSize + header.length);
    }
    return answers;
}

// The inventory that a daemon begins with, where no step takes time.
struct Servers {
    std::shared_ptr<Inventory> inventory = std::make_shared<Inventory>(builtInInventory());
    std::shared_ptr<ServerLife> life = std::make_shared<ServerLife>(inventory, 0);
};

// The same at the connection's end.
Answers answerPieces(const std::vector<std::string_view>& pieces, const Servers& servers) {
    const std::shared_ptr<HXKQueue> loop = loopWithoutKernel();
    loopLog() = {};
    require(ClientConnection::serve(loop, servers.life, properManner(), -1), "a client is served");
    const auto tell = [](const char* bytes, uint64_t size, uint64_t* drop, int32_t code) {
        loopLog().block(loopLog().source, bytes, size, drop, code);
    };
    ReceiveBuffer buffer;
    for (const std::string_view piece : pieces)
        if (!loopLog().stopped)
            buffer.receive(piece, [&](auto... bytes) { tell(bytes..., HXKQueueEventData); });
    Answers answers = {.bytes = loopLog().written, .ends = loopLog().stopped};
    uint64_t drop = 0;
    tell(nullptr, 0, &drop, HXKQueueEventTerminated);
    require(loopLog().stopped, "a connection whose client is gone is stopped");
    loopLog() = {};
    return answers;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const Cuts cuts = takeCuts(input);
    const std::string stream = makeStream(input);
    const Servers plain;
    const Servers served;
    const Answers expected = answerPlainly(stream, *plain.life);
    const Answers actual = answerPieces(cut(stream, cuts), served);
    requireEqual(actual.bytes, expected.bytes, "the replies");
    require(actual.ends == expected.ends, "what is no request ends the connection");
    requireSound(*served.inventory);
    requireEqual(listOf(*served.inventory), listOf(*plain.inventory), "what is listed");
    return 0;
}
