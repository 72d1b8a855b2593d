// A daemon that is out to harm.

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "tests/e2e/control_path.h"
#include "tests/e2e/ends.h"
#include "tests/e2e/scripted_peer.h"
#include "tests/e2e/utility.h"
#include "tests/kqueue/stress_scale.h"
#include "tests/support/descriptors.h"

namespace {

constexpr int kPatienceMs = 60'000;
constexpr uint32_t kLongestPayload = 104'857'600;

// What the utility takes to run at all.
constexpr size_t kSmallPeak = size_t{16} << 20;

const Words kAdd{"srv", "add", "box"};
const Words kList{"srv", "list"};
const std::string kAddReply = frame(1, R"({"status":"ok","id":7})");

std::string repeated(std::string_view text, size_t count) {
    std::string all;
    all.reserve(text.size() * count);
    for (size_t i = 0; i < count; ++i)
        all += text;
    return all;
}

class HostileDaemon : public ControlPathTest {};

TEST_F(HostileDaemon, FramesForOthersArePassedOverInAFewMegabytes) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kAdd);
    const UnixStream connection = peer.accept();
    const std::string thousand = repeated(frame(2, R"({"status":"ok"})"), 1'000);
    for (size_t sent = 0; sent < stress::kFrames; sent += 1'000)
        ASSERT_TRUE(connection.send(thousand));
    EXPECT_TRUE(connection.send(kAddReply));
    EXPECT_EQ(utility.finish(), kAdded);
    expectPeakOfAtMost(kSmallPeak, utility);
}

TEST_F(HostileDaemon, FramesForOthersInSingleBytesArePassedOverToo) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kAdd);
    const UnixStream connection = peer.accept();
    for (const char& byte : repeated(frame(0, "{}"), 100) + kAddReply)
        ASSERT_TRUE(connection.send({&byte, 1}));
    EXPECT_EQ(utility.finish(), kAdded);
}

TEST_F(HostileDaemon, FloodBehindTheReplyEndsWithTheUtility) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kAdd);
    const UnixStream connection = peer.accept();
    EXPECT_TRUE(connection.send(kAddReply));
    const std::string junk(1 << 20, '\xff');
    while (connection.send(junk)) {
    }
    EXPECT_EQ(utility.finish(), kAdded);
    expectPeakOfAtMost(kSmallPeak, utility);
}

// The request is longer than what the system takes of it at a time.
TEST_F(HostileDaemon, FloodWhileTheRequestIsBeingWrittenChangesNothing) {
    const std::string host(120'000, 'h');
    const ScriptedPeer peer;
    RunningProgram utility = startUtility({"srv", "add", host});
    const UnixStream connection = peer.accept();
    EXPECT_TRUE(connection.send(repeated(frame(0, "{}"), 100'000)));
    EXPECT_TRUE(connection.receiveFrame().find(host) != std::string::npos);
    EXPECT_TRUE(connection.send(kAddReply));
    EXPECT_EQ(utility.finish(), kAdded);
    expectPeakOfAtMost(kSmallPeak, utility);
}

// One beyond the limits, and every power of two with its neighbours.
TEST_F(HostileDaemon, HeadersOfEveryWrongLengthAreRefused) {
    std::vector<uint32_t> lengths{0, kLongestPayload + 1, kLongestPayload + 2};
    for (uint32_t power = uint32_t{1} << 27; power != 0; power *= 2)
        for (const uint32_t length : {power - 1, power, power + 1})
            lengths.push_back(length);
    lengths.push_back(0xffff'ffff);
    for (const uint32_t length : lengths)
        EXPECT_EQ(runUtilityAgainst(frameHeader(1, length), kAdd), kInvalidProtocol) << length;
}

TEST_F(HostileDaemon, HalfAFrameAndSilenceIsWaitedOn) {
    for (const size_t half : {size_t{1}, size_t{7}, size_t{8}, size_t{9}, kAddReply.size() - 1}) {
        const std::string_view reply(kAddReply);
        const ScriptedPeer peer;
        RunningProgram silenced = startUtility(kAdd);
        UnixStream silent = peer.accept();
        RunningProgram delayed = startUtility(kAdd);
        const UnixStream slow = peer.accept();
        for (const UnixStream* connection : std::array<const UnixStream*, 2>{&silent, &slow}) {
            EXPECT_EQ(connection->receiveFrame().size(), 35U);
            EXPECT_TRUE(connection->send(reply.substr(0, half)));
            connection->waitUntilTaken();
        }
        EXPECT_TRUE(silenced.isRunning() && delayed.isRunning());
        EXPECT_TRUE(silent.isSilent() && slow.isSilent());
        EXPECT_TRUE(slow.send(reply.substr(half)));
        EXPECT_EQ(delayed.finish(), kAdded) << half;
        silent.close();
        EXPECT_EQ(silenced.finish(), kTerminated) << half;
    }
}

TEST_F(HostileDaemon, ReplyAfterTheEndOfItsSendingIsNone) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kAdd);
    const UnixStream connection = peer.accept();
    EXPECT_EQ(connection.receiveFrame().size(), 35U);
    connection.closeSending();
    EXPECT_FALSE(connection.send(kAddReply));
    EXPECT_EQ(utility.finish(), kTerminated);
}

TEST_F(HostileDaemon, ReplyAfterTheEndOfItsReceivingCounts) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kAdd);
    const UnixStream connection = peer.accept();
    EXPECT_EQ(connection.receiveFrame().size(), 35U);
    connection.closeReceiving();
    EXPECT_TRUE(connection.send(kAddReply));
    EXPECT_EQ(utility.finish(), kAdded);
}

// The pipe ends for its reader when nobody has its other end any more.
TEST_F(HostileDaemon, DescriptorsThatAreSentAlongAreNotKept) {
    const ScriptedPeer peer;
    RunningProgram utility = startUtility(kAdd);
    const UnixStream connection = peer.accept();
    const auto [readEnd, writeEnd] = makePipe();
    for (const char& byte : frame(0, "{}") + kAddReply.substr(0, 20)) {
        ASSERT_TRUE(connection.sendDescriptor({&byte, 1}, writeEnd));
        connection.waitUntilTaken();
    }
    close(writeEnd);
    pollfd end{.fd = readEnd, .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&end, 1, kPatienceMs), 1);
    EXPECT_TRUE(utility.isRunning());
    EXPECT_TRUE(connection.send(kAddReply.substr(20)));
    EXPECT_EQ(utility.finish(), kAdded);
    close(readEnd);
}

