// What becomes of a list reply, once, for scripts/guard to count instructions and allocations.
//
//     guard_replies decode|srv|dev     does it, and prints how many devices the reply has
//     guard_replies allocations        prints how many a small frame takes, and a list reply's
//     guard_replies made-with          prints what an instruction count depends on besides the code
//
// What counts happens in measured_part, after it has been done once: what happens at first use only
// is left out. A report's lines are counted that first time, and go nowhere when it is measured.

#include <gnu/libc-version.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <boost/json/array.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <boost/version.hpp>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "bench/support/client_without_daemon.h"
#include "bench/support/list_reply.h"
#include "bench/support/printed_lines.h"
#include "bench/support/program.h"
#include "cli/device_list.h"
#include "cli/tree_list.h"
#include "ipc/frame.h"
#include "ipc/json.h"

namespace {

constexpr size_t kPayloadSize = 256 << 10;
constexpr size_t kSmallFrames = 100;

size_t allocations = 0;  // one thread

}  // namespace

void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

// callgrind knows it by this name.
extern "C" [[gnu::noinline]] void measured_part(const std::function<void()>& work) {
    work();
}

namespace {

// The client's data callback counts, and looks at nothing.
class Decoder {
public:
    Decoder() {
        if (!client->setOnData([this](int32_t /*code*/, const auto& /*reply*/) { ++delivered; }))
            failCheck("no callback");
    }

    void decode(std::string_view frames, size_t count) {
        delivered = 0;
        uint64_t drop = 0;
        if (!client->parseProtocolBuffer(frames.data(), frames.size(), &drop) ||
            drop != frames.size() || delivered != count)
            failCheck("not every frame was delivered");
    }

private:
    std::shared_ptr<HXTarnIPCClient> client = makeClientWithoutDaemon();
    size_t delivered = 0;
};

void decode(const ListReply& reply) {
    Decoder decoder;
    const auto work = [&] { decoder.decode(reply.frame, 1); };
    work();
    measured_part(work);
}

// What is printed from here on goes to the file.
void printTo(std::FILE* file) {
    if (!file || std::fflush(stdout) != 0 || dup2(fileno(file), STDOUT_FILENO) == -1)
        fail("standard output");
}

template <typename Report>
void print(const ListReply& reply, size_t lines, Report report) {
    boost::json::monotonic_resource arena;
    const auto value = readJson(std::string_view(reply.frame).substr(kFrameHeaderSize), &arena);
    const boost::json::array* servers =
        value && value->is_object() ? arrayMember(value->get_object(), "servers") : nullptr;
    if (!servers || servers->size() != reply.servers) failCheck("the reply cannot be read");
    std::FILE* const printed = std::tmpfile();
    printTo(printed);
    report(*servers);
    printTo(std::fopen("/dev/null", "w"));
    if (countLines(printed) != lines) failCheck("not every line is printed");
    measured_part([&] { report(*servers); });
}

size_t allocationsOf(Decoder& decoder, std::string_view frames, size_t count) {
    decoder.decode(frames, count);
    const size_t before = allocations;
    decoder.decode(frames, count);
    return allocations - before;
}

std::string smallFrames() {
    const std::vector<char> one = makeFrame(kDeviceAction, R"({"status":"ok"})");
    std::string frames;
    for (size_t i = 0; i < kSmallFrames; ++i)
        frames.append(one.begin(), one.end());
    return frames;
}

void countAllocations(const ListReply& reply) {
    Decoder decoder;
    const size_t small = allocationsOf(decoder, smallFrames(), kSmallFrames);
    std::printf("%.2f %zu\n", static_cast<double>(small) / kSmallFrames,
                allocationsOf(decoder, reply.frame, 1));
}

void printMadeWith() {
    utsname system{};
    uname(&system);
#ifdef __clang__
    constexpr const char* kCompiler = "clang";
#else
    constexpr const char* kCompiler = "g++";
#endif
    std::printf("%s %s, Boost %s, glibc %s, %s\n", kCompiler, __VERSION__, BOOST_LIB_VERSION,
                gnu_get_libc_version(), system.machine);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view what = argc == 2 ? argv[1] : "";
    const ListReply reply = makeListReply(kPayloadSize);
    if (what == "allocations") {
        countAllocations(reply);
    } else if (what == "made-with") {
        printMadeWith();
    } else {
        std::printf("%zu\n", reply.devices);
        std::fflush(stdout);
        if (what == "decode")
            decode(reply);
        else if (what == "srv")
            print(reply, reply.devices + reply.servers,
                  [](const auto& servers) { output_tree_list(servers, false); });
        else if (what == "dev")
            print(reply, reply.devices,
                  [](const auto& servers) { output_device_list(servers, false, true, false); });
        else
            return 2;
    }
    return 0;
}
