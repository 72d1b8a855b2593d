#include "bench/support/list_reply.h"

#include <cstdint>
#include <cstdio>
#include <vector>

#include "bench/support/program.h"
#include "ipc/frame.h"

namespace {

constexpr size_t kDevicesOfAServer = 50;
constexpr size_t kLongestRecord = 256;
constexpr uint32_t kPrime =
    65'521;  // multiples of a smaller number, taken modulo it, are all different

constexpr const char* kNames[] = {
    "Optical Mouse",
    "Flash Drive",
    "Drucker im B\303\274ro",
    "Serial Adapter",
    "Keyboard",
    "Webcam HD C920",
    "\351\241\257\345\276\256\351\217\241 5",
    "USB 3.0 Ethernet Adapter",
};
constexpr const char* kStates[] = {"plugged", "unplugged"};

// Numbers that look random, and always the same ones.
class Random {
public:
    uint32_t operator()() {
        state = state * 1'664'525 + 1'013'904'223;
        return state >> 8;
    }

private:
    uint32_t state = 1;
};

template <size_t size>
const char* any(const char* const (&words)[size], Random& random) {
    return words[random() % size];
}

std::string deviceRecord(uint32_t id, Random& random) {
    char serial[16] = "";
    if (random() % 2 == 0)
        std::snprintf(serial, sizeof serial, "%08X", static_cast<unsigned>(random()));
    char record[kLongestRecord];
    std::snprintf(record, sizeof record,
                  R"({"id":%u,"name":"%s %u","vid":%u,"pid":%u,"rev":%u,"port":"%u-%u",)"
                  R"("serial":"%s","state":"%s","addr":null})",
                  static_cast<unsigned>(id), any(kNames, random),
                  static_cast<unsigned>(random() % 1000), static_cast<unsigned>(random() % 65536),
                  static_cast<unsigned>(random() % 65536), static_cast<unsigned>(random() % 65536),
                  static_cast<unsigned>(1 + random() % 9), static_cast<unsigned>(1 + random() % 9),
                  serial, any(kStates, random));
    return record;
}

std::string serverHead(uint32_t id) {
    char record[kLongestRecord];
    std::snprintf(record, sizeof record,
                  R"({"id":%u,"host":"host-%u.example","port":33000,"state":"connected",)"
                  R"("devices":[)",
                  static_cast<unsigned>(id), static_cast<unsigned>(id));
    return record;
}

// The n-th of a row without order in which nothing comes twice.
uint32_t scattered(size_t n) {
    return static_cast<uint32_t>((n + 1) * 40'503 % kPrime + (n + 1) / kPrime * kPrime);
}

}  // namespace

ListReply makeListReply(size_t payloadSize) {
    constexpr const char* kPadding = R"(],"padding":")";
    constexpr size_t kTail = 32;
    Random random;
    ListReply reply;
    std::string payload = R"({"status":"ok","servers":[)";
    const auto isRoom = [&] { return payload.size() + 2 * kLongestRecord + kTail < payloadSize; };
    while (isRoom()) {
        if (reply.servers > 0) payload += ',';
        payload += serverHead(scattered(reply.servers++));
        for (size_t i = 0; i < kDevicesOfAServer && isRoom(); ++i, ++reply.devices) {
            if (i > 0) payload += ',';
            payload += deviceRecord(scattered(i), random);
        }
        payload += "]}";
    }
    payload += kPadding;
    payload.append(payloadSize - payload.size() - 2, 'x') += "\"}";
    const std::vector<char> frame = makeFrame(kListServers, payload);
    reply.frame.assign(frame.begin(), frame.end());
    return reply;
}
