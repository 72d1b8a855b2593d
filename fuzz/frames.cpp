// The client's decoder: however the bytes are cut, what it delivers, refuses and drops is what a
// plain reading of the whole gives.

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/support/captured_output.h"
#include "fuzz/support/loop_without_kernel.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/plain_reading.h"
#include "fuzz/support/reply_stream.h"
#include "ipc/HXTarnIPCClient.h"

namespace {

namespace json = boost::json;

class Decoder {
public:
    Decoder() {
        const bool installed = client->setOnData([this](int32_t code, const json::object& reply) {
            reading.replies.emplace_back(code, json::value(reply, json::storage_ptr()));
        }) && client->setOnError([this] { failed = true; });
        require(installed, "the client takes its callbacks");
    }

    // Shows the client the pieces, one after the other, as a socket does.
    PlainReading decode(const std::vector<std::string_view>& pieces) {
        reading = {};
        failed = false;
        ReceiveBuffer buffer;
        for (const std::string_view piece : pieces) {
            const uint64_t dropped = buffer.receive(piece, [this](auto... bytes) {
                client->handleEvent(nullptr, bytes..., HXKQueueEventData);
            });
            reading.words = err.take();
            if (failed) break;
            require(reading.words.empty(), "what is no error is told");
            reading.size += dropped;
        }
        end(buffer);
        return std::move(reading);
    }

private:
    // The next stream begins on another connection.
    void end(const ReceiveBuffer& buffer) {
        uint64_t drop = buffer.kept().size();
        client->handleEvent(nullptr, buffer.kept().data(), buffer.kept().size(), &drop,
                            HXKQueueEventTerminated);
        requireEqual(err.take(), "connection terminated\n", "words of the end");
    }

    CapturedOutput err{stderr};
    std::shared_ptr<HXTarnIPCClient> client = HXTarnIPCClient::initWithKQueue(loopWithoutKernel());
    PlainReading reading;
    bool failed = false;
};

// The one thing that the pieces may change is the last bit of a number with a fraction or an
// exponent.
bool areClose(double a, double b) {
    return a == b || std::nextafter(a, b) == b;
}

bool areClose(const json::value& a, const json::value& b) {
    if (a.kind() != b.kind()) return false;
    if (a.is_double()) return areClose(a.get_double(), b.get_double());
    if (a.is_array()) {
        const auto close = [](const json::value& x, const json::value& y) {
            return areClose(x, y);
        };
        return std::equal(a.get_array().begin(), a.get_array().end(), b.get_array().begin(),
                          b.get_array().end(), close);
    }
    if (!a.is_object()) return a == b;
    return std::equal(a.get_object().begin(), a.get_object().end(), b.get_object().begin(),
                      b.get_object().end(), [](const auto& x, const auto& y) {
                          return x.key() == y.key() && areClose(x.value(), y.value());
                      });
}

void requireSame(const PlainReading& actual, const PlainReading& expected, std::string_view how) {
    // Of a piece that ends in an error nothing is dropped by the decoder, and all by the socket.
    const bool same =
        actual.words == expected.words &&
        (!expected.words.empty() || actual.size == expected.size) &&
        std::equal(actual.replies.begin(), actual.replies.end(), expected.replies.begin(),
                   expected.replies.end(), [](const auto& a, const auto& b) {
                       return a.first == b.first && areClose(a.second, b.second);
                   });
    if (!same)
        refute(std::string(how) + " is decoded like the whole\nactual:   " + print(actual) +
               "\nexpected: " + print(expected));
}

// Where another connection's stream differs from the one that follows it, and where it ends.
struct EarlierStream {
    uint32_t place;
    uint32_t end;
};

std::optional<EarlierStream> takeEarlierStream(FuzzedDataProvider& input) {
    if (!input.ConsumeBool()) return std::nullopt;
    const auto place = input.ConsumeIntegralInRange<uint32_t>(0, 0x1ffff);
    return EarlierStream{.place = place, .end = input.ConsumeIntegralInRange<uint32_t>(0, 0x1ffff)};
}

// What has been read of it is to be forgotten with its connection.
void decodeEarlierStream(Decoder& decoder, std::string stream, const EarlierStream& earlier) {
    if (!stream.empty()) stream[earlier.place % stream.size()] = 'x';
    stream.resize(earlier.end % (stream.size() + 1));
    requireSame(decoder.decode({stream}), readPlainly(stream), "an earlier stream");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Decoder decoder;
    FuzzedDataProvider input(data, size);
    const std::optional<EarlierStream> earlier = takeEarlierStream(input);
    const Cuts cuts = takeCuts(input);
    const std::string stream = makeStream(input);
    const PlainReading expected = readPlainly(stream);
    if (earlier) decodeEarlierStream(decoder, stream, *earlier);
    requireSame(decoder.decode(cut(stream, {})), expected, "one piece");
    requireSame(decoder.decode(cut(stream, cuts)), expected, "a stream in pieces");
    return 0;
}