TEST_F(HostileDaemon, ByteOutOfBandIsNoPartOfTheReply) {
    for (size_t half = 1; half < kAddReply.size(); half += 5) {
        const ScriptedPeer peer;
        RunningProgram utility = startUtility(kAdd);
        const UnixStream connection = peer.accept();
        EXPECT_TRUE(connection.send(kAddReply.substr(0, half)));
        connection.waitUntilTaken();
        if (!connection.sendUrgently("!"))
            GTEST_SKIP() << "left out: the system's Unix sockets have nothing out of band";
        EXPECT_TRUE(connection.send(kAddReply.substr(half)));
        EXPECT_EQ(utility.finish(), kAdded) << half;
    }
}

// All byte values that UTF-8 has, but the NUL at which a text ends: C0, C1 and F5 to FF are in
// none. What a terminal would take for commands is part of it.
std::string everyByte() {
    std::string text = "\x1b[2J\x1b[H\x1b]0;title\x07\x1bP+q\x1b\\\x9d\r\b\x7f";
    text.replace(text.find('\x9d'), 1, "\u009d");
    for (char byte = 1; byte < 0x7f; ++byte)
        text += byte;
    for (unsigned next = 0x80; next <= 0xbf; ++next)
        text += {'\xc2', static_cast<char>(next)};
    for (unsigned lead = 0xc3; lead <= 0xdf; ++lead)
        text += {static_cast<char>(lead), '\x80'};
    for (unsigned lead = 0xe0; lead <= 0xef; ++lead)
        text += {static_cast<char>(lead), lead == 0xed ? '\x80' : '\xa0', '\x80'};
    for (unsigned lead = 0xf0; lead <= 0xf4; ++lead)
        text += {static_cast<char>(lead), lead == 0xf4 ? '\x80' : '\x90', '\x80', '\x80'};
    return text;
}

std::string asJson(std::string_view text) {
    std::string json = "\"";
    for (const char byte : text) {
        constexpr const char* kDigits = "0123456789abcdef";
        const auto code = static_cast<unsigned char>(byte);
        if (code < 0x20)
            json += {'\\', 'u', '0', '0', kDigits[code >> 4], kDigits[code & 0xf]};
        else if (byte == '"' || byte == '\\')
            json += {'\\', byte};
        else
            json += byte;
    }
    return json + '"';
}

