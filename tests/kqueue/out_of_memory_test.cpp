// Every allocation of a whole conversation fails once, on whatever thread it is made.

#include <cstdio>
#include <set>

#include "tests/kqueue/conversation.h"
#include "tests/kqueue/failing_calls.h"
#include "tests/kqueue/loop_fixture.h"
#include "tests/support/failing_allocations.h"

namespace {

using End = Conversation::End;
using Extent = FailingAllocations::Extent;

class FailedAllocation : public testing::TestWithParam<Extent> {
protected:
    FailedAllocation() { failingCalls.sleepsAreShort = true; }
    ~FailedAllocation() override { failingCalls.sleepsAreShort = false; }
};

// A part that does not end is one of which the log says why: hold waits for no other reason.
TEST_P(FailedAllocation, IsToldToItsOwnerOrToTheLogAndLosesNoDescriptor) {
    const Conversation::Place place;
    std::set<End> seen;
    uint64_t nth = 1;
    for (bool happened = true; happened; ++nth) {
        SCOPED_TRACE(nth);
        LogRecorder log(LogLevel::Error);
        const size_t before = openDescriptors();
        {
            Conversation conversation;
            FailingAllocations failing(nth, GetParam(), FailingAllocations::Threads::All);
            const bool isOver = conversation.hold(place, log);
            failing.end();
            happened = failing.happened();
            ASSERT_TRUE(isOver) << "hangs";
            EXPECT_TRUE(conversation.isFaithful());
            EXPECT_TRUE(conversation.isAllDone() || happened);
            // The first ones are the loop and its handle of the log.
            EXPECT_TRUE(conversation.isAllDone() || !log.errors().empty() || nth <= 3);
            for (const auto part : {Conversation::UnixClient, Conversation::TcpClient,
                                    Conversation::Pipe, Conversation::Timer})
                seen.insert(conversation.end(part));
        }
        EXPECT_EQ(openDescriptors(), before);
    }
    EXPECT_EQ(seen, (std::set<End>{End::None, End::Done, End::Terminated, End::NoSource}));
    EXPECT_GT(nth, 50U);
    std::printf("%d allocations failed\n", static_cast<int>(nth) - 2);
}

INSTANTIATE_TEST_SUITE_P(, FailedAllocation,
                         testing::Values(Extent::OnlyThatOne, Extent::FromThereOn),
                         [](const auto& extent) {
                             return extent.param == Extent::OnlyThatOne ? "OneFailure"
                                                                        : "AllFromThereOn";
                         });

}  // namespace
