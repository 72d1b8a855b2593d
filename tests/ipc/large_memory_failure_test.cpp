// A reply of megabytes arrives, is kept and is parsed while each call for large memory fails once.

#include <sys/mman.h>
#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <boost/json/object.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <exception>

#include "kqueue/byte_queue.h"
#include "tests/ipc/client_fixture.h"

namespace {

// The nth call from now fails, once.
struct FailingMapping {
    std::atomic<uint64_t> failing{0};
    std::atomic<uint64_t> made{0};

    void fail(uint64_t nth) {
        made = 0;
        failing = nth;
    }
    bool fails() {
        if (failing == 0 || ++made != failing) return false;
        failing = 0;
        errno = ENOMEM;
        return true;
    }
};

FailingMapping mappings;  // mmap
FailingMapping growths;   // mremap
FailingMapping advices;   // madvise

}  // namespace

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl50-cpp,cert-dcl51-cpp)
extern "C" {

void* __real_mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset);
void* __real_mremap(void* memory, size_t size, size_t newSize, int flags, ...);
int __real_madvise(void* memory, size_t size, int advice);
void* __wrap_mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset);
void* __wrap_mremap(void* memory, size_t size, size_t newSize, int flags, ...);
int __wrap_madvise(void* memory, size_t size, int advice);

void* __wrap_mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
    if (mappings.fails()) return MAP_FAILED;
    return __real_mmap(address, size, protection, flags, fd, offset);
}

void* __wrap_mremap(void* memory, size_t size, size_t newSize, int flags, ...) {
    return growths.fails() ? MAP_FAILED : __real_mremap(memory, size, newSize, flags);
}

int __wrap_madvise(void* memory, size_t size, int advice) {
    return advices.fails() ? -1 : __real_madvise(memory, size, advice);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl50-cpp,cert-dcl51-cpp)

namespace {

constexpr size_t kPiece = 300'000;

// What comes of a reply.
enum class End {
    Delivered,
    NotKept,    // its source would say that it has terminated
    NotParsed,  // said so
};

class LargeReply : public ClientTest {
protected:
    LargeReply() {
        std::string payload = "{\"texts\":[";
        while (payload.size() < 6 << 20)
            payload += "\"" + std::string(1'000, 'x') + "\",1,";
        bytes = frame(0, payload + "2]}");
        EXPECT_TRUE(client->setOnData([this](int32_t, const boost::json::object& reply) {
            isDelivered = true;
            isWhole = reply.at("texts").as_array().back() == 2;
        }));
    }

    // As a stream socket hands it on, read by read.
    End arrive() {
        hxkqueue::ByteQueue rx;
        isDelivered = false;
        for (size_t at = 0; at < bytes.size(); at += kPiece) {
            const size_t size = std::min(kPiece, bytes.size() - at);
            const size_t before = rx.size();
            try {
                rx.append(bytes.data() + at, size);
            } catch (const std::exception&) {
                EXPECT_EQ(std::string_view(rx.data(), rx.size()),
                          std::string_view(bytes).substr(0, before));
                return End::NotKept;
            }
            uint64_t used = 77;
            if (!client->parseProtocolBuffer(rx.data(), rx.size(), &used)) {
                EXPECT_EQ(err.take(), "cannot parse protocol");
                EXPECT_EQ(used, 77U);
                EXPECT_FALSE(isDelivered);
                return End::NotParsed;
            }
            rx.removeFront(used);
        }
        EXPECT_TRUE(isDelivered && isWhole);
        EXPECT_TRUE(rx.empty());
        return End::Delivered;
    }

    // What has come of it with each of these calls failing in turn.
    std::vector<End> sweep(FailingMapping& call) {
        std::vector<End> ends;
        for (uint64_t nth = 1;; ++nth) {
            call.fail(nth);
            const End end = arrive();
            if (call.failing != 0) {
                call.fail(0);
                EXPECT_EQ(end, End::Delivered);
                std::printf("%zu failures injected\n", ends.size());
                return ends;
            }
            ends.push_back(end);
        }
    }

    std::string bytes;
    bool isDelivered = false;
    bool isWhole = false;
};

TEST_F(LargeReply, WithoutAMappingIsNotKeptOrNotParsed) {
    const std::vector<End> ends = sweep(mappings);
    EXPECT_EQ(std::count(ends.begin(), ends.end(), End::Delivered), 0);
    EXPECT_GE(std::count(ends.begin(), ends.end(), End::NotKept), 1);
    EXPECT_GE(std::count(ends.begin(), ends.end(), End::NotParsed), 1);
}

TEST_F(LargeReply, ThatCannotGrowIsNotKept) {
    const std::vector<End> ends = sweep(growths);
    EXPECT_GE(ends.size(), 1U);
    EXPECT_EQ(ends, std::vector<End>(ends.size(), End::NotKept));
}

TEST_F(LargeReply, WhosePagesAreNotAtHandIsDelivered) {
    const std::vector<End> ends = sweep(advices);
    EXPECT_GE(ends.size(), 3U);
    EXPECT_EQ(ends, std::vector<End>(ends.size(), End::Delivered));
}

}  // namespace
