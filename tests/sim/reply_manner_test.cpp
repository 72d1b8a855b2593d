#include "sim/reply_manner.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/support/unix_stream.h"

namespace {

const std::string kPayload = R"({"status":"ok"})";

std::string shapedBy(std::string_view word) {
    const ReplyManner* manner = findMisbehaviour(word);
    if (manner == nullptr) return "(no such word)";
    const std::vector<char> bytes = manner->shape(3, kPayload);
    return {bytes.begin(), bytes.end()};
}

TEST(ReplyManner, ProperOneSendsTheFrameAtOnce) {
    const ReplyManner manner = properManner();
    const std::vector<char> bytes = manner.shape(3, kPayload);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), frame(3, kPayload));
    EXPECT_EQ(manner.pace, Pace::AtOnce);
    EXPECT_FALSE(manner.closes);
}

TEST(ReplyManner, EachWordStandsForItsBytes) {
    const std::string whole = frame(3, kPayload);
    EXPECT_EQ(shapedBy("delay"), whole);
    EXPECT_EQ(shapedBy("bytes"), whole);
    EXPECT_EQ(shapedBy("silence"), "");
    EXPECT_EQ(shapedBy("close-before"), "");
    EXPECT_EQ(shapedBy("close-during"), whole.substr(0, 11));
    EXPECT_EQ(shapedBy("close-after"), whole);
    EXPECT_EQ(shapedBy("garbage"), "This is not a frame.\n");
    EXPECT_EQ(shapedBy("not-json"), frame(3, "This is not JSON."));
    EXPECT_EQ(shapedBy("array"), frame(3, R"([{"status":"ok"}])"));
    EXPECT_EQ(shapedBy("length-long"), frameHeader(3, 16) + kPayload);
    EXPECT_EQ(shapedBy("length-short"), frameHeader(3, 14) + kPayload);
    EXPECT_EQ(shapedBy("length-zero"), frameHeader(3, 0) + kPayload);
    EXPECT_EQ(shapedBy("length-limit"), frameHeader(3, 104'857'601) + kPayload);
    EXPECT_EQ(shapedBy("length-negative"), frameHeader(3, 0xffffffff) + kPayload);
}

TEST(ReplyManner, OnlyTheClosingOnesClose) {
    for (const ReplyManner& each : misbehaviours())
        EXPECT_EQ(each.closes, each.word.starts_with("close-")) << each.word;
}

TEST(ReplyManner, OnlyDelayAndBytesTakeTheirTime) {
    for (const ReplyManner& each : misbehaviours()) {
        EXPECT_EQ(each.pace == Pace::WholeReplies, each.word == "delay") << each.word;
        EXPECT_EQ(each.pace == Pace::SingleBytes, each.word == "bytes") << each.word;
        EXPECT_EQ(each.delayMs != 0, each.pace != Pace::AtOnce) << each.word;
    }
}

TEST(ReplyManner, WordsAreUnique) {
    std::set<std::string_view> words;
    for (const ReplyManner& each : misbehaviours())
        EXPECT_TRUE(words.insert(each.word).second) << each.word;
    EXPECT_EQ(words.size(), 14U);
}

TEST(ReplyManner, UnknownWordIsNone) {
    EXPECT_EQ(findMisbehaviour(""), nullptr);
    EXPECT_EQ(findMisbehaviour("Delay"), nullptr);
    EXPECT_EQ(findMisbehaviour("close"), nullptr);
}

}  // namespace