// A hundred thousand devices of a kilobyte each, as many as one reply may hold.
TEST_F(HostileDaemon, NamesOfAnythingArePrintedAsTheyAre) {
    constexpr size_t kNameAsJson = 950;
    std::string name = everyByte();
    std::array<bool, 256> seen{};
    for (const char byte : name)
        seen[static_cast<unsigned char>(byte)] = true;
    for (unsigned byte = 1; byte < 0xf5; ++byte)
        ASSERT_TRUE(seen[byte] || byte == 0xc0 || byte == 0xc1) << byte;
    name.append(kNameAsJson - asJson(name).size(), 'n');

    const ScriptedPeer peer;
    RunningProgram utility = startUtility({"dev"});
    const UnixStream connection = peer.accept();
    EXPECT_EQ(connection.receiveFrame().size(), 8U);
    std::string payload = R"({"status":"ok","servers":[{"id":1,"devices":[)";
    std::string report;
    const std::string json = asJson(name);
    for (size_t id = 1; id <= stress::kLargeDevices; ++id) {
        const std::string number = std::to_string(id);
        payload += id > 1 ? "," : "";
        payload += R"({"id":)" + number + R"(,"name":)" + json;
        payload += R"(,"vid":1,"pid":2,"rev":3,"port":"","serial":"","state":""})";
        report += "1:" + number + " - 0001:0002:0003 - " + name + ", , \n";
    }
    payload += "]}]}";
    ASSERT_LE(payload.size(), kLongestPayload);
    RecordProperty("replyBytes", std::to_string(payload.size()));
    EXPECT_TRUE(connection.send(frame(0, payload)));
    const Outcome outcome = utility.finish();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_TRUE(outcome.out == report) << outcome.out.size() << ' ' << report.size();
}

TEST_F(HostileDaemon, TextThatIsNoUnicodeIsRefused) {
    for (const char* text :
         {R"("\ud800")", R"("\udc00")", R"("\ud800\ud800")", R"("\ud800x")", R"("\ud8")", R"("\x")",
          "\"\xed\xa0\x80\"", "\"\xed\xbf\xbf\"", "\"\xc0\x80\"", "\"\xe0\x80\x80\"",
          "\"\xf0\x80\x80\x80\"", "\"\xf4\x90\x80\x80\"", "\"\xf5\x80\x80\x80\"", "\"\x80\"",
          "\"\xe2\x82\"", "\"\xff\xfe\"", "\"\n\"", "\"\x1b\"", "\"\x7f"})
        EXPECT_EQ(runUtilityAgainst(frame(0, std::string("{\"status\":") + text + "}"), kList),
                  kCannotParse)
            << testing::PrintToString(text);
}

TEST_F(HostileDaemon, LastOfEqualKeysCounts) {
    EXPECT_EQ(runUtilityAgainst(frame(1, R"({"status":7,"id":"x","status":"ok","id":7})"), kAdd),
              kAdded);
    EXPECT_EQ(runUtilityAgainst(frame(1, R"({"status":"ok","id":7,"\u0073tatus":0})"), kAdd),
              failedWith(5, "Internal error.\n"));
}

TEST_F(HostileDaemon, NumbersOutOfRangeAreNarrowedInTheirWay) {
    const std::string digits(400, '9');
    const std::vector<std::pair<std::string, std::string>> numbers{
        {"-0", "0"},
        {"-1", "4294967295"},
        {"4294967296", "0"},
        {"9223372036854775807", "4294967295"},
        {"9223372036854775808", "0"},
        {"18446744073709551615", "4294967295"},
        {"18446744073709551616", "0"},
        {"-9223372036854775809", "0"},
        {"1e308", "0"},
        {"-1e308", "0"},
        {"1e-999", "0"},
        {digits.substr(0, 300), "0"},
        {"0." + digits, "1"},  // the nearest number that there is
        {"7." + digits + "e0", "8"},
        {"1e309", "0"},
        {"-1e999", "0"},
        {digits, "0"},
    };
    for (const auto& [number, printedNumber] : numbers)
        EXPECT_EQ(runUtilityAgainst(frame(1, R"({"status":"ok","id":)" + number + "}"), kAdd),
                  printed("The server is added with Id: " + printedNumber + ".\n"))
            << number;
    // An exponent that is no 32-bit number itself is not read.
    for (const char* sign : {"", "-"})
        EXPECT_EQ(
            runUtilityAgainst(frame(1, R"({"status":"ok","id":1e)" + (sign + digits) + "}"), kAdd),
            kCannotParse);
}

}  // namespace
