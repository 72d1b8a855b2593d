#include "sim/options.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

std::optional<Options> parse(const std::vector<const char*>& arguments) {
    std::string error;
    return parseOptions(arguments, error);
}

std::string errorOf(const std::vector<const char*>& arguments) {
    std::string error;
    EXPECT_FALSE(parseOptions(arguments, error));
    return error;
}

TEST(SimOptions, DefaultsAreTheDaemonsPathAndTheBuiltInInventory) {
    const auto options = parse({});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->socketPath, "/var/run/hxusbvctl.sock");
    EXPECT_FALSE(options->inventoryFile);
    EXPECT_FALSE(options->help);
}

TEST(SimOptions, DefaultBehaviourIsShortLatencyNoEventsAndProperReplies) {
    const auto options = parse({});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->behaviour.latencyMs, 300U);
    EXPECT_FALSE(options->behaviour.eventsMs);
    EXPECT_EQ(options->behaviour.seed, 1U);
    EXPECT_EQ(options->behaviour.manner.word, "");
}

TEST(SimOptions, LatencyIsReadUpToAnHour) {
    for (const uint32_t ms : {0U, 1U, 3'600'000U}) {
        const auto options = parse({"--latency", std::to_string(ms).c_str()});
        ASSERT_TRUE(options);
        EXPECT_EQ(options->behaviour.latencyMs, ms);
    }
}

TEST(SimOptions, EventsHaveADefaultAndTakeAValueBehindAnEqualsSignOnly) {
    const auto bare = parse({"--events", "--latency", "5"});
    const auto valued = parse({"--events=20"});
    ASSERT_TRUE(bare && valued);
    EXPECT_EQ(bare->behaviour.eventsMs, 2000U);
    EXPECT_EQ(bare->behaviour.latencyMs, 5U);
    EXPECT_EQ(valued->behaviour.eventsMs, 20U);
    EXPECT_EQ(errorOf({"--events", "20"}), "unknown argument: 20");
}

TEST(SimOptions, SeedGoesWithEventsBeforeOrAfterIt) {
    const auto before = parse({"--seed", "0", "--events"});
    const auto after = parse({"--events", "--seed=4294967295"});
    ASSERT_TRUE(before && after);
    EXPECT_EQ(before->behaviour.seed, 0U);
    EXPECT_EQ(after->behaviour.seed, 4294967295U);
    EXPECT_EQ(errorOf({"--seed", "2"}), "--seed is of no use without --events");
}

TEST(SimOptions, EveryMisbehaviourIsRead) {
    for (const ReplyManner& each : misbehaviours()) {
        const auto options = parse({"--misbehave", std::string(each.word).c_str()});
        ASSERT_TRUE(options) << each.word;
        EXPECT_EQ(options->behaviour.manner.word, each.word);
        EXPECT_EQ(options->behaviour.manner.delayMs, each.delayMs);
    }
}

TEST(SimOptions, DelayGoesWithTheMisbehavioursThatTakeTheirTime) {
    for (const char* word : {"delay", "bytes"}) {
        const auto before = parse({"--delay", "70", "--misbehave", word});
        const auto after = parse({"--misbehave", word, "--delay=0"});
        ASSERT_TRUE(before && after);
        EXPECT_EQ(before->behaviour.manner.delayMs, 70U);
        EXPECT_EQ(after->behaviour.manner.delayMs, 0U);
    }
    for (const auto& arguments : {std::vector<const char*>{"--delay", "70"},
                                  std::vector<const char*>{"--delay=70", "--misbehave", "array"}})
        EXPECT_EQ(errorOf(arguments), "--delay is of no use without --misbehave delay or bytes");
}

TEST(SimOptions, NumbersAreReadStrictly) {
    for (const std::string value :
         {"", " 1", "1 ", "-1", "+1", "0x10", "1.5", "1ms", "3600001", "99999999999999999999"}) {
        const std::string tail = " to 3600000, not \"" + value + '"';
        EXPECT_EQ(errorOf({"--latency", value.c_str()}),
                  "--latency must be a number from 0" + tail);
        EXPECT_EQ(errorOf({"--delay", value.c_str()}), "--delay must be a number from 0" + tail);
        EXPECT_EQ(errorOf({("--events=" + value).c_str()}),
                  "--events must be a number from 1" + tail);
    }
    EXPECT_EQ(errorOf({"--events=0"}), "--events must be a number from 1 to 3600000, not \"0\"");
    EXPECT_EQ(errorOf({"--seed=4294967296"}),
              "--seed must be a number from 0 to 4294967295, not \"4294967296\"");
}

TEST(SimOptions, UnknownMisbehaviourIsToldWithAllThatAreKnown) {
    const std::string error = errorOf({"--misbehave", "rudely"});
    EXPECT_TRUE(error.starts_with("--misbehave must be one of delay, bytes, silence, "));
    EXPECT_TRUE(error.ends_with("length-limit, length-negative, not \"rudely\""));
}

TEST(SimOptions, FirstOfSeveralErrorsIsTold) {
    EXPECT_EQ(errorOf({"--latency", "x", "--sockets"}),
              "--latency must be a number from 0 to 3600000, not \"x\"");
}

TEST(SimOptions, HelpNamesEveryMisbehaviour) {
    for (const ReplyManner& each : misbehaviours())
        EXPECT_NE(usage().find("\n      " + std::string(each.word) + ' '), std::string::npos)
            << each.word;
}

TEST(SimOptions, ValueStandsInTheNextArgumentOrBehindAnEqualsSign) {
    const auto apart = parse({"--socket", "a", "--inventory", "b"});
    const auto joined = parse({"--inventory=b", "--socket=a"});
    ASSERT_TRUE(apart && joined);
    EXPECT_EQ(apart->socketPath, "a");
    EXPECT_EQ(apart->inventoryFile, "b");
    EXPECT_EQ(joined->socketPath, "a");
    EXPECT_EQ(joined->inventoryFile, "b");
}

TEST(SimOptions, ValueMayLookLikeAnOption) {
    const auto options = parse({"--socket", "--help", "--inventory=x=y"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->socketPath, "--help");
    EXPECT_EQ(options->inventoryFile, "x=y");
    EXPECT_FALSE(options->help);
}

TEST(SimOptions, LastOneCounts) {
    const auto options = parse({"--socket", "a", "--socket=b"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->socketPath, "b");
}

TEST(SimOptions, HelpIsRecognised) {
    const auto options = parse({"--help"});
    ASSERT_TRUE(options);
    EXPECT_TRUE(options->help);
}

TEST(SimOptions, WrongOnesAreNamed) {
    EXPECT_EQ(errorOf({"--sockets", "a"}), "unknown argument: --sockets");
    EXPECT_EQ(errorOf({"path"}), "unknown argument: path");
    EXPECT_EQ(errorOf({""}), "unknown argument: ");
    EXPECT_EQ(errorOf({"--help=yes"}), "unknown argument: --help=yes");
    EXPECT_EQ(errorOf({"--socket"}), "--socket needs a value");
    EXPECT_EQ(errorOf({"--socket=a", "--inventory"}), "--inventory needs a value");
    EXPECT_EQ(errorOf({"--latency"}), "--latency needs a value");
    EXPECT_EQ(errorOf({"--misbehave"}), "--misbehave needs a value");
}

}  // namespace
