#include "fuzz/support/plain_reading.h"

#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

namespace json = boost::json;

namespace {

uint32_t littleEndian(std::string_view bytes) {
    uint32_t number = 0;
    for (size_t i = 4; i-- > 0;)
        number = number << 8 | static_cast<unsigned char>(bytes[i]);
    return number;
}

// False, with the words of the error, for what is no reply.
bool readPayload(std::string_view payload, json::value& reply, std::string& words) {
    json::parse_options options;
    options.max_depth = 512;
    json::error_code error;
    reply = json::parse({payload.data(), payload.size()}, error, {}, options);
    if (error || !reply.is_structured())
        words = "cannot parse protocol";
    else if (!reply.is_object())
        words = "cannot parse JSON, got wrong top-level object";
    return words.empty();
}

}  // namespace

PlainReading readPlainly(std::string_view stream) {
    PlainReading reading;
    while (stream.size() - reading.size >= 8) {
        const std::string_view rest = stream.substr(reading.size);
        const uint32_t length = littleEndian(rest.substr(4));
        if (length == 0 || length > 100U << 20) {
            reading.words = "invalid protocol\n";
            break;
        }
        json::value reply;
        if (rest.size() - 8 < length) break;
        if (!readPayload(rest.substr(8, length), reply, reading.words)) break;
        reading.replies.emplace_back(static_cast<int32_t>(littleEndian(rest)), std::move(reply));
        reading.size += 8 + uint64_t{length};
    }
    return reading;
}

std::string print(const PlainReading& reading) {
    std::string text;
    for (const auto& [code, reply] : reading.replies)
        text += std::to_string(code) + ' ' + json::serialize(reply) + '\n';
    return text + std::to_string(reading.size) + " bytes, told: " + reading.words;
}
